// System information, power state and applications of the simulated set.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "platform/AppManager.h"
#include "platform/DevicePower.h"
#include "platform/SettingsStore.h"
#include "platform/SystemInfo.h"

namespace {

using namespace ondaro::test;

[[maybe_unused]] const TemporaryDirectory& g_state = StateDirectory();

TEST(SystemInfo, IsReadFromTheSettings) {
  constexpr char FEATURE[] = "com.halvex/featureconf/product.tv_year";
  int value = 77;
  EXPECT_NE(platform_system_info_get_custom_int(FEATURE, &value), 0);
  EXPECT_NE(platform_system_info_get_custom_int("", &value), 0);
  EXPECT_NE(platform_system_info_get_custom_int(nullptr, &value), 0);
  EXPECT_NE(platform_system_info_get_custom_int(FEATURE, nullptr), 0);
  EXPECT_EQ(value, 77);

  ASSERT_EQ(platform_settings_set_int((std::string("host/system-info/") + FEATURE).c_str(), -23),
            0);
  EXPECT_EQ(platform_system_info_get_custom_int(FEATURE, &value), 0);
  EXPECT_EQ(value, -23);
}

TEST(DevicePower, IsUsableUnlessTheSettingsSayOtherwise) {
  constexpr char KEY[] = "host/power/state";
  EXPECT_EQ(platform_power_get_state(), 0);
  for (const int state : {1, 2, -4, 0}) {
    ASSERT_EQ(platform_settings_set_int(KEY, state), 0);
    EXPECT_EQ(platform_power_get_state(), state);
  }
  ASSERT_EQ(platform_settings_set_string(KEY, "1"), 0);
  EXPECT_LT(platform_power_get_state(), 0);
}

/// A process that waits to be ended, once what it did first is done.
class Sleeper {
 public:
  template <typename Body>
  explicit Sleeper(Body first)
      : m_ready(MakePipe()), m_child([&] {
          first();
          close(m_ready.write);  // also closed by exec
          pause();
        }) {
    close(m_ready.write);
    char nothing;
    EXPECT_EQ(read(m_ready.read, &nothing, 1), 0);
    close(m_ready.read);
    WaitForArguments();
  }

  pid_t Pid() const { return m_child.Pid(); }

 private:
  struct Ends {
    int read;
    int write;
  };

  /// An exec closes the pipe before the new program has its arguments.
  void WaitForArguments() const {
    const std::string file = "/proc/" + std::to_string(Pid()) + "/cmdline";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (ReadFile(file).empty()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
      std::this_thread::yield();
    }
  }

  static Ends MakePipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    return {ends[0], ends[1]};
  }

  Ends m_ready;
  Child m_child;
};

class AppManager : public testing::Test {
 protected:
  static std::string Key(const std::string& app) { return "host/app/" + app; }

  // Other tests may run at the same time.
  const std::string m_name = "app" + std::to_string(getpid());
};

TEST_F(AppManager, FindsAnApplicationByItsProcessName) {
  EXPECT_EQ(platform_app_get_pid(m_name.c_str()), -1);
  EXPECT_EQ(platform_app_get_pid(""), -1);
  EXPECT_EQ(platform_app_get_pid(nullptr), -1);

  const Sleeper byComm([&] { prctl(PR_SET_NAME, m_name.c_str()); });
  EXPECT_EQ(platform_app_get_pid(m_name.c_str()), byComm.Pid());
  EXPECT_EQ(platform_app_get_pid((m_name + "x").c_str()), -1);

  const TemporaryDirectory directory;
  const std::string program = m_name + "-with-a-long-name";
  std::filesystem::copy_file("/bin/sleep", directory / program);
  const std::string path = directory / program;
  {
    const Sleeper byFile([&] { execl(path.c_str(), "other", "60", nullptr); });
    EXPECT_EQ(platform_app_get_pid(program.c_str()), byFile.Pid());
  }
  const Sleeper byArgument(
      [&] { execl("/bin/sleep", ("/usr/bin/" + program).c_str(), "60", nullptr); });
  EXPECT_EQ(platform_app_get_pid(program.c_str()), byArgument.Pid());

  ASSERT_EQ(platform_settings_set_string(Key("com.example.viewer").c_str(), program.c_str()), 0);
  EXPECT_EQ(platform_app_get_pid("com.example.viewer"), byArgument.Pid());
}

TEST_F(AppManager, GivesTheProcessIdOfTheSettingsWhileItRuns) {
  const std::string app = "com.example.player";
  Sleeper running([] {});
  Child ended([] {});
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended.Pid()), &info, WEXITED | WNOWAIT), 0);

  const std::vector<std::pair<int, int>> cases = {
      {running.Pid(), running.Pid()}, {ended.Pid(), -1}, {0, -1}, {-1, -1}, {1 << 30, -1}};
  for (const auto& [stored, expected] : cases) {
    ASSERT_EQ(platform_settings_set_int(Key(app).c_str(), stored), 0);
    EXPECT_EQ(platform_app_get_pid(app.c_str()), expected);
  }
}

TEST_F(AppManager, PutsTheCallerIntoTheApplicationsGroup) {
  const Sleeper app([] { setpgid(0, 0); });
  const Sleeper caller([] {});
  const Sleeper leader([] { setsid(); });
  const pid_t own = getpgrp();

  EXPECT_EQ(platform_app_set_process_group(app.Pid(), caller.Pid()), 0);
  EXPECT_EQ(getpgid(caller.Pid()), app.Pid());
  EXPECT_EQ(platform_app_set_process_group(leader.Pid(), leader.Pid()), 0) << "it is there";

  const std::vector<std::pair<int, int>> refused = {{-1, getpid()},
                                                    {0, getpid()},
                                                    {1 << 30, getpid()},
                                                    {app.Pid(), 0},
                                                    {app.Pid(), -1},
                                                    {app.Pid(), leader.Pid()},
                                                    {leader.Pid(), caller.Pid()}};
  for (const auto& [appPid, callerPid] : refused) {
    EXPECT_NE(platform_app_set_process_group(appPid, callerPid), 0) << appPid << ' ' << callerPid;
  }
  EXPECT_EQ(getpgrp(), own);
  EXPECT_EQ(getpgid(caller.Pid()), app.Pid());
}

}  // namespace
