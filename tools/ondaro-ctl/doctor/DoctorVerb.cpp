#include <dlfcn.h>

#include <array>
#include <filesystem>
#include <functional>

#include "Verbs.h"
#include "doctor/DoctorChecks.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;
using State = Finding::State;

struct DoctorOptions {
  std::string keyFile;
  std::string certFile;
  std::string description = ONDARO_INTERFACE_DESCRIPTION;
};

/// The file that the process has the library from, links resolved.
std::string LibraryFile() {
  Dl_info info{};
  const auto* const exported = reinterpret_cast<const void*>(&OndaroFactory_GetSystemConfigHandle);
  std::error_code ignored;
  return dladdr(exported, &info) == 0
             ? std::string()
             : std::filesystem::canonical(info.dli_fname, ignored).string();
}

bool KeepsText(const std::string& key, const std::string& text) {
  std::string kept;
  return CPALUtils::SetregSetStr(key, text) && CPALUtils::SetregGetStr(key, kept) && kept == text;
}

bool KeepsNumber(const std::string& key, int number) {
  int kept = 0;
  return CPALUtils::SetregSetInt(key, number) && CPALUtils::SetregGetInt(key, kept) &&
         kept == number;
}

Finding CheckVersion() {
  const std::string headers = ONDARO_CTL_VERSION;
  const std::string file = LibraryFile();
  const std::string mark = ".so.";
  const std::size_t found = file.rfind(mark);
  if (found == std::string::npos) {
    return {State::Unknown, "the library's file '" + file + "' does not tell its version"};
  }
  const std::string library = file.substr(found + mark.size());
  Require((headers + ".").rfind(library + ".", 0) == 0, "the library is " + library + " (" + file +
                                                            "), the headers " + headers +
                                                            "; install both of one release");
  return {State::Ok, "the library is " + library + ", the headers " + headers};
}

Finding CheckStore() {
  // Below each of the roots that stores keep differently: for good, and until the set is restarted.
  for (const std::string key : {"db/ondaro-ctl/doctor", "memory/ondaro-ctl/doctor"}) {
    std::string before;
    CPALUtils::SetregGetStr(key, before);
    // No key can be removed: one that was not there stays, empty.
    const bool isKept = KeepsText(key, "probe") && KeepsNumber(key, -1) && KeepsText(key, before);
    RequireOfSet(isKept, "the settings store does not keep what is written to '" + key + "'");
  }
  const std::optional<std::string> directory = StateDirectory();
  return {State::Ok, "the settings store keeps what is written" +
                         (directory ? ", in " + *directory : std::string())};
}

Finding Examine(const std::function<Finding()>& check) {
  try {
    return check();
  } catch (const Failure& failure) {
    return {failure.Code() == ExitCode::BusAbsent ? State::Absent : State::Failed, failure.what()};
  } catch (...) {
    return {State::Failed, "the library failed" + SeeLog()};
  }
}

void Print(const Output& output, std::string check, const Finding& finding) {
  constexpr std::size_t STATE_WIDTH = 9;
  constexpr std::size_t CHECK_WIDTH = 13;
  constexpr std::array<const char*, 4> STATES = {"ok", "failed", "absent", "unknown"};
  std::string state = STATES[static_cast<std::size_t>(finding.state)];
  const Json::Value object =
      JsonObject({{"check", check}, {"state", state}, {"message", JsonText(finding.message)}});
  const bool isOk = finding.state == State::Ok;
  state.resize(STATE_WIDTH, ' ');
  check.resize(CHECK_WIDTH, ' ');
  output.Result(object, {isOk ? state : "", isOk ? "" : state, check + finding.message});
}

void RunDoctor(const Output& output, const DoctorOptions& options) {
  Require(options.keyFile.empty() == options.certFile.empty(), "--key and --cert go together",
          ExitCode::Usage);
  Finding description = Examine([&] { return CheckDescription(options.description); });
  bool lacksModule = false;
  BusChecks bus;
  const std::vector<std::pair<std::string, std::function<Finding()>>> checks = {
      {"version", CheckVersion},
      {"store", CheckStore},
      {"key-system", [&] { return CheckKeySystem(lacksModule); }},
      {"device-key",
       [&] {
         return lacksModule ? Finding{State::Absent, "needs the decryption module"}
                            : CheckDeviceKey(options.keyFile, options.certFile);
       }},
      {"bus", [&] { return bus.Reach(); }},
      {"daemon", [&] { return bus.Daemon(); }},
      {"own", [&] { return bus.Own(); }},
      {"call", [&] { return bus.Call(); }},
      {"hear", [&] { return bus.Hear(); }},
      {"description", [&] { return description; }}};
  int failed = 0;
  int absent = 0;
  bool lacksDaemon = false;
  for (const auto& [name, check] : checks) {
    const Finding finding = Examine(check);
    Print(output, name, finding);
    failed += finding.state == State::Failed ? 1 : 0;
    absent += finding.state == State::Absent ? 1 : 0;
    lacksDaemon |= finding.state == State::Absent && (name == "bus" || name == "daemon");
  }
  Require(failed == 0 && !lacksDaemon,
          std::to_string(failed) + " failed, " + std::to_string(absent) + " absent",
          failed != 0 ? ExitCode::Failed : ExitCode::BusAbsent);
}

}  // namespace

void AddDoctorVerb(CLI::App& app, Session& session) {
  auto [doctor, options] =
      AddVerb(app, session, "doctor", "Check the set, and say what to do about it", RunDoctor);
  doctor.add_option("--key", options.keyFile, "Check this device key instead of a new one")
      ->type_name("FILE");
  doctor.add_option("--cert", options.certFile, "The certificate of that key")->type_name("FILE");
  doctor.add_option("--description", options.description, "Check this interface description")
      ->type_name("FILE");
}

}  // namespace ondaro::ctl
