#ifndef ONDARO_CTL_DOCTOR_CHECKS_H
#define ONDARO_CTL_DOCTOR_CHECKS_H

#include <memory>
#include <optional>
#include <string>

#include "messages/Bus.h"

namespace ondaro::ctl {

/// What a check found. A check throws a Failure instead for what failed, or for a bus or daemon
/// that is absent.
struct Finding {
  enum class State { Ok, Failed, Absent, Unknown };

  State state;
  std::string message;  // says what to do unless all is well
};

/// `isAbsent` becomes true when the set has no module for the key system at all, which is no fault.
Finding CheckKeySystem(bool& isAbsent);

/// Whether a signature made with the key is one of the certificate's. The two files, or a new pair
/// when their names are empty.
Finding CheckDeviceKey(const std::string& keyFile, const std::string& certFile);

/// Whether the library can use its interface description and `file` describes the messaging. To be
/// called before the process has threads: the library is asked in a child.
Finding CheckDescription(const std::string& file);

/// The checks over the bus, each building on those before it. What this user may do can be told
/// only while there is a daemon.
class BusChecks {
 public:
  Finding Reach();
  Finding Daemon();
  Finding Own() const;
  Finding Call() const;
  Finding Hear() const;

 private:
  bool HearsEventsMadeUp() const;
  Finding Permission(std::optional<bool> may, const std::string& deed, const std::string& what,
                     const std::string& whoMay) const;
  Finding Refused(const std::string& what, const std::string& whoMay) const;

  std::unique_ptr<GDBusConnection, GObjectRelease> m_pConnection;
  std::optional<bool> m_mayOwn;  // nothing while it is unknown
  std::optional<bool> m_mayCall;
};

}  // namespace ondaro::ctl

#endif
