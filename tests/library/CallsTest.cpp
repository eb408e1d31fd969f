// All exported functions, beside what they do: what they allocate, when memory runs out at any
// point of a call, and when the process has destroyed their services already.

#include <cxxabi.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <set>

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
void Get(const char* key) {
  g_result.value = OndaroApi_SystemConfig_GetProperty(g_config, key, &g_result.length);
  g_result.code = g_result.value != nullptr;
}
void Watch() { OndaroApi_SystemConfig_RegisterEventHandler(g_config, FILTERED, OnEvent, nullptr); }
void ServerSend() { g_result.code = OndaroApi_IpcServer_SendDataToClient(g_server, TEXT, TEXT); }

struct SCall {
  void (*call)();
  std::string success = "0";
  std::set<std::string> failures = {"0"};  // the first one is that of a service that ended
};

const std::string WITH_TEXT = std::string("1 ") + TEXT;
const std::string LENGTH = " " + std::to_string(sizeof(TEXT) - 1);

// Never destroyed: called at the very end too.
const auto& CALLS = *new std::vector<SCall>{
    {[] { Keep(g_config, OndaroFactory_GetSystemConfigHandle()); }, "1"},
    {[] { Keep(g_client, OndaroFactory_GetIpcClientHandle()); }, "1"},
    {[] { Keep(g_server, OndaroFactory_GetIpcServerHandle()); }, "1"},
    {[] { Keep(g_auth, OndaroFactory_GetCoreAuthHandle()); }, "1"},
    {[] { g_result.code = OndaroApi_SystemConfig_SetProperty(g_config, FILTERED, TEXT); }, "1"},
    {[] { Get(FILTERED); }, WITH_TEXT + LENGTH, {"0", "1 error 5", "0 null 5", "0 null" + LENGTH}},
    {[] { Get("SYSTEM_ID:more than a string holds in itself"); },
     WITH_TEXT + LENGTH,
     {"0", "0 null" + LENGTH}},
    {Watch},
    {[] { OndaroApi_SystemConfig_UnregisterEventHandler(g_config, FILTERED); }},
    {[] { OndaroApi_IpcClient_RegisterEventHandler(g_client, TEXT, OnEvent, nullptr); }},
    {[] { OndaroApi_IpcClient_UnregisterEventHandler(g_client); }},
    {[] { g_result.code = OndaroApi_IpcClient_SendDataToServer(g_client, TEXT, TEXT); },
     "0",
     {"-1"}},
    {[] { OndaroApi_IpcServer_RegisterEventHandler(g_server, TEXT, OnEvent, nullptr); }},
    {[] { OndaroApi_IpcServer_UnregisterEventHandler(g_server); }},
    {ServerSend, "0", {"-1"}},
    {[] {
       auto& [code, value, length, key, cert] = g_result;
       code = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(g_auth, &key, &cert);
     },
     WITH_TEXT + " " + TEXT},
    {[] { g_result.code = OndaroApi_CoreAuth_SignHash(g_auth, &BYTES, &BYTES, &g_result.first); },
     WITH_TEXT},
    {[] { g_result.code = OndaroApi_CoreAuth_GetModelCertChain(g_auth, &g_result.first); }, "1"},
    // Without a service behind it, so it never fails.
    {[] { OndaroApi_CoreAuth_DestroyCoreAuthInfo(&g_result.first); }, "0", {}}};

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

/// The allocations with these numbers fail. Tells what comes of it in `failures`; false when there
/// was none with the first number.
bool RunOutOfMemory(const SCall& call, int first, int last, std::set<std::string>& failures) {
  FakePlatform::Get().TakeLog();
  g_nStoreCalls = Allocations::count = 0;
  Allocations::firstFailing = first;
  Allocations::lastFailing = last;
  call.call();
  const bool hasFailed = Allocations::count >= first;
  Allocations::lastFailing = 0;
  const std::string result = g_result.Take();
  if (!hasFailed) {
    EXPECT_EQ(result, call.success);
    return false;
  }
  failures.insert(result);
  EXPECT_FALSE(TakeErrors().empty()) << result;
  // A value that cannot be kept for comparison does not keep events from coming.
  EXPECT_FALSE(g_nStoreCalls == 1 && call.call == Watch);
  return true;
}

void RunOutOfMemoryEverywhere() {
  for (const SCall& call : CALLS) {
    const auto isServing = [&] { return call.call(), g_result.Take() == call.success; };
    EXPECT_TRUE(call.call != ServerSend || ondaro::test::WaitUntil(isServing));
    std::set<std::string> failures;
    bool hasFailed = true;
    for (int number = 1; hasFailed; ++number) {
      hasFailed = RunOutOfMemory(call, number, INT_MAX, failures);
      hasFailed = RunOutOfMemory(call, number, number, failures) || hasFailed;
    }
    EXPECT_TRUE(failures.empty() || failures == call.failures)
        << "call " << &call - CALLS.data() << ": " << testing::PrintToString(failures);
  }
  std::_Exit(testing::Test::HasFailure() ? 1 : 0);
}

/// One error line each, and the failure; nothing is delivered any more.
void CallAfterTheEnd() {
  const char* const handle =
      g_config != nullptr ? "handle ended with its service in " : "handle is null in ";
  for (const SCall& call : CALLS) {
    FakePlatform::Get().TakeLog();
    call.call();
    const bool isFailing = !call.failures.empty();
    const std::string expected = isFailing ? *call.failures.begin() : call.success;
    const std::string result = g_result.Take();
    g_assert_cmpstr(result.c_str(), ==, expected.c_str());
    const std::vector<std::string> errors = TakeErrors();
    g_assert_cmpuint(errors.size(), ==, isFailing ? 1 : 0);
    const char* const line =
        &call < &CALLS[4] ? "exception : PAL Exception: InvalidCase: the service ended" : handle;
    g_assert(!isFailing || g_str_has_prefix(errors[0].c_str(), line) != FALSE);
  }
  FakePlatform::Get().Change("db/ondaro/property/enterprise_enrollment", "after the end");
  ondaro::test::Drain();
}

void (*g_afterAll)() = nullptr;

/// Registered before the library is loaded, and so called when its constants are gone: as a handler
/// is that a process registered before it opened the library.
[[gnu::section(".preinit_array"), gnu::used]] void (*const g_beforeAll)() = [] {
  const auto callAfterAll = [](void*) {
    if (g_afterAll != nullptr) {
      g_afterAll();
    }
  };
  abi::__cxa_atexit(callAfterAll, nullptr, nullptr);
};

constexpr int CALLED_AFTER_ALL = 7;

void End(bool areServicesMade) {
  g_afterAll = [] {
    CallAfterTheEnd();
    std::_Exit(CALLED_AFTER_ALL);
  };
  if (areServicesMade) {
    std::atexit(CallAfterTheEnd);
    for (const SCall& call : CALLS) {
      call.call();
      g_result.Take();
    }
    // The next event is under way, and the subscription is left behind.
    Watch();
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
    g_afterAll = [] {
      for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
        std::fprintf(stderr, "%s\n", entry.body.c_str());
      }
    };
    if (configFirst) {
      OndaroFactory_GetSystemConfigHandle();
    }
    OndaroFactory_GetCoreAuthHandle();
    OndaroFactory_GetSystemConfigHandle();
    std::exit(0);
  };
  const std::string config = R"(.*~CSystemConfig\(\)\]Left.*~CSystemConfigImpl\(\)\]Entered.*)";
  const std::string auth =
      R"(.*~CCoreAuth\(\)\]Left.*~CCoreAuthImpl\(\)\]Entered.*eme instance destroyed.*)";
  EXPECT_EXIT(run(true), testing::ExitedWithCode(0), auth + config);
  EXPECT_EXIT(run(false), testing::ExitedWithCode(0), config + auth);
}

}  // namespace
