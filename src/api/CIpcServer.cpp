#include "ondaro/api/CIpcServer.h"

#include "Debug.h"

namespace NOndaroAPI {

IIpcServerImpl::~IIpcServerImpl() = default;

CIpcServer::CIpcServer(IIpcServerImpl* impl) : m_pImpl(impl) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
}

CIpcServer::~CIpcServer() { ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__); }

void CIpcServer::RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->RegisterEventHandler(appEvt, handler);
}

void CIpcServer::UnregisterEventHandler() {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->UnregisterEventHandler();
}

void CIpcServer::SendDataToClient(const std::string& appEvt, const std::string& data) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->SendDataToClient(appEvt, data);
}

}  // namespace NOndaroAPI
