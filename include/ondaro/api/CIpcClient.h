#ifndef ONDARO_API_CIPCCLIENT_H
#define ONDARO_API_CIPCCLIENT_H

#include <memory>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/IIpcClientImpl.h"

namespace NOndaroAPI {

/** The application's end of the messaging, as the exported functions see it. Traces and forwards.
 */
class ONDARO_EXPORT CIpcClient {
 public:
  /**
   * Takes the implementation over.
   *
   * @param impl  deleted with this object; not tested for null
   */
  explicit CIpcClient(IIpcClientImpl* impl);
  ~CIpcClient();

  CIpcClient(const CIpcClient&) = delete;
  CIpcClient& operator=(const CIpcClient&) = delete;

  /** @copydoc IIpcClientImpl::RegisterEventHandler() */
  void RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler);

  /** @copydoc IIpcClientImpl::UnregisterEventHandler() */
  void UnregisterEventHandler();

  /** @copydoc IIpcClientImpl::SendDataToServer() */
  void SendDataToServer(const std::string& appEvt, const std::string& data);

 private:
  std::unique_ptr<IIpcClientImpl> m_pImpl;
};

}  // namespace NOndaroAPI

#endif
