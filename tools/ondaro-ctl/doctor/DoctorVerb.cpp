#include <dlfcn.h>

#include <array>
#include <filesystem>
#include <functional>

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
    throw Failure("the library is " + library + " (" + file + "), the headers " + headers +
                  "; install both of one release");
  }
  return {State::Ok, "the library is " + library + ", the headers " + headers};
}

Finding CheckStore() {
  // Below each of the roots that stores keep differently: for good, and until the set is restarted.
  for (const std::string key : {"db/ondaro-ctl/doctor", "memory/ondaro-ctl/doctor"}) {
    std::string before;
    CPALUtils::SetregGetStr(key, before);
    // No key can be removed: one that was not there stays, empty.
    const bool isKept = KeepsText(key, "probe") && KeepsNumber(key, -1) && KeepsText(key, before);
    if (!isKept) {
      throw Failure("the settings store does not keep what is written to '" + key + "'" + SeeLog());
    }
  }
  const std::optional<std::string> directory = StateDirectory();
  return {State::Ok, "the settings store keeps what is written" +
                         (directory ? ", in " + *directory : std::string())};
}

/// Runs the checks, prints each, and remembers what to say of them all.
class Doctor {
 public:
  explicit Doctor(const Output& output) : m_output(output) {}

  static Finding Examine(const std::function<Finding()>& check) {
    try {
      return check();
    } catch (const Failure& failure) {
      return {failure.Code() == ExitCode::BusAbsent ? State::Absent : State::Failed,
              failure.what()};
    } catch (...) {
      return {State::Failed, "the library failed" + SeeLog()};
    }
  }

  void Check(const std::string& name, const std::function<Finding()>& check) {
    constexpr std::array<const char*, 4> STATES = {"ok       ", "failed   ", "absent   ",
                                                   "unknown  "};
    constexpr std::size_t NAME_WIDTH = 13;
    const Finding finding = Examine(check);
    const std::string state = STATES[static_cast<std::size_t>(finding.state)];
    const bool isOk = finding.state == State::Ok;
    const bool isAbsent = finding.state == State::Absent;
    m_output.Result(JsonObject({{"check", name},
                                {"state", state.substr(0, state.find(' '))},
                                {"message", JsonText(finding.message)}}),
                    {isOk ? state : "", isOk ? "" : state,
                     name + std::string(NAME_WIDTH - name.size(), ' ') + finding.message});
    m_failed += finding.state == State::Failed ? 1 : 0;
    m_absent += isAbsent ? 1 : 0;
    m_lacksDaemon |= isAbsent && (name == "bus" || name == "daemon");
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
  bool lacksModule = false;
  BusChecks bus;
  doctor.Check("version", CheckVersion);
  doctor.Check("store", CheckStore);
  doctor.Check("key-system", [&] { return CheckKeySystem(lacksModule); });
  doctor.Check("device-key", [&] {
    return lacksModule ? Finding{State::Absent, "needs the decryption module"}
                       : CheckDeviceKey(options.keyFile, options.certFile);
  });
  doctor.Check("bus", [&] { return bus.Reach(); });
  doctor.Check("daemon", [&] { return bus.Daemon(); });
  doctor.Check("own", [&] { return bus.Own(); });
  doctor.Check("call", [&] { return bus.Call(); });
  doctor.Check("hear", [&] { return bus.Hear(); });
  doctor.Check("description", [&] { return description; });
  doctor.Conclude();
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
