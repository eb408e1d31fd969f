/**
 * The decryption module of an ordinary Linux machine: platform/ContentDecryptionModule.h.
 *
 * For development only. Its keys are lying about in files and strings, and its certificates,
 * signed by a root of the machine's own, say so in their names.
 */
#include "platform/ContentDecryptionModule.h"

#include <memory>
#include <utility>

#include "HostKeys.h"
#include "Seam.h"
#include "StateDirectory.h"
#include "crypto/DeviceCrypto.h"

namespace {

using namespace ondaro::host;

constexpr char KEY_SYSTEM[] = "com.widevine.alpha";
constexpr int SUPPORTED = 11;
constexpr int NOT_SUPPORTED = 0;

constexpr char SYSTEM_ID_QUERY[] = "getSystemId";
constexpr char SYSTEM_ID_PARAMETER[] = " ";

constexpr int SUCCESS = 0;
constexpr int FAILURE = -1;

std::string SimulatedFault(const char* key) { return ReadSettingsText(key).value_or(""); }

int GetSystemId(const DeviceCrypto& crypto, std::string& result) {
  const std::string fault = SimulatedFault(keys::CDM_SYSTEM_ID);
  if (fault == keys::FAULT_FAIL) {
    return FAILURE;
  }
  result = fault == keys::FAULT_EMPTY ? "" : crypto.SystemId(StateDirectory());
  return SUCCESS;
}

int GenerateKeyAndCertificate(const DeviceCrypto& crypto, std::string& key, std::string& cert) {
  const std::string fault = SimulatedFault(keys::CDM_GENERATE);
  if (fault == keys::FAULT_FAIL) {
    return FAILURE;
  }
  std::string keyText;
  std::string certificateText;
  crypto.Generate(StateDirectory(), keyText, certificateText);
  key = fault == keys::FAULT_EMPTY_KEY ? "" : std::move(keyText);
  cert = fault == keys::FAULT_EMPTY_CERT ? "" : std::move(certificateText);
  return SUCCESS;
}

int SignDigest(const DeviceCrypto& crypto, const std::string& key, const std::string& hash,
               std::string& sign) {
  const std::string fault = SimulatedFault(keys::CDM_SIGN);
  if (fault == keys::FAULT_FAIL) {
    return FAILURE;
  }
  sign = fault == keys::FAULT_EMPTY ? "" : crypto.Sign(key, hash);
  return SUCCESS;
}

/// Has looked up what its end depends on: it may be destroyed when the process's other libraries
/// are already gone.
class Instance : public eme::IEME {
 public:
  explicit Instance(const DeviceCrypto& crypto)
      : m_crypto(crypto),
        m_closeResult(SimulatedFault(keys::CDM_DESTROY) == keys::FAULT_FAIL ? FAILURE : SUCCESS) {}

  int CloseResult() const { return m_closeResult; }

  int getStringProperty(const std::string& query, const std::string& parameter, std::string& result,
                        const std::string& /*option*/) override {
    return AtSeam(__func__, FAILURE, [&] {
      if (query != SYSTEM_ID_QUERY || parameter != SYSTEM_ID_PARAMETER) {
        return FAILURE;
      }
      return GetSystemId(m_crypto, result);
    });
  }

 protected:
  const DeviceCrypto& m_crypto;

 private:
  const int m_closeResult;
};

class InstanceWithKeys final : public Instance, public IWVCDM {
 public:
  using Instance::Instance;

  int generateDeviceKeyAndCert(std::string& key, std::string& cert) override {
    return AtSeam(__func__, FAILURE,
                  [&] { return GenerateKeyAndCertificate(m_crypto, key, cert); });
  }

  int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) override {
    return AtSeam(__func__, FAILURE, [&] { return SignDigest(m_crypto, key, hash, sign); });
  }
};

}  // namespace

namespace eme {

void IEventListener::onHostNetwork(const std::string& /*session*/) {}

int IEME::isKeySystemSupported(const std::string& keySystem) {
  return AtSeam(__func__, NOT_SUPPORTED, [&] {
    const bool supported =
        keySystem == KEY_SYSTEM && SimulatedFault(keys::CDM_KEY_SYSTEM) != keys::FAULT_UNSUPPORTED;
    return supported ? SUPPORTED : NOT_SUPPORTED;
  });
}

IEME* IEME::create(IEventListener* /*listener*/, const std::string& keySystem, bool /*secure*/,
                   CDM_MODEL /*model*/) {
  return AtSeam(__func__, static_cast<IEME*>(nullptr), [&]() -> IEME* {
    const std::string fault = SimulatedFault(keys::CDM_CREATE);
    if (isKeySystemSupported(keySystem) != SUPPORTED || fault == keys::FAULT_FAIL) {
      return nullptr;
    }
    const DeviceCrypto& crypto = LoadDeviceCrypto();
    if (fault == keys::FAULT_WITHOUT_KEYS) {
      return std::make_unique<Instance>(crypto).release();
    }
    return std::make_unique<InstanceWithKeys>(crypto).release();
  });
}

int IEME::destroy(IEME* instance) {
  const std::unique_ptr<Instance> owned(dynamic_cast<Instance*>(instance));
  return owned == nullptr ? FAILURE : owned->CloseResult();
}

}  // namespace eme
