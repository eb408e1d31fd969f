#include "platform/DevicePower.h"

#include <algorithm>

#include "Fault.h"
#include "SimulatedSet.h"
#include "platform/SettingsStore.h"

using ondaro::memory::Has;

int platform_power_get_state(void) {
  int state = 0;
  platform_settings_get_int(ondaro::memory::POWER_STATE, &state);
  return Has("power-0-or-1")     ? std::min(state, 1)
         : Has("power-unsigned") ? std::max(state, 0)
                                 : state;
}
