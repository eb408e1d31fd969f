#ifndef ONDARO_PAL_CAPPMANAGERUTIL_H
#define ONDARO_PAL_CAPPMANAGERUTIL_H

#include <string>

#include "ondaro/Export.h"

namespace NOndaroPAL {

class ONDARO_EXPORT CAppManagerUtil {
 public:
  /** Puts the calling process into the process group of the application `appId`. */
  static bool SetProcessGroup(const std::string& appId);
};

}  // namespace NOndaroPAL

#endif
