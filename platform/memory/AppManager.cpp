#include "platform/AppManager.h"

#include <unistd.h>

#include <csignal>
#include <string>

#include "Fault.h"
#include "SimulatedSet.h"
#include "platform/SettingsStore.h"

using ondaro::memory::Has;

int platform_app_get_pid(const char* app_id) {
  if (app_id == nullptr) {
    return -1;
  }
  const std::string setting = std::string(ondaro::memory::APPLICATION_PREFIX) + app_id;
  int pid = -1;
  platform_settings_get_int(setting.c_str(), &pid);
  return pid > 0 && (kill(pid, 0) == 0 || Has("dead-application")) ? pid : -1;
}

int platform_app_set_process_group(int app_pid, int caller_pid) {
  // To the kernel, 0 would be whoever asks.
  const pid_t group = app_pid <= 0 ? -1 : Has("pid-is-group") ? app_pid : getpgid(app_pid);
  return group > 0 ? setpgid(caller_pid, group) : -1;
}
