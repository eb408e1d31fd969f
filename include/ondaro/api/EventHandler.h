#ifndef ONDARO_API_EVENTHANDLER_H
#define ONDARO_API_EVENTHANDLER_H

#include <functional>
#include <string>

namespace NOndaroAPI {

/** Receives the data of a bus event. */
using IpcEventHandler = std::function<void(const std::string& data)>;

/** Receives the new value of a property as text. */
using PropertyEventHandler = std::function<void(const std::string& data)>;

}  // namespace NOndaroAPI

#endif
