#include "Verbs.h"
#include "properties/Properties.h"
#include "support/NewFile.h"
#include "text/LineReader.h"
#include "text/Text.h"

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

void Generate(const Output& output, const GenerateOptions& options) {
  Require(options.keyFile != options.certFile, "key and certificate go into two files",
          ExitCode::Usage);
  NewFile keyFile(options.keyFile, ONLY_OWNER, options.force);
  NewFile certFile(options.certFile, EVERYBODY_READS, options.force);
  std::string key;
  std::string cert;
  RequireOfSet(CoreAuth().GenerateDeviceKeyAndCert(key, cert),
               "the set generated no key and certificate");
  keyFile.Write(key);
  certFile.Write(cert);
  keyFile.Commit();
  certFile.Commit();
  output.Note("key in " + options.keyFile + ", certificate in " + options.certFile);
}

std::string HashToSign(const SignOptions& options) {
  Require(options.hash.empty() != options.hashFile.empty(),
          "give the hash once: with --hash HEX or --hash-file FILE", ExitCode::Usage);
  if (options.hash.empty()) {
    return LineReader(options.hashFile).ReadWhole();
  }
  const std::optional<std::string> bytes = FromHex(options.hash);
  Require(bytes.has_value(), "--hash takes pairs of hexadecimal digits, as sha256sum prints",
          ExitCode::Usage);
  return *bytes;
}

void Sign(const Output& output, const SignOptions& options) {
  const std::string hash = HashToSign(options);
  const std::string key = LineReader(options.keyFile).ReadWhole();
  std::string signature;
  if (!CoreAuth().SignHash(key, hash, signature)) {
    throw Failure("the set did not sign: is " + options.keyFile +
                  " a device key, and the hash a hash?" + SeeLog().substr(1));
  }
  if (options.outFile.empty()) {
    const std::string digits = ToHex(signature);
    output.Result(JsonObject({{"signature", digits}}), {digits, {}, {}});
    return;
  }
  NewFile file(options.outFile, EVERYBODY_READS, options.force);
  file.Write(signature);
  file.Commit();
  output.Note("signature in " + options.outFile);
}

void SystemId(const Output& output, const NoOptions&) {
  const std::optional<std::string> id = Read(FindProperty("SYSTEM_ID"));
  RequireOfSet(id.has_value(), "the set gave no system identifier");
  output.Value(JsonObject({{"system_id", JsonText(*id)}}), *id);
}

CLI::Option* AddFile(CLI::App& verb, const char* name, std::string& path, const char* description) {
  return verb.add_option(name, path, description)->type_name("FILE");
}

CLI::Option* AddForce(CLI::App& verb, bool& force) {
  return verb.add_flag("--force", force, "Replace files that are there");
}

}  // namespace

void AddAuthVerbs(CLI::App& app, Session& session) {
  CLI::App& auth = *app.add_subcommand("auth", "Device key, certificate and signature");
  auth.require_subcommand(1);

  auto [generate, generated] =
      AddVerb(auth, session, "generate", "Write a new device key and certificate", Generate);
  AddFile(generate, "--key", generated.keyFile, "Where the key goes, readable by you alone")
      ->required();
  AddFile(generate, "--cert", generated.certFile, "Where the certificate goes")->required();
  AddForce(generate, generated.force);

  auto [sign, signing] =
      AddVerb(auth, session, "sign", "Sign a hash, print the signature in hexadecimal", Sign);
  AddFile(sign, "--key", signing.keyFile, "The device key")->required();
  sign.add_option("--hash", signing.hash, "The hash in hexadecimal")->type_name("HEX");
  AddFile(sign, "--hash-file", signing.hashFile,
          "The hash as it is, in a file; '-' for standard input");
  CLI::Option* const out =
      AddFile(sign, "--out", signing.outFile, "Write the signature as it is into a file instead");
  AddForce(sign, signing.force)->needs(out);

  AddVerb(auth, session, "system-id", "Print the DRM system identifier", SystemId);
}

}  // namespace ondaro::ctl
