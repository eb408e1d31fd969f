#ifndef ONDARO_API_CIPCSERVER_H
#define ONDARO_API_CIPCSERVER_H

#include <memory>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/IIpcServerImpl.h"

namespace NOndaroAPI {

/** The daemon's end of the messaging, as the exported functions see it. Traces and forwards. */
class ONDARO_EXPORT CIpcServer {
 public:
  /**
   * Takes the implementation over.
   *
   * @param impl  deleted with this object; not tested for null
   */
  explicit CIpcServer(IIpcServerImpl* impl);
  ~CIpcServer();

  CIpcServer(const CIpcServer&) = delete;
  CIpcServer& operator=(const CIpcServer&) = delete;

  /** @copydoc IIpcServerImpl::RegisterEventHandler() */
  void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler);

  /** @copydoc IIpcServerImpl::UnregisterEventHandler() */
  void UnregisterEventHandler();

  /** @copydoc IIpcServerImpl::SendDataToClient() */
  void SendDataToClient(const std::string& appEvt, const std::string& data);

 private:
  std::unique_ptr<IIpcServerImpl> m_pImpl;
};

}  // namespace NOndaroAPI

#endif
