// What each end's process sees when the bus, or whoever is behind it, fails.
#include <signal.h>

#include "bus/Exchange.h"

namespace ondaro::test {
namespace {

const std::string FAILED_CALL = "g_dbus_proxy_call_finish error : ";
const std::string BUS_ERROR = FAILED_CALL + "GDBus.Error:org.freedesktop.DBus.Error.";
const std::string ANSWERED = "g_dbus_proxy_call result : 0";

class Fault : public Exchange {
 protected:
  /// A bus of this configuration, with both ends on it.
  void Start(const std::string& policy) {
    m_daemon.reset();
    m_application.reset();
    m_bus.reset();
    m_bus = std::make_unique<PrivateBus>(policy);
    m_daemon = std::make_unique<Peer>(m_state / "daemon");
    m_application = std::make_unique<Peer>(m_state / "application");
  }
  void StartExchange(const std::string& policy = OPEN_POLICY) {
    Start(policy);
    ASSERT_TRUE(m_daemon->Serve() && m_daemon->Do("expect up"));
    ASSERT_TRUE(m_application->Do("get client", "expect down", "sync"));
  }
  void ExpectExchange() {
    m_application->Write("send up well\n");
    EXPECT_TRUE(m_application->ReadLineWith("done"));
    EXPECT_EQ(m_daemon->ReadLineWith("well"), "up well");
    EXPECT_TRUE(m_daemon->Do("send down well"));
    EXPECT_EQ(m_application->ReadLineWith("well"), "down well");
  }

  std::unique_ptr<Peer> m_daemon;
  std::unique_ptr<Peer> m_application;
};

TEST_F(Fault, NoBus) {
  Start(OPEN_POLICY);
  m_bus->Kill();
  EXPECT_FALSE(m_application->Do("get client"));
  EXPECT_EQ(m_application->Logged("exception : PAL Exception: InvalidCase: g_bus_get_sync"), 1);
  EXPECT_TRUE(m_daemon->Do("get server"));
  EXPECT_TRUE(m_daemon->LogsSoon("pDbusConnection:(nil),  name:com.halvex.tv.ondaro"));
  m_bus->Start();
  EXPECT_FALSE(m_daemon->Do("send down 1"));
  EXPECT_TRUE(m_application->Do("get client", "send up 1"));
  EXPECT_TRUE(m_application->LogsSoon(BUS_ERROR + "ServiceUnknown"));
}

TEST_F(Fault, BusKilledAndRestarted) {
  Start(OPEN_POLICY);
  Peer ending;
  ASSERT_TRUE(m_daemon->Serve() && m_daemon->Do("stay") && ending.Do("get client"));
  EXPECT_TRUE(m_application->Do("get client", "stay"));
  for (const int restarts : {0, 1}) {
    restarts == 0 ? m_bus->Kill() : m_bus->Start();
    EXPECT_TRUE(WaitUntil([&] { return !m_daemon->Do("send down 1"); }));
    EXPECT_TRUE(m_application->Do("send up 1"));
    EXPECT_TRUE(m_application->LogsSoon(FAILED_CALL + "The connection is closed", 1 + restarts));
    EXPECT_TRUE(m_application->Do("expect down"));
    EXPECT_EQ(m_application->Logged("g_dbus_connection_signal_subscribe failed"), 1 + restarts);
  }
  EXPECT_EQ(ending.Wait(), -SIGTERM);
  Peer next;
  EXPECT_TRUE(next.Serve());
}

// Beyond the call timeout in the longer tiers.
TEST_F(Fault, BusOrHandlerStandsStill) {
  const bool isBeyond = ByTier(false, true, true);
  for (const bool isBus : {true, false}) {
    SCOPED_TRACE(isBus ? "bus" : "handler");
    StartExchange();
    EXPECT_TRUE(m_daemon->Do("hold up"));
    if (isBus) {
      m_bus->Freeze();
    }
    EXPECT_TRUE(m_application->Do("send up 0", "send up 1", "send up 2"));
    if (isBus) {
      EXPECT_TRUE(m_daemon->Do("send down 0"));
    } else {
      EXPECT_EQ(m_daemon->ReadLine(), "up 0");
    }
    EXPECT_TRUE(!isBeyond || m_application->LogsSoon(FAILED_CALL + "Timeout was reached", 3));
    EXPECT_EQ(m_application->Logged(ANSWERED), 0);
    if (isBus) {
      m_bus->Thaw();
      EXPECT_EQ(m_application->ReadLine(), "down 0");
      EXPECT_EQ(m_daemon->ReadLine(), "up 0");
    }
    m_daemon->Write("go on\n");
    EXPECT_EQ(m_daemon->ReadLine(), "up 1");
    EXPECT_EQ(m_daemon->ReadLine(), "up 2");
    EXPECT_TRUE(isBeyond || m_application->LogsSoon(ANSWERED, 3));
    ExpectExchange();
    std::filesystem::remove(m_state / "application");
  }
}

TEST_F(Fault, PolicyRefuses) {
  const auto denying = [](const std::string& what) {
    return OPEN_POLICY + (R"(<policy context="mandatory"><deny )" + what + "/></policy>");
  };
  Start(denying(R"(own="com.halvex.tv.ondaro")"));
  EXPECT_TRUE(m_daemon->Do("get server"));
  EXPECT_TRUE(m_daemon->LogsSoon(",  name:com.halvex.tv.ondaro", 2));  // acquired the bus, lost it
  EXPECT_FALSE(m_daemon->Do("send down 1"));

  StartExchange(denying(R"(send_interface="com.halvex.tv.ondaro" send_type="method_call")"));
  EXPECT_TRUE(m_application->Do("send up 1"));
  EXPECT_TRUE(m_application->LogsSoon(BUS_ERROR + "AccessDenied"));

  StartExchange(denying(R"(receive_interface="com.halvex.tv.ondaro" receive_type="signal")"));
  EXPECT_TRUE(m_daemon->Do("send down 1") && m_application->Do("send up 1"));
  EXPECT_EQ(m_daemon->ReadLine(), "up 1");
  EXPECT_EQ(m_application->Logged("Start sender_name:"), 0);

  Start(denying(R"(user="*")"));
  EXPECT_FALSE(m_application->Do("get client"));
}

// The bus drops what is too much for one that never reads; the others do not notice.
TEST_F(Fault, PeerThatNeverReads) {
  constexpr int FLOODS = 10, FLOOD = 1000;  // one is far below the bus's limit, all are beyond
  StartExchange(OPEN_POLICY + std::string(R"(<limit name="max_outgoing_bytes">1000000</limit>)"));
  Peer stuck;
  EXPECT_TRUE(stuck.Do("get client", "expect down", "sync"));
  stuck.Freeze();
  for (int i = 0; i < FLOODS * FLOOD; ++i) {
    if (i % FLOOD == 0) {
      m_daemon->Write("flood down " + std::to_string(FLOOD) + "\n");
    }
    ASSERT_EQ(m_application->ReadLine(), "down " + std::to_string(i % FLOOD));
  }
  stuck.Signal(SIGCONT);
  int heard = 0;
  EXPECT_TRUE(WaitUntil([&] {
    EXPECT_TRUE(m_daemon->Do("send down again"));
    bool isBack = false;
    while (!isBack && stuck.HasLine()) {
      const std::string line = stuck.ReadLine().value();
      isBack = line == "down again";
      EXPECT_TRUE(isBack || line == "down " + std::to_string(heard++ % FLOOD)) << line;
    }
    return isBack;
  }));
  EXPECT_LT(heard, FLOODS * FLOOD);
  ExpectExchange();
}

TEST_F(Fault, AThousandCallsOutstanding) {
  constexpr int SENT = 1000, GRANTED = 128;
  StartExchange();
  EXPECT_TRUE(m_daemon->Do("hold up"));
  m_application->Write("flood up " + std::to_string(SENT) + "\n");
  EXPECT_TRUE(m_application->LogsSoon(BUS_ERROR + "LimitsExceeded", SENT - GRANTED));
  m_daemon->Write("go on\n");
  EXPECT_TRUE(m_application->LogsSoon(ANSWERED, GRANTED));
  ExpectExchange();
}

TEST_F(Fault, DataAtTheSizeLimit) {
  constexpr std::size_t LARGEST = 32U * 1024 * 1024 - 1024 - 16;  // with the name
  StartExchange();
  const auto expectLimit = [](Peer& sender, Peer& receiver, const std::string& name) {
    const std::string fits = std::to_string(LARGEST - name.size());
    EXPECT_FALSE(sender.Do("send " + name + " *" + std::to_string(LARGEST - name.size() + 1)));
    EXPECT_TRUE(sender.Do("send " + name + " *" + fits));
    EXPECT_EQ(receiver.ReadLine(), name + " " + fits + " bytes");
  };
  expectLimit(*m_application, *m_daemon, "up");
  expectLimit(*m_daemon, *m_application, "down");
  ExpectExchange();
}

TEST_F(Fault, ForkInTheProcess) {
  StartExchange();
  for (Peer* peer : {m_daemon.get(), m_application.get()}) {
    EXPECT_TRUE(peer->Do("fork"));
    ExpectExchange();
  }
}

}  // namespace
}  // namespace ondaro::test
