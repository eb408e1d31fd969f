#include "Bus.h"

#include <memory>

#include "ExitCode.h"

namespace ondaro::ctl {
namespace {

struct Answer {
  MainLoop& loop;
  std::function<void()> then;
};

void OnAnswer(GObject* connection, GAsyncResult* result, gpointer userData) {
  const std::unique_ptr<Answer> answer(static_cast<Answer*>(userData));
  GVariant* const reply =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr);
  if (reply != nullptr) {
    g_variant_unref(reply);
  }
  // A bus that is gone answers nothing; OnClosed() reports it.
  if (g_dbus_connection_is_closed(G_DBUS_CONNECTION(connection)) == FALSE) {
    answer->loop.Protect(answer->then);
  }
}

}  // namespace

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
  g_dbus_connection_flush_sync(m_pConnection, nullptr, nullptr);
  g_object_unref(m_pConnection);
}

std::string Bus::OwnName() const { return g_dbus_connection_get_unique_name(m_pConnection); }

void Bus::AfterRoundTrip(std::function<void()> then) {
  AfterAnswer(
      {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr},
      std::move(then));
}

void Bus::WhenDaemonAnswers(std::function<void()> then) {
  AfterAnswer({DAEMON_NAME, DAEMON_PATH, "org.freedesktop.DBus.Properties", "GetAll",
               g_variant_new("(s)", DAEMON_NAME)},
              std::move(then));
}

void Bus::AfterAnswer(const Call& call, std::function<void()> then) {
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

}  // namespace ondaro::ctl
