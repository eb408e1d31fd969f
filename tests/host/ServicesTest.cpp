// Applications and power state of the simulated set, where the seam leaves the answer to the port.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <array>
#include <functional>
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

TEST(Set, IsReadFromTheSettings) {
  int value = 77;
  EXPECT_NE(platform_system_info_get_custom_int("", &value), 0);
  EXPECT_NE(platform_system_info_get_custom_int(nullptr, &value), 0);
  EXPECT_EQ(value, 77);
  EXPECT_EQ(platform_power_get_state(), 0) << "usable unless the settings say otherwise";
  ASSERT_EQ(platform_settings_set_string("host/power/state", "1"), 0);
  EXPECT_LT(platform_power_get_state(), 0);
}

/// A process that waits to be ended, once what it did first is done.
class Sleeper {
 public:
  explicit Sleeper(const std::function<void()>& first)
      : m_ready(MakePipe()), m_child([&] {
          first();
          close(m_ready[1]);  // also closed by exec
          pause();
        }) {
    close(m_ready[1]);
    char nothing;
    EXPECT_EQ(read(m_ready[0], &nothing, 1), 0);
    close(m_ready[0]);
    // An exec closes the pipe before the new program has its arguments.
    while (ReadFile("/proc/" + std::to_string(Pid()) + "/cmdline").empty()) {
      std::this_thread::yield();
    }
  }

  pid_t Pid() const { return m_child.Pid(); }

 private:
  static std::array<int, 2> MakePipe() {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
  }

  const std::array<int, 2> m_ready;
  Child m_child;
};

TEST(AppManager, FindsAnApplicationByItsProcessName) {
  // Other tests may run at the same time.
  const std::string name = "app" + std::to_string(getpid());
  EXPECT_EQ(platform_app_get_pid(name.c_str()), -1);
  const Sleeper byComm([&] { prctl(PR_SET_NAME, name.c_str()); });
  EXPECT_EQ(platform_app_get_pid(name.c_str()), byComm.Pid());
  EXPECT_EQ(platform_app_get_pid((name + "x").c_str()), -1);

  const TemporaryDirectory directory;
  const std::string program = name + "-with-a-long-name";
  const std::string path = directory / program;
  std::filesystem::copy_file("/bin/sleep", path);
  {
    const Sleeper byFile([&] { execl(path.c_str(), "other", "60", nullptr); });
    EXPECT_EQ(platform_app_get_pid(program.c_str()), byFile.Pid());
  }
  const Sleeper byArgument(
      [&] { execl("/bin/sleep", ("/bin/" + program).c_str(), "60", nullptr); });
  EXPECT_EQ(platform_app_get_pid(program.c_str()), byArgument.Pid());
  ASSERT_EQ(platform_settings_set_string("host/app/com.example.viewer", program.c_str()), 0);
  EXPECT_EQ(platform_app_get_pid("com.example.viewer"), byArgument.Pid());

  for (const int stored : {0, -1, 1 << 30}) {
    ASSERT_EQ(platform_settings_set_int("host/app/com.example.player", stored), 0);
    EXPECT_EQ(platform_app_get_pid("com.example.player"), -1);
  }
}

TEST(AppManager, RefusesGroupsOfOtherSessionsAndOfNobody) {
  const Sleeper app([] { setpgid(0, 0); });
  const Sleeper leader([] { setsid(); });
  const pid_t own = getpgrp();
  EXPECT_EQ(platform_app_set_process_group(leader.Pid(), leader.Pid()), 0) << "it is there";
  const std::vector<std::pair<int, int>> refused = {
      {0, getpid()}, {app.Pid(), 0}, {app.Pid(), -1}, {app.Pid(), leader.Pid()}};
  for (const auto& [appPid, callerPid] : refused) {
    EXPECT_NE(platform_app_set_process_group(appPid, callerPid), 0) << appPid << ' ' << callerPid;
  }
  EXPECT_EQ(getpgrp(), own);
}

}  // namespace
