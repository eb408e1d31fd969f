#include "platform/DevicePower.h"

int platform_power_get_state(void) { return -1; }
