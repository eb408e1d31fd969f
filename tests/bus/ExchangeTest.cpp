// Both ends in processes of their own, over the exported functions.
#include <signal.h>

#include <algorithm>

#include "ProcessUse.h"
#include "bus/Exchange.h"

namespace ondaro::test {
namespace {

TEST_F(Exchange, IsSharedByProgramsThatKnowNothingOfIt) {
  Peer daemon;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("expect event"));
  setenv("N", BUS_NAME, 1);
  setenv("P", OBJECT_PATH, 1);
  const std::pair<const char*, const char*> answers[] = {
      {"gdbus call -y -d $N -o $P -m $N.sendDataToServer event gdbus", "(0,)"},
      {"busctl --system call $N $P $N sendDataToServer ss event busctl", "i 0"},
      {"gdbus introspect -y -d $N -o $P",
       "sendDataToServer(in  s event,\n                       in  s data,\n"
       "                       out i result);"},
      {"busctl --system introspect $N $P $N", ".sendDataToClient    signal    ss"}};
  for (const auto& [command, expected] : answers) {
    const std::string answer = ChildProcess({"sh", "-c", command}).ReadAll();
    EXPECT_NE(answer.find(expected), std::string::npos) << answer;
  }
  EXPECT_EQ(daemon.ReadLine(), "event gdbus");
  EXPECT_EQ(daemon.ReadLine(), "event busctl");
  for (const char* command : {"exec gdbus monitor -y -d $N", "exec busctl --system monitor $N"}) {
    ChildProcess monitor({"sh", "-c", command});
    // Each starts to listen some time after its first line.
    EXPECT_TRUE(WaitUntil([&] {
      EXPECT_TRUE(daemon.Do("send down its-data"));
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
    Peer first, second(m_state / "second"), application(m_state / std::to_string(end));
    ASSERT_TRUE(first.Serve() && second.Do("get server"));
    EXPECT_TRUE(application.Do("get client", "expect down", "sync"));
    // It has acquired the bus, and lost the name to the first.
    EXPECT_TRUE(second.LogsSoon(",  name:com.halvex.tv.ondaro", 2));
    EXPECT_FALSE(second.Do("send down 1"));
    end == 0 ? first.Write("quit\n") : first.Signal(end);
    EXPECT_EQ(first.Wait(), -end);
    ASSERT_TRUE(WaitUntil([&] { return second.Do("send down 2"); }));
    EXPECT_EQ(application.ReadLine(), "down 2");
    // Its object went with the loss.
    EXPECT_TRUE(application.Do("send up 1"));
    EXPECT_TRUE(application.LogsSoon("g_dbus_proxy_call_finish error : GDBus.Error:"));
    std::filesystem::remove(m_state / "second");
  }
}

TEST_F(Exchange, ReachesEveryApplicationOnce) {
  Peer daemon;
  ASSERT_TRUE(daemon.Serve() && daemon.Do("expect arrived"));
  std::vector<Peer> applications(50);
  for (Peer& application : applications) {
    // The bus handles the subscriptions before what the application sends after them.
    EXPECT_TRUE(application.Do("get client", "expect event", "expect end", "send arrived x"));
    EXPECT_EQ(daemon.ReadLine(), "arrived x");
  }
  EXPECT_TRUE(daemon.Do("send event data", "send end data"));
  for (Peer& application : applications) {
    EXPECT_EQ(application.ReadLine(), "event data");
    EXPECT_EQ(application.ReadLine(), "end data");
  }
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
      EXPECT_TRUE(peer.ReadLineWith("done"));
      if (handle == "client" || handle == "server") {
        peer.Write("expect down\n");
        EXPECT_TRUE(peer.ReadLineWith("done"));
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
