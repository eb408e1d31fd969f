#include "platform/AppManager.h"

int platform_app_get_pid(const char* /*app_id*/) { return -1; }

int platform_app_set_process_group(int /*app_pid*/, int /*caller_pid*/) { return -1; }
