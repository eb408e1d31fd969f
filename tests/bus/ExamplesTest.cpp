// The examples as a user runs them: two programs, and nothing of the test between them.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>

#include "bus/PrivateBus.h"

namespace ondaro::test {
namespace {

TEST(Examples, CompleteTheirExchange) {
  const TemporaryDirectory state;
  setenv("ONDARO_HOST_STATE", state.Path().c_str(), 1);
  setenv("ONDARO_HOST_LOG", "off", 1);
  PrivateBus bus;
  ChildProcess daemon({ONDARO_EXAMPLE_DAEMON});
  for (int run = 0; run < 2; ++run) {
    ChildProcess application({ONDARO_EXAMPLE_APPLICATION});
    const std::string text = application.ReadAll();
    EXPECT_EQ(application.Wait(), 0);
    EXPECT_EQ(daemon.ReadLine(), "daemon: play trailer");
    EXPECT_EQ(daemon.ReadLine(), "daemon: stop trailer");
    for (const char* line : {"ask for play trailer", "status playing", "the daemon started trailer",
                             "ask for stop trailer", "status idle", "the daemon stopped trailer"}) {
      EXPECT_NE(text.find(std::string("application: ") + line + "\n"), std::string::npos) << text;
    }
  }
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0);
}

}  // namespace
}  // namespace ondaro::test
