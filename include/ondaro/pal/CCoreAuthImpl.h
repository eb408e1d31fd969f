#ifndef ONDARO_PAL_CCOREAUTHIMPL_H
#define ONDARO_PAL_CCOREAUTHIMPL_H

#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/ICoreAuthImpl.h"
#include "platform/ContentDecryptionModule.h"

namespace NOndaroPAL {

/**
 * Device authentication over the set's content decryption module.
 *
 * Opens one instance for the Widevine key system and closes it with itself. Without an instance
 * the object exists and every request but GetModelCertChain fails. Exceptions of the module pass
 * through.
 */
class ONDARO_EXPORT CCoreAuthImpl : public eme::IEventListener, public NOndaroAPI::ICoreAuthImpl {
 public:
  CCoreAuthImpl();

  void onMessage(const std::string& session, const eme::MessageType& type,
                 const std::string& message) override;
  void onKeyStatusesChange(const std::string& session) override;
  void onRemoveComplete(const std::string& session) override;

  ~CCoreAuthImpl() override;

  bool GenerateDeviceKeyAndCert(std::string& key, std::string& cert) override;
  bool SignHash(const std::string& key, const std::string& hash, std::string& sign) override;
  bool GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain) override;
  bool GetSystemID(std::string& systemId) override;

 private:
  bool _GenerateDeviceKeyAndCert(std::string& key, std::string& cert);
  bool _SignHash(const std::string& key, const std::string& hash, std::string& sign);
  bool _GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain);

  eme::IEME* cdm_ = nullptr;  // owned; null without an instance; fixed by the constructor
};

}  // namespace NOndaroPAL

#endif
