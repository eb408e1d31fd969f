#ifndef ONDARO_API_ISYSTEMCONFIGIMPL_H
#define ONDARO_API_ISYSTEMCONFIGIMPL_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/EventHandler.h"

namespace NOndaroAPI {

/** What the property service needs of a platform. */
class ONDARO_EXPORT ISystemConfigImpl : private boost::noncopyable {
 public:
  virtual ~ISystemConfigImpl();

  /** The value of `key`, a name or "name:data"; empty when unknown, "error" when unreadable. */
  virtual std::string GetProperty(const std::string& key) const = 0;

  /** True when stored. */
  virtual bool SetProperty(const std::string& key, const std::string& val) = 0;

  /**
   * Stores a copy of `handler` under `key`, replacing the one there, and subscribes to a property
   * that has change events. Under any other name a handler is never called.
   */
  virtual void RegisterEventHandler(const std::string& key,
                                    const PropertyEventHandler& handler) = 0;

  /** Puts a handler that does nothing under `key` and ends a subscription. */
  virtual void UnregisterEventHandler(const std::string& key) = 0;
};

}  // namespace NOndaroAPI

#endif
