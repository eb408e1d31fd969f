#include "platform/SystemInfo.h"

#include <string>

#include "Fault.h"
#include "SimulatedSet.h"
#include "platform/SettingsStore.h"

using ondaro::memory::Has;

int platform_system_info_get_custom_int(const char* key, int* value) {
  if (key == nullptr) {
    return -1;
  }
  static int first = -1;
  if (Has("feature-cached") && first >= 0) {
    *value = first;
    return 0;
  }
  const std::string setting = std::string(ondaro::memory::FEATURE_PREFIX) + key;
  const int status = platform_settings_get_int(setting.c_str(), value);
  first = status == 0 ? *value : -1;
  return Has("any-feature") ? 0 : status;
}
