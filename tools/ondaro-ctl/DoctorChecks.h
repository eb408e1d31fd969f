#ifndef ONDARO_CTL_DOCTOR_CHECKS_H
#define ONDARO_CTL_DOCTOR_CHECKS_H

#include <gio/gio.h>

#include <memory>
#include <string>

#include "Bus.h"

namespace ondaro::ctl {

/// What a check found. A check throws a Failure instead for what failed, or is absent.
struct Finding {
  enum class State { Ok, Failed, Absent, Unknown };

  State state;
  std::string message;  // says what to do unless all is well
};

/// The headers this program was built with, and the library that it found.
Finding CheckVersion();

/// Writes under keys of its own and puts back what was there.
Finding CheckStore();

Finding CheckKeySystem();

/// Whether a signature made with the key is one of the certificate's. The two files, or a new pair
/// when their names are empty.
Finding CheckDeviceKey(const std::string& keyFile, const std::string& certFile);

/// Whether the library can use its interface description and `file` describes the messaging. To be
/// called before the process has threads: the library is asked in a child, where the daemon's end
/// finds no bus on which it could take the name.
Finding CheckDescription(const std::string& file);

/// The checks over the bus, each building on those before it.
class BusChecks {
 public:
  Finding Reach();
  Finding Daemon();
  Finding Policy();

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

  Answer Ask(const Question& question) const;
  bool HearsEventsMadeUp() const;

  std::unique_ptr<GDBusConnection, GObjectRelease> m_pConnection;
  bool m_mayCall = false;
  bool m_mayNotCall = false;
};

}  // namespace ondaro::ctl

#endif
