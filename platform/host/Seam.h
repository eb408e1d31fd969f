#ifndef ONDARO_PLATFORM_HOST_SEAM_H
#define ONDARO_PLATFORM_HOST_SEAM_H

#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "log/HostLog.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace ondaro::host {

/// The body of a function of the seam: nothing thrown leaves it.
template <typename Result, typename Body>
Result AtSeam(const char* function, Result failure, Body body) noexcept {
  try {
    return body();
  } catch (const std::exception& error) {
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "%s: %s", function,
                       error.what());
  } catch (...) {
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "%s: unknown exception",
                       function);
  }
  return failure;
}

/// A text of the simulated set.
inline std::optional<std::string> ReadSettingsText(const std::string& key) {
  struct Release {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Release> text(platform_settings_get_string(key.c_str()));
  return text == nullptr ? std::nullopt : std::optional<std::string>(text.get());
}

}  // namespace ondaro::host

#endif
