#include "ondaro/pal/CPALFactory.h"

#include "ondaro/pal/CCoreAuthImpl.h"
#include "ondaro/pal/CIpcClientImpl.h"
#include "ondaro/pal/CIpcServerImpl.h"
#include "ondaro/pal/CSystemConfigImpl.h"

namespace NOndaroPAL {

NOndaroAPI::ISystemConfigImpl* CPALFactory::CreateSystemConfigImpl() {
  return new CSystemConfigImpl();
}

NOndaroAPI::IIpcClientImpl* CPALFactory::CreateIpcClientImpl() { return new CIpcClientImpl(); }

NOndaroAPI::IIpcServerImpl* CPALFactory::CreateIpcServerImpl() { return new CIpcServerImpl(); }

NOndaroAPI::ICoreAuthImpl* CPALFactory::CreateCoreAuthImpl() { return new CCoreAuthImpl(); }

NOndaroAPI::CSystemConfig& GetSystemConfig() {
  static NOndaroAPI::CSystemConfig instance(CPALFactory::CreateSystemConfigImpl());
  return instance;
}

NOndaroAPI::CIpcClient& GetIpcClient() {
  static NOndaroAPI::CIpcClient instance(CPALFactory::CreateIpcClientImpl());
  return instance;
}

NOndaroAPI::CIpcServer& GetIpcServer() {
  static NOndaroAPI::CIpcServer instance(CPALFactory::CreateIpcServerImpl());
  return instance;
}

NOndaroAPI::CCoreAuth& GetCoreAuth() {
  static NOndaroAPI::CCoreAuth instance(CPALFactory::CreateCoreAuthImpl());
  return instance;
}

}  // namespace NOndaroPAL
