#include "doctor/DoctorChecks.h"
#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

using State = Finding::State;

constexpr int PATIENCE_MILLISECONDS = 5000;

void NoteSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                const gchar* /*interface*/, const gchar* /*signal*/, GVariant* /*parameters*/,
                gpointer userData) {
  *static_cast<bool*>(userData) = true;
}

}  // namespace

bool BusChecks::Answer::IsError(GQuark domain, int code) const {
  return error != nullptr && g_error_matches(error.get(), domain, code) != FALSE;
}

BusChecks::Answer BusChecks::Ask(const Question& question) const {
  GError* error = nullptr;
  GVariant* const value = g_dbus_connection_call_sync(
      m_pConnection.get(), question.destination, question.path, question.interface, question.method,
      question.parameters, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, PATIENCE_MILLISECONDS, nullptr,
      &error);
  Answer answer;
  if (value != nullptr) {
    answer.value.reset(value, g_variant_unref);
  } else {
    answer.error.reset(error, g_error_free);
    g_dbus_error_strip_remote_error(error);
  }
  return answer;
}

Finding BusChecks::Reach() {
  m_pConnection.reset(ConnectToBus());
  return {State::Ok, "the system bus answers"};
}

Finding BusChecks::Daemon() {
  if (m_pConnection == nullptr) {
    return {State::Unknown, "needs the bus"};
  }
  const std::string name = DAEMON_NAME;
  const Answer owner =
      Ask({BUS_NAME, BUS_PATH, BUS_NAME, "GetNameOwner", g_variant_new("(s)", DAEMON_NAME)});
  if (owner.value == nullptr) {
    throw Failure(ExitCode::BusAbsent,
                  "nobody owns " + name +
                      "; start the daemon, or stand in for it with 'ondaro-ctl serve EVENT'");
  }
  const char* connection = nullptr;
  g_variant_get(owner.value.get(), "(&s)", &connection);
  const std::string owned = name + " is owned by " + connection;

  const Answer called = Ask({DAEMON_NAME, DAEMON_PATH, "org.freedesktop.DBus.Properties", "GetAll",
                             g_variant_new("(s)", DAEMON_NAME)});
  const bool isRefused = called.IsError(G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
  m_call = isRefused ? Permission::Refused : Permission::Given;
  // The name is taken, so that asking for it takes it from nobody; the answer tells who may.
  const Answer asked =
      Ask({BUS_NAME, BUS_PATH, BUS_NAME, "RequestName",
           g_variant_new("(su)", DAEMON_NAME, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE)});
  m_own = asked.value == nullptr ? Permission::Refused : Permission::Given;
  if (called.value != nullptr || isRefused) {
    return {State::Ok, owned};
  }
  if (called.IsError(G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    throw Failure(ExitCode::Failed, owned + ", which does not answer; see its log, restart it");
  }
  throw Failure(ExitCode::Failed, owned + ", which takes no calls (" + called.error->message +
                                      "); end it and start the daemon again");
}

/// Sends an event in the daemon's name, to this process alone. A policy keeps it out: it lets
/// events in from the owner of the name only.
bool BusChecks::HearsEventsMadeUp() const {
  GDBusConnection* const connection = m_pConnection.get();
  bool isHeard = false;
  const guint subscription = g_dbus_connection_signal_subscribe(
      connection, nullptr, DAEMON_NAME, "doctor", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      NoteSignal, &isHeard, nullptr);
  g_dbus_connection_emit_signal(connection, g_dbus_connection_get_unique_name(connection),
                                DAEMON_PATH, DAEMON_NAME, "doctor", nullptr, nullptr);
  // What the bus let through arrived before its answer.
  Ask({BUS_NAME, BUS_PATH, BUS_NAME, "GetId", nullptr});
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
  g_dbus_connection_signal_unsubscribe(connection, subscription);
  return isHeard;
}

/// A user is daemon or application; who may be neither has a fault to mend.
Finding BusChecks::Refused(const std::string& what, const std::string& whoMay) const {
  const bool isNeither = m_own == Permission::Refused && m_call == Permission::Refused;
  return {isNeither ? State::Failed : State::Absent,
          "the bus refuses this user " + what + ": " + whoMay};
}

Finding BusChecks::Own() const {
  switch (m_own) {
    case Permission::Given:
      return {State::Ok, "this user may be the daemon"};
    case Permission::Refused:
      return Refused("the daemon's name", WHO_MAY_OWN);
    default:
      return {State::Unknown, "can be told while there is a daemon"};
  }
}

Finding BusChecks::Call() const {
  switch (m_call) {
    case Permission::Given:
      return {State::Ok, "this user may call the daemon"};
    case Permission::Refused:
      return Refused("calls of the daemon", WHO_MAY_CALL);
    default:
      return {State::Unknown, "can be told while there is a daemon"};
  }
}

Finding BusChecks::Hear() const {
  if (m_pConnection == nullptr) {
    return {State::Unknown, "needs the bus"};
  }
  if (HearsEventsMadeUp()) {
    throw Failure(ExitCode::Failed,
                  "the bus lets everybody send the daemon's events; install "
                  "com.halvex.tv.ondaro.conf in /usr/share/dbus-1/system.d and have the bus read "
                  "its configuration again");
  }
  if (m_call == Permission::Refused) {
    return Refused("the daemon's events, as it does calls", WHO_MAY_CALL);
  }
  return {State::Ok, "the bus keeps out events that the daemon did not send"};
}

}  // namespace ondaro::ctl
