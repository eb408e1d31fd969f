#ifndef ONDARO_CTL_PROPERTIES_H
#define ONDARO_CTL_PROPERTIES_H

#include <functional>
#include <optional>
#include <string>

#include "ondaro/OndaroApi.h"
#include "ondaro/api/CCoreAuth.h"
#include "properties/Catalogue.h"
#include "support/ExitCode.h"
#include "support/MainLoop.h"

namespace ondaro::ctl {

/// The directory of the set's state; nothing when the backend has none.
std::optional<std::string> StateDirectory();

/// The end of a message: where the reason of what failed is to be seen.
std::string SeeLog();

/// What a factory of the library gave; a Failure for nothing.
template <class Handle>
Handle Require(Handle handle, const char* reason, ExitCode code = ExitCode::Failed) {
  return handle != nullptr ? handle : throw Failure(code, reason + SeeLog());
}

/// The property service of this process; a Failure when it cannot be had.
OndaroApi_SystemConfig_h SystemConfig();

/// The application's end of the messaging in this process; a Failure when it cannot be had.
OndaroApi_IpcClient_h Client();

/// The device authentication of this process; a Failure when it cannot be had.
NOndaroAPI::CCoreAuth& CoreAuth();

/// The property's value; nothing when it could not be read.
std::optional<std::string> Read(const Property& property);

/// Of a property that could not be read: true when the store answers and has nothing under its key.
bool IsUnset(const Property& property);

/// True when stored.
bool Write(const Property& property, const std::string& value);

/// Calls `handler` on every change of a property, as long as it lives.
class PropertySubscription {
 public:
  using Handler = std::function<void(const std::string& value)>;

  /// A Failure when the property has no change events or the settings store takes no subscribers.
  PropertySubscription(MainLoop& loop, const Property& property, Handler handler);
  ~PropertySubscription();

  PropertySubscription(const PropertySubscription&) = delete;
  PropertySubscription& operator=(const PropertySubscription&) = delete;

 private:
  static void OnChanged(const char* data, void* userData);

  MainLoop& m_loop;
  std::string m_name;
  Handler m_handler;
};

}  // namespace ondaro::ctl

#endif
