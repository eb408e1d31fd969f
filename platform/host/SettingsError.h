#ifndef ONDARO_PLATFORM_HOST_SETTINGSERROR_H
#define ONDARO_PLATFORM_HOST_SETTINGSERROR_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "HostLog.h"
#include "platform/Log.h"

namespace ondaro::host {

/// What the settings store throws to itself; ends as an error line and a failed call.
class SettingsError : public std::runtime_error {
 public:
  enum class Kind {
    FAILED,    ///< the operation cannot be done now
    BUSY,      ///< another process kept its lock for longer than a call waits
    DAMAGED,   ///< the file is no database any more
    REPLACED,  ///< another process has set the file aside and begun a new one
  };

  SettingsError(Kind kind, const std::string& what) : std::runtime_error(what), m_kind(kind) {}

  Kind What() const noexcept { return m_kind; }

 private:
  Kind m_kind;
};

/// For a failed call of the system, with the text of `errno`.
inline SettingsError SystemFailure(const std::string& what) {
  return {SettingsError::Kind::FAILED, what + ": " + std::generic_category().message(errno)};
}

inline void LogSettingsError(const std::string& what) noexcept {
  platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "settings: %s", what.c_str());
}

}  // namespace ondaro::host

#endif
