#include "ondaro/api/CIpcClient.h"

#include "Debug.h"

namespace NOndaroAPI {

IIpcClientImpl::~IIpcClientImpl() = default;

CIpcClient::CIpcClient(IIpcClientImpl* impl) : m_pImpl(impl) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
}

CIpcClient::~CIpcClient() { ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__); }

void CIpcClient::RegisterEventHandler(const std::string& appEvt, const IpcEventHandler& handler) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->RegisterEventHandler(appEvt, handler);
}

void CIpcClient::UnregisterEventHandler() {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->UnregisterEventHandler();
}

void CIpcClient::SendDataToServer(const std::string& appEvt, const std::string& data) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  m_pImpl->SendDataToServer(appEvt, data);
}

}  // namespace NOndaroAPI
