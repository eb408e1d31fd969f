#include <string>

#include "Debug.h"
#include "api/ApiFrame.h"
#include "api/EventCallback.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

NOndaroAPI::CIpcServer& GetClass(OndaroApi_IpcServer_h handle) {
  return ApiFrame::WrapperOf<NOndaroAPI::CIpcServer>(handle);
}

void _RegisterEventHandler(NOndaroAPI::CIpcServer& server, const char* appEvt,
                           OndaroApi_IpcServerEventCallback callback, void* userData) {
  server.RegisterEventHandler(appEvt, MakeEventHandler(callback, userData));
}

}  // namespace

OndaroApi_IpcServer_h OndaroFactory_GetIpcServerHandle(void) {
  OndaroApi_IpcServer_h handle = nullptr;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    handle = reinterpret_cast<OndaroApi_IpcServer_h>(&NOndaroPAL::GetIpcServer());
  });
  return handle;
}

void OndaroApi_IpcServer_RegisterEventHandler(OndaroApi_IpcServer_h handle, const char* appEvt,
                                              OndaroApi_IpcServerEventCallback callback,
                                              void* userData) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {},
                  [&] { _RegisterEventHandler(GetClass(handle), appEvt, callback, userData); });
}

void OndaroApi_IpcServer_UnregisterEventHandler(OndaroApi_IpcServer_h handle) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] { GetClass(handle).UnregisterEventHandler(); });
}

int OndaroApi_IpcServer_SendDataToClient(OndaroApi_IpcServer_h handle, const char* appEvt,
                                         const char* data) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  int result = ApiFrame::CALL_FAILED;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    NOndaroAPI::CIpcServer& server = GetClass(handle);
    const std::string dataText = data;
    const std::string appEvtText = appEvt;
    server.SendDataToClient(appEvtText, dataText);
    result = ApiFrame::CALL_SUCCEEDED;
  });
  return result;
}
