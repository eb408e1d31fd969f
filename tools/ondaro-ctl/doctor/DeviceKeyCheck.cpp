#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <random>

#include "doctor/DoctorChecks.h"
#include "properties/Properties.h"
#include "support/ExitCode.h"
#include "text/LineReader.h"

namespace ondaro::ctl {
namespace {

using State = Finding::State;

/// A function of libcrypto, which is loaded here and not with the tool: no other verb needs it.
#define CRYPTO(function) Crypto<decltype(function)>(#function)

template <class Function>
Function* Crypto(const char* name) {
  static void* const LIBRARY = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL);
  void* const found = LIBRARY == nullptr ? nullptr : dlsym(LIBRARY, name);
  Require(found != nullptr, std::string("libcrypto.so.3, which verifies signatures, lacks ") +
                                name + " or is not installed");
  return reinterpret_cast<Function*>(found);
}

/// Releases what libcrypto made.
template <class T>
using Owned = std::unique_ptr<T, void (*)(T*)>;

Owned<X509> ParseCertificate(const std::string& bytes) {
  const Owned<BIO> input(CRYPTO(BIO_new_mem_buf)(bytes.data(), static_cast<int>(bytes.size())),
                         CRYPTO(BIO_free_all));
  Owned<X509> certificate(CRYPTO(PEM_read_bio_X509)(input.get(), nullptr, nullptr, nullptr),
                          CRYPTO(X509_free));
  if (certificate == nullptr) {
    const auto* begin = reinterpret_cast<const unsigned char*>(bytes.data());
    certificate.reset(CRYPTO(d2i_X509)(nullptr, &begin, static_cast<long>(bytes.size())));
  }
  Require(certificate != nullptr, "the certificate is neither PEM nor DER");
  return certificate;
}

bool Verifies(const X509& certificate, const std::string& hash, const std::string& signature) {
  const auto bytes = [](const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  };
  const Owned<EVP_PKEY_CTX> context(
      CRYPTO(EVP_PKEY_CTX_new)(CRYPTO(X509_get0_pubkey)(&certificate), nullptr),
      CRYPTO(EVP_PKEY_CTX_free));
  return context != nullptr && CRYPTO(EVP_PKEY_verify_init)(context.get()) == 1 &&
         CRYPTO(EVP_PKEY_CTX_set_signature_md)(context.get(), CRYPTO(EVP_sha256)()) == 1 &&
         CRYPTO(EVP_PKEY_verify)(context.get(), bytes(signature), signature.size(), bytes(hash),
                                 hash.size()) == 1;
}

std::string RandomHash() {
  constexpr int HASH_SIZE = 32;
  std::string hash(HASH_SIZE, '\0');
  std::random_device random;
  for (char& byte : hash) {
    byte = static_cast<char>(random() & 0xffU);
  }
  return hash;
}

}  // namespace

Finding CheckKeySystem(bool& isAbsent) {
  std::string id;
  if (CoreAuth().GetSystemID(id) && !id.empty()) {
    return {State::Ok, "the decryption module supports the key system"};
  }
  // Without a module that has the key system all its operations fail.
  std::string key;
  std::string certificate;
  isAbsent = id.empty() && !CoreAuth().GenerateDeviceKeyAndCert(key, certificate) &&
             !CoreAuth().SignHash("", RandomHash(), key);
  if (isAbsent) {
    return {State::Absent,
            "the set has no decryption module that supports the key system; fine where none is to "
            "be, else" +
                SeeLog().substr(1)};
  }
  throw Failure("the decryption module gave no system identifier" + SeeLog());
}

Finding CheckDeviceKey(const std::string& keyFile, const std::string& certFile) {
  std::string key;
  std::string certificate;
  if (!keyFile.empty()) {
    key = LineReader(keyFile).ReadWhole();
    certificate = LineReader(certFile).ReadWhole();
  } else if (!CoreAuth().GenerateDeviceKeyAndCert(key, certificate)) {
    throw Failure("the set generated no key and certificate" + SeeLog());
  }
  const std::string hash = RandomHash();
  std::string signature;
  RequireOfSet(CoreAuth().SignHash(key, hash, signature),
               "the set did not sign with the device key");
  Require(Verifies(*ParseCertificate(certificate), hash, signature),
          "what the key signs does not verify with the certificate: they are not of one pair; make "
          "a new one with 'ondaro-ctl auth generate'");
  return {State::Ok, "what the device key signs verifies with its certificate"};
}

}  // namespace ondaro::ctl
