#ifndef ONDARO_PLATFORM_HOST_SETTINGSKEY_H
#define ONDARO_PLATFORM_HOST_SETTINGSKEY_H

#include <string_view>

namespace ondaro::host {

/// Relative, slash-separated, UTF-8, at most 255 bytes, without an empty, `.` or `..` segment.
bool IsSettingsKey(std::string_view key);

/// For the keys under `memory/`; all others are kept for good.
bool LivesUntilReboot(std::string_view key);

}  // namespace ondaro::host

#endif
