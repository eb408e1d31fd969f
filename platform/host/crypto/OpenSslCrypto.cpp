#include "Certificates.h"
#include "DevelopmentRoot.h"
#include "crypto/DeviceCrypto.h"

namespace ondaro::host {
namespace {

/// Without state: it may be used in the process's last destructors.
class OpenSslCrypto final : public DeviceCrypto {
 public:
  std::string SystemId(const std::string& state) const override {
    return KeyIdentifier(*LoadDevelopmentRoot(state).certificate);
  }

  void Generate(const std::string& state, std::string& key,
                std::string& certificate) const override {
    const Issuer root = LoadDevelopmentRoot(state);
    const Key deviceKey = MakeKey();
    const Certificate issued =
        IssueDeviceCertificate(root, *deviceKey, KeyIdentifier(*root.certificate));
    key = ToPem(*deviceKey);
    certificate = ToPem(*issued);
  }

  std::string Sign(const std::string& key, const std::string& digest) const override {
    return host::Sign(*KeyFromPem(key), digest);
  }
};

}  // namespace

[[gnu::visibility("default")]] const DeviceCrypto* ondaro_host_crypto_1() noexcept {
  static const OpenSslCrypto crypto;
  KeepCryptoUntilExit();
  return &crypto;
}

}  // namespace ondaro::host
