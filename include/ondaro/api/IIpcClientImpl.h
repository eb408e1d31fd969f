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
   * Stores a copy of the handler, replacing the one there. Throws
   * NOndaroPAL::CInvalidCaseException, with nothing registered, when the signal cannot be had.
   *
   * @param appEvt   the event's name
   * @param handler  called with each event of that name
   */
  virtual void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) = 0;

  /** Removes every handler. */
  virtual void UnregisterEventHandler() = 0;

  /**
   * Starts the sending of an event to the daemon and returns. Throws
   * NOndaroPAL::CInvalidCaseException for what the bus cannot carry.
   *
   * @param appEvt  the event's name
   * @param data    its data
   */
  virtual void SendDataToServer(const std::string& appEvt, const std::string& data) = 0;
};

}  // namespace NOndaroAPI

#endif
