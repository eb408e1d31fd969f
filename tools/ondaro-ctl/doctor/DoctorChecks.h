#ifndef ONDARO_CTL_DOCTOR_CHECKS_H
#define ONDARO_CTL_DOCTOR_CHECKS_H

#include <memory>
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
/// called before the process has threads: the library is asked in a child, where the daemon's end
/// finds no bus on which it could take the name.
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
  struct Question {
    const char* destination;
    const char* path;
    const char* interface;
    const char* method;
    GVariant* parameters;  // floating
  };
  struct Answer {
    std::shared_ptr<GVariant> value;  // or
    std::shared_ptr<GError> error;

    bool IsError(GQuark domain, int code) const;
  };
  enum class Permission { Unknown, Given, Refused };

  Answer Ask(const Question& question) const;
  bool HearsEventsMadeUp() const;
  Finding Refused(const std::string& what, const std::string& whoMay) const;

  std::unique_ptr<GDBusConnection, GObjectRelease> m_pConnection;
  Permission m_own = Permission::Unknown;
  Permission m_call = Permission::Unknown;
};

}  // namespace ondaro::ctl

#endif
