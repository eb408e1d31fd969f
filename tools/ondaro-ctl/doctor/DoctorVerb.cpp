#include <dlfcn.h>

#include <filesystem>

#include "doctor/DoctorChecks.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"
#include "support/Verbs.h"

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
  if ((headers + ".").rfind(library + ".", 0) != 0) {
    throw Failure(ExitCode::Failed, "the library is " + library + " (" + file + "), the headers " +
                                        headers + "; install both of one release");
  }
  return {State::Ok, "the library is " + library + ", the headers " + headers};
}

Finding CheckStore() {
  for (const std::string key : PROBE_KEYS) {
    std::string before;
    CPALUtils::SetregGetStr(key, before);
    // No key can be removed: one that was not there stays, empty.
    const bool isKept = KeepsText(key, "probe") && KeepsNumber(key, -1) && KeepsText(key, before);
    if (!isKept) {
      throw Failure(ExitCode::Failed,
                    "the settings store does not keep what is written to '" + key + "'" + SeeLog());
    }
  }
  const std::optional<std::string> directory = StateDirectory();
  return {State::Ok, "the settings store keeps what is written" +
                         (directory ? ", in " + *directory : std::string())};
}

const char* NameOf(State state) {
  switch (state) {
    case State::Ok:
      return "ok";
    case State::Failed:
      return "failed";
    case State::Absent:
      return "absent";
    default:
      return "unknown";
  }
}

/// Runs the checks, prints each, and remembers what to say of them all.
class Doctor {
 public:
  explicit Doctor(const Output& output) : m_output(output) {}

  template <class Check>
  static Finding Examine(Check&& check) {
    try {
      return std::forward<Check>(check)();
    } catch (const Failure& failure) {
      return {failure.Code() == ExitCode::BusAbsent ? State::Absent : State::Failed,
              failure.what()};
    } catch (...) {
      return {State::Failed, "the library failed" + SeeLog()};
    }
  }

  void Print(const std::string& check, const Finding& finding) {
    constexpr std::size_t STATE_WIDTH = 9;
    constexpr std::size_t CHECK_WIDTH = 13;
    const std::string state = NameOf(finding.state);
    Json::Value object;
    object["check"] = check;
    object["state"] = state;
    object["message"] = JsonText(finding.message);
    const bool isOk = finding.state == State::Ok;
    const std::string rest = std::string(STATE_WIDTH - state.size(), ' ') + check +
                             std::string(CHECK_WIDTH - check.size(), ' ') + finding.message;
    m_output.Result(object, {isOk ? state : "", isOk ? "" : state, rest});
    m_failed += finding.state == State::Failed ? 1 : 0;
    m_absent += finding.state == State::Absent ? 1 : 0;
    m_lacksDaemon |= finding.state == State::Absent && (check == "bus" || check == "daemon");
  }

  void Conclude() const {
    if (m_failed != 0 || m_lacksDaemon) {
      throw Failure(m_failed != 0 ? ExitCode::Failed : ExitCode::BusAbsent,
                    std::to_string(m_failed) + " failed, " + std::to_string(m_absent) + " absent");
    }
  }

 private:
  const Output& m_output;
  int m_failed = 0;
  int m_absent = 0;
  bool m_lacksDaemon = false;
};

void RunDoctor(const Output& output, const DoctorOptions& options) {
  if (options.keyFile.empty() != options.certFile.empty()) {
    throw Failure(ExitCode::Usage, "--key and --cert go together");
  }
  Doctor doctor(output);
  const Finding description =
      Doctor::Examine([&] { return CheckDescription(options.description); });
  doctor.Print("version", Doctor::Examine(CheckVersion));
  doctor.Print("store", Doctor::Examine(CheckStore));
  bool lacksModule = false;
  doctor.Print("key-system", Doctor::Examine([&] { return CheckKeySystem(lacksModule); }));
  doctor.Print("device-key", lacksModule
                                 ? Finding{State::Absent, "needs the decryption module"}
                                 : Doctor::Examine([&] {
                                     return CheckDeviceKey(options.keyFile, options.certFile);
                                   }));
  BusChecks bus;
  doctor.Print("bus", Doctor::Examine([&] { return bus.Reach(); }));
  doctor.Print("daemon", Doctor::Examine([&] { return bus.Daemon(); }));
  doctor.Print("own", Doctor::Examine([&] { return bus.Own(); }));
  doctor.Print("call", Doctor::Examine([&] { return bus.Call(); }));
  doctor.Print("hear", Doctor::Examine([&] { return bus.Hear(); }));
  doctor.Print("description", description);
  doctor.Conclude();
}

}  // namespace

void AddDoctorVerb(CLI::App& app, Session& session) {
  auto options = std::make_shared<DoctorOptions>();
  CLI::App& doctor = *app.add_subcommand("doctor", "Check the set, and say what to do about it");
  doctor.add_option("--key", options->keyFile, "Check this device key instead of a new one")
      ->type_name("FILE");
  doctor.add_option("--cert", options->certFile, "The certificate of that key")->type_name("FILE");
  doctor.add_option("--description", options->description, "Check this interface description")
      ->type_name("FILE");
  OnVerb(doctor, session, options, RunDoctor);
}

}  // namespace ondaro::ctl
