// Each end in this process, over the scripted platform, against an independent peer.
#include <dlfcn.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"
#include "support/FakePlatform.h"
#include "support/Files.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace {

/// What the library finds as its interface description; nothing: no file.
std::optional<std::string> g_description;

int g_callTimeout = 0;

/// What the process's shared connection has asked the bus to send it.
std::atomic<int> g_matches{0};

/// In GLib's own thread.
GDBusMessage* CountMatches(GDBusConnection*, GDBusMessage* message, gboolean, gpointer) {
  const gchar* const member = g_dbus_message_get_member(message);
  g_matches += g_strcmp0(member, "AddMatch") == 0 ? 1 : 0;
  g_matches -= g_strcmp0(member, "RemoveMatch") == 0 ? 1 : 0;
  return message;
}

}  // namespace

gboolean g_file_get_contents(const gchar*, gchar** contents, gsize*, GError** error) {
  if (!g_description) {
    g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_NOENT, "no such file");
    return FALSE;
  }
  *contents = g_strndup(g_description->data(), g_description->size());
  return TRUE;
}

void g_dbus_proxy_call(GDBusProxy* proxy, const gchar* method, GVariant* body, GDBusCallFlags flags,
                       gint timeout, GCancellable* cancellable, GAsyncReadyCallback callback,
                       gpointer data) {
  static const auto call =
      reinterpret_cast<decltype(&g_dbus_proxy_call)>(dlsym(RTLD_NEXT, "g_dbus_proxy_call"));
  g_callTimeout = timeout;
  call(proxy, method, body, flags, timeout, cancellable, callback, data);
}

namespace ondaro::test {
namespace {

using NOndaroPAL::CPALFactory;
using Event = std::pair<std::string, std::string>;

class Ends : public testing::Test {
 protected:
  /// The process's shared connection is held to see what is left of it.
  Ends() {
    g_description = ReadFile(ONDARO_TEST_DESCRIPTION);
    ForgetLog();
  }

  /// Whatever the test did, nothing of the library holds the connection when it is over.
  ~Ends() override {
    m_server.reset();
    m_client.reset();
    Close();
    EXPECT_TRUE(WaitUntil([this] { return m_shared == nullptr; }));
  }

  GDBusConnection* Connect() {
    m_isClosed = false;
    g_matches = 0;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_dbus_connection_add_filter(connection, CountMatches, nullptr, nullptr);
    return connection;
  }
  /// From here on m_shared is null once nobody holds the connection.
  void Close() {
    if (!std::exchange(m_isClosed, true)) {
      g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
      g_object_add_weak_pointer(G_OBJECT(m_shared), reinterpret_cast<gpointer*>(&m_shared));
      g_object_unref(m_shared);
    }
  }

  void ForgetLog() {
    FakePlatform::Get().TakeLog();
    m_log.clear();
  }
  std::ptrdiff_t Logged(const std::string& start) {
    for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
      m_log.push_back(entry.body);
    }
    return std::count_if(m_log.begin(), m_log.end(),
                         [&](const std::string& body) { return body.rfind(start, 0) == 0; });
  }

  NOndaroAPI::IpcEventHandler Recorder(const std::string& name) {
    return [this, name](const std::string& data) { m_events.emplace_back(name, data); };
  }
  void CreateServer() {
    m_server.reset(CPALFactory::CreateIpcServerImpl());
    m_server->RegisterEventHandler("event", Recorder("event"));
  }
  void AwaitServing() {
    ASSERT_TRUE(WaitUntil([this] {
      try {
        m_server->SendDataToClient("probe", "");
        return true;
      } catch (const std::exception&) {
        return false;
      }
    }));
  }
  void CreateServing() {
    CreateServer();
    AwaitServing();
  }
  void CreateClient() {
    m_client.reset(CPALFactory::CreateIpcClientImpl());
    m_client->RegisterEventHandler("event", Recorder("event"));
  }

  PrivateBus m_bus;
  bool m_isClosed = true;
  GDBusConnection* m_shared = Connect();
  PlainPeer m_peer;
  std::vector<std::string> m_log;
  std::vector<Event> m_events;
  std::unique_ptr<NOndaroAPI::IIpcServerImpl> m_server;
  std::unique_ptr<NOndaroAPI::IIpcClientImpl> m_client;
};

TEST_F(Ends, LeaveNothingBehindInWhateverStateTheyAreDestroyed) {
  const auto soon = [this](const char* start) {
    ASSERT_TRUE(WaitUntil([&] { return Logged(start); }));
  };
  bool isTaken = false;
  const auto acquire = [&] {
    CreateServer(), soon("pThis->m_pBusNodeInfo:");
    EXPECT_THAT([this] { m_server->SendDataToClient("event", ""); },
                testing::ThrowsMessage<std::exception>(
                    "PAL Exception: InvalidCase: m_pDbusConnection is NULL"));
  };
  const auto queue = [&] {
    ASSERT_TRUE(m_peer.Own());
    acquire(), ForgetLog();
    soon("pDbusConnection:");  // the name is not to be had
  };
  const auto send = [&] {
    for (int i = 0; i < 100; ++i) {
      m_client->SendDataToServer("event", "data");
    }
  };
  // Calls and signals that wait in the main context.
  const auto burst = [&] {
    const std::string destination = g_dbus_connection_get_unique_name(m_shared);
    for (int i = 0; i < 100; ++i) {
      g_dbus_connection_call(m_peer.Connection(), destination.c_str(), OBJECT_PATH, INTERFACE,
                             METHOD, g_variant_new("(ss)", "event", "data"), nullptr,
                             G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
      m_peer.EmitEvent("event", "data");
    }
    SyncWithBus(m_shared);
  };
  const struct {
    const char* state;
    std::function<void()> reach;
    const char* unregistered = nullptr;  // as the log says, where it does
  } rows[] = {
      {"name requested", [&] { CreateServer(); }},
      {"bus acquired", acquire},
      {"bus acquired, the answer waiting", [&] { acquire(), SyncWithBus(m_shared); }},
      {"bus acquired, calls waiting", [&] { acquire(), burst(); }},
      {"serving", [&] { CreateServing(), isTaken = m_peer.Own(); }, "OK"},
      {"serving, calls waiting", [&] { CreateServing(), burst(); }, "OK"},
      {"queued behind another", queue},
      {"owner after another, without its object",
       [&] {
         queue(), m_peer.Release(), AwaitServing();
         EXPECT_EQ(m_peer.Call(g_variant_new("(ss)", "event", "")).rfind("error: ", 0), 0U);
       },
       "FAILED"},
      {"listening", [&] { CreateClient(); }},
      {"calls under way", [&] { CreateClient(), send(); }},
      {"a burst waiting, calls under way", [&] { CreateClient(), burst(), send(); }},
      {"not listening any more, a burst waiting",
       [&] { CreateClient(), burst(), m_client->UnregisterEventHandler(); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    row.reach();
    m_events.clear();
    ForgetLog();
    m_server.reset();
    m_client.reset();
    EXPECT_EQ(Logged("unregister_object() result:"), row.unregistered != nullptr);
    EXPECT_TRUE(row.unregistered == nullptr ||
                Logged(std::string("unregister_object() result:") + row.unregistered));
    ForgetLog();
    EXPECT_FALSE(isTaken);
    m_peer.Release();
    for (int i = 0; i < 2; ++i) {
      SyncWithBus(m_shared);
      Drain();
    }
    EXPECT_EQ(m_peer.Owner(), "");
    EXPECT_EQ(g_matches, 0);
    EXPECT_TRUE(m_events.empty());
    EXPECT_FALSE(Logged("Start ") || Logged("pDbusConnection:"));
  }
}

// The closing is told in the context of the bus's thread-default user, the loss in the server's
// own. In between the server sends on what it holds, and after it holds nothing.
TEST_F(Ends, HoldAConnectionUntilToldOfItsLoss) {
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(g_description->c_str(), nullptr);
  for (const char* state :
       {"serving", "object refused", "waiting for the name", "owner after waiting", "gone"}) {
    SCOPED_TRACE(state);
    const std::string is = state;
    const bool isWaiting = is.find("waiting") != std::string::npos;
    ForgetLog();
    if (m_isClosed) {
      m_shared = Connect();
    }
    // Another object of the process in the same place.
    const guint other = is != "object refused" ? 0
                                               : g_dbus_connection_register_object(
                                                     m_shared, OBJECT_PATH, node->interfaces[0],
                                                     nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(!isWaiting || m_peer.Own());
    GMainContext* const own = g_main_context_new();
    g_main_context_push_thread_default(own);
    if (is == "gone") {
      CreateClient();
      m_client->SendDataToServer("event", "");
    }
    isWaiting ? CreateServer() : CreateServing();
    // Of the bus, and then of the name.
    EXPECT_TRUE(WaitUntil([&] { return Logged("pDbusConnection:") >= 2; }));
    if (is == "owner after waiting") {
      m_peer.Release();
      AwaitServing();
    }
    SyncWithBus(m_shared);
    Drain();
    g_main_context_pop_thread_default(own);
    EXPECT_EQ(Logged("g_dbus_connection_register_object failed: "), other != 0);
    g_dbus_connection_unregister_object(m_shared, other);
    bool isTold = false;
    g_signal_connect_swapped(m_shared, "closed", G_CALLBACK(+[](bool* flag) { *flag = true; }),
                             &isTold);
    Close();
    EXPECT_TRUE(WaitUntil([&] { return isTold; }));
    if (is == "gone") {
      m_server.reset();
      m_client.reset();
    } else if (is != "waiting for the name") {
      EXPECT_NE(m_shared, nullptr);
      m_server->SendDataToClient("event", "");
      EXPECT_TRUE(Logged("DBUS emit signal failed: The connection is closed"));
    }
    ForgetLog();
    while (g_main_context_iteration(own, FALSE)) {
    }
    EXPECT_EQ(Logged("pDbusConnection:(nil)"), is != "waiting for the name" && is != "gone");
    EXPECT_TRUE(WaitUntil([this] { return m_shared == nullptr; }));
    m_server.reset();
    m_peer.Release();
    g_main_context_unref(own);
  }
  g_dbus_node_info_unref(node);
}

TEST_F(Ends, LeaveTheBusToTheProcessThatMadeThem) {
  CreateClient();
  CreateServing();
  EXPECT_EQ(RunInChild([this] {
              const guint before = G_OBJECT(m_shared)->ref_count;
              m_server.reset();
              m_client.reset();
              _exit(G_OBJECT(m_shared)->ref_count == before ? 0 : 1);
            }),
            0);
}

TEST_F(Ends, HearTheirOwnSignalAlone) {
  CreateClient();
  m_peer.Emit(g_variant_new("(s)", "event"));
  EXPECT_TRUE(WaitUntil([this] { return Logged("unexpected arguments (s)"); }));
  const auto body = [] { return g_variant_new("(ss)", "event", "other"); };
  m_peer.Emit(body(), SIGNAL, INTERFACE, "/com/halvex/tv/other");
  m_peer.Emit(body(), SIGNAL, "com.halvex.tv.other");
  m_peer.Emit(body(), "other");
  m_peer.EmitEvent("event", "own");
  EXPECT_TRUE(WaitUntil([this] { return !m_events.empty(); }));
  EXPECT_EQ(m_events, std::vector<Event>({{"event", "own"}}));
}

TEST_F(Ends, LetAHandlerRemoveItselfWhileItRuns) {
  CreateClient();
  CreateServing();
  const std::string own(60, 'o');
  m_client->RegisterEventHandler("self", [&, own](const std::string& data) {
    m_client->UnregisterEventHandler();
    m_events.emplace_back("client", own + data);
  });
  m_server->RegisterEventHandler("self", [&, own](const std::string& data) {
    m_server->UnregisterEventHandler();
    m_events.emplace_back("server", own + data);
  });
  m_client->SendDataToServer("self", "1");
  EXPECT_TRUE(WaitUntil([this] { return m_events.size() == 1; }));
  m_server->SendDataToClient("self", "2");
  EXPECT_TRUE(WaitUntil([this] { return m_events.size() == 2 && !m_peer.Heard().empty(); }));
  EXPECT_EQ(m_events, std::vector<Event>({{"server", own + "1"}, {"client", own + "2"}}));
  EXPECT_TRUE(WaitUntil([this] { return m_peer.Heard().back() == "('self', '2')"; }));
}

TEST_F(Ends, WaitForTheBusNoLongerThanAMoment) {
  using Clock = std::chrono::steady_clock;
  CreateClient();
  kill(m_bus.Pid(), SIGSTOP);
  ASSERT_EQ(waitpid(m_bus.Pid(), nullptr, WUNTRACED), m_bus.Pid());
  m_client->SendDataToServer("event", std::string(1U << 20U, 'x'));
  EXPECT_EQ(g_callTimeout, -1);
  const auto start = Clock::now();
  m_client.reset();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  kill(m_bus.Pid(), SIGCONT);
}

TEST_F(Ends, SayThatThereIsNoBus) {
  const auto fails = [](const std::string& what) {
    return testing::ThrowsMessage<std::exception>(
        testing::StartsWith("PAL Exception: InvalidCase: " + what));
  };
  const auto create = [] { CPALFactory::CreateIpcClientImpl(); };
  CreateClient();
  Close();
  EXPECT_TRUE(WaitUntil([this] { return g_dbus_connection_is_closed(m_shared) != FALSE; }));
  EXPECT_THAT(create, fails("g_bus_get_sync failed: the connection is closed"));
  m_client->SendDataToServer("event", "");
  EXPECT_TRUE(WaitUntil(
      [this] { return Logged("g_dbus_proxy_call_finish error : The connection is closed"); }));
  m_client->UnregisterEventHandler();
  EXPECT_THAT([this] { m_client->RegisterEventHandler("event", nullptr); },
              fails("g_dbus_connection_signal_subscribe failed"));
  m_client.reset();
  EXPECT_TRUE(WaitUntil([this] { return m_shared == nullptr; }));
  m_bus.Kill();
  EXPECT_THAT(create, fails("g_bus_get_sync failed: Could not connect"));
  CreateServer();
  EXPECT_TRUE(WaitUntil([this] { return Logged("pDbusConnection:(nil)"); }));
  m_bus.Start();
}

TEST_F(Ends, CarryWhatTheBusCanAndNoMore) {
  constexpr std::size_t LARGEST = 32U * 1024 * 1024 - 1024 - 16;  // with the name
  const std::string most(LARGEST - std::string("event").size(), 'x');
  CreateClient();
  CreateServing();
  for (const bool isToServer : {true, false}) {
    const auto send = [&](const std::string& data) {
      isToServer ? m_client->SendDataToServer("event", data)
                 : m_server->SendDataToClient("event", data);
    };
    EXPECT_THROW(send(most + "x"), std::exception);
    send(most);
    EXPECT_TRUE(WaitUntil([this] { return !m_events.empty(); }));
    EXPECT_TRUE(m_events == std::vector<Event>({{"event", most}}));
    m_events.clear();
  }
}

// The client is made before there is a daemon, whose properties it would ask for.
TEST_F(Ends, AreServedByTheContextOfTheThreadThatMadeThem) {
  std::thread([this] {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    CreateClient();
    CreateServing();
    m_server->RegisterEventHandler(
        "ping", [this](const std::string& data) { m_server->SendDataToClient("event", data); });
    m_client->SendDataToServer("ping", "data");
    // The completion belongs to this context too.
    EXPECT_TRUE(
        WaitUntil([this] { return !m_events.empty() && Logged("g_dbus_proxy_call result : 0"); }));
    m_server.reset();
    m_client.reset();
    Drain();
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }).join();
  EXPECT_EQ(m_events, std::vector<Event>({{"event", "data"}}));
}

// ---- Interface descriptions that are not what they should be ------------------------------------

const std::string PATH = "name='/com/halvex/tv/ondaro'";
const std::string INPUT = "<arg type='s' direction='in'/>";
const std::string ARGUMENTS = INPUT + INPUT + "<arg type='i' direction='out'/>";

std::string Node(const std::string& attributes, const std::string& content) {
  return "<node " + attributes + ">" + content + "</node>";
}

std::string Interface(const std::string& arguments, const std::string& other = "") {
  return "<interface name='com.halvex.tv.ondaro'>" + other + "<method name='sendDataToServer'>" +
         arguments + "</method></interface>";
}

TEST_F(Ends, HaveNoServerWithoutAUsableDescription) {
  const std::string whole = Node(PATH, Interface(ARGUMENTS)),
                    noPath = "the root node names no object path",
                    noInterface = "the root node has no interface",
                    noType = "a method has an argument without a valid type";
  std::vector<std::pair<std::optional<std::string>, std::string>> rows = {
      {std::nullopt, "no such file"},
      {std::string(4, '\0'), ""},
      {Node(PATH, ""), noInterface},
      {Node("", Interface(ARGUMENTS)), noPath},
      {Node("name='com/halvex'", Interface(ARGUMENTS)), noPath},
      {Node(PATH, "<interface name='ondaro'/>"), noInterface},
      {Node(PATH, "<interface/>"), ""},
      {Node(PATH, Interface("<arg type='ss' direction='in'/>")), noType},
      {Node(PATH, Interface("<arg type='mi' direction='out'/>")), noType},
      {Node(PATH, Interface("<arg type='s'/><node><interface name='c.d'/></node>")), ""}};
  for (std::size_t size = 0; size < whole.size(); size += 5) {
    rows.emplace_back(whole.substr(0, size), "");
  }
  for (const auto& [text, reason] : rows) {
    g_description = text;
    ForgetLog();
    EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr) << text.value_or("(none)");
    EXPECT_TRUE(
        Logged("exception : PAL Exception: InvalidCase: " ONDARO_TEST_DESCRIPTION ": " + reason));
  }
}

TEST_F(Ends, ServeWhatAnOddDescriptionDeclares) {
  constexpr int SHORT_TIMEOUT = 200;  // milliseconds, where no answer is to be had
  const std::string other = "<method name='other'/>", none = "error: Timeout was reached",
                    refused = "error: GDBus.Error", whole = Interface(ARGUMENTS);
  const std::string invalid = "exception : PAL Exception: InvalidCase: invalid method is sent";
  const struct {
    std::string attributes, interface, member, body, answer, log, otherLog = {};
  } rows[] = {
      {PATH, Interface(INPUT), METHOD, "('1',)", refused, "unexpected arguments (s)"},
      {PATH, Interface(INPUT + INPUT), METHOD, "('event', '')", none, "Finish sender:",
       ONDARO_TEST_DESCRIPTION
       ": sendDataToServer is answered with (i), not (), and so not at all"},
      {PATH, Interface(ARGUMENTS, other), "other", "()", none,
       "invalid method is sent method_name : other  \n", invalid},
      {PATH, Interface(ARGUMENTS, other), METHOD, "('event', '')", "(0,)", "Finish sender:"},
      {"name='/a/b'", whole, METHOD, "('event', '')", refused,
       ONDARO_TEST_DESCRIPTION ": describes com.halvex.tv.ondaro at /a/b, but callers use "
                               "com.halvex.tv.ondaro at /com/halvex/tv/ondaro"},
      {PATH, "<interface name='a.b'/>", METHOD, "('event', '')", refused,
       ONDARO_TEST_DESCRIPTION ": describes a.b at /com/halvex/tv/ondaro, but"}};
  for (const auto& row : rows) {
    g_description = Node(row.attributes, row.interface);
    ForgetLog();
    CreateServing();
    GVariant* body = g_variant_parse(nullptr, row.body.c_str(), nullptr, nullptr, nullptr);
    const std::string answer =
        m_peer.Call(body, row.member.c_str(), OBJECT_PATH, BUS_NAME, SHORT_TIMEOUT);
    g_variant_unref(body);
    EXPECT_EQ(answer.rfind(row.answer, 0), 0U) << answer;
    EXPECT_TRUE(Logged(row.log) && Logged(row.otherLog)) << row.log;
    m_server.reset();
  }
  EXPECT_EQ(m_events, std::vector<Event>({{"event", ""}, {"event", ""}}));
}

}  // namespace
}  // namespace ondaro::test
