// All exported functions: when memory runs out at any point of a call, and when the process has
// destroyed their services already.

#include <cxxabi.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "Allocations.h"
#include "ondaro/OndaroApi.h"
#include "support/FakePlatform.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace {

constexpr char TEXT[] = "more than a string holds in itself";
constexpr OndaroApi_CoreAuthInfoRO_t BYTES = {TEXT, sizeof(TEXT) - 1};
constexpr const char* FILTERED = "ONDARO_ENROLLMENT";

OndaroApi_SystemConfig_h g_config;
OndaroApi_CoreAuth_h g_auth;
OndaroApi_IpcClient_h g_client;
OndaroApi_IpcServer_h g_server;

/// What a call left behind; nothing of it allocates.
struct SResult {
  int code = 0;
  const char* value = nullptr;
  uint32_t length = 0;
  OndaroApi_CoreAuthInfoRW_t first = {}, second = {};

  std::string Take() {
    std::string text = std::to_string(code);
    if (value != nullptr || length != 0) {
      text += " " + std::string(value != nullptr ? value : "null") + " " + std::to_string(length);
    }
    for (const OndaroApi_CoreAuthInfoRW_t& record : {first, second}) {
      text += record.data != nullptr ? " " + std::string(record.data, record.length) : "";
      text += record.data == nullptr && record.length != 0 ? " broken" : "";
      delete[] record.data;
    }
    OndaroApi_SystemConfig_DestroyProperty(value);
    *this = {};
    return text;
  }
} g_result;

/// Nothing is delivered in these tests.
void OnEvent(const char*, void*) { std::_Exit(1); }

/// Without a new one the old one stays in use, as the host process would have it.
template <typename THandle>
void Keep(THandle& kept, THandle got) {
  g_result.code = got != nullptr;
  kept = got != nullptr ? got : kept;
}

void GetConfig() { Keep(g_config, OndaroFactory_GetSystemConfigHandle()); }
void GetClient() { Keep(g_client, OndaroFactory_GetIpcClientHandle()); }
void GetServer() { Keep(g_server, OndaroFactory_GetIpcServerHandle()); }
void GetAuth() { Keep(g_auth, OndaroFactory_GetCoreAuthHandle()); }
void Set() { g_result.code = OndaroApi_SystemConfig_SetProperty(g_config, FILTERED, TEXT); }
void Get(const char* key) {
  g_result.value = OndaroApi_SystemConfig_GetProperty(g_config, key, &g_result.length);
  g_result.code = g_result.value != nullptr;
}
void GetText() { Get(FILTERED); }
void GetWithData() { Get("SYSTEM_ID:more than a string holds in itself"); }
void Watch() { OndaroApi_SystemConfig_RegisterEventHandler(g_config, FILTERED, OnEvent, nullptr); }
void Unwatch() { OndaroApi_SystemConfig_UnregisterEventHandler(g_config, FILTERED); }
void ClientWatch() { OndaroApi_IpcClient_RegisterEventHandler(g_client, TEXT, OnEvent, nullptr); }
void ClientUnwatch() { OndaroApi_IpcClient_UnregisterEventHandler(g_client); }
void ClientSend() { g_result.code = OndaroApi_IpcClient_SendDataToServer(g_client, TEXT, TEXT); }
void ServerWatch() { OndaroApi_IpcServer_RegisterEventHandler(g_server, TEXT, OnEvent, nullptr); }
void ServerUnwatch() { OndaroApi_IpcServer_UnregisterEventHandler(g_server); }
void ServerSend() { g_result.code = OndaroApi_IpcServer_SendDataToClient(g_server, TEXT, TEXT); }
void Generate() {
  auto& [code, value, length, key, cert] = g_result;
  code = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(g_auth, &key, &cert);
}
void Sign() {
  g_result.code = OndaroApi_CoreAuth_SignHash(g_auth, &BYTES, &BYTES, &g_result.first);
}
void GetChain() { g_result.code = OndaroApi_CoreAuth_GetModelCertChain(g_auth, &g_result.first); }
void Destroy() { OndaroApi_CoreAuth_DestroyCoreAuthInfo(&g_result.first); }

struct SCall {
  void (*call)();
  std::string success = "0";
  std::vector<std::string> failures = {"0"};  // the last one is that of the last allocation
};

const std::string WITH_TEXT = std::string("1 ") + TEXT;
const std::string LENGTH = " " + std::to_string(sizeof(TEXT) - 1);

// Never destroyed: called at the very end too.
const auto& CALLS = *new std::vector<SCall>{
    {GetConfig, "1"},
    {GetClient, "1"},
    {GetServer, "1"},
    {GetAuth, "1"},
    {Set, "1"},
    {GetText, WITH_TEXT + LENGTH, {"0", "1 error 5", "0 null 5", "0 null" + LENGTH}},
    {GetWithData, WITH_TEXT + LENGTH, {"0", "0 null" + LENGTH}},
    {Watch},
    {Unwatch},
    {ClientWatch},
    {ClientUnwatch},
    {ClientSend, "0", {"-1"}},
    {ServerWatch},
    {ServerUnwatch},
    {ServerSend, "0", {"-1"}},
    {Generate, WITH_TEXT + " " + TEXT},
    {Sign, WITH_TEXT},
    {GetChain, "1"},
    {Destroy, "0", {}}};  // without a service behind it, so it never fails

void Require(bool holds, const SCall& call, const std::string& what) {
  if (!holds) {
    std::fprintf(stderr, "call %td: %s\n", &call - CALLS.data(), what.c_str());
    std::_Exit(1);
  }
}

/// The lines at error priority that are no plain traces.
std::vector<std::string> TakeErrors() {
  std::vector<std::string> lines;
  for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
    if (entry.priority == 6 && entry.function.find("TRACE") == std::string::npos &&
        entry.body.rfind("key : ", 0) != 0) {
      lines.push_back(entry.body);
    }
  }
  return lines;
}

int g_nStoreCalls = 0;
std::string g_lastFailure;

/// The allocation with this number fails, and so do those up to the last. False when there was none
/// with this number.
bool RunOutOfMemory(const SCall& call, int number, int last) {
  FakePlatform::Get().TakeLog();
  g_nStoreCalls = 0;
  Allocations::count = 0;
  Allocations::firstFailing = number;
  Allocations::lastFailing = last;
  call.call();
  const bool hasFailed = Allocations::count >= number;
  Allocations::lastFailing = 0;
  const std::string result = g_result.Take();
  const std::vector<std::string> errors = TakeErrors();
  const std::string where = result + " at allocation " + std::to_string(number);
  if (!hasFailed) {
    Require(result == call.success, call, where);
    return false;
  }
  Require(std::count(call.failures.begin(), call.failures.end(), result) == 1, call, where);
  Require(!errors.empty(), call, where + ", without a line");
  g_lastFailure = result;
  // A value that cannot be kept for comparison does not keep events from coming.
  Require(g_nStoreCalls != 1 || call.call != Watch, call, where + ": not subscribed");
  return true;
}

void RunOutOfMemoryEverywhere() {
  for (const SCall& call : CALLS) {
    const auto isServing = [&] { return call.call(), g_result.Take() == call.success; };
    Require(call.call != ServerSend || ondaro::test::WaitUntil(isServing), call, "never");
    bool hasFailed = true;
    for (int number = 1; hasFailed; ++number) {
      hasFailed = RunOutOfMemory(call, number, INT_MAX);
      hasFailed = RunOutOfMemory(call, number, number) || hasFailed;
      Require(hasFailed || number == 1 || g_lastFailure == call.failures.back(), call,
              g_lastFailure + " at the last allocation");
    }
  }
  std::_Exit(0);
}

/// One error line each, and the failure; nothing is delivered any more.
void CallAfterTheEnd() {
  const std::string handle =
      g_config != nullptr ? "handle ended with its service in " : "handle is null in ";
  for (const SCall& call : CALLS) {
    FakePlatform::Get().TakeLog();
    call.call();
    const std::string result = g_result.Take();
    Require(result == (call.failures.empty() ? call.success : call.failures.front()), call, result);
    const std::vector<std::string> errors = TakeErrors();
    Require(errors.size() == (call.failures.empty() ? 0 : 1), call, "lines");
    const std::string expected =
        &call < &CALLS[4] ? "exception : PAL Exception: InvalidCase: the service ended" : handle;
    Require(errors.empty() || errors[0].rfind(expected, 0) == 0, call,
            errors.empty() ? "" : errors[0]);
  }
  FakePlatform::Get().Change("db/ondaro/property/enterprise_enrollment", "after the end");
  ondaro::test::Drain();
}

constexpr int CALLED_AFTER_ALL = 7;
bool g_isCalledAfterAll = false;

/// Registered before the library is loaded, and so called when its constants are gone: as a handler
/// is that a process registered before it opened the library.
[[gnu::section(".preinit_array"), gnu::used]] void (*const g_beforeAll)() = [] {
  abi::__cxa_atexit(
      [](void*) {
        if (g_isCalledAfterAll) {
          CallAfterTheEnd();
          std::_Exit(CALLED_AFTER_ALL);
        }
      },
      nullptr, nullptr);
};

void End(bool areServicesMade) {
  g_isCalledAfterAll = true;
  if (areServicesMade) {
    std::atexit(CallAfterTheEnd);
    for (const SCall& call : CALLS) {
      call.call();
      g_result.Take();
    }
    // The next event is under way, and the subscription is left behind.
    OndaroApi_SystemConfig_RegisterEventHandler(g_config, FILTERED, OnEvent, nullptr);
  }
  std::exit(0);
}

/// The services of the process are made in child processes alone.
class Calls : public testing::Test {
 protected:
  Calls() {
    FakePlatform& fake = FakePlatform::Get();
    fake.Reset();
    fake.m_onStoreCall = [](const std::string&) { return ++g_nStoreCalls > 0; };
    fake.m_key = fake.m_cert = fake.m_sign = fake.m_systemId = TEXT;
  }

  const ondaro::test::PrivateBus m_bus;
};

TEST_F(Calls, FailWithoutTraceWhereverMemoryRunsOut) {
  EXPECT_EXIT(RunOutOfMemoryEverywhere(), testing::ExitedWithCode(0), "");
}

TEST_F(Calls, FailAfterTheEndOfTheirServices) {
  for (const bool areServicesMade : {true, false}) {
    EXPECT_EXIT(End(areServicesMade), testing::ExitedWithCode(CALLED_AFTER_ALL), "");
  }
}

// The wrapper's lines come first, then its implementation goes; wrappers in reverse order.
TEST_F(Calls, EndInReverseOrderOfTheirServices) {
  const auto run = [](bool configFirst) {
    if (configFirst) {
      OndaroFactory_GetSystemConfigHandle();
    }
    OndaroFactory_GetCoreAuthHandle();
    OndaroFactory_GetSystemConfigHandle();
    FakePlatform::Get().m_isLogEchoed = true;
    std::exit(0);
  };
  const std::string config =
      ".*CSystemConfig::~CSystemConfig\\(\\)\\]Left.*CSystemConfigImpl::~CSystemConfigImpl\\(\\)\\]"
      "Entered.*";
  const std::string auth =
      ".*CCoreAuth::~CCoreAuth\\(\\)\\]Left.*CCoreAuthImpl::~CCoreAuthImpl\\(\\)\\]Entered.*eme "
      "instance destroyed.*";
  EXPECT_EXIT(run(true), testing::ExitedWithCode(0), auth + config);
  EXPECT_EXIT(run(false), testing::ExitedWithCode(0), config + auth);
}

}  // namespace
