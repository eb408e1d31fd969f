#ifndef ONDARO_CTL_CLIENT_H
#define ONDARO_CTL_CLIENT_H

#include "ondaro/OndaroApi.h"

namespace ondaro::ctl {

/// The application's end of this process; a Failure when it cannot be had.
OndaroApi_IpcClient_h Client();

}  // namespace ondaro::ctl

#endif
