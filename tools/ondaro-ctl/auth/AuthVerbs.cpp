#include "ondaro/OndaroApi.h"
#include "properties/Properties.h"
#include "support/LineReader.h"
#include "support/NewFile.h"
#include "support/Text.h"
#include "support/Verbs.h"

namespace ondaro::ctl {
namespace {

constexpr mode_t ONLY_OWNER = 0600;
constexpr mode_t EVERYBODY_READS = 0644;

struct GenerateOptions {
  std::string keyFile;
  std::string certFile;
  bool force = false;
};

struct SignOptions {
  std::string keyFile;
  std::string hash;
  std::string hashFile;
  std::string outFile;
  bool force = false;
};

/// Bytes that the library filled.
class Record {
 public:
  Record() = default;
  ~Record() { OndaroApi_CoreAuth_DestroyCoreAuthInfo(&m_record); }

  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  OndaroApi_CoreAuthInfoRW_t* ToFill() { return &m_record; }
  std::string_view Bytes() const { return {m_record.data, m_record.length}; }

 private:
  OndaroApi_CoreAuthInfoRW_t m_record{};
};

OndaroApi_CoreAuthInfoRO_t ViewOf(const std::string& bytes) {
  if (bytes.size() > UINT32_MAX) {
    throw Failure(ExitCode::Failed, "a key or hash of 4 GiB and more cannot be used");
  }
  return {bytes.data(), static_cast<std::uint32_t>(bytes.size())};
}

OndaroApi_CoreAuth_h CoreAuth() {
  const OndaroApi_CoreAuth_h handle = OndaroFactory_GetCoreAuthHandle();
  if (handle == nullptr) {
    throw Failure(ExitCode::Failed, "device authentication could not be opened" + SeeLog());
  }
  return handle;
}

void Generate(const Output& output, const GenerateOptions& options) {
  if (options.keyFile == options.certFile) {
    throw Failure(ExitCode::Usage, "key and certificate go into two files");
  }
  NewFile keyFile(options.keyFile, ONLY_OWNER, options.force);
  NewFile certFile(options.certFile, EVERYBODY_READS, options.force);
  Record key;
  Record cert;
  if (!OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(CoreAuth(), key.ToFill(), cert.ToFill())) {
    throw Failure(ExitCode::Failed, "the set generated no key and certificate" + SeeLog());
  }
  keyFile.Write(key.Bytes());
  certFile.Write(cert.Bytes());
  keyFile.Commit();
  certFile.Commit();
  output.Note("key in " + options.keyFile + ", certificate in " + options.certFile);
}

std::string HashToSign(const SignOptions& options) {
  if (options.hash.empty() == options.hashFile.empty()) {
    throw Failure(ExitCode::Usage, "give the hash once: with --hash HEX or --hash-file FILE");
  }
  if (options.hash.empty()) {
    return LineReader(options.hashFile).ReadWhole();
  }
  const std::optional<std::string> bytes = FromHex(options.hash);
  if (!bytes) {
    throw Failure(ExitCode::Usage, "--hash takes pairs of hexadecimal digits, as sha256sum prints");
  }
  return *bytes;
}

void PrintSignature(const Output& output, std::string_view signature) {
  Json::Value object;
  object["signature"] = ToHex(signature);
  output.Result(object, {ToHex(signature), {}, {}});
}

void Sign(const Output& output, const SignOptions& options) {
  const std::string hash = HashToSign(options);
  const std::string key = LineReader(options.keyFile).ReadWhole();
  const OndaroApi_CoreAuthInfoRO_t keyView = ViewOf(key);
  const OndaroApi_CoreAuthInfoRO_t hashView = ViewOf(hash);
  Record signature;
  if (!OndaroApi_CoreAuth_SignHash(CoreAuth(), &keyView, &hashView, signature.ToFill())) {
    throw Failure(ExitCode::Failed, "the set did not sign: is " + options.keyFile +
                                        " a device key, and the hash a hash?" + SeeLog().substr(1));
  }
  if (options.outFile.empty()) {
    PrintSignature(output, signature.Bytes());
    return;
  }
  NewFile file(options.outFile, EVERYBODY_READS, options.force);
  file.Write(signature.Bytes());
  file.Commit();
  output.Note("signature in " + options.outFile);
}

void SystemId(const Output& output, const NoOptions&) {
  const std::optional<std::string> id = Read(FindProperty("SYSTEM_ID"));
  if (!id) {
    throw Failure(ExitCode::Failed, "the set gave no system identifier" + SeeLog());
  }
  Json::Value object;
  object["system_id"] = JsonText(*id);
  output.Value(object, *id);
}

CLI::Option& AddForce(CLI::App& verb, bool& force) {
  return *verb.add_flag("--force", force, "Replace files that are there");
}

}  // namespace

void AddAuthVerbs(CLI::App& app, Session& session) {
  CLI::App& auth = *app.add_subcommand("auth", "Device key, certificate and signature");
  auth.require_subcommand(1);

  auto generated = std::make_shared<GenerateOptions>();
  CLI::App& generate = *auth.add_subcommand("generate", "Write a new device key and certificate");
  generate.add_option("--key", generated->keyFile, "Where the key goes, readable by you alone")
      ->required()
      ->type_name("FILE");
  generate.add_option("--cert", generated->certFile, "Where the certificate goes")
      ->required()
      ->type_name("FILE");
  AddForce(generate, generated->force);
  OnVerb(generate, session, generated, Generate);

  auto signing = std::make_shared<SignOptions>();
  CLI::App& sign = *auth.add_subcommand("sign", "Sign a hash, print the signature in hexadecimal");
  sign.add_option("--key", signing->keyFile, "The device key")->required()->type_name("FILE");
  sign.add_option("--hash", signing->hash, "The hash in hexadecimal")->type_name("HEX");
  sign.add_option("--hash-file", signing->hashFile,
                  "The hash as it is, in a file; '-' for standard input")
      ->type_name("FILE");
  CLI::Option* const out =
      sign.add_option("--out", signing->outFile, "Write the signature as it is into a file instead")
          ->type_name("FILE");
  AddForce(sign, signing->force).needs(out);
  OnVerb(sign, session, signing, Sign);

  CLI::App& systemId = *auth.add_subcommand("system-id", "Print the DRM system identifier");
  OnVerb(systemId, session, std::make_shared<NoOptions>(), SystemId);
}

}  // namespace ondaro::ctl
