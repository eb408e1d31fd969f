#include "ondaro/api/CCoreAuth.h"

#include "Debug.h"

namespace NOndaroAPI {

ICoreAuthImpl::~ICoreAuthImpl() = default;

CCoreAuth::CCoreAuth(ICoreAuthImpl* impl) : m_pImpl(impl) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
}

CCoreAuth::~CCoreAuth() { ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__); }

bool CCoreAuth::GenerateDeviceKeyAndCert(std::string& key, std::string& cert) {
  return m_pImpl->GenerateDeviceKeyAndCert(key, cert);
}

bool CCoreAuth::SignHash(const std::string& key, const std::string& hash, std::string& sign) {
  return m_pImpl->SignHash(key, hash, sign);
}

bool CCoreAuth::GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain) {
  return m_pImpl->GetModelCertChain(certChain);
}

bool CCoreAuth::GetSystemID(std::string& systemId) { return m_pImpl->GetSystemID(systemId); }

}  // namespace NOndaroAPI
