#ifndef ONDARO_API_CCOREAUTH_H
#define ONDARO_API_CCOREAUTH_H

#include <memory>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/ICoreAuthImpl.h"

namespace NOndaroAPI {

/** Device authentication, as the exported functions see it. Forwards. */
class ONDARO_EXPORT CCoreAuth {
 public:
  /**
   * Takes the implementation over.
   *
   * @param impl  deleted with this object; not tested for null
   */
  explicit CCoreAuth(ICoreAuthImpl* impl);
  ~CCoreAuth();

  CCoreAuth(const CCoreAuth&) = delete;
  CCoreAuth& operator=(const CCoreAuth&) = delete;

  /** @copydoc ICoreAuthImpl::GenerateDeviceKeyAndCert() */
  bool GenerateDeviceKeyAndCert(std::string& key, std::string& cert);

  /** @copydoc ICoreAuthImpl::SignHash() */
  bool SignHash(const std::string& key, const std::string& hash, std::string& sign);

  /** @copydoc ICoreAuthImpl::GetModelCertChain() */
  bool GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain);

  /** @copydoc ICoreAuthImpl::GetSystemID() */
  bool GetSystemID(std::string& systemId);

 private:
  std::unique_ptr<ICoreAuthImpl> m_pImpl;
};

}  // namespace NOndaroAPI

#endif
