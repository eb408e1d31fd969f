// Both ends in processes of their own, over the exported functions.
//
// ONDARO_TEST_FULL=1 runs the loads at full length; the figures are in the tests.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {
namespace {

// Sanitizers keep what was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

bool Full() {
  const char* full = getenv("ONDARO_TEST_FULL");
  return full != nullptr && std::string(full) == "1";
}

/// A process of the helper program; its error output shows in the test's.
class Peer : public ChildProcess {
 public:
  Peer() : ChildProcess({ONDARO_TEST_BUS_PEER}) {}

  /// The answer to one line.
  std::string Do(const std::string& line) {
    Write(line + "\n");
    return ReadLine().value_or("(nothing)");
  }
  /// Tries until the end may send: the name is owned some time after the handle was got.
  bool SendSoon(const std::string& event) {
    return WaitUntil([&] { return Do("send " + event) == "sent 0"; });
  }
  long Memory() { return std::stol(Do("memory").substr(7)); }
};

class Exchange : public testing::Test {
 protected:
  /// The host backend's state is the test's own.
  Exchange() {
    if (mkdtemp(m_state.data()) == nullptr) {
      throw std::runtime_error("no directory for the state");
    }
    setenv("ONDARO_HOST_STATE", m_state.c_str(), 1);
    setenv("ONDARO_HOST_LOG", "verbose:/dev/null", 1);
  }
  ~Exchange() override { std::filesystem::remove_all(m_state); }

  PrivateBus m_bus;

 private:
  std::string m_state = testing::TempDir() + "ondaro-state-XXXXXX";
};

TEST_F(Exchange, GoesBothWays) {
  Peer daemon;
  EXPECT_EQ(daemon.Do("server"), "server ok");
  EXPECT_EQ(daemon.Do("expect up"), "expecting up");
  ASSERT_TRUE(daemon.SendSoon("nobody listens"));
  Peer application;
  EXPECT_EQ(application.Do("client"), "client ok");
  EXPECT_EQ(application.Do("expect down"), "expecting down");
  EXPECT_EQ(application.Do("send up 1"), "sent 0");
  EXPECT_EQ(daemon.ReadLine(), "up 1");
  EXPECT_EQ(daemon.Do("send down 2"), "sent 0");
  EXPECT_EQ(application.ReadLine(), "down 2");

  // What the application sends after a change of its subscription tells that the bus has it.
  PlainPeer observer;
  observer.Listen();
  EXPECT_EQ(application.Do("clear"), "cleared");
  EXPECT_EQ(application.Do("send up cleared"), "sent 0");
  EXPECT_EQ(daemon.ReadLine(), "up cleared");
  EXPECT_EQ(daemon.Do("send down 3"), "sent 0");
  ASSERT_TRUE(WaitUntil([&] { return !observer.Heard().empty(); }));
  EXPECT_EQ(application.Do("sync"), "synced");
  EXPECT_EQ(application.Do("expect down"), "expecting down");
  EXPECT_EQ(application.Do("send up again"), "sent 0");
  EXPECT_EQ(daemon.ReadLine(), "up again");
  EXPECT_EQ(daemon.Do("send down 4"), "sent 0");
  EXPECT_EQ(application.ReadLine(), "down 4");

  // A null handle, and data that the bus cannot carry.
  EXPECT_EQ(application.Do("send up \xff"), "sent -1");
  EXPECT_EQ(daemon.Do("send down \xff"), "sent -1");
  Peer nobody;
  EXPECT_EQ(nobody.Do("send up 1"), "sent -1");
}

TEST_F(Exchange, LetsASecondDaemonTakeOver) {
  for (const int end : {0, SIGTERM, SIGKILL}) {
    SCOPED_TRACE(end);
    auto first = std::make_unique<Peer>();
    Peer second;
    PlainPeer observer;
    EXPECT_EQ(first->Do("server"), "server ok");
    ASSERT_TRUE(first->SendSoon("first serves"));
    EXPECT_EQ(second.Do("server"), "server ok");
    EXPECT_EQ(second.Do("expect event"), "expecting event");
    EXPECT_EQ(second.Do("send down 1"), "sent -1");
    EXPECT_EQ(observer.CallEvent("event", "data"), "(0,)");
    const std::string owner = observer.Owner();

    // In the queue once the bus lists it behind the owner.
    const auto queued = [&] {
      return observer.Call(g_variant_new("(s)", BUS_NAME), "ListQueuedOwners",
                           "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus") != "(['" + owner + "'],)";
    };
    ASSERT_TRUE(WaitUntil(queued));
    observer.Listen();
    if (end == 0) {
      first->Write("quit\n");
    } else {
      first->Signal(end);
    }
    EXPECT_EQ(first->Wait(), -end);
    ASSERT_TRUE(second.SendSoon("down 2"));
    EXPECT_NE(observer.Owner(), owner);
    EXPECT_EQ(second.Do("send down 3"), "sent 0");
    ASSERT_TRUE(WaitUntil([&] { return observer.Heard().size() > 1; }));
    EXPECT_EQ(observer.Heard(), std::vector<Event>({{"down", "2"}, {"down", "3"}}));
    // Its object went with the loss that the queue began with.
    EXPECT_EQ(observer.CallEvent("event", "data").substr(0, 6), "error:");
  }
}

TEST_F(Exchange, ReachesEveryApplicationOnce) {
  constexpr int APPLICATIONS = 50;
  Peer daemon;
  EXPECT_EQ(daemon.Do("server"), "server ok");
  EXPECT_EQ(daemon.Do("expect arrived"), "expecting arrived");
  ASSERT_TRUE(daemon.SendSoon("nobody listens"));
  std::vector<std::unique_ptr<Peer>> applications;
  for (int i = 0; i < APPLICATIONS; ++i) {
    applications.push_back(std::make_unique<Peer>());
  }
  for (const auto& application : applications) {
    EXPECT_EQ(application->Do("client"), "client ok");
    EXPECT_EQ(application->Do("expect event"), "expecting event");
    EXPECT_EQ(application->Do("expect end"), "expecting end");
    // The bus handles the subscriptions before what the application sends after them.
    EXPECT_EQ(application->Do("send arrived x"), "sent 0");
    EXPECT_EQ(daemon.ReadLine(), "arrived x");
  }
  EXPECT_EQ(daemon.Do("send event data"), "sent 0");
  EXPECT_EQ(daemon.Do("send end data"), "sent 0");
  for (const auto& application : applications) {
    EXPECT_EQ(application->ReadLine(), "event data");
    EXPECT_EQ(application->ReadLine(), "end data");
  }
}

TEST_F(Exchange, CarriesALoadInOrderAtFlatMemory) {
  const long count = Full() ? 100000 : 5000;
  constexpr long WINDOW = 100;
  constexpr long GROWTH_KIB = 1024;
  Peer daemon;
  Peer application;
  EXPECT_EQ(daemon.Do("server"), "server ok");
  EXPECT_EQ(daemon.Do("echo ping pong"), "echoing ping");
  ASSERT_TRUE(daemon.SendSoon("nobody listens"));
  EXPECT_EQ(application.Do("client"), "client ok");
  const auto volley = [&](long size) {
    application.Write("volley " + std::to_string(size) + " " + std::to_string(WINDOW) + "\n");
    EXPECT_EQ(application.ReadLine(std::chrono::minutes(5)), "volley ok");
  };
  volley(count / 5);
  const long daemonBefore = daemon.Memory();
  const long applicationBefore = application.Memory();
  volley(count - count / 5);
  const long daemonGrowth = daemon.Memory() - daemonBefore;
  const long applicationGrowth = application.Memory() - applicationBefore;
  RecordProperty("daemonGrowthKiB", std::to_string(daemonGrowth));
  RecordProperty("applicationGrowthKiB", std::to_string(applicationGrowth));
  if (!SANITIZED) {
    EXPECT_LT(daemonGrowth, GROWTH_KIB);
    EXPECT_LT(applicationGrowth, GROWTH_KIB);
  }
}

TEST_F(Exchange, EndsCleanlyInTheMiddleOfTraffic) {
  const int exits = Full() ? 1000 : 32;
  Peer daemon;  // answers the floods of those that are clients, and floods them
  EXPECT_EQ(daemon.Do("server"), "server ok");
  EXPECT_EQ(daemon.Do("echo flood down"), "echoing flood");
  ASSERT_TRUE(daemon.SendSoon("nobody listens"));
  std::vector<std::string> order = {"auth", "client", "config", "server"};
  for (int i = 0; i < exits; ++i) {
    std::next_permutation(order.begin(), order.end());
    Peer peer;
    for (const std::string& handle : order) {
      peer.Write(handle + "\n");
      EXPECT_TRUE(peer.ReadLineWith(handle + " ok"));
      if (handle != "client" && handle != "server") {
        continue;
      }
      peer.Write("expect down\n");
      EXPECT_TRUE(peer.ReadLineWith("expecting down"));
    }
    peer.Write("flood flood 50\n");
    const auto heard = [&] {
      daemon.Write("flood down 50\n");
      return peer.HasLine();
    };
    EXPECT_TRUE(i % 3 == 0 || WaitUntil(heard));
    if (i % 3 == 2) {
      peer.CloseInput();
    } else {
      peer.Write("quit\n");
    }
    peer.ReadAll();
    EXPECT_EQ(peer.Wait(), 0) << "exit " << i;
  }
}

}  // namespace
}  // namespace ondaro::test
