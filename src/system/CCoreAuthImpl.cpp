#include "ondaro/pal/CCoreAuthImpl.h"

#include "Debug.h"
#include "OndaroPALDebug.h"

namespace NOndaroPAL {

namespace {

const std::string KEY_SYSTEM = "com.widevine.alpha";
const std::string QUERY_SYSTEM_ID = "getSystemId";
const std::string QUERY_PARAMETER = " ";

constexpr int KEY_SYSTEM_SUPPORTED = 11;
constexpr bool SECURE = false;
constexpr auto MODEL = static_cast<eme::CDM_MODEL>(1);

/// Null without an instance and for an instance that cannot generate keys.
IWVCDM* _KeyModuleOf(eme::IEME* pCdm) { return dynamic_cast<IWVCDM*>(pCdm); }

}  // namespace

CCoreAuthImpl::CCoreAuthImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (eme::IEME::isKeySystemSupported(KEY_SYSTEM) != KEY_SYSTEM_SUPPORTED) {
    API_LOG_ERROR("Key system[%s] is not supported.", KEY_SYSTEM.c_str());
    return;
  }
  cdm_ = eme::IEME::create(this, KEY_SYSTEM, SECURE, MODEL);
  if (cdm_ == nullptr) {
    API_LOG_ERROR("EME instance create Fail!");
    return;
  }
  API_LOG_INFO("EME instance = [%p] ,created. ", static_cast<void*>(cdm_));
}

CCoreAuthImpl::~CCoreAuthImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (cdm_ == nullptr) {
    return;
  }
  const int result = eme::IEME::destroy(cdm_);
  if (result != 0) {
    API_LOG_ERROR("eme::IEME::destroy() return error[%d]", result);
  }
  API_LOG_INFO("eme instance destroyed");
}

void CCoreAuthImpl::onMessage(const std::string&, const eme::MessageType&, const std::string&) {}

void CCoreAuthImpl::onKeyStatusesChange(const std::string&) {}

void CCoreAuthImpl::onRemoveComplete(const std::string&) {}

bool CCoreAuthImpl::GenerateDeviceKeyAndCert(std::string& key, std::string& cert) {
  return _GenerateDeviceKeyAndCert(key, cert);
}

bool CCoreAuthImpl::SignHash(const std::string& key, const std::string& hash, std::string& sign) {
  return _SignHash(key, hash, sign);
}

bool CCoreAuthImpl::GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain) {
  return _GetModelCertChain(certChain);
}

bool CCoreAuthImpl::GetSystemID(std::string& systemId) {
  if (cdm_ == nullptr) {
    API_LOG_ERROR("cdm_ is NULL");
    return false;
  }
  if (cdm_->getStringProperty(QUERY_SYSTEM_ID, QUERY_PARAMETER, systemId, std::string()) != 0) {
    API_LOG_ERROR("getSystemId failed.");
    return false;
  }
  return true;
}

bool CCoreAuthImpl::_GenerateDeviceKeyAndCert(std::string& key, std::string& cert) {
  IWVCDM* pWVCDM = _KeyModuleOf(cdm_);
  if (pWVCDM == nullptr) {
    API_LOG_ERROR("pWVCDM is NULL");
    return false;
  }
  if (pWVCDM->generateDeviceKeyAndCert(key, cert) != 0) {
    API_LOG_ERROR("GenerateDeviceKeyAndCert failed.");
    return false;
  }
  if (key.empty()) {
    API_LOG_RETURN_GUARD("key.empty()");
    return false;
  }
  if (cert.empty()) {
    API_LOG_RETURN_GUARD("cert.empty()");
    return false;
  }
  return true;
}

bool CCoreAuthImpl::_SignHash(const std::string& key, const std::string& hash, std::string& sign) {
  IWVCDM* pWVCDM = _KeyModuleOf(cdm_);
  if (pWVCDM == nullptr) {
    API_LOG_ERROR("pWVCDM is NULL");
    return false;
  }
  if (pWVCDM->ondaroSign(key, hash, sign) != 0) {
    API_LOG_ERROR("ondaroSign failed.");
    return false;
  }
  if (sign.empty()) {
    API_LOG_ERROR("sign is empty");
    return false;
  }
  return true;
}

bool CCoreAuthImpl::_GetModelCertChain(OndaroApi_CoreAuthInfoRW*) { return true; }

}  // namespace NOndaroPAL
