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

  /**
   * Stores a copy of the handler, replacing the one there.
   *
   * @param appEvt   the event's name
   * @param handler  called with each event of that name
   */
  virtual void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) = 0;

  /** Removes every handler. */
  virtual void UnregisterEventHandler() = 0;

  /**
   * Sends an event to the applications. Throws NOndaroPAL::CInvalidCaseException while the name is
   * not owned and for what the bus cannot carry.
   *
   * @param appEvt  the event's name
   * @param data    its data
   */
  virtual void SendDataToClient(const std::string& appEvt, const std::string& data) = 0;
};

}  // namespace NOndaroAPI

#endif
