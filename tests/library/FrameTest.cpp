// The frame of the exported functions: handles, preconditions, exceptions, order of the log, and
// the lifetime of the service objects.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <thread>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/api/CException.h"
#include "ondaro/pal/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char GET_PROPERTY[] =
    "const char* OndaroApi_SystemConfig_GetProperty(OndaroApi_SystemConfig_h, const char*, "
    "uint32_t*)";

std::string Entered(const std::string& signature) {
  return "4 ONDARO_API ONDARO_API_CALL_TRACER: [" + signature + "]Entered ";
}

std::string Left(const std::string& signature) {
  return "4 ONDARO_API ~ONDARO_API_CALL_TRACER: [" + signature + "]Left";
}

TEST(Frame, FirstHandleTracesTheConstructionAndTheSecondLogsNothing) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h handle = OndaroFactory_GetSystemConfigHandle();
  ASSERT_NE(handle, nullptr);
  const std::string init = "void NOndaroPAL::CSystemConfigImpl::_Init";
  const auto palEntered = [](const std::string& signature) {
    return "4 ONDARO_PAL ONDAROCALLTRACE: [" + signature + "]Entered ";
  };
  const auto palLeft = [](const std::string& signature) {
    return "4 ONDARO_PAL ~ONDAROCALLTRACE: [" + signature + "]Left";
  };
  const std::string wrapper =
      "NOndaroAPI::CSystemConfig::CSystemConfig(NOndaroAPI::ISystemConfigImpl*)";
  EXPECT_THAT(fake.TakeLogTexts(),
              ElementsAre(palEntered("NOndaroPAL::CSystemConfigImpl::CSystemConfigImpl()"),
                          "4 ONDARO_PAL CSystemConfigImpl: Chip: NONE",
                          "4 ONDARO_PAL _PrintPropertyMap: SDR: 1",
                          palEntered(init + "GetFunctionMap(GetFunctionMap_t&)"),
                          palLeft(init + "GetFunctionMap(GetFunctionMap_t&)"),
                          palEntered(init + "SetFunctionMap(SetFunctionMap_t&)"),
                          palLeft(init + "SetFunctionMap(SetFunctionMap_t&)"),
                          palEntered(init + "CbManagerMap(CbManagerMap_t&)"),
                          palLeft(init + "CbManagerMap(CbManagerMap_t&)"),
                          palLeft("NOndaroPAL::CSystemConfigImpl::CSystemConfigImpl()"),
                          Entered(wrapper), Left(wrapper)));

  EXPECT_EQ(OndaroFactory_GetSystemConfigHandle(), handle);
  EXPECT_THAT(fake.TakeLogTexts(), IsEmpty());
  EXPECT_THAT(fake.m_cdmCalls, IsEmpty());
}

TEST(Frame, OneThreadCreatesWhileTheOthersWait) {
  std::vector<OndaroApi_SystemConfig_h> handles(16);
  std::vector<std::thread> threads;
  for (OndaroApi_SystemConfig_h& handle : handles) {
    threads.emplace_back([&handle] { handle = OndaroFactory_GetSystemConfigHandle(); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(handles, ::testing::Each(handles.front()));
  int constructions = 0;
  for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
    constructions += entry.body == "Chip: NONE" ? 1 : 0;
  }
  EXPECT_EQ(constructions, 1);
}

TEST(Frame, AFailedConstructionLeavesTheFamilyNotYetCreated) {
  FakePlatform& fake = FakePlatform::Get();
  fake.m_onLog = [](const std::string& body) {
    if (body == "Chip: NONE") {
      throw std::runtime_error("no chip");
    }
  };
  EXPECT_EQ(OndaroFactory_GetSystemConfigHandle(), nullptr);
  EXPECT_EQ(fake.TakeLogTexts().back(),
            "6 ONDARO_API OndaroFactory_GetSystemConfigHandle: exception : no chip");
  fake.m_onLog = nullptr;
  EXPECT_NE(OndaroFactory_GetSystemConfigHandle(), nullptr);
}

// Each call breaks one precondition: one error line that names it, between Entered and Left, and
// the failure value.
TEST(Frame, BrokenPreconditionsAreNamedAndGoNoFurther) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  const OndaroApi_CoreAuth_h auth = OndaroFactory_GetCoreAuthHandle();
  OndaroApi_CoreAuthInfoRW_t record = {nullptr, 0};
  const OndaroApi_CoreAuthInfoRO_t bytes = {"x", 1};
  uint32_t length = 42;
  const auto ignored = [](const char*, void*) {};

  const struct {
    std::function<bool()> hasFailed;
    const char* function;
    const char* parameter;
  } cases[] = {
      {[&] { return OndaroApi_SystemConfig_GetProperty(config, nullptr, nullptr) == nullptr; },
       "OndaroApi_SystemConfig_GetProperty", "key"},
      {[&] { return OndaroApi_SystemConfig_GetProperty(nullptr, "SDR", nullptr) == nullptr; },
       "OndaroApi_SystemConfig_GetProperty", "pLength"},
      {[&] { return OndaroApi_SystemConfig_GetProperty(nullptr, "SDR", &length) == nullptr; },
       "OndaroApi_SystemConfig_GetProperty", "handle"},
      {[&] { return !OndaroApi_SystemConfig_SetProperty(nullptr, nullptr, nullptr); },
       "OndaroApi_SystemConfig_SetProperty", "key"},
      {[&] { return !OndaroApi_SystemConfig_SetProperty(nullptr, "ONDARO_STATUS", nullptr); },
       "OndaroApi_SystemConfig_SetProperty", "val"},
      {[&] { return !OndaroApi_SystemConfig_SetProperty(nullptr, "ONDARO_STATUS", "on"); },
       "OndaroApi_SystemConfig_SetProperty", "handle"},
      {[&] {
         OndaroApi_SystemConfig_RegisterEventHandler(nullptr, nullptr, ignored, nullptr);
         return true;
       },
       "OndaroApi_SystemConfig_RegisterEventHandler", "handle"},
      {[&] {
         OndaroApi_SystemConfig_UnregisterEventHandler(nullptr, nullptr);
         return true;
       },
       "OndaroApi_SystemConfig_UnregisterEventHandler", "handle"},
      {[&] {
         OndaroApi_IpcClient_RegisterEventHandler(nullptr, "e", ignored, nullptr);
         return true;
       },
       "OndaroApi_IpcClient_RegisterEventHandler", "handle"},
      {[&] {
         OndaroApi_IpcClient_UnregisterEventHandler(nullptr);
         return true;
       },
       "OndaroApi_IpcClient_UnregisterEventHandler", "handle"},
      {[&] { return OndaroApi_IpcClient_SendDataToServer(nullptr, nullptr, nullptr) == -1; },
       "OndaroApi_IpcClient_SendDataToServer", "handle"},
      {[&] {
         OndaroApi_IpcServer_RegisterEventHandler(nullptr, "e", nullptr, nullptr);
         return true;
       },
       "OndaroApi_IpcServer_RegisterEventHandler", "handle"},
      {[&] {
         OndaroApi_IpcServer_UnregisterEventHandler(nullptr);
         return true;
       },
       "OndaroApi_IpcServer_UnregisterEventHandler", "handle"},
      {[&] { return OndaroApi_IpcServer_SendDataToClient(nullptr, nullptr, nullptr) == -1; },
       "OndaroApi_IpcServer_SendDataToClient", "handle"},
      {[&] { return !OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(nullptr, nullptr, nullptr); },
       "OndaroApi_CoreAuth_GenerateDeviceKeyAndCert", "key"},
      {[&] { return !OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(auth, &record, nullptr); },
       "OndaroApi_CoreAuth_GenerateDeviceKeyAndCert", "cert"},
      {[&] { return !OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(nullptr, &record, &record); },
       "OndaroApi_CoreAuth_GenerateDeviceKeyAndCert", "handle"},
      {[&] { return !OndaroApi_CoreAuth_SignHash(auth, nullptr, nullptr, nullptr); },
       "OndaroApi_CoreAuth_SignHash", "key"},
      {[&] { return !OndaroApi_CoreAuth_SignHash(auth, &bytes, nullptr, nullptr); },
       "OndaroApi_CoreAuth_SignHash", "hash"},
      {[&] { return !OndaroApi_CoreAuth_SignHash(auth, &bytes, &bytes, nullptr); },
       "OndaroApi_CoreAuth_SignHash", "sign"},
      {[&] { return !OndaroApi_CoreAuth_SignHash(nullptr, &bytes, &bytes, &record); },
       "OndaroApi_CoreAuth_SignHash", "handle"},
      {[&] { return !OndaroApi_CoreAuth_GetModelCertChain(nullptr, nullptr); },
       "OndaroApi_CoreAuth_GetModelCertChain", "certChain"},
      {[&] { return !OndaroApi_CoreAuth_GetModelCertChain(nullptr, &record); },
       "OndaroApi_CoreAuth_GetModelCertChain", "handle"},
      {[&] {
         OndaroApi_CoreAuth_DestroyCoreAuthInfo(nullptr);
         return true;
       },
       "OndaroApi_CoreAuth_DestroyCoreAuthInfo", "authInfo"},
  };
  for (const auto& oneCase : cases) {
    SCOPED_TRACE(std::string(oneCase.function) + " " + oneCase.parameter);
    fake.TakeLog();
    fake.m_storeCalls.clear();
    EXPECT_TRUE(oneCase.hasFailed());
    const std::vector<SLogEntry> log = fake.TakeLog();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_THAT(log[0].body, HasSubstr("Entered "));
    EXPECT_EQ(log[1].priority, 6);
    EXPECT_EQ(log[1].function, oneCase.function);
    EXPECT_THAT(log[1].body, ::testing::StartsWith(std::string(oneCase.parameter) + " is null"));
    EXPECT_THAT(log[2].body, HasSubstr("Left"));
    EXPECT_THAT(fake.m_storeCalls, IsEmpty());
  }
  EXPECT_EQ(length, 42U);
}

// What the layers below throw, and what the reading and the writing function make of it.
TEST(Frame, ExceptionsBecomeAnErrorLineAndTheFailureValue) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  const struct {
    std::function<void()> thrower;
    const char* read;
    const char* write;
  } cases[] = {
      {[] { throw NOndaroAPI::CAPIException("api", "callback is null"); },
       "exception : apicallback is null(api/callback is null)", "exception : apicallback is null"},
      {[] { throw NOndaroPAL::CNullptrException("pThis"); },
       "exception : PAL Exception: Nullptr: pThis", "exception : PAL Exception: Nullptr: pThis"},
      {[] { throw NOndaroPAL::CInvalidCaseException("GetSetregStrFromKeynode"); },
       "exception : PAL Exception: InvalidCase: GetSetregStrFromKeynode",
       "exception : PAL Exception: InvalidCase: GetSetregStrFromKeynode"},
      {[] { throw std::runtime_error("%s%n"); }, "exception : %s%n", "exception : %s%n"},
  };
  for (const auto& oneCase : cases) {
    SCOPED_TRACE(oneCase.read);
    fake.m_onStoreCall = oneCase.thrower;
    fake.TakeLog();
    uint32_t length = 42;
    EXPECT_EQ(OndaroApi_SystemConfig_GetProperty(config, "ONDARO_STATUS", &length), nullptr);
    EXPECT_EQ(length, 42U);
    const std::vector<std::string> log = fake.TakeLogTexts();
    EXPECT_THAT(
        log,
        ElementsAre(Entered(GET_PROPERTY), "6 ONDARO_PAL _GetProperty: key : ONDARO_STATUS",
                    "3 ONDARO_PAL _ExtractKeyFromMixedKey: data is not included",
                    "3 ONDARO_PAL _ExtractDataFromMixedKey: data is not included",
                    std::string("6 ONDARO_API OndaroApi_SystemConfig_GetProperty: ") + oneCase.read,
                    Left(GET_PROPERTY)));
    EXPECT_FALSE(OndaroApi_SystemConfig_SetProperty(config, "ONDARO_STATUS", "on"));
    EXPECT_EQ(fake.TakeLog()[2].body, oneCase.write);
  }
}

TEST(Frame, OtherExceptionsPassThroughAfterLeft) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  fake.m_onStoreCall = [] { throw 7; };
  fake.TakeLog();
  uint32_t length = 42;
  EXPECT_THROW(OndaroApi_SystemConfig_GetProperty(config, "ONDARO_STATUS", &length), int);
  EXPECT_EQ(fake.TakeLogTexts().back(), Left(GET_PROPERTY));
}

TEST(Frame, NullStringsThatAreNotTestedAreRefusedByTheGuard) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  fake.TakeLog();
  OndaroApi_SystemConfig_UnregisterEventHandler(config, nullptr);
  OndaroApi_IpcClient_RegisterEventHandler(nullptr, nullptr, nullptr, nullptr);
  const std::vector<SLogEntry> log = fake.TakeLog();
  ASSERT_EQ(log.size(), 6U);
  EXPECT_EQ(log[1].body, "exception : basic_string: construction from null is not valid");
  EXPECT_EQ(log[4].body, "exception : apicallback is null(api/callback is null)");
}

// The wrapper's lines come first, then its implementation goes; wrappers in reverse order.
TEST(FrameDeathTest, ExitDestroysInReverseOrderOfCreation) {
  const auto run = [](bool configFirst) {
    FakePlatform::Get().m_isLogEchoed = false;
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
  EXPECT_EXIT(run(true), ::testing::ExitedWithCode(0), auth + config);
  EXPECT_EXIT(run(false), ::testing::ExitedWithCode(0), config + auth);
}

}  // namespace
