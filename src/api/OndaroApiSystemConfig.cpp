#include <cstring>

#include "Debug.h"
#include "api/ApiFrame.h"
#include "api/EventCallback.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

NOndaroAPI::CSystemConfig& GetClass(OndaroApi_SystemConfig_h handle) {
  return ApiFrame::WrapperOf<NOndaroAPI::CSystemConfig>(handle);
}

void _RegisterEventHandler(NOndaroAPI::CSystemConfig& systemConfig, const char* key,
                           OndaroApi_SystemConfigEventCallback callback, void* userData) {
  systemConfig.RegisterEventHandler(key, MakeEventHandler(callback, userData));
}

}  // namespace

OndaroApi_SystemConfig_h OndaroFactory_GetSystemConfigHandle(void) {
  OndaroApi_SystemConfig_h handle = nullptr;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    handle = reinterpret_cast<OndaroApi_SystemConfig_h>(&NOndaroPAL::GetSystemConfig());
  });
  return handle;
}

const char* OndaroApi_SystemConfig_GetProperty(OndaroApi_SystemConfig_h handle, const char* key,
                                               uint32_t* pLength) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  const char* result = nullptr;
  ApiFrame::Guard(ONDARO_CALL_SITE, {{"key", key}, {"pLength", pLength}}, [&] {
    const std::string value = GetClass(handle).GetProperty(key);
    const auto length = static_cast<uint32_t>(value.size());
    *pLength = length;
    char* buffer = new char[std::size_t{length} + 1];
    std::memcpy(buffer, value.data(), length);
    buffer[length] = '\0';
    result = buffer;
  });
  return result;
}

bool OndaroApi_SystemConfig_SetProperty(OndaroApi_SystemConfig_h handle, const char* key,
                                        const char* val) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  bool stored = false;
  ApiFrame::Guard<ApiFrame::EHandlers::STANDARD_ONLY>(
      ONDARO_CALL_SITE, {{"key", key}, {"val", val}},
      [&] { stored = GetClass(handle).SetProperty(key, val); });
  return stored;
}

void OndaroApi_SystemConfig_DestroyProperty(const char* val) { delete[] val; }

void OndaroApi_SystemConfig_RegisterEventHandler(OndaroApi_SystemConfig_h handle, const char* key,
                                                 OndaroApi_SystemConfigEventCallback callback,
                                                 void* userData) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {},
                  [&] { _RegisterEventHandler(GetClass(handle), key, callback, userData); });
}

void OndaroApi_SystemConfig_UnregisterEventHandler(OndaroApi_SystemConfig_h handle,
                                                   const char* key) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] { GetClass(handle).UnregisterEventHandler(key); });
}
