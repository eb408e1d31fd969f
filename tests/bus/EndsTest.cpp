// Each end in this process, over the scripted platform, against an independent peer.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"
#include "library/FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

/// What the library finds as its interface description; nothing: no file.
std::optional<std::string> g_description;

}  // namespace

gboolean g_file_get_contents(const gchar*, gchar** contents, gsize*, GError** error) {
  if (!g_description) {
    g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_NOENT, "no such file");
    return FALSE;
  }
  *contents = g_strndup(g_description->data(), g_description->size());
  return TRUE;
}

namespace ondaro::test {
namespace {

using NOndaroPAL::CPALFactory;

class Ends : public testing::Test {
 protected:
  /// The process's shared connection is held to see what is left of it.
  Ends() {
    g_description = ReadFile(ONDARO_TEST_DESCRIPTION);
    m_shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(m_shared, FALSE);
    ForgetLog();
  }

  /// Whatever the test did, nothing of the library holds the connection when it is over.
  ~Ends() override {
    m_server.reset();
    m_client.reset();
    g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
    gpointer weak = m_shared;
    g_object_add_weak_pointer(G_OBJECT(m_shared), &weak);
    g_object_unref(m_shared);
    EXPECT_TRUE(WaitUntil([&] { return weak == nullptr; }));
  }

  void ForgetLog() {
    FakePlatform::Get().TakeLog();
    m_log.clear();
  }
  bool Logged(const std::string& start) {
    for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
      m_log.push_back(entry.body);
    }
    return std::any_of(m_log.begin(), m_log.end(),
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
  GDBusConnection* m_shared;
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
  const auto acquire = [&] { CreateServer(), soon("pThis->m_pBusNodeInfo:"); };
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
  const auto close = [&] { g_dbus_connection_close_sync(m_shared, nullptr, nullptr); };
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
      {"serving", [&] { CreateServing(); }, "OK"},
      {"serving, calls waiting", [&] { CreateServing(), burst(); }, "OK"},
      {"queued behind another", queue},
      {"owner after another", [&] { queue(), m_peer.Release(), AwaitServing(); }, "FAILED"},
      {"listening", [&] { CreateClient(); }},
      {"calls under way", [&] { CreateClient(), send(); }},
      {"a burst waiting, calls under way", [&] { CreateClient(), burst(), send(); }},
      {"not listening any more, a burst waiting",
       [&] { CreateClient(), burst(), m_client->UnregisterEventHandler(); }},
      {"both ends, the connection closed and not told yet",
       [&] { CreateClient(), CreateServing(), burst(), send(), close(); }, "OK"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    row.reach();
    m_events.clear();
    ForgetLog();
    m_server.reset();
    m_client.reset();
    EXPECT_TRUE(row.unregistered == nullptr ||
                Logged(std::string("unregister_object() result:") + row.unregistered));
    ForgetLog();
    m_peer.Release();
    for (int i = 0; i < 2; ++i) {
      SyncWithBus(m_shared);
      Drain();
    }
    EXPECT_EQ(m_peer.Owner(), "");
    EXPECT_TRUE(m_events.empty());
    EXPECT_FALSE(Logged("Start ") || Logged("pDbusConnection:"));
  }
}

TEST_F(Ends, LossToldInAnotherContextDoesNotReachADestroyedServer) {
  GMainContext* const own = g_main_context_new();
  g_main_context_push_thread_default(own);
  CreateServing();
  g_main_context_pop_thread_default(own);
  bool isTold = false;
  g_signal_connect_swapped(m_shared, "closed", G_CALLBACK(+[](bool* flag) { *flag = true; }),
                           &isTold);
  g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return isTold; }));
  m_server.reset();
  ForgetLog();
  while (g_main_context_iteration(own, FALSE)) {
  }
  EXPECT_FALSE(Logged("pDbusConnection:"));
  g_main_context_unref(own);
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
  const std::string whole = Node(PATH, Interface(ARGUMENTS));
  std::vector<std::optional<std::string>> texts = {
      std::nullopt,
      std::string(4, '\0'),
      Node(PATH, ""),
      Node("", Interface(ARGUMENTS)),
      Node("name='com/halvex'", Interface(ARGUMENTS)),
      Node(PATH, "<interface name='ondaro'/>"),
      Node(PATH, "<interface/>"),
      Node(PATH, Interface("<arg type='ss' direction='in'/>")),
      Node(PATH, Interface("<arg type='mi' direction='out'/>")),
      Node(PATH, Interface("<arg type='s'/><node><interface name='c.d'/></node>"))};
  for (std::size_t size = 0; size < whole.size(); size += 5) {
    texts.emplace_back(whole.substr(0, size));
  }
  for (const auto& text : texts) {
    g_description = text;
    ForgetLog();
    EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr) << text.value_or("(none)");
    EXPECT_TRUE(Logged("exception : PAL Exception: InvalidCase: " ONDARO_TEST_DESCRIPTION ": "));
  }
}

TEST_F(Ends, ServeWhatAnOddDescriptionDeclares) {
  constexpr int SHORT_TIMEOUT = 200;  // milliseconds, where no answer is to be had
  const std::string other = "<method name='other'/>", none = "error: Timeout was reached";
  const struct {
    std::string description;
    const char* member;
    const char* body;
    std::string answer;
    const char* log;
  } rows[] = {
      {Interface(INPUT), METHOD, "('1',)", "error: GDBus.Error", "unexpected arguments (s)"},
      // GLib sends no answer that the description does not allow.
      {Interface(INPUT + INPUT), METHOD, "('event', '')", none, "Finish sender:"},
      {Interface(ARGUMENTS, other), "other", "()", none, "invalid method is sent method_name : "},
      {Interface(ARGUMENTS, other), METHOD, "('event', '')", "(0,)", "Finish sender:"}};
  for (const auto& row : rows) {
    g_description = Node(PATH, row.description);
    ForgetLog();
    CreateServing();
    GVariant* body = g_variant_parse(nullptr, row.body, nullptr, nullptr, nullptr);
    const std::string answer =
        m_peer.Call(body, row.member, INTERFACE, OBJECT_PATH, BUS_NAME, SHORT_TIMEOUT);
    g_variant_unref(body);
    EXPECT_EQ(answer.rfind(row.answer, 0), 0U) << answer;
    EXPECT_TRUE(Logged(row.log)) << row.log;
    m_server.reset();
  }
  EXPECT_EQ(m_events, std::vector<Event>({{"event", ""}, {"event", ""}}));
}

TEST_F(Ends, SendAlthoughTheObjectIsRefused) {
  // The process exports the same object already.
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(g_description->c_str(), nullptr);
  const guint other = g_dbus_connection_register_object(m_shared, OBJECT_PATH, node->interfaces[0],
                                                        nullptr, nullptr, nullptr, nullptr);
  m_peer.Listen();
  CreateServing();
  EXPECT_TRUE(Logged("g_dbus_connection_register_object failed: "));
  EXPECT_TRUE(WaitUntil([&] { return !m_peer.Heard().empty(); }));
  m_server.reset();
  g_dbus_connection_unregister_object(m_shared, other);
  g_dbus_node_info_unref(node);
}

}  // namespace
}  // namespace ondaro::test
