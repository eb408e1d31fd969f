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
using ::testing::StartsWith;

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

/// After a call that broke a precondition: one error line that names it, between Entered and Left.
void ExpectRefused(const std::string& function, const std::string& parameter, bool hasFailed) {
  SCOPED_TRACE(function + " " + parameter);
  FakePlatform& fake = FakePlatform::Get();
  EXPECT_TRUE(hasFailed);
  const std::vector<SLogEntry> log = fake.TakeLog();
  ASSERT_EQ(log.size(), 3U);
  EXPECT_THAT(log[0].body, HasSubstr("Entered "));
  EXPECT_THAT(log[1].Text(),
              StartsWith("6 ONDARO_API " + function + ": " + parameter + " is null in ["));
  EXPECT_THAT(log[2].body, HasSubstr("Left"));
  EXPECT_THAT(fake.m_storeCalls, IsEmpty());
}

// In the order in which they are tested, the handle last. A call without a result has failed.
TEST(Frame, BrokenPreconditionsAreNamedAndGoNoFurther) {
  OndaroApi_CoreAuthInfoRW_t record = {nullptr, 0};
  const OndaroApi_CoreAuthInfoRO_t bytes = {"x", 1};
  uint32_t length = 42;
  const auto ignored = [](const char*, void*) {};

  std::string name = "OndaroApi_SystemConfig_GetProperty";
  ExpectRefused(name, "key", !OndaroApi_SystemConfig_GetProperty(nullptr, nullptr, nullptr));
  ExpectRefused(name, "pLength", !OndaroApi_SystemConfig_GetProperty(nullptr, "SDR", nullptr));
  ExpectRefused(name, "handle", !OndaroApi_SystemConfig_GetProperty(nullptr, "SDR", &length));
  name = "OndaroApi_SystemConfig_SetProperty";
  ExpectRefused(name, "key", !OndaroApi_SystemConfig_SetProperty(nullptr, nullptr, nullptr));
  ExpectRefused(name, "val", !OndaroApi_SystemConfig_SetProperty(nullptr, "SDR", nullptr));
  ExpectRefused(name, "handle", !OndaroApi_SystemConfig_SetProperty(nullptr, "SDR", "on"));
  name = "OndaroApi_CoreAuth_GenerateDeviceKeyAndCert";
  const auto generate = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert;
  ExpectRefused(name, "key", !generate(nullptr, nullptr, nullptr));
  ExpectRefused(name, "cert", !generate(nullptr, &record, nullptr));
  ExpectRefused(name, "handle", !generate(nullptr, &record, &record));
  name = "OndaroApi_CoreAuth_SignHash";
  const auto sign = OndaroApi_CoreAuth_SignHash;
  ExpectRefused(name, "key", !sign(nullptr, nullptr, nullptr, nullptr));
  ExpectRefused(name, "hash", !sign(nullptr, &bytes, nullptr, nullptr));
  ExpectRefused(name, "sign", !sign(nullptr, &bytes, &bytes, nullptr));
  ExpectRefused(name, "handle", !sign(nullptr, &bytes, &bytes, &record));
  name = "OndaroApi_CoreAuth_GetModelCertChain";
  ExpectRefused(name, "certChain", !OndaroApi_CoreAuth_GetModelCertChain(nullptr, nullptr));
  ExpectRefused(name, "handle", !OndaroApi_CoreAuth_GetModelCertChain(nullptr, &record));
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(nullptr);
  ExpectRefused("OndaroApi_CoreAuth_DestroyCoreAuthInfo", "authInfo", true);

  OndaroApi_SystemConfig_RegisterEventHandler(nullptr, nullptr, ignored, nullptr);
  ExpectRefused("OndaroApi_SystemConfig_RegisterEventHandler", "handle", true);
  OndaroApi_SystemConfig_UnregisterEventHandler(nullptr, nullptr);
  ExpectRefused("OndaroApi_SystemConfig_UnregisterEventHandler", "handle", true);
  OndaroApi_IpcClient_RegisterEventHandler(nullptr, "e", ignored, nullptr);
  ExpectRefused("OndaroApi_IpcClient_RegisterEventHandler", "handle", true);
  OndaroApi_IpcClient_UnregisterEventHandler(nullptr);
  ExpectRefused("OndaroApi_IpcClient_UnregisterEventHandler", "handle", true);
  ExpectRefused("OndaroApi_IpcClient_SendDataToServer", "handle",
                OndaroApi_IpcClient_SendDataToServer(nullptr, nullptr, nullptr) == -1);
  OndaroApi_IpcServer_RegisterEventHandler(nullptr, "e", nullptr, nullptr);
  ExpectRefused("OndaroApi_IpcServer_RegisterEventHandler", "handle", true);
  OndaroApi_IpcServer_UnregisterEventHandler(nullptr);
  ExpectRefused("OndaroApi_IpcServer_UnregisterEventHandler", "handle", true);
  ExpectRefused("OndaroApi_IpcServer_SendDataToClient", "handle",
                OndaroApi_IpcServer_SendDataToClient(nullptr, nullptr, nullptr) == -1);
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
  // Others pass through, behind "Left".
  fake.m_onStoreCall = [] { throw 7; };
  EXPECT_THROW(OndaroApi_SystemConfig_SetProperty(config, "ONDARO_STATUS", "on"), int);
  EXPECT_THAT(fake.TakeLog().back().body, HasSubstr("Left"));
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
