// The daemon's end against independent peers: the implementation object in this process, on its
// own connection; callers and listeners on theirs, or programs that know nothing of the library.
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

class Server : public BusTest {
 protected:
  void Create() { m_server.reset(NOndaroPAL::CPALFactory::CreateIpcServerImpl()); }
  void CreateServing() {
    Create();
    ASSERT_TRUE(WaitUntil([this] { return m_peer.Owner() == SharedName(); }));
    ASSERT_TRUE(WaitUntil([this] { return CanSend(); }));
  }
  std::string SharedName() const { return g_dbus_connection_get_unique_name(m_shared); }
  bool CanSend() {
    try {
      m_server->SendDataToClient("probe", "");
      return true;
    } catch (const CInvalidCaseException&) {
      return false;
    }
  }

  PlainPeer m_peer;
  std::unique_ptr<NOndaroAPI::IIpcServerImpl> m_server;
};

// ---- Independent programs ----

TEST_F(Server, AnswersProgramsThatKnowNothingOfIt) {
  CreateServing();
  m_server->RegisterEventHandler("event", Recorder("event"));
  const std::string method = std::string(INTERFACE) + "." + METHOD;
  struct {
    std::vector<std::string> command;
    std::string answer;
  } const rows[] = {
      {{"gdbus", "call", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH, "--method",
        method, "event", "by gdbus"},
       "(0,)\n"},
      {{"busctl", "--system", "call", BUS_NAME, OBJECT_PATH, INTERFACE, METHOD, "ss", "event",
        "by busctl"},
       "i 0\n"},
      {{"gdbus", "introspect", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH},
       "sendDataToServer(in  s event,\n                       in  s data,\n"
       "                       out i result);"},
      {{"busctl", "--system", "introspect", BUS_NAME, OBJECT_PATH, INTERFACE},
       ".sendDataToServer    method    ss"},
      {{"busctl", "--system", "introspect", BUS_NAME, OBJECT_PATH, INTERFACE},
       ".sendDataToClient    signal    ss"},
  };
  for (const auto& row : rows) {
    ChildProcess tool(row.command, {std::nullopt, true, {}});
    const std::string answer = ReadAllWhileServing(tool);
    EXPECT_NE(answer.find(row.answer), std::string::npos) << row.command[1] << ": " << answer;
  }
  EXPECT_EQ(m_events, std::vector<Event>({{"event", "by gdbus"}, {"event", "by busctl"}}));
}

TEST_F(Server, IsHeardByProgramsThatKnowNothingOfIt) {
  CreateServing();
  const std::vector<std::string> commands[] = {
      {"gdbus", "monitor", "--system", "--dest", BUS_NAME},
      {"busctl", "--system", "--json=short", "monitor", BUS_NAME}};
  for (const auto& command : commands) {
    ChildProcess monitor(command, {std::nullopt, true, {}});
    // Each starts to listen some time after its first line.
    bool heard = false;
    EXPECT_TRUE(WaitUntil([&] {
      m_server->SendDataToClient("an event", "its data");
      while (!heard && monitor.HasLine()) {
        const std::optional<std::string> line = monitor.ReadLine(std::chrono::milliseconds(0));
        if (!line) break;
        heard = line->find("an event") != std::string::npos &&
                line->find("its data") != std::string::npos;
      }
      return heard;
    })) << command[0];
  }
}

// ---- Dispatch ----

TEST_F(Server, DispatchesByNameAndAnswersZeroAlways) {
  CreateServing();
  const std::string names[] = {"b", "", "B", "ereignis-ü", "a"};
  for (const std::string& name : names) {
    m_server->RegisterEventHandler(name, Recorder("replaced " + name));
    m_server->RegisterEventHandler(name, Recorder(name));
  }
  std::vector<Event> expected;
  for (const std::string& name : names) {
    EXPECT_EQ(m_peer.CallEvent(name, "data of " + name), "(0,)");
    expected.emplace_back(name, "data of " + name);
  }
  EXPECT_EQ(m_peer.CallEvent("a", ""), "(0,)");
  expected.emplace_back("a", "");
  EXPECT_EQ(m_events, expected);

  LogRecorder::Clear();
  EXPECT_EQ(m_peer.CallEvent("unknown", "data"), "(0,)");
  EXPECT_TRUE(LogRecorder::Has("appEvt unknown is not registered"));
  std::vector<std::string> listed;
  for (const LogLine& line : LogRecorder::Lines("registered appEvt : ")) {
    EXPECT_EQ(line.priority, PRIORITY_ERROR);
    listed.push_back(line.body.substr(std::string("registered appEvt : ").size()));
  }
  EXPECT_EQ(listed, std::vector<std::string>({"", "B", "a", "b", "ereignis-ü"}));
  const auto start = LogRecorder::Lines("Start sender:");
  ASSERT_EQ(start.size(), 1U);
  EXPECT_EQ(start[0].body, "Start sender:" + m_peer.UniqueName() + "  object_path:" + OBJECT_PATH +
                               "  interface_name:" + INTERFACE + "  method_name:" + METHOD);
  EXPECT_TRUE(LogRecorder::Has("Finish" + start[0].body.substr(5)));

  m_server->UnregisterEventHandler();
  LogRecorder::Clear();
  EXPECT_EQ(m_peer.CallEvent("a", "late"), "(0,)");
  EXPECT_EQ(m_events, expected);
  EXPECT_TRUE(LogRecorder::Has("appEvt a is not registered"));
  EXPECT_FALSE(LogRecorder::Has("registered appEvt : "));

  m_server->RegisterEventHandler("a", Recorder("again"));
  EXPECT_EQ(m_peer.CallEvent("a", "1"), "(0,)");
  EXPECT_EQ(m_events.back(), Event("again", "1"));
}

TEST_F(Server, NeverSeesCallsOfAnotherShape) {
  CreateServing();
  m_server->RegisterEventHandler("event", Recorder("event"));
  const struct {
    const char* member;
    const char* interface;
    const char* path;
    const char* body;
  } rows[] = {
      {METHOD, INTERFACE, OBJECT_PATH, "('event', 1)"},
      {METHOD, INTERFACE, OBJECT_PATH, "()"},
      {METHOD, INTERFACE, OBJECT_PATH, "('event',)"},
      {METHOD, INTERFACE, OBJECT_PATH, "('event', 'data', 'more')"},
      {METHOD, INTERFACE, OBJECT_PATH, "(['event'], 'data')"},
      {METHOD, INTERFACE, OBJECT_PATH, "(<'event'>, <'data'>)"},
      {"SendDataToServer", INTERFACE, OBJECT_PATH, "('event', 'data')"},
      {SIGNAL, INTERFACE, OBJECT_PATH, "('event', 'data')"},
      {METHOD, "com.halvex.tv.ondaro2", OBJECT_PATH, "('event', 'data')"},
      {METHOD, INTERFACE, "/com/halvex/tv", "('event', 'data')"},
      {"Set", "org.freedesktop.DBus.Properties", OBJECT_PATH,
       "('com.halvex.tv.ondaro', 'event', <'data'>)"},
      {"Get", "org.freedesktop.DBus.Properties", OBJECT_PATH, "('com.halvex.tv.ondaro', 'event')"},
  };
  for (const auto& row : rows) {
    GVariant* body = g_variant_parse(nullptr, row.body, nullptr, nullptr, nullptr);
    EXPECT_EQ(m_peer.Call(body, row.member, row.interface, row.path).substr(0, 6), "error:")
        << row.member << row.body;
    g_variant_unref(body);
    EXPECT_EQ(m_peer.CallEvent("event", row.body), "(0,)");
    ASSERT_FALSE(m_events.empty());
    EXPECT_EQ(m_events.back(), Event("event", row.body));
  }
  EXPECT_EQ(m_events.size(), std::size(rows));
}

TEST_F(Server, LetsHandlersDoEverything) {
  CreateServing();
  PlainPeer listener;
  listener.Listen();
  m_server->RegisterEventHandler("replace", [this](const std::string& data) {
    m_server->RegisterEventHandler("replace", Recorder("replaced"));
    m_events.emplace_back("replace", data);
  });
  m_server->RegisterEventHandler(
      "send", [this](const std::string& data) { m_server->SendDataToClient("sent", data); });
  const std::string captured = "a text too long for the handler object itself";
  m_server->RegisterEventHandler("clear", [this, captured](const std::string& data) {
    m_server->UnregisterEventHandler();
    for (int i = 0; i < 100; ++i) {
      m_server->RegisterEventHandler(std::to_string(i), {});
    }
    m_events.emplace_back(captured, data);
  });
  m_server->RegisterEventHandler(
      "throw", [](const std::string&) { throw std::runtime_error("thrown by a handler"); });
  m_server->RegisterEventHandler("throw int", [](const std::string&) { throw 1; });

  EXPECT_EQ(m_peer.CallEvent("replace", "1"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("replace", "2"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("send", "3"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("throw", "4"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("throw int", "5"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("clear", "6"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("clear", "7"), "(0,)");
  EXPECT_EQ(m_peer.CallEvent("42", "a handler that is empty"), "(0,)");

  EXPECT_EQ(m_events, std::vector<Event>({{"replace", "1"}, {"replaced", "2"}, {captured, "6"}}));
  EXPECT_TRUE(LogRecorder::Has("exception : thrown by a handler"));
  ASSERT_TRUE(WaitUntil([&] { return !listener.Heard().empty(); }));
  EXPECT_EQ(listener.Heard(), std::vector<Event>({{"sent", "3"}}));
}

// ---- Sending ----

TEST_F(Server, RefusesWhatTheBusCannotCarryAndGoesOn) {
  CreateServing();
  PlainPeer listener;
  listener.Listen();
  const std::string huge(32U << 20U, 'x');
  const std::string half(16U << 20U, 'x');
  const Event rows[] = {{"event", "\xff"},
                        {"\xc3", "data"},
                        {"event", "cut \xe2\x82"},
                        {"event", "surrogate \xed\xa0\x80"},
                        {"event", "overlong \xc0\x80"},
                        {"event", std::string("nul\0inside", 10)},
                        {std::string("\0", 1), "data"},
                        {"event", huge},
                        {huge, ""},
                        {half, half}};
  std::vector<Event> sent;
  for (const auto& [name, data] : rows) {
    EXPECT_THROW(m_server->SendDataToClient(name, data), CInvalidCaseException);
    sent.emplace_back("good", std::to_string(sent.size()));
    m_server->SendDataToClient(sent.back().first, sent.back().second);
  }
  // The largest that is let through passes, and the connection with it.
  std::string largest(huge.size() - 2048, 'x');
  m_server->SendDataToClient("", largest);
  sent.emplace_back("", std::move(largest));
  ASSERT_TRUE(WaitUntil([&] { return listener.Heard().size() >= sent.size(); }));
  EXPECT_TRUE(listener.Heard() == sent);
  EXPECT_FALSE(g_dbus_connection_is_closed(m_shared));
}

TEST_F(Server, SendsOnlyWhileItOwnsTheName) {
  ASSERT_TRUE(m_peer.Own());
  PlainPeer listener;
  listener.Listen();
  Create();
  EXPECT_FALSE(CanSend());
  ASSERT_TRUE(WaitUntil([] { return LogRecorder::Lines("pDbusConnection:").size() == 2; }));
  EXPECT_FALSE(CanSend()) << "queued behind another daemon";

  m_peer.Release();
  ASSERT_TRUE(WaitUntil([this] { return CanSend(); }));
  EXPECT_EQ(m_peer.Owner(), SharedName());
  ASSERT_TRUE(WaitUntil([&] { return !listener.Heard().empty(); }));
  // The registration went with the loss: it sends but is not called.
  EXPECT_EQ(m_peer.CallEvent("event", "data").substr(0, 6), "error:");

  g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
  ASSERT_TRUE(WaitUntil([this] { return !CanSend(); }));
}

TEST_F(Server, ReportsASendThatTheConnectionRefuses) {
  CreateServing();
  g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
  // The loss is not delivered yet, so the connection is still the recorded one.
  EXPECT_NO_THROW(m_server->SendDataToClient("event", "data"));
  EXPECT_TRUE(LogRecorder::Has("DBUS emit signal failed: "));
}

// ---- Life and death ----

void BeginCall(const PlainPeer& peer, const std::string& destination) {
  g_dbus_connection_call(peer.Connection(), destination.c_str(), OBJECT_PATH, INTERFACE, METHOD,
                         g_variant_new("(ss)", "event", "data"), nullptr, G_DBUS_CALL_FLAGS_NONE,
                         -1, nullptr, nullptr, nullptr);
}

TEST_F(Server, LeavesNothingBehindInWhateverStateItIsDestroyed) {
  constexpr int BURST = 100;
  const auto called = [](const char* start) { return [start] { return LogRecorder::Has(start); }; };
  const auto burst = [this] {
    for (int i = 0; i < BURST; ++i) {
      BeginCall(m_peer, SharedName());
    }
    SyncWithBus(m_peer.Connection());
    SyncWithBus(m_shared);  // now the calls wait in the main context
  };
  const struct {
    const char* state;
    std::function<void()> reach;
  } rows[] = {
      {"requested", [] {}},
      {"bus acquired", [&] { ASSERT_TRUE(WaitUntil(called("pThis->m_pBusNodeInfo:"))); }},
      {"bus acquired, the answer waiting",
       [&] {
         ASSERT_TRUE(WaitUntil(called("pThis->m_pBusNodeInfo:")));
         SyncWithBus(m_shared);
       }},
      {"bus acquired, calls waiting",
       [&] {
         ASSERT_TRUE(WaitUntil(called("pThis->m_pBusNodeInfo:")));
         burst();
       }},
      {"serving", [&] { ASSERT_TRUE(WaitUntil([this] { return CanSend(); })); }},
      {"serving, calls waiting",
       [&] {
         ASSERT_TRUE(WaitUntil([this] { return CanSend(); }));
         burst();
       }},
      {"connection closed, not told yet",
       [&] {
         ASSERT_TRUE(WaitUntil([this] { return CanSend(); }));
         burst();
         g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    LogRecorder::Clear();
    Create();
    m_server->RegisterEventHandler("event", Recorder("event"));
    row.reach();
    const std::size_t before = m_events.size();
    m_server.reset();
    LogRecorder::Clear();
    for (int i = 0; i < 2; ++i) {
      SyncWithBus(m_shared);
      Drain();
    }
    EXPECT_EQ(m_peer.Owner(), "");
    EXPECT_EQ(m_events.size(), before);
    EXPECT_FALSE(LogRecorder::Has(""));
  }
}

TEST_F(Server, LeavesNothingBehindOnceTheNameIsLost) {
  ASSERT_TRUE(m_peer.Own());
  for (const bool again : {false, true}) {
    LogRecorder::Clear();
    Create();
    ASSERT_TRUE(WaitUntil([] { return LogRecorder::Lines("pDbusConnection:").size() == 2; }));
    if (again) {
      m_peer.Release();
      ASSERT_TRUE(WaitUntil([this] { return CanSend(); }));
    }
    m_server.reset();
    EXPECT_EQ(LogRecorder::Has("unregister_object() result:FAILED"), again);
    LogRecorder::Clear();
    if (!again) {
      m_peer.Release();
    }
    EXPECT_TRUE(WaitUntil([this] { return m_peer.Owner().empty(); }));
    EXPECT_FALSE(LogRecorder::Has(""));
    ASSERT_TRUE(m_peer.Own());
  }
}

TEST_F(Server, SaysThatItUnregisteredItsObject) {
  CreateServing();
  m_server.reset();
  EXPECT_TRUE(LogRecorder::Has("unregister_object() result:OK"));
}

TEST_F(Server, ServesOnTheContextOfTheThreadThatMadeIt) {
  GMainContext* context = g_main_context_new();
  std::atomic<bool> stop{false};
  std::atomic<bool> ready{false};
  std::thread::id handled;
  std::thread daemon([&] {
    g_main_context_push_thread_default(context);
    std::unique_ptr<NOndaroAPI::IIpcServerImpl> server(
        NOndaroPAL::CPALFactory::CreateIpcServerImpl());
    server->RegisterEventHandler("event",
                                 [&](const std::string&) { handled = std::this_thread::get_id(); });
    ready = true;
    WaitUntil([&] { return stop.load(); });
    server.reset();
    Drain();
    g_main_context_pop_thread_default(context);
  });
  const std::thread::id id = daemon.get_id();
  EXPECT_TRUE(WaitUntil([&] { return ready && m_peer.Owner() == SharedName(); }));
  EXPECT_EQ(m_peer.CallEvent("event", "data"), "(0,)");
  stop = true;
  daemon.join();
  EXPECT_EQ(handled, id);
  g_main_context_unref(context);
}

TEST(ServerAlone, LivesWithoutABus) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/at/all", 1);
  LogRecorder::Clear();
  const std::unique_ptr<NOndaroAPI::IIpcServerImpl> server(
      NOndaroPAL::CPALFactory::CreateIpcServerImpl());
  EXPECT_TRUE(WaitUntil([] { return LogRecorder::Has("pDbusConnection:(nil),  name:"); }));
  EXPECT_THROW(server->SendDataToClient("event", "data"), CInvalidCaseException);
}

}  // namespace
}  // namespace ondaro::test
