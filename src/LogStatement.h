#ifndef ONDARO_SRC_LOGSTATEMENT_H
#define ONDARO_SRC_LOGSTATEMENT_H

#include "CallSite.h"
#include "platform/Log.h"

namespace ondaro::log {

constexpr int MAIN_BUFFER = 0;
constexpr int PRIORITY_DEBUG = 3;
constexpr int PRIORITY_INFO = 4;
constexpr int PRIORITY_ERROR = 6;

}  // namespace ondaro::log

/// Stands before the body of every message and takes file, function and line.
#define ONDARO_LOG_PREFIX "%s: %s(%d) > "

/// One message from the place where it stands. Debug.h and OndaroPALDebug.h give it their tag.
#define ONDARO_LOG(priority, tag, format, ...)                                            \
  platform_log_print(::ondaro::log::MAIN_BUFFER, priority, tag, ONDARO_LOG_PREFIX format, \
                     ONDARO_FILE_NAME, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// One message in the name of the function whose call site is given.
#define ONDARO_LOG_AT(site, priority, tag, format, ...)                                   \
  platform_log_print(::ondaro::log::MAIN_BUFFER, priority, tag, ONDARO_LOG_PREFIX format, \
                     (site).file, (site).function, (site).line __VA_OPT__(, ) __VA_ARGS__)

#endif
