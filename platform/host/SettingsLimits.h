#ifndef ONDARO_PLATFORM_HOST_SETTINGSLIMITS_H
#define ONDARO_PLATFORM_HOST_SETTINGSLIMITS_H

#include <chrono>
#include <cstdint>

namespace ondaro::host {

/// How long a call waits for another process before it fails.
constexpr std::chrono::milliseconds SETTINGS_LONGEST_WAIT{2000};

/// How many writes the change log keeps for a subscriber that does not read them.
constexpr std::int64_t SETTINGS_LOG_CAP = 4096;

/// The log is trimmed once in so many writes.
constexpr std::int64_t SETTINGS_TRIM_BATCH = 256;

/// How many changes a subscriber reads, and is called for, before its main loop goes round.
constexpr int SETTINGS_READ_BATCH = 128;

}  // namespace ondaro::host

#endif
