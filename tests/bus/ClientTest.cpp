// The application's end against an independent daemon on a connection of its own. The daemon is
// served by this thread too, so the client, which asks it for its properties, is made first.
#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "bus/BusTest.h"
#include "ondaro/pal/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::test {
namespace {

using NOndaroPAL::CInvalidCaseException;

class Client : public BusTest {
 protected:
  Client() { Create(); }
  void Create() { m_client.reset(NOndaroPAL::CPALFactory::CreateIpcClientImpl()); }
  void StartDaemon() {
    m_daemon.Serve(ONDARO_TEST_DESCRIPTION);
    ASSERT_TRUE(m_daemon.Own());
  }
  /// Delivers all that was emitted before.
  void Deliver() {
    SyncWithBus(m_shared);
    Drain();
  }
  bool Completed(std::size_t succeeded, std::size_t failed) {
    return WaitUntil([&] {
      return LogRecorder::Lines("g_dbus_proxy_call result : 0").size() == succeeded &&
             LogRecorder::Lines("g_dbus_proxy_call_finish error : ").size() == failed;
    });
  }

  PlainPeer m_daemon;
  std::unique_ptr<NOndaroAPI::IIpcClientImpl> m_client;
};

// ---- Receiving ----

TEST_F(Client, HearsEachEventOnceHoweverManyNamesItListensTo) {
  constexpr int NAMES = 50;
  for (int i = 0; i < NAMES; ++i) {
    m_client->RegisterEventHandler(std::to_string(i), Recorder("replaced"));
    m_client->RegisterEventHandler(std::to_string(i), Recorder(std::to_string(i)));
  }
  m_client->RegisterEventHandler("", Recorder(""));
  m_client->RegisterEventHandler("ä", Recorder("ä"));
  const std::vector<Event> sent = {{"7", "seven"}, {"", ""}, {"ä", "ö"}, {"49", ""}, {"7", "7"}};
  for (const auto& [name, data] : sent) {
    m_daemon.EmitEvent(name, data);
  }
  m_daemon.EmitEvent("Ä", "nobody listens");
  Deliver();
  EXPECT_EQ(m_events, sent);

  const auto starts = LogRecorder::Lines("Start sender_name:");
  const std::string rest = "sender_name:" + m_daemon.UniqueName() + ", object_path:" + OBJECT_PATH +
                           ",  interface_name:" + INTERFACE + ",  signal_name:" + SIGNAL;
  ASSERT_EQ(starts.size(), sent.size() + 1);
  EXPECT_EQ(starts[0].body, "Start " + rest);
  EXPECT_EQ(starts[0].priority, PRIORITY_ERROR);
  const auto ends = LogRecorder::Lines("Finish " + rest);
  ASSERT_EQ(ends.size(), sent.size() + 1);
  EXPECT_EQ(ends[0].priority, PRIORITY_ERROR);
}

TEST_F(Client, StopsAndStartsListeningAgain) {
  for (int round = 0; round < 3; ++round) {
    m_client->RegisterEventHandler("event", Recorder("event"));
    m_client->RegisterEventHandler("other", Recorder("other"));
    m_daemon.EmitEvent("event", std::to_string(round));
    Deliver();
    m_client->UnregisterEventHandler();
    m_client->UnregisterEventHandler();
    m_daemon.EmitEvent("event", "unheard");
    Deliver();
  }
  EXPECT_EQ(m_events, std::vector<Event>({{"event", "0"}, {"event", "1"}, {"event", "2"}}));
  EXPECT_EQ(LogRecorder::Lines("Start sender_name:").size(), 3U);
}

TEST_F(Client, LosesNothingThatIsQueuedWhenItRegisters) {
  m_client->RegisterEventHandler("a", Recorder("a"));
  for (int i = 0; i < 20; ++i) {
    m_daemon.EmitEvent("a", std::to_string(i));
  }
  SyncWithBus(m_shared);
  m_client->RegisterEventHandler("b", Recorder("b"));
  m_daemon.EmitEvent("b", "");
  Deliver();
  EXPECT_EQ(m_events.size(), 21U);
}

TEST_F(Client, IsNotDisturbedByWhatAnyoneBroadcasts) {
  m_client->RegisterEventHandler("event", Recorder("event"));
  const struct {
    const char* body;
    const char* member;
    const char* interface;
    bool logged;
  } rows[] = {
      {"('event', 1)", SIGNAL, INTERFACE, true},
      {"()", SIGNAL, INTERFACE, true},
      {"('event',)", SIGNAL, INTERFACE, true},
      {"('event', 'data', 'more')", SIGNAL, INTERFACE, true},
      {"(objectpath '/event', 'data')", SIGNAL, INTERFACE, true},
      {"(('event', 'data'),)", SIGNAL, INTERFACE, true},
      {"(<'event'>, <'data'>)", SIGNAL, INTERFACE, true},
      {"('event', 'data')", "SendDataToClient", INTERFACE, false},
      {"('event', 'data')", SIGNAL, "com.halvex.tv.other", false},
  };
  PlainPeer stranger;
  std::vector<Event> expected;
  for (const auto& row : rows) {
    LogRecorder::Clear();
    GVariant* body = g_variant_parse(nullptr, row.body, nullptr, nullptr, nullptr);
    stranger.Emit(body, row.member, row.interface);
    g_variant_unref(body);
    Deliver();
    EXPECT_EQ(m_events, expected) << row.body;
    EXPECT_EQ(LogRecorder::Has("unexpected arguments "), row.logged) << row.body;
    // The daemon is not told from others.
    stranger.EmitEvent("event", row.body);
    Deliver();
    expected.emplace_back("event", row.body);
    EXPECT_EQ(m_events, expected);
  }
}

TEST_F(Client, LetsHandlersDoEverything) {
  StartDaemon();
  const std::string captured = "a text too long for the handler object itself";
  m_client->RegisterEventHandler("replace", [this](const std::string& data) {
    m_client->RegisterEventHandler("replace", Recorder("replaced"));
    m_events.emplace_back("replace", data);
  });
  m_client->RegisterEventHandler(
      "send", [this](const std::string& data) { m_client->SendDataToServer("sent", data); });
  m_client->RegisterEventHandler(
      "throw", [](const std::string&) { throw std::runtime_error("thrown by a handler"); });
  m_client->RegisterEventHandler("throw int", [](const std::string&) { throw 1; });
  m_client->RegisterEventHandler("empty", {});
  m_client->RegisterEventHandler("clear", [this, captured](const std::string& data) {
    m_client->UnregisterEventHandler();
    m_client->RegisterEventHandler("after", Recorder("after"));
    m_events.emplace_back(captured, data);
  });
  const char* const names[] = {"replace",   "replace", "send",  "throw",
                               "throw int", "empty",   "clear", "clear"};
  for (const char* name : names) {
    m_daemon.EmitEvent(name, name);
    Deliver();
  }
  m_daemon.EmitEvent("after", "clear");
  Deliver();
  EXPECT_EQ(m_events, std::vector<Event>({{"replace", "replace"},
                                          {"replaced", "replace"},
                                          {captured, "clear"},
                                          {"after", "clear"}}));
  EXPECT_TRUE(LogRecorder::Has("exception : thrown by a handler"));
  EXPECT_EQ(LogRecorder::Lines("Start ").size(), LogRecorder::Lines("Finish ").size());
  EXPECT_TRUE(WaitUntil([this] { return !m_daemon.Received().empty(); }));
  EXPECT_EQ(m_daemon.Received(), std::vector<Event>({{"sent", "send"}}));
}

// ---- Sending ----

TEST_F(Client, LearnsFromTheLogWhatBecameOfACall) {
  m_client->SendDataToServer("early", "bird");
  EXPECT_TRUE(LogRecorder::Has("Values are being sent. appEvt : early, surfaceId : bird"));
  EXPECT_TRUE(Completed(0, 1)) << "no daemon";
  StartDaemon();
  m_client->SendDataToServer("event", "data");
  m_client->SendDataToServer("", "");
  EXPECT_TRUE(Completed(2, 1));
  EXPECT_EQ(m_daemon.Received(), std::vector<Event>({{"event", "data"}, {"", ""}}));
}

TEST_F(Client, RefusesWhatTheBusCannotCarryAndGoesOn) {
  StartDaemon();
  const std::string huge(32U << 20U, 'x');
  const Event rows[] = {{"event", "\xff"},
                        {"\xc3", "data"},
                        {"event", std::string("nul\0inside", 10)},
                        {std::string("\0", 1), "data"},
                        {"event", huge},
                        {huge, ""}};
  std::vector<Event> sent;
  for (const auto& [name, data] : rows) {
    EXPECT_THROW(m_client->SendDataToServer(name, data), CInvalidCaseException);
    sent.emplace_back("good", std::to_string(sent.size()));
    m_client->SendDataToServer(sent.back().first, sent.back().second);
  }
  std::string largest(huge.size() - 2048, 'x');
  m_client->SendDataToServer("", largest);
  sent.emplace_back("", std::move(largest));
  EXPECT_TRUE(Completed(sent.size(), 0));
  EXPECT_TRUE(m_daemon.Received() == sent);
}

TEST_F(Client, LogsTheCallsThatTheBusRefuses) {
  constexpr std::size_t GRANTED = 128;
  constexpr std::size_t SENT = 300;
  StartDaemon();
  m_client->SendDataToServer("event", "first");
  ASSERT_TRUE(Completed(1, 0));
  LogRecorder::Clear();
  // The daemon answers nothing before the main context is iterated.
  for (std::size_t i = 0; i < SENT; ++i) {
    m_client->SendDataToServer("event", std::to_string(i));
  }
  SyncWithBus(m_shared);
  EXPECT_TRUE(Completed(GRANTED, SENT - GRANTED));
  EXPECT_EQ(m_daemon.Received().size(), GRANTED + 1);
}

TEST_F(Client, SurvivesADaemonThatAnswersSomethingElse) {
  static const GDBusInterfaceVTable table = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
         GDBusMethodInvocation* invocation, gpointer) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", "fine"));
      },
      nullptr,
      nullptr,
      {nullptr}};
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
      "<node><interface name='com.halvex.tv.ondaro'><method name='sendDataToServer'>"
      "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='out'/>"
      "</method></interface></node>",
      nullptr);
  g_dbus_connection_register_object(m_daemon.Connection(), OBJECT_PATH, node->interfaces[0], &table,
                                    nullptr, nullptr, nullptr);
  g_dbus_node_info_unref(node);
  ASSERT_TRUE(m_daemon.Own());
  m_client->SendDataToServer("event", "data");
  EXPECT_TRUE(WaitUntil([] { return LogRecorder::Has("unexpected reply (s)"); }));
}

// ---- Life and death ----

TEST_F(Client, LeavesNothingBehindInWhateverStateItIsDestroyed) {
  constexpr int BURST = 100;
  const auto listen = [this] {
    m_client->RegisterEventHandler("event", Recorder("event"));
    m_client->RegisterEventHandler("other", Recorder("other"));
  };
  const auto burst = [this] {
    for (int i = 0; i < BURST; ++i) {
      m_daemon.EmitEvent("event", "data");
    }
    SyncWithBus(m_shared);  // now they wait in the main context
  };
  const auto send = [this] {
    for (int i = 0; i < BURST; ++i) {
      m_client->SendDataToServer("event", "data");
    }
  };
  const struct {
    const char* state;
    std::function<void()> reach;
  } rows[] = {
      {"connected", [] {}},
      {"calls under way", send},
      {"listening", listen},
      {"listening, a burst waiting", [&] { listen(), burst(); }},
      {"listening, a burst waiting, calls under way", [&] { listen(), burst(), send(); }},
      {"not listening any more, a burst waiting",
       [&] { listen(), burst(), m_client->UnregisterEventHandler(); }},
      {"connection closed",
       [&] {
         listen(), burst(), send();
         g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    if (!m_client) {
      Create();
    }
    row.reach();
    m_client.reset();
    LogRecorder::Clear();
    SyncWithBus(m_daemon.Connection());
    Deliver();
    EXPECT_TRUE(m_events.empty());
    EXPECT_FALSE(LogRecorder::Has("Start "));
    m_events.clear();
  }
}

TEST_F(Client, IsOfNoUseOnAClosedConnectionAndSaysSo) {
  g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
  // GLib's worker notices the end of the connection on its own.
  ASSERT_TRUE(WaitUntil([this] { return g_dbus_connection_is_closed(m_shared) != FALSE; }));
  EXPECT_THROW(m_client->RegisterEventHandler("event", Recorder("event")), CInvalidCaseException);
  m_client->SendDataToServer("event", "data");
  EXPECT_TRUE(Completed(0, 1));
  m_client->UnregisterEventHandler();
  EXPECT_THROW(Create(), CInvalidCaseException);
}

TEST_F(Client, HearsOnTheContextOfTheThreadThatRegistered) {
  StartDaemon();
  GMainContext* context = g_main_context_new();
  std::atomic<bool> ready{false};
  std::atomic<bool> done{false};
  std::thread::id heard;
  m_client.reset();
  std::thread application([&] {
    g_main_context_push_thread_default(context);
    std::unique_ptr<NOndaroAPI::IIpcClientImpl> client(
        NOndaroPAL::CPALFactory::CreateIpcClientImpl());
    client->RegisterEventHandler("event",
                                 [&](const std::string&) { heard = std::this_thread::get_id(); });
    client->SendDataToServer("from", "the thread");
    ready = true;
    EXPECT_TRUE(WaitUntil([&] {
      return heard != std::thread::id() && LogRecorder::Has("g_dbus_proxy_call result : 0");
    }));
    client.reset();
    Drain();
    g_main_context_pop_thread_default(context);
    done = true;
  });
  const std::thread::id id = application.get_id();
  // The thread waits for the properties of the daemon's object, which this one serves.
  EXPECT_TRUE(WaitUntil([&] { return ready.load(); }));
  m_daemon.EmitEvent("event", "data");
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  application.join();
  EXPECT_EQ(heard, id);
  EXPECT_EQ(m_daemon.Received(), std::vector<Event>({{"from", "the thread"}}));
  g_main_context_unref(context);
}

TEST(ClientAlone, IsNotMadeWithoutABus) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/at/all", 1);
  EXPECT_THROW(NOndaroPAL::CPALFactory::CreateIpcClientImpl(), CInvalidCaseException);
}

}  // namespace
}  // namespace ondaro::test
