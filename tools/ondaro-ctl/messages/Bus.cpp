#include "messages/Bus.h"

#include <memory>

#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

constexpr char ACCESS_DENIED[] = "org.freedesktop.DBus.Error.AccessDenied";

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
  if (connection == nullptr) {
    const GLibError owned(error);
    throw Failure(ExitCode::BusAbsent,
                  std::string("the system bus cannot be reached: ") + error->message +
                      "; is it running, and does DBUS_SYSTEM_BUS_ADDRESS, if set, name it?");
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return connection;
}

Bus::Bus(MainLoop& loop) : m_loop(loop), m_pConnection(ConnectToBus()) {
  m_nClosedHandler = g_signal_connect(m_pConnection, "closed", G_CALLBACK(OnClosed), this);
}

Bus::~Bus() {
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

}  // namespace ondaro::ctl
