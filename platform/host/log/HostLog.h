#ifndef ONDARO_PLATFORM_HOST_HOSTLOG_H
#define ONDARO_PLATFORM_HOST_HOSTLOG_H

namespace ondaro::host {

// What the backend says of itself in the log.
inline constexpr char LOG_TAG[] = "ONDARO_HOST";
inline constexpr int LOG_MAIN_BUFFER = 0;
inline constexpr int LOG_PRIORITY_ERROR = 6;

}  // namespace ondaro::host

#endif
