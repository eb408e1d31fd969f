#ifndef ONDARO_PLATFORM_HOST_SETTINGSVALUE_H
#define ONDARO_PLATFORM_HOST_SETTINGSVALUE_H

#include <cstdint>
#include <string>
#include <variant>

namespace ondaro::host {

/// What a key holds; a boolean is the integer it was given as.
using SettingsValue = std::variant<int, std::string>;

/// One write, with its place in the order of all writes of its area.
struct SettingsChange {
  std::int64_t sequence = 0;
  std::string key;
  SettingsValue value;
};

}  // namespace ondaro::host

#endif
