#ifndef ONDARO_PAL_CAPPMANAGERUTIL_H
#define ONDARO_PAL_CAPPMANAGERUTIL_H

#include <string>

#include "ondaro/Export.h"

namespace NOndaroPAL {

/** Requests to the set's application manager. No state; as thread-safe as that. */
class ONDARO_EXPORT CAppManagerUtil {
 public:
  /**
   * Puts the calling process into an application's process group.
   *
   * @param appId  the application's id
   * @return true when that is done, else false with an error line
   */
  static bool SetProcessGroup(const std::string& appId);
};

}  // namespace NOndaroPAL

#endif
