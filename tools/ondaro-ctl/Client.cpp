#include "Client.h"

#include "ExitCode.h"

namespace ondaro::ctl {

OndaroApi_IpcClient_h Client() {
  const OndaroApi_IpcClient_h handle = OndaroFactory_GetIpcClientHandle();
  if (handle == nullptr) {
    throw Failure(ExitCode::BusAbsent,
                  "the messaging could not be set up on the system bus; "
                  "'--log error' shows why");
  }
  return handle;
}

}  // namespace ondaro::ctl
