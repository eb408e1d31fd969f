#include "platform/SystemInfo.h"

#include <string>

#include "SimulatedSet.h"
#include "platform/SettingsStore.h"

int platform_system_info_get_custom_int(const char* key, int* value) {
  if (key == nullptr) {
    return -1;
  }
  const std::string setting = std::string(ondaro::memory::FEATURE_PREFIX) + key;
  return platform_settings_get_int(setting.c_str(), value);
}
