#ifndef ONDARO_CTL_PROPERTIES_H
#define ONDARO_CTL_PROPERTIES_H

#include <functional>
#include <optional>
#include <string>

#include "Catalogue.h"
#include "MainLoop.h"
#include "ondaro/OndaroApi.h"

namespace ondaro::ctl {

/// The property service of this process; a Failure when it cannot be had.
OndaroApi_SystemConfig_h SystemConfig();

/// The property's value; nothing when it could not be read.
std::optional<std::string> Read(const Property& property);

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
