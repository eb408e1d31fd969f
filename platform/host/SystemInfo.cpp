#include "platform/SystemInfo.h"

#include <string>

#include "HostKeys.h"
#include "Seam.h"

int platform_system_info_get_custom_int(const char* key, int* value) {
  if (key == nullptr || value == nullptr) {
    return -1;
  }
  return ondaro::host::AtSeam(__func__, -1, [&] {
    const std::string setting = std::string(ondaro::host::keys::SYSTEM_INFO_PREFIX) + key;
    return platform_settings_get_int(setting.c_str(), value);
  });
}
