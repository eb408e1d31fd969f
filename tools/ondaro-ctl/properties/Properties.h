#ifndef ONDARO_CTL_PROPERTIES_H
#define ONDARO_CTL_PROPERTIES_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ondaro/OndaroApi.h"
#include "ondaro/api/CCoreAuth.h"
#include "support/ExitCode.h"
#include "support/MainLoop.h"

namespace ondaro::ctl {

// ---- What properties there are; Catalogue.cpp
// -----------------------------------------------------

struct Property {
  std::string name;
  std::string uses;                // r: it can be read, w: written, e: it has change events
  std::string key;                 // where the settings store keeps it; empty when it does not
  std::vector<std::string> words;  // that it stores as they are; none for any text

  bool IsReadable() const { return uses.find('r') != std::string::npos; }
  bool IsWritable() const { return uses.find('w') != std::string::npos; }
  bool HasEvents() const { return uses.find('e') != std::string::npos; }

  /// True for a value that it stores as it is.
  bool Takes(const std::string& value) const;
};

/// Every property there is, sorted by name.
extern const std::vector<Property> CATALOGUE;

/// The property of that name; a Failure that offers the nearest names when there is none.
const Property& FindProperty(const std::string& name);

/// A Failure that lists the words there are unless the property takes the value.
void RequireTaken(const Property& property, const std::string& value, const std::string& advice);

/// ", did you mean a or b?", or nothing when none of `known` is near.
std::string Suggest(const std::string& wanted, const std::vector<std::string>& known);

// ---- The set
// --------------------------------------------------------------------------------------

/// The directory of the set's state; nothing when the backend has none.
std::optional<std::string> StateDirectory();

/// The end of a message: where the reason of what failed is to be seen.
std::string SeeLog();

/// Require(), for what the reason is to be seen in the log.
void RequireOfSet(bool isFine, const std::string& message, ExitCode code = ExitCode::Failed);

/// What a factory of the library gave; a Failure for nothing.
template <class Handle>
Handle Made(Handle handle, const char* message, ExitCode code = ExitCode::Failed) {
  RequireOfSet(handle != nullptr, message, code);
  return handle;
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
