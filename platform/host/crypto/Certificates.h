#ifndef ONDARO_PLATFORM_HOST_CERTIFICATES_H
#define ONDARO_PLATFORM_HOST_CERTIFICATES_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace ondaro::host {

// P-256 keys, certificates and signatures for development: nothing here is protected as the keys
// of a real set are. Functions throw CertificateError and leave OpenSSL's error queue as it was.

class CertificateError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <auto Free>
struct Releaser {
  template <typename Object>
  void operator()(Object* object) const {
    Free(object);
  }
};

using Key = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Releaser<X509_free>>;

struct Issuer {
  Key key;
  Certificate certificate;
};

/// Keeps OpenSSL usable in the process's last destructors. Before the first use of the others.
void KeepCryptoUntilExit();

Key MakeKey();

/// PKCS#8 in PEM. Only an unencrypted P-256 private key is read.
std::string ToPem(EVP_PKEY& key);
Key KeyFromPem(const std::string& pem);

std::string ToPem(X509& certificate);
Certificate CertificateFromPem(const std::string& pem);

Certificate MakeRoot(EVP_PKEY& key);
Certificate IssueDeviceCertificate(const Issuer& root, EVP_PKEY& deviceKey,
                                   const std::string& systemId);

bool BelongTogether(EVP_PKEY& key, X509& certificate);

/// 32 hexadecimal digits, the beginning of the SHA-256 of the public key.
std::string KeyIdentifier(X509& certificate);

/// ECDSA over a digest of 1 to 64 bytes, DER.
std::string Sign(EVP_PKEY& key, const std::string& digest);

}  // namespace ondaro::host

#endif
