#ifndef ONDARO_PAL_CPALFACTORY_H
#define ONDARO_PAL_CPALFACTORY_H

#include "ondaro/Export.h"
#include "ondaro/api/CCoreAuth.h"
#include "ondaro/api/CIpcClient.h"
#include "ondaro/api/CIpcServer.h"
#include "ondaro/api/CSystemConfig.h"

namespace NOndaroPAL {

/**
 * Makes the implementation objects. The caller owns the result; a constructor's exception passes
 * on, with the storage released.
 */
class ONDARO_EXPORT CPALFactory {
 public:
  /** @return the implementation of the property service */
  static NOndaroAPI::ISystemConfigImpl* CreateSystemConfigImpl();

  /** @return the application's end of the messaging */
  static NOndaroAPI::IIpcClientImpl* CreateIpcClientImpl();

  /** @return the daemon's end of the messaging */
  static NOndaroAPI::IIpcServerImpl* CreateIpcServerImpl();

  /** @return the implementation of device authentication */
  static NOndaroAPI::ICoreAuthImpl* CreateCoreAuthImpl();
};

/**
 * The process-wide service objects, each made on the first call and destroyed at process exit.
 * Safe against concurrent first calls. An exception during the making passes on, and the next
 * call tries again.
 *
 * @return the object
 */
///@{
ONDARO_EXPORT NOndaroAPI::CSystemConfig& GetSystemConfig();
ONDARO_EXPORT NOndaroAPI::CIpcClient& GetIpcClient();
ONDARO_EXPORT NOndaroAPI::CIpcServer& GetIpcServer();
ONDARO_EXPORT NOndaroAPI::CCoreAuth& GetCoreAuth();
///@}

}  // namespace NOndaroPAL

#endif
