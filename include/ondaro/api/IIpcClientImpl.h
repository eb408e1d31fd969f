#ifndef ONDARO_API_IIPCCLIENTIMPL_H
#define ONDARO_API_IIPCCLIENTIMPL_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/EventHandler.h"

namespace NOndaroAPI {

/** What the application's end of the messaging needs of a platform. */
class ONDARO_EXPORT IIpcClientImpl : private boost::noncopyable {
 public:
  virtual ~IIpcClientImpl();

  /**
   * Stores a copy of `handler` under the event name, replacing the one there. Throws
   * NOndaroPAL::CInvalidCaseException when the daemon's events cannot be listened to.
   */
  virtual void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) = 0;

  /** Removes every handler. */
  virtual void UnregisterEventHandler() = 0;

  /** Sends an event to the daemon; throws NOndaroPAL::CInvalidCaseException when it cannot. */
  virtual void SendDataToServer(const std::string& appEvt, const std::string& data) = 0;
};

}  // namespace NOndaroAPI

#endif
