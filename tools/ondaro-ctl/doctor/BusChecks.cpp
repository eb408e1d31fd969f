#include "doctor/DoctorChecks.h"
#include "support/ExitCode.h"

namespace ondaro::ctl {

using State = Finding::State;

Finding BusChecks::Reach() {
  m_pConnection.reset(ConnectToBus());
  return {State::Ok, "the system bus answers"};
}

Finding BusChecks::Daemon() {
  if (m_pConnection == nullptr) {
    return {State::Unknown, "needs the bus"};
  }
  const Reply owner =
      Ask(m_pConnection.get(), CallBus("GetNameOwner", g_variant_new("(s)", DAEMON_NAME)));
  const std::string name = DAEMON_NAME;
  Require(!owner.IsError(),
          "nobody owns " + name +
              "; start the daemon, or stand in for it with 'ondaro-ctl serve EVENT'",
          ExitCode::BusAbsent);
  const char* connection = nullptr;
  g_variant_get(owner.value.get(), "(&s)", &connection);
  const std::string owned = name + " is owned by " + connection;

  const Reply called = Ask(m_pConnection.get(), CallDaemon());
  m_mayCall = !called.IsRefusal();
  // The name is taken, so that asking for it takes it from nobody; the answer tells who may.
  GVariant* const request = g_variant_new("(su)", DAEMON_NAME, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE);
  m_mayOwn = !Ask(m_pConnection.get(), CallBus("RequestName", request)).IsError();
  Require(!called.IsTimeout(), owned + ", which does not answer; see its log, restart it");
  Require(!called.IsError() || called.IsRefusal(), owned + ", which takes no calls (" +
                                                       called.errorMessage +
                                                       "); end it and start the daemon again");
  return {State::Ok, owned};
}

/// Sends an event in the daemon's name, to this process alone. A policy keeps it out: it lets
/// events in from the owner of the name only.
bool BusChecks::HearsEventsMadeUp() const {
  GDBusConnection* const connection = m_pConnection.get();
  bool isHeard = false;
  const guint subscription = g_dbus_connection_signal_subscribe(
      connection, nullptr, DAEMON_NAME, "doctor", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
         gpointer heard) { *static_cast<bool*>(heard) = true; },
      &isHeard, nullptr);
  g_dbus_connection_emit_signal(connection, g_dbus_connection_get_unique_name(connection),
                                DAEMON_PATH, DAEMON_NAME, "doctor", nullptr, nullptr);
  // What the bus let through arrived before its answer.
  Ask(connection, CallBus("GetId"));
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
  g_dbus_connection_signal_unsubscribe(connection, subscription);
  return isHeard;
}

/// A user is daemon or application; who may be neither has a fault to mend.
Finding BusChecks::Refused(const std::string& what, const std::string& whoMay) const {
  const bool isNeither = m_mayOwn == false && m_mayCall == false;
  return {isNeither ? State::Failed : State::Absent,
          "the bus refuses this user " + what + ": " + whoMay};
}

Finding BusChecks::Permission(std::optional<bool> may, const std::string& deed,
                              const std::string& what, const std::string& whoMay) const {
  return !may   ? Finding{State::Unknown, "can be told while there is a daemon"}
         : *may ? Finding{State::Ok, "this user may " + deed}
                : Refused(what, whoMay);
}

Finding BusChecks::Own() const {
  return Permission(m_mayOwn, "be the daemon", "the daemon's name", WHO_MAY_OWN);
}

Finding BusChecks::Call() const {
  return Permission(m_mayCall, "call the daemon", "calls of the daemon", WHO_MAY_CALL);
}

Finding BusChecks::Hear() const {
  if (m_pConnection == nullptr) {
    return {State::Unknown, "needs the bus"};
  }
  Require(!HearsEventsMadeUp(),
          "the bus lets everybody send the daemon's events; install "
          "com.halvex.tv.ondaro.conf in /usr/share/dbus-1/system.d and have the bus read "
          "its configuration again");
  if (m_mayCall == false) {
    return Refused("the daemon's events, as it does calls", WHO_MAY_CALL);
  }
  return {State::Ok, "the bus keeps out events that the daemon did not send"};
}

}  // namespace ondaro::ctl
