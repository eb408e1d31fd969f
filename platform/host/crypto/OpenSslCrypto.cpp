#include <openssl/crypto.h>

#include <new>

#include "Certificates.h"
#include "DevelopmentRoot.h"
#include "crypto/DeviceCrypto.h"

namespace ondaro::host {
namespace {

/// What OpenSSL keeps of its algorithms, for one operation of this thread alone: one that failed
/// for want of memory leaves some behind that are missing ever after.
class AlgorithmsScope {
 public:
  AlgorithmsScope() {
    if (m_own == nullptr) {
      throw std::bad_alloc();
    }
  }
  ~AlgorithmsScope() {
    OSSL_LIB_CTX_set0_default(m_callers);
    OSSL_LIB_CTX_free(m_own);
  }
  AlgorithmsScope(const AlgorithmsScope&) = delete;
  AlgorithmsScope& operator=(const AlgorithmsScope&) = delete;

 private:
  OSSL_LIB_CTX* const m_own = OSSL_LIB_CTX_new();
  OSSL_LIB_CTX* const m_callers = OSSL_LIB_CTX_set0_default(m_own);
};

/// Without state: it may be used in the process's last destructors.
class OpenSslCrypto final : public DeviceCrypto {
 public:
  std::string SystemId(const std::string& state) const override {
    const AlgorithmsScope algorithms;
    return KeyIdentifier(*LoadDevelopmentRoot(state).certificate);
  }

  void Generate(const std::string& state, std::string& key,
                std::string& certificate) const override {
    const AlgorithmsScope algorithms;
    const Issuer root = LoadDevelopmentRoot(state);
    const Key deviceKey = MakeKey();
    const Certificate issued =
        IssueDeviceCertificate(root, *deviceKey, KeyIdentifier(*root.certificate));
    key = ToPem(*deviceKey);
    certificate = ToPem(*issued);
  }

  std::string Sign(const std::string& key, const std::string& digest) const override {
    const AlgorithmsScope algorithms;
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
