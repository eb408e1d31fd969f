#include "platform/SystemInfo.h"

int platform_system_info_get_custom_int(const char* /*key*/, int* /*value*/) { return -1; }
