#include "ondaro/pal/CPALFactory.h"

#include "ProcessService.h"
#include "ondaro/pal/CCoreAuthImpl.h"
#include "ondaro/pal/CIpcClientImpl.h"
#include "ondaro/pal/CIpcServerImpl.h"
#include "ondaro/pal/CSystemConfigImpl.h"

namespace NOndaroPAL {

namespace {

/// Destroyed with the namespace-scope constants, between which nothing else runs.
const struct SEndOfLibrary {
  ~SEndOfLibrary() { g_isLibraryOver = true; }
} g_endOfLibrary;

}  // namespace

NOndaroAPI::ISystemConfigImpl* CPALFactory::CreateSystemConfigImpl() {
  return new CSystemConfigImpl();
}

NOndaroAPI::IIpcClientImpl* CPALFactory::CreateIpcClientImpl() { return new CIpcClientImpl(); }

NOndaroAPI::IIpcServerImpl* CPALFactory::CreateIpcServerImpl() { return new CIpcServerImpl(); }

NOndaroAPI::ICoreAuthImpl* CPALFactory::CreateCoreAuthImpl() { return new CCoreAuthImpl(); }

NOndaroAPI::CSystemConfig& GetSystemConfig() {
  return CProcessService<NOndaroAPI::CSystemConfig>::Get(CPALFactory::CreateSystemConfigImpl);
}

NOndaroAPI::CIpcClient& GetIpcClient() {
  return CProcessService<NOndaroAPI::CIpcClient>::Get(CPALFactory::CreateIpcClientImpl);
}

NOndaroAPI::CIpcServer& GetIpcServer() {
  return CProcessService<NOndaroAPI::CIpcServer>::Get(CPALFactory::CreateIpcServerImpl);
}

NOndaroAPI::CCoreAuth& GetCoreAuth() {
  return CProcessService<NOndaroAPI::CCoreAuth>::Get(CPALFactory::CreateCoreAuthImpl);
}

}  // namespace NOndaroPAL
