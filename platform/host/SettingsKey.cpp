#include "SettingsKey.h"

#include <glib.h>

#include <cstddef>

namespace ondaro::host {
namespace {

constexpr std::size_t LONGEST_KEY = 255;
constexpr std::string_view MEMORY = "memory/";

bool IsSegment(std::string_view segment) {
  return !segment.empty() && segment != "." && segment != "..";
}

}  // namespace

bool IsSettingsKey(std::string_view key) {
  if (key.size() > LONGEST_KEY ||
      g_utf8_validate(key.data(), static_cast<gssize>(key.size()), nullptr) == FALSE) {
    return false;
  }
  std::size_t slash = key.find('/');
  while (slash != std::string_view::npos) {
    if (!IsSegment(key.substr(0, slash))) {
      return false;
    }
    key.remove_prefix(slash + 1);
    slash = key.find('/');
  }
  return IsSegment(key);
}

bool LivesUntilReboot(std::string_view key) { return key.substr(0, MEMORY.size()) == MEMORY; }

}  // namespace ondaro::host
