#ifndef ONDARO_API_ICOREAUTHIMPL_H
#define ONDARO_API_ICOREAUTHIMPL_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ondaro/Export.h"

struct OndaroApi_CoreAuthInfoRW;

namespace NOndaroAPI {

/**
 * What device authentication needs of a platform. Every operation is true on success; after a
 * failure its strings hold whatever the decryption module left in them. Nothing is locked.
 */
class ONDARO_EXPORT ICoreAuthImpl : private boost::noncopyable {
 public:
  virtual ~ICoreAuthImpl();

  /**
   * Generates the device key and its certificate.
   *
   * @param key   receives the key, not empty on success
   * @param cert  receives the certificate, not empty on success
   * @return true on success
   */
  virtual bool GenerateDeviceKeyAndCert(std::string& key, std::string& cert) = 0;

  /**
   * Signs a hash with the device key.
   *
   * @param key   the key as generated
   * @param hash  the hash
   * @param sign  receives the signature, not empty on success
   * @return true on success
   */
  virtual bool SignHash(const std::string& key, const std::string& hash, std::string& sign) = 0;

  /**
   * The model's certificate chain, which this platform does not have.
   *
   * @param certChain  left as it is
   * @return true
   */
  virtual bool GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain) = 0;

  /**
   * The DRM system identifier.
   *
   * @param systemId  receives it unchanged; it may be empty
   * @return true on success
   */
  virtual bool GetSystemID(std::string& systemId) = 0;
};

}  // namespace NOndaroAPI

#endif
