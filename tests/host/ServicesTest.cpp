// Applications and power state of the simulated set, where the seam leaves the answer to the port.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

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
  ASSERT_EQ(platform_settings_set_int("host/power/state", 0), 0);
  EXPECT_EQ(platform_power_get_state(), 0);
}

/// A process that waits to be ended, once it has done something and shows it in its files.
class Sleeper {
 public:
  Sleeper(const std::function<void()>& first, const std::string& file, const std::string& shown)
      : m_child([&] {
          first();
          pause();
        }) {
    while (ReadFile("/proc/" + std::to_string(Pid()) + "/" + file).find(shown) ==
           std::string::npos) {
      std::this_thread::yield();
    }
  }
  pid_t Pid() const { return m_child.Pid(); }

 private:
  Child m_child;
};

TEST(AppManager, FindsAnApplicationByItsProcessName) {
  // Other tests may run at the same time.
  const std::string name = "app" + std::to_string(getpid());
  EXPECT_EQ(platform_app_get_pid(name.c_str()), -1);
  const Sleeper byComm([&] { prctl(PR_SET_NAME, name.c_str()); }, "comm", name);
  EXPECT_EQ(platform_app_get_pid(name.c_str()), byComm.Pid());
  EXPECT_EQ(platform_app_get_pid((name + "x").c_str()), -1);

  const TemporaryDirectory directory;
  const std::string program = name + "-with-a-long-name";
  const std::string path = directory / program;
  std::filesystem::copy_file("/bin/sleep", path);
  {
    const Sleeper byFile([&] { execl(path.c_str(), "other", "60", nullptr); }, "cmdline", "other");
    EXPECT_EQ(platform_app_get_pid(program.c_str()), byFile.Pid());
  }
  const Sleeper byArgument([&] { execl("/bin/sleep", ("/bin/" + program).c_str(), "60", nullptr); },
                           "cmdline", program);
  EXPECT_EQ(platform_app_get_pid(program.c_str()), byArgument.Pid());
  ASSERT_EQ(platform_settings_set_string("host/app/com.example.viewer", program.c_str()), 0);
  EXPECT_EQ(platform_app_get_pid("com.example.viewer"), byArgument.Pid());
}

TEST(AppManager, RefusesGroupsOfOtherSessionsAndOfNobody) {
  const Sleeper leader([] { prctl(PR_SET_NAME, setsid() > 0 ? "leader" : "none"); }, "comm",
                       "leader");
  EXPECT_EQ(platform_app_set_process_group(leader.Pid(), leader.Pid()), 0) << "it is there";
  const std::vector<std::pair<int, int>> refused = {
      {0, getpid()}, {getpgrp(), 0}, {getpgrp(), -1}, {leader.Pid(), getpid()}};
  for (const auto& [app, caller] : refused) {
    EXPECT_NE(platform_app_set_process_group(app, caller), 0) << app << ' ' << caller;
  }
}

}  // namespace
