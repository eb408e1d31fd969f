#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <array>

#include "DoctorChecks.h"
#include "ExitCode.h"
#include "TextFile.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::ctl {
namespace {

using State = Finding::State;

struct Release {
  void operator()(BIO* owned) const noexcept { BIO_free_all(owned); }
  void operator()(X509* owned) const noexcept { X509_free(owned); }
  void operator()(EVP_PKEY_CTX* owned) const noexcept { EVP_PKEY_CTX_free(owned); }
};
template <class T>
using Owned = std::unique_ptr<T, Release>;

[[noreturn]] void Fail(const std::string& message) { throw Failure(ExitCode::Failed, message); }

NOndaroAPI::CCoreAuth& CoreAuth() {
  if (OndaroFactory_GetCoreAuthHandle() == nullptr) {
    Fail("device authentication could not be opened; '--log error' shows why");
  }
  return NOndaroPAL::GetCoreAuth();
}

Owned<X509> ParseCertificate(const std::string& bytes) {
  const Owned<BIO> input(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  Owned<X509> certificate(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
  if (certificate == nullptr) {
    const auto* begin = reinterpret_cast<const unsigned char*>(bytes.data());
    certificate.reset(d2i_X509(nullptr, &begin, static_cast<long>(bytes.size())));
  }
  if (certificate == nullptr) {
    Fail("the certificate is neither PEM nor DER");
  }
  return certificate;
}

bool Verifies(const X509& certificate, const std::string& hash, const std::string& signature) {
  const auto bytes = [](const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  };
  const Owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(X509_get0_pubkey(&certificate), nullptr));
  return context != nullptr && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1 &&
         EVP_PKEY_verify(context.get(), bytes(signature), signature.size(), bytes(hash),
                         hash.size()) == 1;
}

std::string RandomHash() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    Fail("the machine gave no random numbers");
  }
  return {bytes.begin(), bytes.end()};
}

}  // namespace

Finding CheckKeySystem() {
  std::string id;
  if (!CoreAuth().GetSystemID(id) || id.empty()) {
    Fail(
        "the decryption module gave no system identifier: it does not support the key system, or "
        "is out of order; '--log error' shows which");
  }
  return {State::Ok, "the decryption module supports the key system"};
}

Finding CheckDeviceKey(const std::string& keyFile, const std::string& certFile) {
  std::string key;
  std::string certificate;
  if (!keyFile.empty()) {
    key = ReadFile(keyFile);
    certificate = ReadFile(certFile);
  } else if (!CoreAuth().GenerateDeviceKeyAndCert(key, certificate)) {
    Fail("the set generated no key and certificate; '--log error' shows why");
  }
  const std::string hash = RandomHash();
  std::string signature;
  if (!CoreAuth().SignHash(key, hash, signature)) {
    Fail("the set did not sign with the device key; '--log error' shows why");
  }
  if (!Verifies(*ParseCertificate(certificate), hash, signature)) {
    Fail(
        "what the key signs does not verify with the certificate: they are not of one pair; make "
        "a new one with 'ondaro-ctl auth generate'");
  }
  return {State::Ok, "what the device key signs verifies with its certificate"};
}

}  // namespace ondaro::ctl
