#include "platform/DevicePower.h"

#include "SimulatedSet.h"
#include "platform/SettingsStore.h"

int platform_power_get_state(void) {
  int state = 0;
  platform_settings_get_int(ondaro::memory::POWER_STATE, &state);
  return state;
}
