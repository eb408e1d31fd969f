#include <string>

#include "Debug.h"
#include "api/ApiFrame.h"
#include "api/EventCallback.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/api/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

NOndaroAPI::CIpcClient& GetClass(OndaroApi_IpcClient_h handle) {
  return ApiFrame::WrapperOf<NOndaroAPI::CIpcClient>(handle);
}

void _RegisterEventHandler(NOndaroAPI::CIpcClient& client, const char* appEvt,
                           OndaroApi_IpcClientEventCallback callback, void* userData) {
  client.RegisterEventHandler(appEvt, MakeEventHandler(callback, userData));
}

}  // namespace

OndaroApi_IpcClient_h OndaroFactory_GetIpcClientHandle(void) {
  OndaroApi_IpcClient_h handle = nullptr;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    handle = reinterpret_cast<OndaroApi_IpcClient_h>(&NOndaroPAL::GetIpcClient());
  });
  return handle;
}

void OndaroApi_IpcClient_RegisterEventHandler(OndaroApi_IpcClient_h handle, const char* appEvt,
                                              OndaroApi_IpcClientEventCallback callback,
                                              void* userData) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    if (callback == nullptr) {
      throw NOndaroAPI::CAPIException("api", "callback is null");
    }
    _RegisterEventHandler(GetClass(handle), appEvt, callback, userData);
  });
}

void OndaroApi_IpcClient_UnregisterEventHandler(OndaroApi_IpcClient_h handle) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] { GetClass(handle).UnregisterEventHandler(); });
}

int OndaroApi_IpcClient_SendDataToServer(OndaroApi_IpcClient_h handle, const char* appEvt,
                                         const char* data) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  int result = ApiFrame::CALL_FAILED;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    NOndaroAPI::CIpcClient& client = GetClass(handle);
    const std::string dataText = data;
    const std::string appEvtText = appEvt;
    client.SendDataToServer(appEvtText, dataText);
    result = ApiFrame::CALL_SUCCEEDED;
  });
  return result;
}
