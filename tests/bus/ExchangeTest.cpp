// Both ends in processes of their own, over the exported functions.
#include <signal.h>

#include <algorithm>
#include <sstream>

#include "bus/Exchange.h"

namespace ondaro::test {
namespace {

// Sanitizers keep what was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

TEST_F(Exchange, IsSharedByProgramsThatKnowNothingOfIt) {
  Peer daemon;
  ASSERT_TRUE(daemon.Serve());
  EXPECT_EQ(daemon.Do("expect event"), "expecting event");
  setenv("N", BUS_NAME, 1);
  setenv("P", OBJECT_PATH, 1);
  const std::pair<const char*, const char*> answers[] = {
      {"gdbus call -y -d $N -o $P -m $N.sendDataToServer event gdbus", "(0,)"},
      {"busctl --system call $N $P $N sendDataToServer ss event busctl", "i 0"},
      {"gdbus introspect -y -d $N -o $P",
       "sendDataToServer(in  s event,\n                       in  s data,\n"
       "                       out i result);"},
      {"busctl --system introspect $N $P $N", ".sendDataToServer    method    ss"},
      {"busctl --system introspect $N $P $N", ".sendDataToClient    signal    ss"}};
  for (const auto& [command, expected] : answers) {
    EXPECT_NE(ChildProcess({"sh", "-c", command}).ReadAll().find(expected), std::string::npos)
        << command;
  }
  EXPECT_EQ(daemon.ReadLine(), "event gdbus");
  EXPECT_EQ(daemon.ReadLine(), "event busctl");
  for (const char* command : {"exec gdbus monitor -y -d $N", "exec busctl --system monitor $N"}) {
    ChildProcess monitor({"sh", "-c", command});
    // Each starts to listen some time after its first line.
    EXPECT_TRUE(WaitUntil([&] {
      EXPECT_EQ(daemon.Do("send down its-data"), "sent 0");
      bool isHeard = false;
      while (!isHeard && monitor.HasLine()) {
        isHeard = monitor.ReadLine().value().find("its-data") != std::string::npos;
      }
      return isHeard;
    })) << command;
  }
}

TEST_F(Exchange, LetsASecondDaemonTakeOver) {
  for (const int end : {0, SIGKILL}) {
    SCOPED_TRACE(end);
    Peer first, second, application(m_state + "/log" + std::to_string(end));
    PlainPeer observer;
    ASSERT_TRUE(first.Serve());
    const std::string owner = observer.Owner();
    EXPECT_EQ(application.Do("get client"), "client ok");
    EXPECT_EQ(application.Do("expect down"), "expecting down");
    EXPECT_EQ(application.Do("sync"), "synced");
    EXPECT_EQ(second.Do("get server"), "server ok");
    EXPECT_EQ(second.Do("expect up"), "expecting up");
    // In the queue once the bus lists it behind the owner.
    ASSERT_TRUE(WaitUntil([&] {
      return observer.CallBus("ListQueuedOwners", g_variant_new("(s)", BUS_NAME)) !=
             "(['" + owner + "'],)";
    }));
    EXPECT_EQ(second.Do("send down 1"), "sent -1");
    end == 0 ? first.Write("quit\n") : first.Signal(end);
    EXPECT_EQ(first.Wait(), -end);
    ASSERT_TRUE(WaitUntil([&] { return second.Do("send down 2") == "sent 0"; }));
    EXPECT_EQ(application.ReadLine(), "down 2");
    EXPECT_NE(observer.Owner(), owner);
    // Its object went with the loss that the queue began with; or the call still went to the first.
    EXPECT_EQ(application.Do("send up 1"), "sent 0");
    EXPECT_TRUE(application.LogsSoon("g_dbus_proxy_call_finish error : GDBus.Error:"));
  }
}

TEST_F(Exchange, ReachesEveryApplicationOnce) {
  Peer daemon;
  ASSERT_TRUE(daemon.Serve());
  EXPECT_EQ(daemon.Do("expect arrived"), "expecting arrived");
  std::vector<Peer> applications(50);
  for (Peer& application : applications) {
    EXPECT_EQ(application.Do("get client"), "client ok");
    EXPECT_EQ(application.Do("expect event"), "expecting event");
    EXPECT_EQ(application.Do("expect end"), "expecting end");
    // The bus handles the subscriptions before what the application sends after them.
    EXPECT_EQ(application.Do("send arrived x"), "sent 0");
    EXPECT_EQ(daemon.ReadLine(), "arrived x");
  }
  EXPECT_EQ(daemon.Do("send event data"), "sent 0");
  EXPECT_EQ(daemon.Do("send end data"), "sent 0");
  for (Peer& application : applications) {
    EXPECT_EQ(application.ReadLine(), "event data");
    EXPECT_EQ(application.ReadLine(), "end data");
  }
}

TEST_F(Exchange, CarriesALoadInOrderAtFlatMemory) {
  const int count = ByTier(5000, 100000, 1000000);
  constexpr long GROWTH_KIB = 1024;
  Peer daemon, application;
  ASSERT_TRUE(daemon.Serve());
  EXPECT_EQ(daemon.Do("echo ping pong"), "echoing ping");
  EXPECT_EQ(application.Do("get client"), "client ok");
  const auto volley = [&](int size) {
    application.Write("volley " + std::to_string(size) + " 100\n");
    EXPECT_EQ(application.ReadLine(std::chrono::hours(1)), "volley ok");
  };
  const auto usage = [](Peer& peer) {
    std::istringstream words(peer.Do("usage").substr(6));
    std::pair<long, long> numbers;
    words >> numbers.first >> numbers.second;
    return numbers;
  };
  volley(count / 5);
  const std::pair<long, long> before[] = {usage(daemon), usage(application)};
  volley(count - count / 5);
  const std::pair<long, long> after[] = {usage(daemon), usage(application)};
  for (const int end : {0, 1}) {
    std::cout << (end == 0 ? "daemon" : "application") << ": " << before[end].first << " KiB, then "
              << after[end].first << "; descriptors " << after[end].second << '\n';
    EXPECT_TRUE(SANITIZED || after[end].first - before[end].first < GROWTH_KIB);
    EXPECT_EQ(after[end].second, before[end].second);
  }
}

TEST_F(Exchange, EndsCleanlyInTheMiddleOfTraffic) {
  const int exits = ByTier(32, 200, 1000);
  Peer daemon;  // answers the floods of those that are clients, and floods them
  ASSERT_TRUE(daemon.Serve());
  EXPECT_EQ(daemon.Do("echo flood down"), "echoing flood");
  std::vector<std::string> order = {"auth", "client", "config", "server"};
  for (int i = 0; i < exits; ++i) {
    std::next_permutation(order.begin(), order.end());
    Peer peer;
    for (const std::string& handle : order) {
      peer.Write("get " + handle + "\n");
      EXPECT_TRUE(peer.ReadLineWith(handle + " ok"));
      if (handle == "client" || handle == "server") {
        peer.Write("expect down\n");
        EXPECT_TRUE(peer.ReadLineWith("expecting down"));
      }
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

TEST_F(Exchange, IsTheSameForAllThreadsThatBeginIt) {
  const int rounds = ByTier(5, 100, 1000);
  Peer daemon;
  ASSERT_TRUE(daemon.Serve());
  EXPECT_EQ(daemon.Do("echo ping pong"), "echoing ping");
  for (int round = 0; round < rounds; ++round) {
    Peer peer;
    ASSERT_EQ(peer.Do("race 32"), "race ok") << "round " << round;
    EXPECT_EQ(peer.Do("get client"), "client ok");
    EXPECT_EQ(peer.Do("expect pong"), "expecting pong");
    EXPECT_EQ(peer.Do("send ping x"), "sent 0");
    EXPECT_EQ(peer.ReadLine(), "pong x");
    peer.Write("quit\n");
    EXPECT_EQ(peer.Wait(), 0) << "round " << round;
  }
}

}  // namespace
}  // namespace ondaro::test
