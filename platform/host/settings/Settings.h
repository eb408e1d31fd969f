#ifndef ONDARO_PLATFORM_HOST_SETTINGS_H
#define ONDARO_PLATFORM_HOST_SETTINGS_H

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "log/HostLog.h"
#include "platform/Log.h"

namespace ondaro::host {

/// What a key holds; a boolean is the integer it was given as.
using SettingsValue = std::variant<int, std::string>;

/// One write, with its place in the order of all writes.
struct SettingsChange {
  std::int64_t number = 0;
  std::string key;
  SettingsValue value;
};

/// What the settings store throws to itself; ends as an error line and a failed call.
class SettingsError : public std::runtime_error {
 public:
  enum class Kind {
    FAILED,    ///< the operation cannot be done now
    BUSY,      ///< another process kept its lock for longer than a call waits
    DAMAGED,   ///< the file is no database any more
    REPLACED,  ///< the file that is open is not the one at its path any more
  };

  SettingsError(Kind kind, const std::string& what) : std::runtime_error(what), m_kind(kind) {}

  Kind GetKind() const noexcept { return m_kind; }

 private:
  Kind m_kind;
};

inline void LogSettingsError(const std::string& what) noexcept {
  platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "settings: %s", what.c_str());
}

/// How long a call waits for other threads and processes, in all, before it fails.
constexpr std::chrono::milliseconds SETTINGS_LONGEST_WAIT{1800};

/// What the change log keeps for a follower that does not read it.
constexpr std::int64_t SETTINGS_LOG_CHANGES = 4096;
constexpr std::int64_t SETTINGS_LOG_BYTES = 15 << 20;  // and up to 1 MiB until it is trimmed

/// The end of the wait of this thread's call, counted from Begin().
class SettingsDeadline {
 public:
  using Clock = std::chrono::steady_clock;

  static void Begin() noexcept { t_end = Clock::now() + SETTINGS_LONGEST_WAIT; }
  static Clock::time_point End() noexcept { return t_end; }
  static bool HasPassed() noexcept { return Clock::now() >= t_end; }

 private:
  static inline thread_local Clock::time_point t_end;
};

}  // namespace ondaro::host

#endif
