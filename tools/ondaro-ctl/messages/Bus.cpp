#include "messages/Bus.h"

#include <atomic>
#include <utility>

#include "support/ExitCode.h"

namespace ondaro::ctl {

namespace {

constexpr char ACCESS_DENIED[] = "org.freedesktop.DBus.Error.AccessDenied";

constexpr char BUS_NAME[] = "org.freedesktop.DBus";
constexpr char BUS_PATH[] = "/org/freedesktop/DBus";

struct Answer {
  MainLoop& loop;
  Bus::Handler then;
};

/// Takes both, of which one is null.
Reply ReplyOf(GVariant* value, GError* error) {
  Reply reply;
  if (value != nullptr) {
    reply.value.reset(value, g_variant_unref);
  }
  if (error != nullptr) {
    const GLibText name(g_dbus_error_get_remote_error(error));
    reply.errorName = name == nullptr ? Reply::NO_ANSWER : name.get();
    reply.isOfBus = reply.errorName == ACCESS_DENIED;
    g_dbus_error_strip_remote_error(error);
    reply.errorMessage = error->message;
    g_error_free(error);
  }
  return reply;
}

void OnAnswer(GObject* connection, GAsyncResult* result, gpointer userData) {
  const std::unique_ptr<Answer> answer(static_cast<Answer*>(userData));
  GError* error = nullptr;
  GVariant* const value =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
  const Reply reply = ReplyOf(value, error);
  // A bus that is gone answers nothing; OnClosed() reports it.
  if (g_dbus_connection_is_closed(G_DBUS_CONNECTION(connection)) == FALSE) {
    answer->loop.Protect([&] { answer->then(reply); });
  }
}

// What one thread gives to GLib and another gets from it is ordered by GLib's locks. Where GLib is
// not instrumented ThreadSanitizer sees only this.
std::atomic<unsigned> g_given{0};

}  // namespace

BusCall CallBus(const char* method, GVariant* parameters) {
  return {BUS_NAME, BUS_PATH, BUS_NAME, method, parameters};
}

BusCall CallDaemon() {
  return {DAEMON_NAME, DAEMON_PATH, "org.freedesktop.DBus.Properties", "GetAll",
          g_variant_new("(s)", DAEMON_NAME)};
}

bool Reply::IsRefusal() const { return isOfBus && errorName == ACCESS_DENIED; }

bool Reply::IsFromNobody() const {
  return isOfBus && (errorName == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                     errorName == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
                     errorName == "org.freedesktop.DBus.Error.NoReply");
}

Reply ReplyOf(GDBusMessage* message) {
  GError* error = nullptr;
  g_dbus_message_to_gerror(message, &error);
  Reply reply = ReplyOf(nullptr, error);
  reply.isOfBus = g_strcmp0(g_dbus_message_get_sender(message), BUS_NAME) == 0;
  return reply;
}

Reply Ask(GDBusConnection* connection, const BusCall& call) {
  constexpr int PATIENCE_MILLISECONDS = 5000;
  GError* error = nullptr;
  GVariant* const value = g_dbus_connection_call_sync(
      connection, call.destination, call.path, call.interface, call.method, call.parameters,
      nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, PATIENCE_MILLISECONDS, nullptr, &error);
  return ReplyOf(value, error);
}

void FailRefused(const std::string& what, const std::string& whoMay) {
  throw Failure("the bus refused " + what + " (" + ACCESS_DENIED + "): " + whoMay);
}

GDBusConnection* ConnectToBus() {
  GError* error = nullptr;
  GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  Require(connection != nullptr,
          "the system bus cannot be reached: " + ReplyOf(nullptr, error).errorMessage +
              "; is it running, and does DBUS_SYSTEM_BUS_ADDRESS, if set, name it?",
          ExitCode::BusAbsent);
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return connection;
}

Bus* Bus::s_pLiving = nullptr;

Bus::Bus(MainLoop& loop)
    : m_loop(loop),
      m_pConnection(ConnectToBus()),
      m_nClosedHandler(g_signal_connect(m_pConnection, "closed", G_CALLBACK(OnClosed), this)),
      m_nFilter(g_dbus_connection_add_filter(m_pConnection, OnMessage, nullptr, nullptr)) {
  s_pLiving = this;
}

Bus::~Bus() {
  s_pLiving = nullptr;
  g_dbus_connection_remove_filter(m_pConnection, m_nFilter);
  g_signal_handler_disconnect(m_pConnection, m_nClosedHandler);
  if (m_nOwnerWatch != 0) {
    g_bus_unwatch_name(m_nOwnerWatch);
  }
  Flush();
  g_object_unref(m_pConnection);
}

void Bus::AfterRoundTrip(std::function<void()> then) {
  Call(CallBus("GetId"), [then = std::move(then)](const Reply& /*reply*/) { then(); });
}

void Bus::Call(const BusCall& call, Handler then) {
  constexpr int WITHOUT_TIMEOUT = G_MAXINT;
  auto answer = std::make_unique<Answer>(Answer{m_loop, std::move(then)});
  g_dbus_connection_call(m_pConnection, call.destination, call.path, call.interface, call.method,
                         call.parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, WITHOUT_TIMEOUT, nullptr,
                         OnAnswer, answer.release());
}

/// In the bus's own thread, also when the bus object is gone: touches nothing of that.
GDBusMessage* Bus::OnMessage(GDBusConnection* /*connection*/, GDBusMessage* message,
                             gboolean /*isIncoming*/, gpointer /*userData*/) {
  g_given.fetch_add(1, std::memory_order_release);
  g_idle_add_full(G_PRIORITY_DEFAULT, Deliver, g_object_ref(message), g_object_unref);
  return message;
}

gboolean Bus::Deliver(gpointer userData) {
  static_cast<void>(g_given.load(std::memory_order_acquire));
  GDBusMessage* const message = G_DBUS_MESSAGE(userData);
  if (s_pLiving != nullptr) {
    for (const MessageHandler& handler : s_pLiving->m_handlers) {
      s_pLiving->m_loop.Protect([&] { handler(message, g_dbus_message_get_sender(message)); });
    }
  }
  return G_SOURCE_REMOVE;
}

void Bus::OnClosed(GDBusConnection* /*connection*/, gboolean /*remote*/, GError* /*error*/,
                   gpointer userData) {
  static_cast<Bus*>(userData)->m_loop.Protect(
      [] { throw Failure(ExitCode::BusAbsent, "the system bus went away; start again with it"); });
}

void Bus::WatchOwner(std::function<void(const std::string& owner)> handler) {
  m_onOwner = std::move(handler);
  m_nOwnerWatch = g_bus_watch_name_on_connection(
      m_pConnection, DAEMON_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE, OnOwner, nullptr, this, nullptr);
}

void Bus::OnOwner(GDBusConnection* /*connection*/, const gchar* /*name*/, const gchar* owner,
                  gpointer userData) {
  auto* const pThis = static_cast<Bus*>(userData);
  pThis->m_loop.Protect([&] { pThis->m_onOwner(owner); });
}

void Bus::WatchReplies(const std::string& method, Handler handler) {
  m_handlers.emplace_back([method, handler = std::move(handler), serial = guint32{0}](
                              GDBusMessage* message, const char* sender) mutable {
    if (sender == nullptr && g_strcmp0(g_dbus_message_get_member(message), method.c_str()) == 0) {
      serial = g_dbus_message_get_serial(message);
    } else if (sender != nullptr && serial != 0 &&
               g_dbus_message_get_reply_serial(message) == serial) {
      handler(ReplyOf(message));
    }
  });
}

void Bus::WatchEvents(
    std::function<void(const std::string& event, const std::string& data)> handler) {
  m_handlers.emplace_back([handler = std::move(handler)](GDBusMessage* message,
                                                         const char* sender) {
    const bool isCall = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (sender != nullptr &&
        g_strcmp0(g_dbus_message_get_member(message), isCall ? DAEMON_METHOD : DAEMON_SIGNAL) ==
            0 &&
        g_strcmp0(g_dbus_message_get_interface(message), DAEMON_NAME) == 0 &&
        g_strcmp0(g_dbus_message_get_path(message), DAEMON_PATH) == 0 &&
        g_strcmp0(g_dbus_message_get_signature(message), "ss") == 0) {
      const char* event = nullptr;
      const char* data = nullptr;
      g_variant_get(g_dbus_message_get_body(message), "(&s&s)", &event, &data);
      handler(event, data);
    }
  });
}

}  // namespace ondaro::ctl
