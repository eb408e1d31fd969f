#include "ondaro/api/CSystemConfig.h"

#include "Debug.h"

namespace NOndaroAPI {

ISystemConfigImpl::~ISystemConfigImpl() = default;

CSystemConfig::CSystemConfig(ISystemConfigImpl* impl) : m_pImpl(impl) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
}

CSystemConfig::~CSystemConfig() { ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__); }

std::string CSystemConfig::GetProperty(const std::string& key) const {
  return m_pImpl->GetProperty(key);
}

bool CSystemConfig::SetProperty(const std::string& key, const std::string& val) const {
  return m_pImpl->SetProperty(key, val);
}

void CSystemConfig::RegisterEventHandler(const std::string& key,
                                         const PropertyEventHandler& handler) {
  m_pImpl->RegisterEventHandler(key, handler);
}

void CSystemConfig::UnregisterEventHandler(const std::string& key) {
  m_pImpl->UnregisterEventHandler(key);
}

}  // namespace NOndaroAPI
