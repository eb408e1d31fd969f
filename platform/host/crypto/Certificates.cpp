#include "Certificates.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstring>

namespace ondaro::host {
namespace {

using Bio = std::unique_ptr<BIO, Releaser<BIO_free>>;
using BigNumber = std::unique_ptr<BIGNUM, Releaser<BN_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Releaser<X509_EXTENSION_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;

constexpr char CURVE[] = "P-256";
constexpr char CURVE_NAME[] = "prime256v1";
constexpr char ROOT_NAME[] = "Ondaro host root, development only";
constexpr char DEVICE_NAME[] = "Ondaro host device, development only";
// As long as a certificate can say: a set may have been started without knowing the time.
constexpr char FROM[] = "19700101000000Z";
constexpr char TO[] = "99991231235959Z";
constexpr int SERIAL_BITS = 128;
constexpr std::size_t IDENTIFIER_BYTES = 16;

/// The entries that a scope adds to the error queue are its own; the caller's stay.
class ErrorScope {
 public:
  ErrorScope() { ERR_set_mark(); }
  ~ErrorScope() { ERR_pop_to_mark(); }
  ErrorScope(const ErrorScope&) = delete;
  ErrorScope& operator=(const ErrorScope&) = delete;
};

[[noreturn]] void Fail(const char* what) {
  const unsigned long error = ERR_peek_last_error();
  const char* const reason = error == 0 ? nullptr : ERR_reason_error_string(error);
  throw CertificateError(reason == nullptr ? what : std::string(what) + ": " + reason);
}

void Require(bool done, const char* what) {
  if (!done) {
    Fail(what);
  }
}

template <typename Pointer>
Pointer Required(Pointer pointer, const char* what) {
  Require(pointer != nullptr, what);
  return pointer;
}

Bio ReadFrom(const std::string& text) {
  Require(text.size() <= INT_MAX, "text too long");
  return Required(Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))), "memory");
}

std::string Content(BIO& bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(&bio, &data);
  Require(size > 0, "nothing written");
  return {data, static_cast<std::size_t>(size)};
}

/// Without it, an encrypted key asks for its password on the terminal.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return -1; }

bool IsOnCurve(EVP_PKEY& key) {
  char name[sizeof CURVE_NAME + 1] = {};
  return EVP_PKEY_is_a(&key, "EC") == 1 &&
         EVP_PKEY_get_group_name(&key, name, sizeof name, nullptr) == 1 &&
         std::strcmp(name, CURVE_NAME) == 0;
}

void SetSerial(X509& certificate) {
  const BigNumber serial = Required(BigNumber(BN_new()), "memory");
  Require(BN_rand(serial.get(), SERIAL_BITS, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1,
          "random serial");
  Require(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(&certificate)) != nullptr,
          "serial");
}

void AddName(X509_NAME* name, const char* field, const std::string& value) {
  Require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(value.data()),
                                     static_cast<int>(value.size()), -1, 0) == 1,
          "name");
}

void AddExtension(X509& certificate, X509& issuer, int id, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, &issuer, &certificate, nullptr, nullptr, 0);
  const Extension extension =
      Required(Extension(X509V3_EXT_conf_nid(nullptr, &context, id, value)), "extension");
  Require(X509_add_ext(&certificate, extension.get(), -1) == 1, "extension");
}

/// A certificate without name and extensions.
Certificate Blank(EVP_PKEY& key) {
  Certificate certificate = Required(Certificate(X509_new()), "memory");
  SetSerial(*certificate);
  Require(X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
              ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()), FROM) == 1 &&
              ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()), TO) == 1 &&
              X509_set_pubkey(certificate.get(), &key) == 1,
          "certificate");
  return certificate;
}

void Seal(X509& certificate, X509_NAME* issuer, EVP_PKEY& key) {
  Require(X509_set_issuer_name(&certificate, issuer) == 1, "issuer");
  Require(X509_sign(&certificate, &key, EVP_sha256()) > 0, "certificate signature");
}

}  // namespace

void KeepCryptoUntilExit() { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); }

Key MakeKey() {
  const ErrorScope errors;
  return Required(Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", CURVE)), "key generation");
}

std::string ToPem(EVP_PKEY& key) {
  const ErrorScope errors;
  const Bio bio = Required(Bio(BIO_new(BIO_s_mem())), "memory");
  Require(
      PEM_write_bio_PKCS8PrivateKey(bio.get(), &key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
      "key to PEM");
  return Content(*bio);
}

Key KeyFromPem(const std::string& pem) {
  const ErrorScope errors;
  const Bio bio = ReadFrom(pem);
  Key key = Required(Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassword, nullptr)),
                     "not a private key");
  Require(IsOnCurve(*key), "not a P-256 key");
  return key;
}

std::string ToPem(X509& certificate) {
  const ErrorScope errors;
  const Bio bio = Required(Bio(BIO_new(BIO_s_mem())), "memory");
  Require(PEM_write_bio_X509(bio.get(), &certificate) == 1, "certificate to PEM");
  return Content(*bio);
}

Certificate CertificateFromPem(const std::string& pem) {
  const ErrorScope errors;
  const Bio bio = ReadFrom(pem);
  return Required(Certificate(PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr)),
                  "not a certificate");
}

Certificate MakeRoot(EVP_PKEY& key) {
  const ErrorScope errors;
  Certificate root = Blank(key);
  X509_NAME* const name = X509_get_subject_name(root.get());
  AddName(name, "CN", ROOT_NAME);
  AddExtension(*root, *root, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  AddExtension(*root, *root, NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(*root, *root, NID_subject_key_identifier, "hash");
  Seal(*root, name, key);
  return root;
}

Certificate IssueDeviceCertificate(const Issuer& root, EVP_PKEY& deviceKey,
                                   const std::string& systemId) {
  const ErrorScope errors;
  Certificate device = Blank(deviceKey);
  X509_NAME* const name = X509_get_subject_name(device.get());
  AddName(name, "CN", DEVICE_NAME);
  AddName(name, "serialNumber", systemId);
  AddExtension(*device, *root.certificate, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(*device, *root.certificate, NID_key_usage, "critical,digitalSignature");
  AddExtension(*device, *root.certificate, NID_subject_key_identifier, "hash");
  AddExtension(*device, *root.certificate, NID_authority_key_identifier, "keyid:always");
  Seal(*device, X509_get_subject_name(root.certificate.get()), *root.key);
  return device;
}

bool BelongTogether(EVP_PKEY& key, X509& certificate) {
  const ErrorScope errors;
  return X509_check_private_key(&certificate, &key) == 1;
}

std::string KeyIdentifier(X509& certificate) {
  const ErrorScope errors;
  constexpr char HEX[] = "0123456789abcdef";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  Require(X509_pubkey_digest(&certificate, EVP_sha256(), digest, &size) == 1 &&
              size >= IDENTIFIER_BYTES,
          "digest of the public key");
  std::string text;
  for (std::size_t i = 0; i < IDENTIFIER_BYTES; ++i) {
    text += HEX[digest[i] >> 4];
    text += HEX[digest[i] & 0xf];
  }
  return text;
}

std::string Sign(EVP_PKEY& key, const std::string& digest) {
  const ErrorScope errors;
  Require(!digest.empty() && digest.size() <= EVP_MAX_MD_SIZE, "not a digest");
  const auto* const bytes = reinterpret_cast<const unsigned char*>(digest.data());
  const KeyContext context =
      Required(KeyContext(EVP_PKEY_CTX_new_from_pkey(nullptr, &key, nullptr)), "signing");
  std::size_t size = 0;
  Require(EVP_PKEY_sign_init(context.get()) == 1 &&
              EVP_PKEY_sign(context.get(), nullptr, &size, bytes, digest.size()) == 1,
          "signing");
  std::string signature(size, '\0');
  Require(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                        bytes, digest.size()) == 1,
          "signing");
  signature.resize(size);
  return signature;
}

}  // namespace ondaro::host
