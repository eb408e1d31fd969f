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

  /**
   * Reads a property.
   *
   * @param key  its name, or "name:data"
   * @return the value; empty when unknown, "error" when unreadable
   */
  virtual std::string GetProperty(const std::string& key) const = 0;

  /**
   * Writes a property.
   *
   * @param key  its name
   * @param val  the value
   * @return true when stored
   */
  virtual bool SetProperty(const std::string& key, const std::string& val) = 0;

  /**
   * Stores a copy of the handler, replacing the one there, and subscribes to a property that has
   * change events.
   *
   * @param key      the property's name; under a name without events the handler is never called
   * @param handler  called with each event
   */
  virtual void RegisterEventHandler(const std::string& key,
                                    const PropertyEventHandler& handler) = 0;

  /**
   * Puts a handler that does nothing in a handler's place and ends a subscription.
   *
   * @param key  the property's name
   */
  virtual void UnregisterEventHandler(const std::string& key) = 0;
};

}  // namespace NOndaroAPI

#endif
