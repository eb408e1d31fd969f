// Both ends in processes of their own, over the exported functions and the host backend.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>

#include "support/Files.h"
#include "support/PrivateBus.h"
#include "support/ProcessUse.h"
#include "support/Tier.h"
#include "support/WaitUntil.h"

namespace ondaro::test {
namespace {

/// A process of the helper program BusPeer, which says what the lines mean.
class Peer : public ChildProcess {
 public:
  Peer() : ChildProcess({ONDARO_TEST_BUS_PEER}) {}

  /// Whether each of the lines was answered with "done".
  template <typename... Lines>
  bool Do(const Lines&... lines) {
    return (DoLine(lines) && ...);
  }
  /// Becomes the daemon's end, which may send some time after the handle was got.
  bool Serve() {
    return Do("get server") && WaitUntil([this] { return Do("send probe"); });
  }

 private:
  bool DoLine(const std::string& line) {
    Write(line + "\n");
    const std::string answer = ReadLine().value_or("(nothing)");
    EXPECT_TRUE(answer == "done" || answer == "failed") << line << ": " << answer;
    return answer == "done";
  }
};

/// A bus, and a state and a log of the host backend that are the test's own.
class Exchange : public testing::Test {
 protected:
  Exchange() {
    setenv("ONDARO_HOST_STATE", m_state.Path().c_str(), 1);
    setenv("ONDARO_HOST_LOG", ("verbose:" + m_log).c_str(), 1);
  }
  bool LogsSoon(const std::string& text) const {
    return WaitUntil([&] { return ReadFile(m_log).find(text) != std::string::npos; });
  }

  const TemporaryDirectory m_state;
  const std::string m_log = m_state / "log";
  const PrivateBus m_bus;
};

// Nothing that was accepted is lost.
TEST_F(Exchange, OutlivesWhoSends) {
  constexpr int SENT = 100;
  Peer daemon, application;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("expect up") && application.Do("get client"));
  application.Write("flood up " + std::to_string(SENT) + "\nquit\n");
  for (int i = 0; i < SENT; ++i) {
    ASSERT_EQ(daemon.ReadLine(), "up " + std::to_string(i));
  }
  EXPECT_EQ(application.Wait(), 0);
}

// The thread ends in a handler, and no more than the thread.
TEST_F(Exchange, GoesOnWhenAHandlerEndsItsThread) {
  Peer daemon, application;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("end up") && application.Do("get client", "send up x"));
  EXPECT_TRUE(LogsSoon("g_dbus_proxy_call result : 0"));
  EXPECT_TRUE(LogsSoon("the thread ends in [void NOndaroPAL::CIpcServerImpl::HandleAppData"));
  daemon.Signal(SIGTERM);
  const int end = daemon.Wait();
  EXPECT_TRUE(end == -SIGTERM || end == 0) << end;  // 0 where it was the last thread
}

TEST_F(Exchange, CarriesALoadInOrderAtFlatMemory) {
  const int count = ByTier(5000, 100000, 1000000);
  constexpr long GROWTH_KIB = 1024;
  Peer daemon, application;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("echo ping pong") && application.Do("get client"));
  const auto volley = [&](int size) {
    application.Write("volley " + std::to_string(size) + " 100\n");
    EXPECT_EQ(application.ReadLine(std::chrono::hours(1)), "done");
  };
  volley(count / 5);
  const ProcessUse before[] = {ProcessUse(daemon.Pid()), ProcessUse(application.Pid())};
  volley(count - count / 5);
  const ProcessUse after[] = {ProcessUse(daemon.Pid()), ProcessUse(application.Pid())};
  for (const int end : {0, 1}) {
    std::cout << (end == 0 ? "daemon" : "application") << ": " << before[end].kilobytes
              << " KiB, then " << after[end].kilobytes << "; descriptors " << after[end].descriptors
              << '\n';
    EXPECT_TRUE(SANITIZED || after[end].kilobytes - before[end].kilobytes < GROWTH_KIB);
    EXPECT_EQ(after[end].descriptors, before[end].descriptors);
  }
}

TEST_F(Exchange, EndsCleanlyInTheMiddleOfTraffic) {
  const int exits = ByTier(32, 200, 1000);
  Peer daemon;  // answers the floods of those that are clients, and floods them
  ASSERT_TRUE(daemon.Serve() && daemon.Do("echo flood down"));
  std::vector<std::string> order = {"auth", "client", "config", "server"};
  for (int i = 0; i < exits; ++i) {
    std::next_permutation(order.begin(), order.end());
    Peer peer;
    for (const std::string& handle : order) {
      // What an earlier handle hears comes between the answers.
      peer.Write("get " + handle + "\n");
      EXPECT_TRUE(peer.ReadLine(PATIENCE, "done"));
      if (handle == "client" || handle == "server") {
        peer.Write("expect down\n");
        EXPECT_TRUE(peer.ReadLine(PATIENCE, "done"));
      }
    }
    peer.Write("flood flood 50\n");
    const auto heard = [&] {
      daemon.Write("flood down 50\n");
      return peer.ReadLine(std::chrono::milliseconds(1)).has_value();
    };
    EXPECT_TRUE(i % 3 == 0 || WaitUntil(heard));
    if (i % 3 == 2) {
      peer.CloseInput();
    } else {
      peer.Write("quit\n");
    }
    EXPECT_EQ(peer.Wait(), 0) << "exit " << i;
  }
}

TEST_F(Exchange, IsTheSameForAllThreadsThatBeginIt) {
  const int rounds = ByTier(5, 100, 1000);
  Peer daemon;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("echo ping pong"));
  for (int round = 0; round < rounds; ++round) {
    Peer peer;
    ASSERT_TRUE(peer.Do("race 32", "get client", "expect pong", "send ping x")) << round;
    EXPECT_EQ(peer.ReadLine(), "pong x");
    peer.Write("quit\n");
    EXPECT_EQ(peer.Wait(), 0) << "round " << round;
  }
}

}  // namespace
}  // namespace ondaro::test
