#ifndef ONDARO_PLATFORM_HOST_SETTINGSCACHE_H
#define ONDARO_PLATFORM_HOST_SETTINGSCACHE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "SettingsValue.h"

namespace ondaro::host {

/// Values read before, each tagged with the even bell state seen before it was read; it holds for
/// as long as the bell shows that state. A missing key is remembered too.
///
/// A table of fixed size in which keys of the same place displace each other. Not locked: its
/// owner serialises the calls.
class SettingsCache {
 public:
  /// Null when the key is not known to hold under `bellState`; valid until the next Put().
  const std::optional<SettingsValue>* Find(std::string_view key, std::uint64_t bellState) const {
    const Entry& entry = m_entries[Place(key)];
    return entry.bellState == bellState && entry.key == key ? &entry.value : nullptr;
  }

  void Put(std::string_view key, const std::optional<SettingsValue>& value,
           std::uint64_t bellState) {
    Entry& entry = m_entries[Place(key)];
    entry.bellState = NEVER;  // holds nothing should the copies run out of memory
    entry.key = key;
    entry.value = value;
    entry.bellState = bellState;
  }

 private:
  static constexpr std::size_t PLACES = 256;
  static constexpr std::uint64_t NEVER = std::numeric_limits<std::uint64_t>::max();

  struct Entry {
    std::uint64_t bellState = NEVER;
    std::string key;
    std::optional<SettingsValue> value;
  };

  static std::size_t Place(std::string_view key) {
    return std::hash<std::string_view>()(key) % PLACES;
  }

  std::array<Entry, PLACES> m_entries;
};

}  // namespace ondaro::host

#endif
