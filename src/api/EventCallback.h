#ifndef ONDARO_SRC_EVENTCALLBACK_H
#define ONDARO_SRC_EVENTCALLBACK_H

#include <functional>
#include <string>

/// The event handler of a C callback and its user data; does nothing for a null callback.
inline std::function<void(const std::string&)> MakeEventHandler(void (*callback)(const char* data,
                                                                                 void* userData),
                                                                void* userData) {
  return [callback, userData](const std::string& data) {
    if (callback != nullptr) {
      callback(data.c_str(), userData);
    }
  };
}

#endif
