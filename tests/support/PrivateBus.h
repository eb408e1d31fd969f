#ifndef ONDARO_TESTS_SUPPORT_PRIVATEBUS_H
#define ONDARO_TESTS_SUPPORT_PRIVATEBUS_H

#include <optional>
#include <string>

#include "support/Child.h"
#include "support/Files.h"

namespace ondaro::test {

/// Lets everyone own, send and receive everything.
extern const char* const OPEN_POLICY;

/// A message bus of the system type for this process and its children alone: an own dbus-daemon
/// that starts no services, found through DBUS_SYSTEM_BUS_ADDRESS. Ready when constructed.
///
/// Make it before the first thread: it changes the environment. A process whose own shared
/// connection is to outlive the bus turns exit-on-close off first.
class PrivateBus {
 public:
  /// `policy` goes into the daemon's configuration as it is.
  explicit PrivateBus(const std::string& policy = OPEN_POLICY);

  pid_t Pid() const { return m_daemon->Pid(); }

  /// Ends the daemon; every connection closes.
  void Kill() { m_daemon.reset(); }
  /// Starts the daemon, again at the same address after Kill().
  void Start();

 private:
  const TemporaryDirectory m_directory;
  const std::string m_configuration = m_directory / "bus.conf";
  std::optional<Child> m_daemon;
};

}  // namespace ondaro::test

#endif
