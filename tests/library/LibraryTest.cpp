// What the model does not see: the log statement itself, costs, records that no call of the library
// filled, and callers beside the exported functions.

#include <pthread.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "Allocations.h"
#include "PlatformTest.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"
#include "ondaro/pal/CSystemConfigImpl.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

struct NoServer : NOndaroAPI::IIpcServerImpl {
  void RegisterEventHandler(const std::string&, const NOndaroAPI::IpcEventHandler&) override {}
  void UnregisterEventHandler() override {}
  void SendDataToClient(const std::string&, const std::string&) override {}
};

class Library : public PlatformTest {
 protected:
  Library() { m_fake.TakeLog(); }

  // A handle is the address of a wrapper.
  NOndaroAPI::CSystemConfig m_wrapper{NOndaroPAL::CPALFactory::CreateSystemConfigImpl()};
  const OndaroApi_SystemConfig_h m_config = reinterpret_cast<OndaroApi_SystemConfig_h>(&m_wrapper);
  uint32_t m_length = 0;
};

TEST_F(Library, TheFormatReachesTheLogUnformattedBehindThePrefix) {
  const NOndaroPAL::CSystemConfigImpl object;
  OndaroApi_SystemConfig_DestroyProperty(
      OndaroApi_SystemConfig_GetProperty(m_config, "SDR", &m_length));
  std::vector<std::string> statements;
  for (const SLogEntry& entry : m_fake.TakeLog()) {
    EXPECT_EQ(entry.buffer, 0);
    EXPECT_GT(entry.line, 0);
    statements.push_back(entry.file + " " + entry.function + " " + entry.format + " " + entry.body);
  }
  for (const char* statement :
       {"CSystemConfigImpl.cpp _GetProperty %s: %s(%d) > key : %s key : SDR",
        "OndaroPALDebug.h ~ONDAROCALLTRACE %s: %s(%d) > [%s]Left "
        "[void NOndaroPAL::CSystemConfigImpl::_InitGetFunctionMap(GetFunctionMap_t&)]Left",
        "Debug.h ONDARO_API_CALL_TRACER %s: %s(%d) > [%s]Entered  [const char* "
        "OndaroApi_SystemConfig_GetProperty(OndaroApi_SystemConfig_h, const char*, uint32_t*)]"
        "Entered "}) {
    EXPECT_THAT(statements, Contains(statement));
  }
}

TEST_F(Library, ATracerIsTwoLogCallsAndNothingAllocates) {
  m_fake.m_isLogDiscarded = true;
  m_fake.m_nLogCalls = 0;
  const int before = Allocations::count;
  // Refused at the first precondition: nothing but the tracer and the line between.
  OndaroApi_SystemConfig_GetProperty(m_config, nullptr, nullptr);
  EXPECT_EQ(m_fake.m_nLogCalls, 3);
  EXPECT_EQ(Allocations::count, before);
  // A short name and value live in the strings themselves: the caller's buffer alone is allocated.
  const char* value = OndaroApi_SystemConfig_GetProperty(m_config, "SDR", &m_length);
  EXPECT_EQ(Allocations::count, before + 1);
  OndaroApi_SystemConfig_DestroyProperty(value);
}

TEST_F(Library, ThePointersOfACallAreTestedInOrder) {
  const auto event = [](const char*, void*) {};
  NOndaroAPI::CIpcServer serverWrapper(new NoServer);
  auto* const server = reinterpret_cast<OndaroApi_IpcServer_h>(&serverWrapper);
  char byte = 'x';
  const OndaroApi_CoreAuthInfoRO_t in = {nullptr, 0};
  OndaroApi_CoreAuthInfoRW_t out = {}, bytes = {&byte, 0}, length = {nullptr, 9};
  const auto get = OndaroApi_SystemConfig_GetProperty;
  const auto set = OndaroApi_SystemConfig_SetProperty;
  const auto watch = OndaroApi_SystemConfig_RegisterEventHandler;
  const auto unwatch = OndaroApi_SystemConfig_UnregisterEventHandler;
  const auto serverWatch = OndaroApi_IpcServer_RegisterEventHandler;
  const auto serverSend = OndaroApi_IpcServer_SendDataToClient;
  const auto clientWatch = OndaroApi_IpcClient_RegisterEventHandler;
  const auto clientSend = OndaroApi_IpcClient_SendDataToServer;
  const auto generate = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert;
  const auto sign = OndaroApi_CoreAuth_SignHash;
  const auto chain = OndaroApi_CoreAuth_GetModelCertChain;
  const auto destroy = OndaroApi_CoreAuth_DestroyCoreAuthInfo;
  const std::string text = "exception : basic_string: construction from null is not valid";
  const std::string handle = "handle is null", key = "key is null";
  // What a call said, which must fail.
  const auto said = [this](auto function, auto... arguments) {
    using Result = decltype(function(arguments...));
    if constexpr (std::is_void_v<Result>) {
      function(arguments...);
    } else if constexpr (std::is_same_v<Result, int>) {
      EXPECT_EQ(function(arguments...), -1);
    } else {
      EXPECT_FALSE(function(arguments...));
    }
    const std::string told = Told(false);
    const std::size_t colon = told.find(": ");
    return colon != std::string::npos ? told.substr(colon + 2) : told;
  };
  m_fake.TakeLog();
  ExpectAlike({
      {said(get, nullptr, nullptr, nullptr), key},
      {said(get, nullptr, "k", nullptr), "pLength is null"},
      {said(get, nullptr, "k", &m_length), handle},
      {said(set, nullptr, nullptr, nullptr), key},
      {said(set, nullptr, "k", nullptr), "val is null"},
      {said(set, nullptr, "k", "v"), handle},
      {said(watch, nullptr, "", event, nullptr), handle},
      {said(watch, m_config, nullptr, event, nullptr), text},
      {said(unwatch, nullptr, ""), handle},
      {said(unwatch, m_config, nullptr), text},
      {said(serverWatch, nullptr, "", event, nullptr), handle},
      {said(serverWatch, server, nullptr, event, nullptr), text},
      {said(OndaroApi_IpcServer_UnregisterEventHandler, nullptr), handle},
      {said(serverSend, nullptr, nullptr, nullptr), handle},
      {said(serverSend, server, nullptr, ""), text},
      {said(serverSend, server, "", nullptr), text},
      {said(clientWatch, nullptr, nullptr, nullptr, nullptr),
       "exception : apicallback is null(api/callback is null)"},
      {said(clientWatch, nullptr, nullptr, event, nullptr), handle},
      {said(OndaroApi_IpcClient_UnregisterEventHandler, nullptr), handle},
      {said(clientSend, nullptr, nullptr, nullptr), handle},
      {said(generate, nullptr, nullptr, nullptr), key},
      {said(generate, nullptr, &out, nullptr), "cert is null"},
      {said(generate, nullptr, &bytes, &bytes), "return by [key is not empty]"},
      {said(generate, nullptr, &out, &length), "return by [cert is not empty]"},
      {said(generate, nullptr, &out, &out), handle},
      {said(sign, nullptr, nullptr, nullptr, nullptr), key},
      {said(sign, nullptr, &in, nullptr, nullptr), "hash is null"},
      {said(sign, nullptr, &in, &in, nullptr), "sign is null"},
      {said(sign, nullptr, &in, &in, &out), handle},
      {said(chain, nullptr, nullptr), "certChain is null"},
      {said(chain, nullptr, &out), handle},
      {said(destroy, nullptr), "authInfo is null"},
      {said(destroy, &length), "false"},
  });
  EXPECT_EQ(length.length, 9U);
}

TEST_F(Library, TheWrapperHandsOverStringsAsTheyAreAndTheEndTellsAFailedDestroy) {
  std::string key = "k0", cert = "c0", sign = "s0";
  {
    NOndaroAPI::CCoreAuth wrapper(NOndaroPAL::CPALFactory::CreateCoreAuthImpl());
    m_fake.m_cdmCalls.clear();
    EXPECT_TRUE(wrapper.GenerateDeviceKeyAndCert(key, cert));
    EXPECT_TRUE(wrapper.SignHash("k", "h", sign));
    EXPECT_THAT(m_fake.m_cdmCalls, ElementsAre("generate[k0][c0]", "sign[k][h][s0]"));
    m_fake.m_destroyStatus = 4;
  }
  const std::vector<std::string> log = m_fake.TakeLogTexts();
  EXPECT_EQ(log.rbegin()[2], "6 ONDARO_API ~CCoreAuthImpl: eme::IEME::destroy() return error[4]");
  EXPECT_EQ(log.rbegin()[1], "4 ONDARO_API ~CCoreAuthImpl: eme instance destroyed");
}

// One status alone is support; without it no instance is opened.
TEST_F(Library, WhatTheModuleRefusesHasALine) {
  const std::string keys = "false 6 _GenerateDeviceKeyAndCert: ", signs = "false 6 _SignHash: ";
  const std::string noKeys = keys + "pWVCDM is NULL", noSign = signs + "pWVCDM is NULL";
  const std::string none = "false 6 GetSystemID: cdm_ is NULL" + noKeys + noSign;
  const auto supports = [this](int status) { return [=] { m_fake.m_supportStatus = status; }; };
  const auto empty = [](std::string& text) { return [&] { text.clear(); }; };
  const std::function<void()> nothing = [] {};
  const struct {
    std::function<void()> before, after;  // the instance is opened
    std::string expected;
  } rows[] = {{supports(0), nothing, none},
              {supports(10), nothing, none},
              {supports(12), nothing, none},
              {[&] { m_fake.m_isCreateFailing = true; }, nothing, none},
              {[&] { m_fake.m_hasKeyInterface = false; }, nothing, "true" + noKeys + noSign},
              {nothing, [&] { m_fake.m_operationStatus = 3; },
               "false 6 GetSystemID: getSystemId failed." + keys +
                   "GenerateDeviceKeyAndCert failed." + signs + "ondaroSign failed."},
              {nothing, empty(m_fake.m_key), "true" + keys + "return by [key.empty()]true"},
              {nothing, empty(m_fake.m_cert), "true" + keys + "return by [cert.empty()]true"},
              {nothing, empty(m_fake.m_sign), "truetrue" + signs + "sign is empty"},
              {nothing, empty(m_fake.m_systemId), "truetruetrue"}};
  for (const auto& row : rows) {
    m_fake.Reset();
    row.before();
    NOndaroAPI::CCoreAuth wrapper(NOndaroPAL::CPALFactory::CreateCoreAuthImpl());
    EXPECT_EQ(m_fake.m_cdmCalls.size(), m_fake.m_supportStatus == 11 ? 2 : 1);
    const std::string opened = Told(true);
    EXPECT_EQ(opened.find("EME instance = ") == std::string::npos, row.expected == none);
    row.after();
    auto* const handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&wrapper);
    const OndaroApi_CoreAuthInfoRO_t in = {"in", 2};
    OndaroApi_CoreAuthInfoRW_t key = {}, cert = {}, sign = {}, chain = {nullptr, 3};
    std::string id;
    EXPECT_EQ(Told(wrapper.GetSystemID(id)) +
                  Told(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(handle, &key, &cert)) +
                  Told(OndaroApi_CoreAuth_SignHash(handle, &in, &in, &sign)),
              row.expected);
    EXPECT_TRUE(wrapper.GetModelCertChain(&chain) && chain.length == 3);
    for (OndaroApi_CoreAuthInfoRW_t* record : {&key, &cert, &sign}) {
      OndaroApi_CoreAuth_DestroyCoreAuthInfo(record);
    }
  }
}

TEST_F(Library, AChangeForNobodyIsToldAndOneForAnObjectThatIsGoneIsNot) {
  const auto change = NOndaroPAL::CSystemConfigImpl::OndaroStatusChangedCallback;
  platform_settings_node node{"key", SettingsValue(std::string("b"))};
  change(&node, nullptr);
  EXPECT_THAT(m_fake.TakeLogTexts(),
              ElementsAre("6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: "
                          "Nullptr: pThis"));
  std::vector<std::string> events;
  const auto record = [&](const std::string& data) { events.push_back(data); };
  auto first = std::make_unique<NOndaroPAL::CSystemConfigImpl>();
  auto* const second = new NOndaroPAL::CSystemConfigImpl;
  first->RegisterEventHandler("ONDARO_STATUS", record);
  second->RegisterEventHandler("ONDARO_STATUS", record);
  change(&node, second);
  delete second;
  m_fake.TakeLog();
  change(&node, second);
  change(nullptr, second);
  NOndaroPAL::CSystemConfigImpl::OndaroSupportChangedCallback(&node, second);
  EXPECT_THAT(m_fake.TakeLogTexts(), ElementsAre());
  change(&node, first.get());
  EXPECT_THAT(events, ElementsAre("b", "b"));
}

TEST_F(Library, AProcessGroupIsTheApplicationsFirstAndThenTheCallers) {
  m_fake.m_appPid = 4711;
  for (m_fake.m_setGroupResult = 0; m_fake.m_setGroupResult < 2; ++m_fake.m_setGroupResult) {
    EXPECT_EQ(m_wrapper.SetProperty("ONDARO_SET_PROCESS_GRP", "app"), m_fake.m_setGroupResult == 0);
    EXPECT_THAT(m_fake.m_groupRequests.back(), testing::Pair(4711, getpid()));
  }
  const std::vector<std::string> log = m_fake.TakeLogTexts();
  EXPECT_EQ(log.back(), "6 ONDARO_API SetProcessGroup: set process group fail\n");
}

TEST_F(Library, AHandlerMayReplaceItselfWhileItRuns) {
  std::vector<std::string> events;
  const std::string own(60, 'o');
  m_wrapper.RegisterEventHandler("ONDARO_STATUS", [&, own](const std::string& data) {
    m_wrapper.UnregisterEventHandler("ONDARO_STATUS");
    events.push_back(own + data);
  });
  m_fake.Change("memory/menu/network/ondaro_status", "x");
  EXPECT_THAT(events, ElementsAre(own + "x"));
}

// Out of a call, and out of a handler; each has its line, and the thread ends.
TEST_F(Library, TheEndOfAThreadPassesThrough) {
  const auto end = [] { pthread_exit(nullptr); };
  m_fake.m_onStoreCall = end;
  std::thread([&] { OndaroApi_SystemConfig_SetProperty(m_config, "ONDARO_STATUS", "x"); }).join();
  EXPECT_EQ(Told(true),
            "true 6 _SetProperty: key : ONDARO_STATUS 6 OndaroApi_SystemConfig_SetProperty: the "
            "thread ends");
  m_fake.m_onStoreCall = nullptr;
  NOndaroPAL::CSystemConfigImpl object;
  object.RegisterEventHandler("ONDARO_STATUS", [&](const std::string&) { end(); });
  m_fake.TakeLog();
  std::thread([&] { m_fake.Change("memory/menu/network/ondaro_status", "x"); }).join();
  EXPECT_EQ(Told(true), "true 6 OndaroStatusChangedCallback: the thread ends");
}

}  // namespace
