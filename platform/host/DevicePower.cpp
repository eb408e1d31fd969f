#include "platform/DevicePower.h"

#include "HostKeys.h"
#include "Seam.h"

namespace {

constexpr int UNKNOWN = -1;
constexpr int RUNNING = 0;

}  // namespace

int platform_power_get_state(void) {
  using ondaro::host::keys::POWER_STATE;
  return ondaro::host::AtSeam(__func__, UNKNOWN, [] {
    int state = 0;
    if (platform_settings_get_int(POWER_STATE, &state) == 0) {
      return state;
    }
    return ondaro::host::ReadSettingsText(POWER_STATE) ? UNKNOWN : RUNNING;
  });
}
