#include "messages/Bus.h"

#include <atomic>
#include <list>
#include <memory>
#include <utility>

#include "support/ExitCode.h"

namespace ondaro::ctl {

/// Shared with the bus's own thread, which may still hold it when the bus object is gone.
struct Tap {
  MainLoop& loop;
  std::list<Bus::MessageHandler> handlers;  // the loop's thread only; none when the bus is gone
};

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

struct Seen {
  std::shared_ptr<Tap> tap;
  std::unique_ptr<GDBusMessage, GObjectRelease> message;
  bool isIncoming;
};

// What one thread gives to GLib and another gets from it is ordered by GLib's locks. Where GLib is
// not instrumented ThreadSanitizer sees only these.
std::atomic<unsigned> g_given{0};

template <class T>
gpointer Give(T value) {
  auto* const given = new T(std::move(value));
  g_given.fetch_add(1, std::memory_order_release);
  return given;
}

template <class T>
T& Get(gpointer given) {
  static_cast<void>(g_given.load(std::memory_order_acquire));
  return *static_cast<T*>(given);
}

template <class T>
void Drop(gpointer given) {
  delete &Get<T>(given);
}

gboolean Deliver(gpointer userData) {
  const auto& seen = Get<Seen>(userData);
  for (const Bus::MessageHandler& handler : seen.tap->handlers) {
    seen.tap->loop.Protect([&] { handler(seen.message.get(), seen.isIncoming); });
  }
  return G_SOURCE_REMOVE;
}

GDBusMessage* OnMessage(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean isIncoming,
                        gpointer userData) {
  Seen seen{Get<std::shared_ptr<Tap>>(userData), {}, isIncoming != FALSE};
  seen.message.reset(G_DBUS_MESSAGE(g_object_ref(message)));
  g_idle_add_full(G_PRIORITY_DEFAULT, Deliver, Give(std::move(seen)), Drop<Seen>);
  return message;
}

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

Bus::Bus(MainLoop& loop)
    : m_loop(loop),
      m_pConnection(ConnectToBus()),
      m_nClosedHandler(g_signal_connect(m_pConnection, "closed", G_CALLBACK(OnClosed), this)),
      m_pTap(std::make_shared<Tap>(Tap{loop, {}})),
      m_nFilter(g_dbus_connection_add_filter(m_pConnection, OnMessage, Give(m_pTap),
                                             Drop<std::shared_ptr<Tap>>)) {}

Bus::~Bus() {
  m_pTap->handlers.clear();
  g_dbus_connection_remove_filter(m_pConnection, m_nFilter);
  g_signal_handler_disconnect(m_pConnection, m_nClosedHandler);
  if (m_nOwnerWatch != 0) {
    g_bus_unwatch_name(m_nOwnerWatch);
  }
  Flush();
  g_object_unref(m_pConnection);
}

void Bus::AfterRoundTrip(std::function<void()> then) {
  AfterAnswer(CallBus("GetId"), [then = std::move(then)](const Reply& /*reply*/) { then(); });
}

void Bus::WhenDaemonAnswers(Handler then) { AfterAnswer(CallDaemon(), std::move(then)); }

void Bus::AfterAnswer(const BusCall& call, Handler then) {
  constexpr int WITHOUT_TIMEOUT = G_MAXINT;
  auto answer = std::make_unique<Answer>(Answer{m_loop, std::move(then)});
  g_dbus_connection_call(m_pConnection, call.destination, call.path, call.interface, call.method,
                         call.parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, WITHOUT_TIMEOUT, nullptr,
                         OnAnswer, answer.release());
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

void Bus::WatchMessages(MessageHandler handler) { m_pTap->handlers.push_back(std::move(handler)); }

void Bus::WatchReplies(const std::string& method, Handler handler) {
  WatchMessages([method, handler = std::move(handler), serial = guint32{0}](
                    GDBusMessage* message, bool isIncoming) mutable {
    if (!isIncoming && g_strcmp0(g_dbus_message_get_member(message), method.c_str()) == 0) {
      serial = g_dbus_message_get_serial(message);
    } else if (isIncoming && serial != 0 && g_dbus_message_get_reply_serial(message) == serial) {
      handler(ReplyOf(message));
    }
  });
}

void Bus::WatchEvents(
    std::function<void(const std::string& event, const std::string& data)> handler) {
  WatchMessages([handler = std::move(handler)](GDBusMessage* message, bool isIncoming) {
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    const char* const member = type == G_DBUS_MESSAGE_TYPE_METHOD_CALL ? DAEMON_METHOD
                               : type == G_DBUS_MESSAGE_TYPE_SIGNAL    ? DAEMON_SIGNAL
                                                                       : nullptr;
    if (isIncoming && member != nullptr &&
        g_strcmp0(g_dbus_message_get_member(message), member) == 0 &&
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
