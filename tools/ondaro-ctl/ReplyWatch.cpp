#include "ReplyWatch.h"

#include <atomic>
#include <mutex>
#include <utility>

namespace ondaro::ctl {

/// Shared with the bus's own thread, which may still hold it when the watch is gone.
struct ReplyWatch::State {
  State(MainLoop& ownLoop, const char* ownMethod, Handler ownHandler)
      : loop(ownLoop), method(ownMethod), handler(std::move(ownHandler)) {}

  Reply TakeReply() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::move(reply);
  }

  MainLoop& loop;
  const char* method;
  Handler handler;  // the loop's thread only; empty once called, and when the watch is gone

  std::mutex mutex;
  guint32 serial = 0;  // of the call; 0 before it
  Reply reply;
};

namespace {

// What one thread gives to GLib and another gets from it is ordered by GLib's locks. Where GLib is
// not instrumented ThreadSanitizer sees only these.
std::atomic<unsigned> g_given{0};

template <class T>
gpointer Give(const T& value) {
  auto* const copy = new T(value);
  g_given.fetch_add(1, std::memory_order_release);
  return copy;
}

template <class T>
const T& Get(gpointer given) {
  static_cast<void>(g_given.load(std::memory_order_acquire));
  return *static_cast<T*>(given);
}

template <class T>
void Drop(gpointer given) {
  delete &Get<T>(given);
}

Reply ReplyOf(GDBusMessage* message) {
  Reply reply;
  reply.isError = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR;
  GError* error = nullptr;
  if (reply.isError && g_dbus_message_to_gerror(message, &error) != FALSE) {
    const GLibError owned(error);
    reply.errorName = g_dbus_message_get_error_name(message);
    g_dbus_error_strip_remote_error(error);
    reply.errorMessage = error->message;
  }
  return reply;
}

}  // namespace

bool Reply::IsFromNobody() const {
  return errorName == "org.freedesktop.DBus.Error.ServiceUnknown" ||
         errorName == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
         errorName == "org.freedesktop.DBus.Error.NoReply";
}

ReplyWatch::ReplyWatch(const Bus& bus, MainLoop& loop, const char* method, Handler handler)
    : m_pConnection(bus.Connection()),
      m_pState(std::make_shared<State>(loop, method, std::move(handler))),
      m_nFilter(g_dbus_connection_add_filter(m_pConnection, OnMessage, Give(m_pState),
                                             Drop<std::shared_ptr<State>>)) {}

ReplyWatch::~ReplyWatch() {
  {
    const std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->handler = nullptr;
  }
  g_dbus_connection_remove_filter(m_pConnection, m_nFilter);
}

/// Runs on the bus's own thread.
GDBusMessage* ReplyWatch::OnMessage(GDBusConnection* /*connection*/, GDBusMessage* message,
                                    gboolean isIncoming, gpointer userData) {
  const auto& state = Get<std::shared_ptr<State>>(userData);
  const std::lock_guard<std::mutex> lock(state->mutex);
  if (isIncoming == FALSE && state->serial == 0 &&
      g_strcmp0(g_dbus_message_get_member(message), state->method) == 0) {
    state->serial = g_dbus_message_get_serial(message);
  } else if (isIncoming != FALSE && state->serial != 0 &&
             g_dbus_message_get_reply_serial(message) == state->serial) {
    state->reply = ReplyOf(message);
    g_idle_add_full(G_PRIORITY_DEFAULT, Deliver, Give(state), Drop<std::shared_ptr<State>>);
  }
  return message;
}

gboolean ReplyWatch::Deliver(gpointer userData) {
  const auto& state = Get<std::shared_ptr<State>>(userData);
  const Handler handler = std::exchange(state->handler, nullptr);
  if (handler) {
    const Reply reply = state->TakeReply();
    state->loop.Protect([&] { handler(reply); });
  }
  return G_SOURCE_REMOVE;
}

}  // namespace ondaro::ctl
