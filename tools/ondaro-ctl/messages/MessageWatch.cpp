#include "messages/MessageWatch.h"

#include <atomic>
#include <utility>

namespace ondaro::ctl {

/// Shared with the bus's own thread, which may still hold it when the watch is gone.
struct MessageWatchState {
  MainLoop& loop;
  MessageWatch::Handler handler;  // the loop's thread only; empty when the watch is gone
};

namespace {

using State = std::shared_ptr<MessageWatchState>;

struct Seen {
  State state;
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
  const MessageWatch::Handler handler = seen.state->handler;
  if (handler) {
    seen.state->loop.Protect([&] { handler(seen.message.get(), seen.isIncoming); });
  }
  return G_SOURCE_REMOVE;
}

GDBusMessage* OnMessage(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean isIncoming,
                        gpointer userData) {
  Seen seen{Get<State>(userData), {}, isIncoming != FALSE};
  seen.message.reset(G_DBUS_MESSAGE(g_object_ref(message)));
  g_idle_add_full(G_PRIORITY_DEFAULT, Deliver, Give(std::move(seen)), Drop<Seen>);
  return message;
}

}  // namespace

MessageWatch::MessageWatch(const Bus& bus, MainLoop& loop, Handler handler)
    : m_pConnection(bus.Connection()),
      m_pState(std::make_shared<MessageWatchState>(MessageWatchState{loop, std::move(handler)})),
      m_nFilter(
          g_dbus_connection_add_filter(m_pConnection, OnMessage, Give(m_pState), Drop<State>)) {}

MessageWatch::~MessageWatch() {
  m_pState->handler = nullptr;
  g_dbus_connection_remove_filter(m_pConnection, m_nFilter);
}

MessageWatch::Handler OnReplyTo(const std::string& method, Bus::Handler then) {
  const auto serial = std::make_shared<guint32>(0);
  return [method, then = std::move(then), serial](GDBusMessage* message, bool isIncoming) {
    if (!isIncoming && g_strcmp0(g_dbus_message_get_member(message), method.c_str()) == 0) {
      *serial = g_dbus_message_get_serial(message);
    } else if (isIncoming && *serial != 0 && g_dbus_message_get_reply_serial(message) == *serial) {
      then(ReplyOf(message));
    }
  };
}

bool IsEvent(GDBusMessage* message, bool isIncoming) {
  const GDBusMessageType type = g_dbus_message_get_message_type(message);
  const char* const member = type == G_DBUS_MESSAGE_TYPE_METHOD_CALL ? DAEMON_METHOD
                             : type == G_DBUS_MESSAGE_TYPE_SIGNAL    ? DAEMON_SIGNAL
                                                                     : nullptr;
  return isIncoming && member != nullptr &&
         g_strcmp0(g_dbus_message_get_member(message), member) == 0 &&
         g_strcmp0(g_dbus_message_get_interface(message), DAEMON_NAME) == 0 &&
         g_strcmp0(g_dbus_message_get_path(message), DAEMON_PATH) == 0 &&
         g_strcmp0(g_dbus_message_get_signature(message), "ss") == 0;
}

}  // namespace ondaro::ctl
