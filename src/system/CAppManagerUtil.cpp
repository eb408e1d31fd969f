#include "ondaro/pal/CAppManagerUtil.h"

#include <unistd.h>

#include "Debug.h"
#include "platform/AppManager.h"

namespace NOndaroPAL {

bool CAppManagerUtil::SetProcessGroup(const std::string& appId) {
  const int callerPid = getpid();
  // Used as it is: the set refuses the group of an application that does not run.
  const int appPid = platform_app_get_pid(appId.c_str());
  API_LOG_INFO("pid of caller process : %d, pid of appid (%s) : %d\n", callerPid, appId.c_str(),
               appPid);
  if (platform_app_set_process_group(appPid, callerPid) != 0) {
    API_LOG_ERROR("set process group fail\n");
    return false;
  }
  return true;
}

}  // namespace NOndaroPAL
