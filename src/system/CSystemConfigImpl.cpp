#include "ondaro/pal/CSystemConfigImpl.h"

#include "CallbackFunnel.h"
#include "LiveObjects.h"
#include "OndaroPALDebug.h"
#include "ondaro/pal/CAppManagerUtil.h"
#include "ondaro/pal/CException.h"
#include "ondaro/pal/CPALFactory.h"
#include "ondaro/pal/CPALUtils.h"

namespace NOndaroPAL {

// ---- Names, keys and words --------------------------------------------------------------------

namespace {

const std::string FUNCTION_NAME_ONDARO_INIT = "ONDARO_INIT";
const std::string FUNCTION_NAME_ONDARO_SUPPORT = "ONDARO_SUPPORT";
const std::string FUNCTION_NAME_ONDARO_ENROLLMENT = "ONDARO_ENROLLMENT";
const std::string FUNCTION_NAME_ONDARO_STATUS = "ONDARO_STATUS";
const std::string FUNCTION_NAME_ONDARO_TOS_STATUS = "ONDARO_TOS_STATUS";
const std::string FUNCTION_NAME_ONDARO_CLEAR_DATA = "ONDARO_CLEAR_DATA";
const std::string FUNCTION_NAME_ONDARO_ENABLE_USAGE_RPT = "ONDARO_ENABLE_USAGE_RPT";
const std::string FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_VERSION = "WIDEVINE_ONDARO_VERSION";
const std::string FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_SUPPORT = "WIDEVINE_ONDARO_SUPPORT";
const std::string FUNCTION_NAME_ONDARO_WIDEVINE_SYSTEM_ID = "SYSTEM_ID";
const std::string FUNCTION_NAME_ONDARO_SET_PROCESS_GROUP = "ONDARO_SET_PROCESS_GRP";
const std::string FUNCTION_NAME_TARGET_REPOSITORY = "TARGET_REPOSITORY";
const std::string PROPERTY_NAME_SDR = "SDR";

const std::string SETREG_ONDARO_INIT = "db/menu/network/ondaro_init";
const std::string SETREG_ONDARO_SUPPORT = "db/menu/network/ondaro_support";
const std::string SETREG_ONDARO_ENROLLMENT = "db/ondaro/property/enterprise_enrollment";
const std::string SETREG_ONDARO_STATUS = "memory/menu/network/ondaro_status";
const std::string SETREG_ONDARO_TOS_STATUS = "db/menu/network/ondaro_tos_status";
const std::string SETREG_ONDARO_CLEAR_DATA = "db/menu/network/ondaro_clear_data";
const std::string SETREG_ONDARO_ENABLE_USAGE_RPT = "db/menu/network/ondaro_enable_usage_rpt";
const std::string SETREG_ONDARO_WIDEVINE_ONDARO_VERSION =
    "db/ondaro/property/widevine_ondaro_version";
const std::string SETREG_ONDARO_WIDEVINE_ONDARO_SUPPORT =
    "db/ondaro/property/widevine_ondaro_support";

const std::string STR_TRUE = "true";
const std::string STR_FALSE = "false";
const std::string STR_DEFAULT = "default";
const std::string STR_SET = "set";
const std::string STR_ERROR = "error";
const std::string PROPERTY_VALUE_SUPPORT = "1";
const std::string TARGET_REPOSITORY_EMULATOR = "emulator";

// Part of the vocabulary that the processes of the receiver share; nothing here reads them.
[[maybe_unused]] const std::string STR_EMPTY;
[[maybe_unused]] const std::string STR_ACCEPT = "accept";
[[maybe_unused]] const std::string STR_NOT_ACCEPT = "not_accept";
[[maybe_unused]] const std::string PROPERTY_VALUE_NOT_SUPPORT = "0";
[[maybe_unused]] const std::string ONDARO_APP_BINARY_NAME = "ondaro-app";
[[maybe_unused]] const std::string ONDARO_DAEMON_BINARY_NAME = "ondaro-service";
[[maybe_unused]] const std::string ONDARO_API_TC_BINARY_NAME = "lib-ondaro-platform-tv-mapi";

constexpr int FLAG_SET = 1;
constexpr int FLAG_CLEAR = 0;
constexpr int USAGE_OF_UNKNOWN_WORD = 0;

constexpr char MIXED_KEY_SEPARATOR = ':';

const std::map<std::string, int> g_enableUsageStr2Int = {
    {STR_FALSE, 0}, {STR_DEFAULT, 1}, {STR_TRUE, 2}, {STR_SET, 3}};
const std::map<int, std::string> g_enableUsageInt2Str = {
    {0, STR_FALSE}, {1, STR_DEFAULT}, {2, STR_TRUE}, {3, STR_SET}};

// ---- Kinds of value -----------------------------------------------------------------------------

std::string _FlagToText(int flag) { return flag == FLAG_SET ? STR_TRUE : STR_FALSE; }

std::string _UsageToText(int usage) {
  const auto word = g_enableUsageInt2Str.find(usage);
  return word != g_enableUsageInt2Str.end() ? word->second : std::string();
}

std::string _ReadString(const std::string& key) {
  std::string value;
  return CPALUtils::SetregGetStr(key, value) ? value : STR_ERROR;
}

std::string _ReadInteger(const std::string& key, std::string (*pToText)(int)) {
  int value = 0;
  return CPALUtils::SetregGetInt(key, value) ? pToText(value) : STR_ERROR;
}

bool _WriteFlag(const std::string& key, const std::string& val) {
  return CPALUtils::SetregSetInt(key, val == STR_TRUE ? FLAG_SET : FLAG_CLEAR);
}

// ---- Getters ------------------------------------------------------------------------------------

std::string _CheckOndaroInit(const std::string&) {
  return _ReadInteger(SETREG_ONDARO_INIT, _FlagToText);
}

std::string _CheckOndaroSupport(const std::string&) {
  return _ReadInteger(SETREG_ONDARO_SUPPORT, _FlagToText);
}

std::string _CheckOndaroEnrollment(const std::string&) {
  return _ReadString(SETREG_ONDARO_ENROLLMENT);
}

std::string _CheckOndaroStatus(const std::string&) { return _ReadString(SETREG_ONDARO_STATUS); }

std::string _CheckOndaroToSStatus(const std::string&) {
  return _ReadString(SETREG_ONDARO_TOS_STATUS);
}

std::string _CheckOndaroClearData(const std::string&) {
  return _ReadInteger(SETREG_ONDARO_CLEAR_DATA, _FlagToText);
}

std::string _CheckOndaroEnableUsageRpt(const std::string&) {
  return _ReadInteger(SETREG_ONDARO_ENABLE_USAGE_RPT, _UsageToText);
}

std::string _CheckOndaroWidevineOndaroVersion(const std::string&) {
  return _ReadString(SETREG_ONDARO_WIDEVINE_ONDARO_VERSION);
}

std::string _CheckOndaroWidevineOndaroSupport(const std::string&) {
  return _ReadString(SETREG_ONDARO_WIDEVINE_ONDARO_SUPPORT);
}

// The first read in a process opens the content decryption module in it.
std::string _CheckWidevineSystemID(const std::string&) {
  std::string systemId;
  return GetCoreAuth().GetSystemID(systemId) ? systemId : STR_ERROR;
}

std::string _CheckTargetRepository(const std::string&) { return TARGET_REPOSITORY_EMULATOR; }

// ---- Setters ------------------------------------------------------------------------------------

bool _SetOndaroInit(const std::string& val) { return _WriteFlag(SETREG_ONDARO_INIT, val); }

bool _SetOndaroSupport(const std::string& val) { return _WriteFlag(SETREG_ONDARO_SUPPORT, val); }

bool _SetOndaroEnrollment(const std::string& val) {
  return CPALUtils::SetregSetStr(SETREG_ONDARO_ENROLLMENT, val);
}

bool _SetOndaroStatus(const std::string& val) {
  return CPALUtils::SetregSetStr(SETREG_ONDARO_STATUS, val);
}

bool _SetOndaroProcessGroup(const std::string& val) {
  return CAppManagerUtil::SetProcessGroup(val);
}

bool _SetOndaroToSStatus(const std::string& val) {
  return CPALUtils::SetregSetStr(SETREG_ONDARO_TOS_STATUS, val);
}

bool _SetOndaroClearData(const std::string& val) {
  return _WriteFlag(SETREG_ONDARO_CLEAR_DATA, val);
}

bool _SetOndaroEnableUsageRpt(const std::string& val) {
  const auto number = g_enableUsageStr2Int.find(val);
  return CPALUtils::SetregSetInt(
      SETREG_ONDARO_ENABLE_USAGE_RPT,
      number != g_enableUsageStr2Int.end() ? number->second : USAGE_OF_UNKNOWN_WORD);
}

bool _SetOndaroWidevineOndaroVersion(const std::string& val) {
  return CPALUtils::SetregSetStr(SETREG_ONDARO_WIDEVINE_ONDARO_VERSION, val);
}

bool _SetOndaroWidevineOndaroSupport(const std::string& val) {
  return CPALUtils::SetregSetStr(SETREG_ONDARO_WIDEVINE_ONDARO_SUPPORT, val);
}

// ---- Callback managers: subscribe or unsubscribe one key ---------------------------------------

void _ManageSubscription(bool subscribe, const std::string& key,
                         platform_settings_changed_cb callback, void* pUserData) {
  if (subscribe) {
    CPALUtils::RegisterSetregChangedCb(key, callback, pUserData);
  } else {
    CPALUtils::DeregisterSetregChangedCb(key, callback);
  }
}

void _ManageOndaroSupportCb(bool subscribe, void* pUserData) {
  _ManageSubscription(subscribe, SETREG_ONDARO_SUPPORT,
                      CSystemConfigImpl::OndaroSupportChangedCallback, pUserData);
}

void _ManageOndaroToSStatusCb(bool subscribe, void* pUserData) {
  _ManageSubscription(subscribe, SETREG_ONDARO_TOS_STATUS,
                      CSystemConfigImpl::OndaroToSStatusChangedCallback, pUserData);
}

void _ManageOndaroClearDataCb(bool subscribe, void* pUserData) {
  _ManageSubscription(subscribe, SETREG_ONDARO_CLEAR_DATA,
                      CSystemConfigImpl::OndaroClearDataChangedCallback, pUserData);
}

void _ManageOndaroEnableUsageRptCb(bool subscribe, void* pUserData) {
  _ManageSubscription(subscribe, SETREG_ONDARO_ENABLE_USAGE_RPT,
                      CSystemConfigImpl::OndaroEnableUsageRptChangedCallback, pUserData);
}

CSystemConfigImpl& _ThisFrom(void* pUserData) {
  if (pUserData == nullptr) {
    throw CNullptrException("pThis");
  }
  return *static_cast<CSystemConfigImpl*>(pUserData);
}

}  // namespace

// A failed read keeps what the cache holds: the next change is compared with the last known value.
void CSystemConfigImpl::_ManageOndaroEnrollmentCb(bool subscribe, void* pUserData) {
  if (subscribe) {
    CPALUtils::SetregGetStr(SETREG_ONDARO_ENROLLMENT, _ThisFrom(pUserData).m_strOndaroEnrollment);
  }
  _ManageSubscription(subscribe, SETREG_ONDARO_ENROLLMENT, OndaroEnrollmentChangedCallback,
                      pUserData);
}

void CSystemConfigImpl::_ManageOndaroStatusCb(bool subscribe, void* pUserData) {
  if (subscribe) {
    CPALUtils::SetregGetStr(SETREG_ONDARO_STATUS, _ThisFrom(pUserData).m_strOndaroStatus);
  }
  _ManageSubscription(subscribe, SETREG_ONDARO_STATUS, OndaroStatusChangedCallback, pUserData);
}

void CSystemConfigImpl::_ManageOndaroWidevineOndaroVersion(bool subscribe, void* pUserData) {
  if (subscribe) {
    CPALUtils::SetregGetStr(SETREG_ONDARO_WIDEVINE_ONDARO_VERSION,
                            _ThisFrom(pUserData).m_strWidevineOndaroVersion);
  }
  _ManageSubscription(subscribe, SETREG_ONDARO_WIDEVINE_ONDARO_VERSION,
                      OndaroWidevineOndaroVersionChangedCallback, pUserData);
}

void CSystemConfigImpl::_ManageOndaroWidevineOndaroSupportCb(bool subscribe, void* pUserData) {
  if (subscribe) {
    CPALUtils::SetregGetStr(SETREG_ONDARO_WIDEVINE_ONDARO_SUPPORT,
                            _ThisFrom(pUserData).m_strWidevineOndaroSupport);
  }
  _ManageSubscription(subscribe, SETREG_ONDARO_WIDEVINE_ONDARO_SUPPORT,
                      OndaroWidevineOndaroSupportChangedCallback, pUserData);
}

// ---- Construction ------------------------------------------------------------------------------

CSystemConfigImpl::CSystemConfigImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  PAL_LOG_INFO("Chip: %s", "NONE");
  m_propertyMap[PROPERTY_NAME_SDR] = PROPERTY_VALUE_SUPPORT;
  _PrintPropertyMap();
  _InitGetFunctionMap(m_getFunctionMap);
  _InitSetFunctionMap(m_setFunctionMap);
  _InitCbManagerMap(m_cbManagerMap);
  CLiveObjects<CSystemConfigImpl>::Add(this);
}

CSystemConfigImpl::~CSystemConfigImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  CLiveObjects<CSystemConfigImpl>::Remove(this);
}

void CSystemConfigImpl::_PrintPropertyMap() const {
  for (const auto& [name, value] : m_propertyMap) {
    PAL_LOG_INFO("%s: %s", name.c_str(), value.c_str());
  }
}

void CSystemConfigImpl::_InitGetFunctionMap(GetFunctionMap_t& getFunctionMap) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  getFunctionMap[FUNCTION_NAME_ONDARO_INIT] = _CheckOndaroInit;
  getFunctionMap[FUNCTION_NAME_ONDARO_SUPPORT] = _CheckOndaroSupport;
  getFunctionMap[FUNCTION_NAME_ONDARO_ENROLLMENT] = _CheckOndaroEnrollment;
  getFunctionMap[FUNCTION_NAME_ONDARO_STATUS] = _CheckOndaroStatus;
  getFunctionMap[FUNCTION_NAME_ONDARO_TOS_STATUS] = _CheckOndaroToSStatus;
  getFunctionMap[FUNCTION_NAME_ONDARO_CLEAR_DATA] = _CheckOndaroClearData;
  getFunctionMap[FUNCTION_NAME_ONDARO_ENABLE_USAGE_RPT] = _CheckOndaroEnableUsageRpt;
  getFunctionMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_VERSION] = _CheckOndaroWidevineOndaroVersion;
  getFunctionMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_SUPPORT] = _CheckOndaroWidevineOndaroSupport;
  getFunctionMap[FUNCTION_NAME_ONDARO_WIDEVINE_SYSTEM_ID] = _CheckWidevineSystemID;
  getFunctionMap[FUNCTION_NAME_TARGET_REPOSITORY] = _CheckTargetRepository;
}

void CSystemConfigImpl::_InitSetFunctionMap(SetFunctionMap_t& setFunctionMap) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  setFunctionMap[FUNCTION_NAME_ONDARO_INIT] = _SetOndaroInit;
  setFunctionMap[FUNCTION_NAME_ONDARO_SUPPORT] = _SetOndaroSupport;
  setFunctionMap[FUNCTION_NAME_ONDARO_ENROLLMENT] = _SetOndaroEnrollment;
  setFunctionMap[FUNCTION_NAME_ONDARO_STATUS] = _SetOndaroStatus;
  setFunctionMap[FUNCTION_NAME_ONDARO_SET_PROCESS_GROUP] = _SetOndaroProcessGroup;
  setFunctionMap[FUNCTION_NAME_ONDARO_TOS_STATUS] = _SetOndaroToSStatus;
  setFunctionMap[FUNCTION_NAME_ONDARO_CLEAR_DATA] = _SetOndaroClearData;
  setFunctionMap[FUNCTION_NAME_ONDARO_ENABLE_USAGE_RPT] = _SetOndaroEnableUsageRpt;
  setFunctionMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_VERSION] = _SetOndaroWidevineOndaroVersion;
  setFunctionMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_SUPPORT] = _SetOndaroWidevineOndaroSupport;
}

void CSystemConfigImpl::_InitCbManagerMap(CbManagerMap_t& cbManagerMap) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  cbManagerMap[FUNCTION_NAME_ONDARO_SUPPORT] = _ManageOndaroSupportCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_ENROLLMENT] = _ManageOndaroEnrollmentCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_STATUS] = _ManageOndaroStatusCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_TOS_STATUS] = _ManageOndaroToSStatusCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_CLEAR_DATA] = _ManageOndaroClearDataCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_ENABLE_USAGE_RPT] = _ManageOndaroEnableUsageRptCb;
  cbManagerMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_VERSION] = _ManageOndaroWidevineOndaroVersion;
  cbManagerMap[FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_SUPPORT] = _ManageOndaroWidevineOndaroSupportCb;
}

// ---- Reads and writes --------------------------------------------------------------------------

std::string CSystemConfigImpl::GetProperty(const std::string& key) const {
  return _GetProperty(key);
}

bool CSystemConfigImpl::SetProperty(const std::string& key, const std::string& val) {
  return _SetProperty(key, val);
}

std::string CSystemConfigImpl::_GetProperty(const std::string& mixedKey) const {
  PAL_LOG_ERROR("key : %s", mixedKey.c_str());
  const auto constant = m_propertyMap.find(mixedKey);
  if (constant != m_propertyMap.end()) {
    return constant->second;
  }
  const auto getter = m_getFunctionMap.find(_ExtractKeyFromMixedKey(mixedKey));
  if (getter == m_getFunctionMap.end()) {
    PAL_LOG_ERROR("property[%s] is undefined", mixedKey.c_str());
    return {};
  }
  return getter->second(_ExtractDataFromMixedKey(mixedKey));
}

bool CSystemConfigImpl::_SetProperty(const std::string& key, const std::string& val) const {
  PAL_LOG_ERROR("key : %s", key.c_str());
  const auto setter = m_setFunctionMap.find(key);
  if (setter == m_setFunctionMap.end()) {
    PAL_LOG_ERROR("property[%s] is undefined", key.c_str());
    return false;
  }
  return setter->second(val);
}

std::string CSystemConfigImpl::_ExtractKeyFromMixedKey(const std::string& mixedKey) const {
  const std::size_t separator = mixedKey.find(MIXED_KEY_SEPARATOR);
  if (separator == std::string::npos) {
    PAL_LOG_DEBUG("data is not included");
    return mixedKey;
  }
  std::string key = mixedKey.substr(0, separator);
  PAL_LOG_INFO("key : %s", key.c_str());
  return key;
}

std::string CSystemConfigImpl::_ExtractDataFromMixedKey(const std::string& mixedKey) const {
  const std::size_t separator = mixedKey.find(MIXED_KEY_SEPARATOR);
  if (separator == std::string::npos) {
    PAL_LOG_DEBUG("data is not included");
    return {};
  }
  std::string data = mixedKey.substr(separator + 1);
  PAL_LOG_INFO("data : %s", data.c_str());
  return data;
}

// ---- Change events -----------------------------------------------------------------------------

void CSystemConfigImpl::RegisterEventHandler(const std::string& key,
                                             const NOndaroAPI::PropertyEventHandler& handler) {
  PAL_LOG_ERROR("key : %s", key.c_str());
  m_eventHandlerMap[key] = handler;
  const auto manager = m_cbManagerMap.find(key);
  if (manager != m_cbManagerMap.end()) {
    manager->second(true, this);
  }
}

void CSystemConfigImpl::UnregisterEventHandler(const std::string& key) {
  m_eventHandlerMap[key] = [](const std::string&) {};
  const auto manager = m_cbManagerMap.find(key);
  if (manager != m_cbManagerMap.end()) {
    manager->second(false, this);
  }
}

void CSystemConfigImpl::OndaroSupportChangedCallback(platform_settings_node* pKeyNode,
                                                     void* pUserData) {
  _DeliverInteger(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_SUPPORT, _FlagToText);
}

void CSystemConfigImpl::OndaroEnrollmentChangedCallback(platform_settings_node* pKeyNode,
                                                        void* pUserData) {
  _DeliverString(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_ENROLLMENT,
                 &CSystemConfigImpl::m_strOndaroEnrollment);
}

void CSystemConfigImpl::OndaroStatusChangedCallback(platform_settings_node* pKeyNode,
                                                    void* pUserData) {
  _DeliverString(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_STATUS,
                 &CSystemConfigImpl::m_strOndaroStatus);
}

void CSystemConfigImpl::OndaroToSStatusChangedCallback(platform_settings_node* pKeyNode,
                                                       void* pUserData) {
  _DeliverString(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_TOS_STATUS, nullptr);
}

void CSystemConfigImpl::OndaroClearDataChangedCallback(platform_settings_node* pKeyNode,
                                                       void* pUserData) {
  _DeliverInteger(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_CLEAR_DATA,
                  _FlagToText);
}

void CSystemConfigImpl::OndaroEnableUsageRptChangedCallback(platform_settings_node* pKeyNode,
                                                            void* pUserData) {
  _DeliverInteger(ONDARO_CALL_SITE, pKeyNode, pUserData, FUNCTION_NAME_ONDARO_ENABLE_USAGE_RPT,
                  _UsageToText);
}

void CSystemConfigImpl::OndaroWidevineOndaroVersionChangedCallback(platform_settings_node* pKeyNode,
                                                                   void* pUserData) {
  _DeliverString(ONDARO_CALL_SITE, pKeyNode, pUserData,
                 FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_VERSION,
                 &CSystemConfigImpl::m_strWidevineOndaroVersion);
}

void CSystemConfigImpl::OndaroWidevineOndaroSupportChangedCallback(platform_settings_node* pKeyNode,
                                                                   void* pUserData) {
  _DeliverString(ONDARO_CALL_SITE, pKeyNode, pUserData,
                 FUNCTION_NAME_ONDARO_WIDEVINE_ONDARO_SUPPORT,
                 &CSystemConfigImpl::m_strWidevineOndaroSupport);
}

namespace {

// Logs in the callback's name and throws; the callback's funnel ends it there.
[[noreturn]] void _ThrowInvalidCase(const SCallSite& site, const char* operation) {
  PAL_LOG_ERROR_AT(site, "throw %s", operation);
  throw CInvalidCaseException(operation);
}

void _RequireKeyNode(const platform_settings_node* pKeyNode) {
  if (pKeyNode == nullptr) {
    throw CNullptrException("pKeyNode");
  }
}

/// The destructor leaves subscriptions as they are.
bool _IsTooLate(const void* pUserData) {
  return pUserData != nullptr && !CLiveObjects<CSystemConfigImpl>::Has(pUserData);
}

}  // namespace

/// `pCache` is the member that filters repeated values, null for a property without a filter.
void CSystemConfigImpl::_DeliverString(const SCallSite& site, platform_settings_node* pKeyNode,
                                       void* pUserData, const std::string& name,
                                       std::string CSystemConfigImpl::*pCache) {
  if (_IsTooLate(pUserData)) {
    return;
  }
  try {
    _RequireKeyNode(pKeyNode);
    std::string value;
    if (!CPALUtils::GetSetregStrFromKeynode(pKeyNode, value)) {
      _ThrowInvalidCase(site, "GetSetregStrFromKeynode");
    }
    CSystemConfigImpl& self = _ThisFrom(pUserData);
    if (pCache != nullptr) {
      if (self.*pCache == value) {
        return;
      }
      self.*pCache = value;
    }
    self._CallEventHandler(name, value);
  } catch (...) {
    LogCaught(site);
  }
}

void CSystemConfigImpl::_DeliverInteger(const SCallSite& site, platform_settings_node* pKeyNode,
                                        void* pUserData, const std::string& name,
                                        std::string (*pToText)(int)) {
  if (_IsTooLate(pUserData)) {
    return;
  }
  try {
    _RequireKeyNode(pKeyNode);
    int value = 0;
    if (!CPALUtils::GetSetregIntFromKeynode(pKeyNode, value)) {
      _ThrowInvalidCase(site, "GetSetregIntFromKeynode");
    }
    _ThisFrom(pUserData)._CallEventHandler(name, pToText(value));
  } catch (...) {
    LogCaught(site);
  }
}

// The handler is copied: it may replace itself in the table while it runs.
void CSystemConfigImpl::_CallEventHandler(const std::string& name, const std::string& data) const {
  const auto entry = m_eventHandlerMap.find(name);
  if (entry == m_eventHandlerMap.end()) {
    return;
  }
  const NOndaroAPI::PropertyEventHandler handler = entry->second;
  handler(data);
}

}  // namespace NOndaroPAL
