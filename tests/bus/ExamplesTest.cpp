// The examples as a user runs them: two programs, and nothing of the test between them.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "bus/PrivateBus.h"

namespace ondaro::test {
namespace {

TEST(Examples, CompleteTheirExchange) {
  std::string state = testing::TempDir() + "ondaro-state-XXXXXX";
  ASSERT_NE(mkdtemp(state.data()), nullptr);
  setenv("ONDARO_HOST_STATE", state.c_str(), 1);
  setenv("ONDARO_HOST_LOG", "off", 1);
  PrivateBus bus;
  ChildProcess daemon({ONDARO_EXAMPLE_DAEMON});
  for (int run = 0; run < 2; ++run) {
    ChildProcess application({ONDARO_EXAMPLE_APPLICATION});
    std::vector<std::string> lines;
    while (const auto line = application.ReadLine()) {
      lines.push_back(*line);
    }
    EXPECT_EQ(application.Wait(), 0);
    EXPECT_EQ(daemon.ReadLine(), "daemon: play trailer");
    EXPECT_EQ(daemon.ReadLine(), "daemon: stop trailer");
    // The daemon's first status comes to an application that was there before it.
    if (lines.size() == 7) {
      lines.erase(std::find(lines.begin(), lines.begin() + 2, "application: status idle"));
    }
    // Event and property come in either order.
    ASSERT_EQ(lines.size(), 6U);
    std::sort(lines.begin() + 1, lines.begin() + 3);
    std::sort(lines.begin() + 4, lines.end());
    EXPECT_EQ(lines,
              std::vector<std::string>(
                  {"application: ask for play trailer", "application: status playing",
                   "application: the daemon started trailer", "application: ask for stop trailer",
                   "application: status idle", "application: the daemon stopped trailer"}));
  }
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0);
  std::filesystem::remove_all(state);
}

}  // namespace
}  // namespace ondaro::test
