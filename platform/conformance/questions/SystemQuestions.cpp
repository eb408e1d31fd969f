// System information, power state and applications; and what a run puts back of them.
#include <unistd.h>

#include <climits>
#include <sstream>

#include "Settings.h"
#include "platform/AppManager.h"
#include "platform/DevicePower.h"
#include "platform/SystemInfo.h"

namespace conformance {
namespace {

constexpr int NO_PROCESS = -1;
constexpr char PLAUSIBLE_FEATURE[] = "26";  // as a product year

/// The value in digits, or that it fails.
std::string ReadFeature(const std::string& key) {
  int value = INT_MIN;
  const bool isThere = platform_system_info_get_custom_int(key.c_str(), &value) == 0;
  return isThere ? Show(value) : "fails";
}

/// With each value that `set` brings about, or the one that `fixed` declares.
void ForEachValue(const char* set, const char* fixed, const std::vector<int>& values,
                  const std::function<void(int value)>& use) {
  if (!IsDeclared(set, fixed)) {
    use(std::stoi(Declared(fixed)));
    return;
  }
  for (const int value : values) {
    Apply(set, {{"value", Show(value)}});
    use(value);
  }
}

// ---- System information

void AskForFeature(void (*how)(const std::function<void()>&)) {
  const std::string& key = Declared("feature.key");
  ForEachValue("feature.set", "feature.value", {4711, 0, -1, INT_MAX, 23}, [&](int value) {
    how([&] { Same("read the feature " + key, Show(value), ReadFeature(key)); });
  });
}

void Once(const std::function<void()>& ask) { ask(); }

const Question SYS_01("SYS-01", [] { AskForFeature(Once); });
const Question SYS_03("SYS-03", [] { AskForFeature(OnManyThreads); });

const Question SYS_02("SYS-02", [] {
  for (const std::string& key :
       {std::string("conformance/no-such-feature"), Declared("feature.key") + "2"}) {
    Same("read the feature " + key + ", which the set lacks", std::string("fails"),
         ReadFeature(key));
  }
});

const Question SYS_04("SYS-04", [] {
  for (const Asked& asked : AskedOfSets("feature")) {
    const std::string& declared = Declared("feature.key");
    if (ReadFeature(asked.name) == "fails" && declared == asked.name && IsDeclared("feature.set")) {
      Apply("feature.set", {{"value", PLAUSIBLE_FEATURE}});
    }
    Holds(ReadFeature(asked.name) != "fails",
          "read " + asked.name + ", which the library asks of every set", "an integer",
          "a failure; 'feature.key' declares " + declared);
  }
});

// ---- Power

void AskForPower(void (*how)(const std::function<void()>&)) {
  ForEachValue("power.set", "power.state", {0, 1, 2, 0, 2, 1}, [&](int state) {
    how([&] { Same("asked for the power state", state, platform_power_get_state()); });
  });
}

const Question POW_01("POW-01", [] { AskForPower(Once); });
const Question POW_03("POW-03", [] { AskForPower(OnManyThreads); });

const Question POW_02("POW-02", [] {
  if (!IsDeclared("power.unknown")) {
    Absent("'power.unknown' declares no way to make the state unknown");
  }
  Apply("power.unknown");
  const int state = platform_power_get_state();
  Holds(state < 0, "made the state unknown, and asked for it", "a negative number", Show(state));
});

// ---- Applications

const Help APPLICATION("application", [](const Arguments& /*none*/) {
  Helper::SayReady();
  while (true) {
    pause();
  }
});

/// The process id of an application; replies the status, and the caller's group then.
const Help JOIN_GROUP("join-group", [](const Arguments& arguments) {
  const int status = platform_app_set_process_group(std::stoi(arguments[0]), getpid());
  Reply(Show(status) + " " + Show(getpgrp()));
});

/// A process of the kit, in a process group of its own or in another's.
class Application : public Helper {
 public:
  explicit Application(int group = 0) : Helper("application", {}, Start{group}) {
    Needs("APP-03", IsReady(), "a process of the kit could not be started");
  }
};

/// The port finds a process of the kit under the declared id, or knows an application that runs.
int DeclaredApplication(const Application& own) {
  Declared("application.id");
  if (IsDeclared("application.announce", "application.pid")) {
    Apply("application.announce", {{"pid", Show(own.Id())}});
    return own.Id();
  }
  const std::string told = RunShell(Filled(Declared("application.pid")));
  int pid = NO_PROCESS;
  std::istringstream(told) >> pid;
  Holds(pid > 0, "carried out 'application.pid'", "a process id", Show(told));
  return pid;
}

void AskForPid(const std::string& id, int pid) {
  Same("asked for the process of the application " + Show(id), pid,
       platform_app_get_pid(id.c_str()));
}

const Question APP_01("APP-01", [] {
  for (int i = 0; i < 2; ++i) {
    const Application own;
    const int pid = DeclaredApplication(own);
    AskForPid(Declared("application.id"), pid);
  }
});

const Question APP_02("APP-02", [] {
  Application own;
  DeclaredApplication(own);
  const std::string& id = Declared("application.id");
  for (const std::string& other :
       {std::string("conformance.none"), id + "2", id.substr(0, id.size() - 1)}) {
    AskForPid(other, NO_PROCESS);
  }
  if (IsDeclared("application.announce")) {
    own.End(Milliseconds(0));
    AskForPid(id, NO_PROCESS);
  }
});

const Question APP_03("APP-03", [] {
  const Application leader;
  const Application member(leader.Id());
  for (const Application* const application : {&leader, &member}) {
    const std::string done = application == &leader ? "joined a group by the process that leads it"
                                                    : "joined a group by one that does not lead it";
    Same(done + ": status, and the caller's group then", "0 " + Show(leader.Id()),
         Ask("join-group", {Show(application->Id())}));
    Same(done + ": the application's group then", leader.Id(), int{getpgid(application->Id())});
  }
});

const Question APP_04("APP-04", [] {
  Application own;
  own.End(Milliseconds(0));
  for (const int pid : {own.Id(), NO_PROCESS, 0}) {
    Refuses("joined the group of the process " + Show(pid) + ", which does not run",
            platform_app_set_process_group(pid, getpid()));
  }
});

const Question APP_05("APP-05", [] {
  const Application own;
  const int pid = DeclaredApplication(own);
  OnManyThreads([&] {
    AskForPid(Declared("application.id"), pid);
    platform_app_set_process_group(NO_PROCESS, getpid());
  });
});

// ---- Before and after a run

std::string FeatureNow() {
  return IsDeclared("feature.key") ? ReadFeature(Declared("feature.key")) : "fails";
}

const Help SAVE("save", [](const Arguments& /*none*/) {
  Reply(Show(platform_power_get_state()) + " " + FeatureNow());
});

/// What was saved.
const Help RESTORE("restore", [](const Arguments& arguments) {
  std::istringstream saved(arguments[0]);
  int power = 0;
  std::string feature;
  const auto apply = [](const char* key, const std::string& value) {
    if (IsDeclared(key)) {
      Apply(key, {{"value", value}});
    }
  };
  const bool isSaved = static_cast<bool>(saved >> power >> feature);
  if (isSaved && platform_power_get_state() != power) {
    apply(power < 0 ? "power.unknown" : "power.set", Show(power));
  }
  if (isSaved && FeatureNow() != feature) {
    apply("feature.set", feature == "fails" ? PLAUSIBLE_FEATURE : feature);
  }
  apply("application.withdraw", "");
  if (IsDeclared("settings.remove")) {
    std::vector<std::string> names(std::begin(ALIKE), std::end(ALIKE));
    names.insert(names.end(), {SECOND, FreshName(), FreshName() + "b"});
    for (const std::string& name : names) {
      for (const std::string& key : Keys(name)) {
        DoesSucceed(Filled(Declared("settings.remove"), {{"key", key}}));
      }
    }
  }
});

}  // namespace
}  // namespace conformance
