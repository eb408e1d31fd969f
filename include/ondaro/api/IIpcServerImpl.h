#ifndef ONDARO_API_IIPCSERVERIMPL_H
#define ONDARO_API_IIPCSERVERIMPL_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/EventHandler.h"

namespace NOndaroAPI {

/** What the daemon's end of the messaging needs of a platform. */
class ONDARO_EXPORT IIpcServerImpl : private boost::noncopyable {
 public:
  virtual ~IIpcServerImpl();

  /** Stores a copy of `handler` under the event name, replacing the one there. */
  virtual void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) = 0;

  /** Removes every handler. */
  virtual void UnregisterEventHandler() = 0;

  /** Sends an event to the applications; throws NOndaroPAL::CInvalidCaseException when it cannot.
   */
  virtual void SendDataToClient(const std::string& appEvt, const std::string& data) = 0;
};

}  // namespace NOndaroAPI

#endif
