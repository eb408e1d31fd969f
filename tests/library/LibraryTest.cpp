// What the model does not see: costs, records that no call of the library filled, the decryption
// module, callers beside the exported functions, and the helpers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <thread>

#include "Allocations.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"
#include "ondaro/pal/CPALUtils.h"
#include "ondaro/pal/CSystemConfigImpl.h"
#include "support/FakePlatform.h"

namespace {

using NOndaroPAL::CPALFactory;
using NOndaroPAL::CPALUtils;
using NOndaroPAL::CSystemConfigImpl;

constexpr const char* STATUS_KEY = "memory/menu/network/ondaro_status";

void Ignore(platform_settings_node*, void*) {}

/// Over a set that is as in the beginning.
class Library : public testing::Test {
 protected:
  Library() { m_fake.Reset(); }

  /// A call's result and the lines it wrote, without tracers and signatures.
  std::string Told(bool result) {
    std::string text = result ? "true" : "false";
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      if (entry.function.find("TRACE") == std::string::npos) {
        text += " " + entry.Text();
      }
    }
    return text.substr(0, text.find(" in ["));
  }

  FakePlatform& m_fake = FakePlatform::Get();
  std::string m_text = "before";
  int m_number = 5;
  bool m_flag = true;
};

TEST_F(Library, ALineNamesItsFileAndAllocatesNothing) {
  NOndaroAPI::CSystemConfig wrapper(CPALFactory::CreateSystemConfigImpl());
  // A handle is the address of a wrapper.
  auto* const handle = reinterpret_cast<OndaroApi_SystemConfig_h>(&wrapper);
  EXPECT_EQ(m_fake.TakeLog().front().file, "OndaroPALDebug.h");
  int allocations = Allocations::count;
  // Refused at the first precondition: nothing but the tracer and the line between.
  OndaroApi_SystemConfig_GetProperty(handle, nullptr, nullptr);
  EXPECT_EQ(Allocations::count, allocations);
  const std::vector<SLogEntry> log = m_fake.TakeLog();
  ASSERT_EQ(log.size(), 3U);
  EXPECT_EQ(log[0].file + " " + log[1].file, "Debug.h OndaroApiSystemConfig.cpp");
  // A short name and value live in the strings themselves: the caller's buffer alone is allocated.
  allocations = Allocations::count;
  uint32_t length = 0;
  const char* value = OndaroApi_SystemConfig_GetProperty(handle, "SDR", &length);
  EXPECT_EQ(Allocations::count, allocations + 1);
  OndaroApi_SystemConfig_DestroyProperty(value);
}

TEST_F(Library, TheFirstPointerThatIsMissingIsNamed) {
  char byte = 'x';
  const OndaroApi_CoreAuthInfoRO_t in = {nullptr, 0};
  OndaroApi_CoreAuthInfoRW_t out = {}, bytes = {&byte, 0}, length = {nullptr, 9};
  // What a call said, which must fail; without a handle, which is asked for last.
  const auto said = [this](auto function, auto... arguments) {
    if constexpr (std::is_void_v<decltype(function(arguments...))>) {
      function(arguments...);
    } else {
      EXPECT_FALSE(function(arguments...));
    }
    const std::string told = Told(false);
    return told.substr(told.find(": ") + 2);
  };
  const auto get = OndaroApi_SystemConfig_GetProperty;
  EXPECT_EQ(said(get, nullptr, nullptr, nullptr), "key is null");
  EXPECT_EQ(said(get, nullptr, "k", nullptr), "pLength is null");
  const auto set = OndaroApi_SystemConfig_SetProperty;
  EXPECT_EQ(said(set, nullptr, nullptr, nullptr), "key is null");
  EXPECT_EQ(said(set, nullptr, "k", nullptr), "val is null");
  EXPECT_EQ(said(OndaroApi_IpcClient_RegisterEventHandler, nullptr, nullptr, nullptr, nullptr),
            "exception : apicallback is null(api/callback is null)");
  const auto generate = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert;
  EXPECT_EQ(said(generate, nullptr, nullptr, nullptr), "key is null");
  EXPECT_EQ(said(generate, nullptr, &out, nullptr), "cert is null");
  EXPECT_EQ(said(generate, nullptr, &bytes, &bytes), "return by [key is not empty]");
  EXPECT_EQ(said(generate, nullptr, &out, &length), "return by [cert is not empty]");
  const auto sign = OndaroApi_CoreAuth_SignHash;
  EXPECT_EQ(said(sign, nullptr, nullptr, nullptr, nullptr), "key is null");
  EXPECT_EQ(said(sign, nullptr, &in, nullptr, nullptr), "hash is null");
  EXPECT_EQ(said(sign, nullptr, &in, &in, nullptr), "sign is null");
  EXPECT_EQ(said(OndaroApi_CoreAuth_GetModelCertChain, nullptr, nullptr), "certChain is null");
  EXPECT_EQ(said(OndaroApi_CoreAuth_DestroyCoreAuthInfo, nullptr), "authInfo is null");
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&length);
  EXPECT_EQ(length.length, 9U);
}

// One status alone is support; without it no instance is opened.
TEST_F(Library, WhatTheModuleRefusesHasALine) {
  const std::string keys = "false 6 ONDARO_API _GenerateDeviceKeyAndCert: ";
  const std::string signs = "false 6 ONDARO_API _SignHash: ";
  const std::string noKeys = keys + "pWVCDM is NULL" + signs + "pWVCDM is NULL";
  const std::string none = "false 6 ONDARO_API GetSystemID: cdm_ is NULL" + noKeys;
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
              {[&] { m_fake.m_hasKeyInterface = false; }, nothing, "true" + noKeys},
              {nothing, [&] { m_fake.m_operationStatus = 3; },
               "false 6 ONDARO_API GetSystemID: getSystemId failed." + keys +
                   "GenerateDeviceKeyAndCert failed." + signs + "ondaroSign failed."},
              {nothing, empty(m_fake.m_key), "true" + keys + "return by [key.empty()]true"},
              {nothing, empty(m_fake.m_cert), "true" + keys + "return by [cert.empty()]true"},
              {nothing, empty(m_fake.m_sign), "truetrue" + signs + "sign is empty"},
              {nothing, empty(m_fake.m_systemId), "truetruetrue"}};
  for (const auto& row : rows) {
    m_fake.Reset();
    row.before();
    NOndaroAPI::CCoreAuth wrapper(CPALFactory::CreateCoreAuthImpl());
    const bool isOpen = row.expected != none;
    EXPECT_EQ(m_fake.m_nInstances, isOpen);
    EXPECT_EQ(Told(true).find("EME instance = ") != std::string::npos, isOpen);
    row.after();
    auto* const handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&wrapper);
    const OndaroApi_CoreAuthInfoRO_t in = {"in", 2};
    OndaroApi_CoreAuthInfoRW_t key = {}, cert = {}, sign = {}, chain = {nullptr, 3};
    EXPECT_EQ(Told(wrapper.GetSystemID(m_text)) +
                  Told(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(handle, &key, &cert)) +
                  Told(OndaroApi_CoreAuth_SignHash(handle, &in, &in, &sign)),
              row.expected);
    EXPECT_TRUE(wrapper.GetModelCertChain(&chain) && chain.length == 3);
    for (OndaroApi_CoreAuthInfoRW_t* record : {&key, &cert, &sign}) {
      OndaroApi_CoreAuth_DestroyCoreAuthInfo(record);
    }
  }
}

TEST_F(Library, TheModuleGetsStringsAsTheyAreAndItsEndIsToldAlsoWhenItFails) {
  {
    NOndaroAPI::CCoreAuth wrapper(CPALFactory::CreateCoreAuthImpl());
    std::string key = "k0", cert = "c0", sign = "s0";
    EXPECT_TRUE(wrapper.GenerateDeviceKeyAndCert(key, cert) && wrapper.SignHash("k", "h", sign));
    EXPECT_EQ(key + " " + cert + " " + sign + " " + m_fake.m_signed, "k0key c0cert s0sign k h");
    const OndaroApi_CoreAuthInfoRO_t in = {"in", 2}, broken = {nullptr, 9};
    OndaroApi_CoreAuthInfoRW_t out = {};
    auto* const handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&wrapper);
    EXPECT_FALSE(OndaroApi_CoreAuth_SignHash(handle, &in, &broken, &out));
    EXPECT_FALSE(OndaroApi_CoreAuth_SignHash(handle, &broken, &in, &out));
    m_fake.m_destroyStatus = 4;
    m_fake.TakeLog();
  }
  EXPECT_EQ(m_fake.m_nInstances, 0);
  EXPECT_EQ(Told(true),
            "true 6 ONDARO_API ~CCoreAuthImpl: eme::IEME::destroy() return error[4] 4 ONDARO_API "
            "~CCoreAuthImpl: eme instance destroyed");
}

TEST_F(Library, AChangeForNobodyIsToldAndOneForAnObjectThatIsGoneIsNot) {
  const auto change = CSystemConfigImpl::OndaroStatusChangedCallback;
  platform_settings_node node{STATUS_KEY, SettingsValue(std::string("b"))};
  change(&node, nullptr);
  EXPECT_EQ(Told(true),
            "true 6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: Nullptr: "
            "pThis");
  CSystemConfigImpl first;
  std::string events;
  first.RegisterEventHandler("ONDARO_STATUS", [&](const std::string& data) { events += data; });
  auto* const gone = new CSystemConfigImpl;
  delete gone;
  m_fake.TakeLog();
  change(&node, gone);
  change(nullptr, gone);
  CSystemConfigImpl::OndaroSupportChangedCallback(&node, gone);
  EXPECT_EQ(Told(true), "true");
  change(&node, &first);
  EXPECT_EQ(events, "b");
}

TEST_F(Library, AHandlerMayReplaceItselfWhileItRuns) {
  CSystemConfigImpl object;
  std::string events;
  const std::string own(60, 'o');
  object.RegisterEventHandler("ONDARO_STATUS", [&, own](const std::string& data) {
    object.UnregisterEventHandler("ONDARO_STATUS");
    events += own + data;
  });
  m_fake.Change(STATUS_KEY, "x");
  EXPECT_EQ(events, own + "x");
}

// Out of a call, and out of a handler; each has its line, and the thread ends.
TEST_F(Library, TheEndOfAThreadPassesThrough) {
  const auto end = [](const std::string&) -> bool { pthread_exit(nullptr); };
  NOndaroAPI::CSystemConfig wrapper(CPALFactory::CreateSystemConfigImpl());
  auto* const handle = reinterpret_cast<OndaroApi_SystemConfig_h>(&wrapper);
  wrapper.RegisterEventHandler("ONDARO_STATUS", end);
  m_fake.TakeLog();
  std::thread([&] { m_fake.Change(STATUS_KEY, "x"); }).join();
  EXPECT_EQ(Told(true), "true 6 ONDARO_PAL OndaroStatusChangedCallback: the thread ends");
  m_fake.m_onStoreCall = end;
  std::thread([&] { OndaroApi_SystemConfig_SetProperty(handle, "ONDARO_STATUS", "x"); }).join();
  EXPECT_EQ(Told(true),
            "true 6 ONDARO_PAL _SetProperty: key : ONDARO_STATUS 6 ONDARO_API "
            "OndaroApi_SystemConfig_SetProperty: the thread ends");
}

// ---- Helpers ------------------------------------------------------------------------------------

TEST_F(Library, NothingIsAskedOfTheStoreWithoutAKey) {
  const std::string none;
  m_fake.m_onStoreCall = [](const std::string& call) { return ADD_FAILURE() << call, true; };
  for (const std::string& told :
       {Told(CPALUtils::SetregSetStr(none, "v")), Told(CPALUtils::SetregGetStr(none, m_text)),
        Told(CPALUtils::SetregSetInt(none, 1)), Told(CPALUtils::SetregGetInt(none, m_number)),
        Told(CPALUtils::SetregSetBool(none, true)), Told(CPALUtils::SetregGetBool(none, m_flag)),
        Told(CPALUtils::RegisterSetregChangedCb(none, Ignore, nullptr)),
        Told(CPALUtils::DeregisterSetregChangedCb(none, Ignore))}) {
    EXPECT_THAT(told, testing::MatchesRegex("false 6 ONDARO_PAL [A-Za-z]+: pKey is empty"));
  }
}

TEST_F(Library, Flags) {
  const std::string set = " ONDARO_PAL SetregSetBool: ", get = " ONDARO_PAL SetregGetBool: ";
  EXPECT_EQ(Told(CPALUtils::SetregSetBool("k", true)),
            "true 4" + set + "Succeed to set key k as 1");
  for (const int number : {2, 0, 1}) {
    m_fake.m_values["k"] = number;
    EXPECT_EQ(Told(CPALUtils::SetregGetBool("k", m_flag)), "true 4" + get + "Succeed to get key k");
    EXPECT_EQ(m_flag, number == 1);
  }
  m_fake.m_onStoreCall = [](const std::string&) { return false; };
  EXPECT_EQ(Told(CPALUtils::SetregSetBool("k", false)), "false 6" + set + "Failed to set key k");
  EXPECT_EQ(Told(CPALUtils::SetregGetBool("k", m_flag)), "false 6" + get + "Failed to get key k");
  EXPECT_TRUE(m_flag);
}

TEST_F(Library, Nodes) {
  platform_settings_node broken{std::nullopt, std::nullopt};
  platform_settings_node text{"name", SettingsValue(std::string("value"))};
  platform_settings_node minusOne{"name", SettingsValue(-1)};
  const std::string key = " ONDARO_PAL GetSetregKeyFromKeynode: ";
  EXPECT_EQ(Told(CPALUtils::GetSetregKeyFromKeynode(nullptr, m_text)),
            "false 6" + key + "pKeynode is NULL");
  EXPECT_EQ(Told(CPALUtils::GetSetregKeyFromKeynode(&broken, m_text)),
            "false 6" + key + "failed to get keynode name");
  EXPECT_EQ(Told(CPALUtils::GetSetregKeyFromKeynode(&text, m_text)),
            "true 4" + key + "Succeed to get keynode name name");
  EXPECT_EQ(m_text, "name");
  EXPECT_EQ(Told(CPALUtils::GetSetregStrFromKeynode(nullptr, m_text)),
            "false 6 ONDARO_PAL GetSetregStrFromKeynode: pKeynode is NULL");
  EXPECT_EQ(Told(CPALUtils::GetSetregIntFromKeynode(nullptr, m_number)),
            "false 6 ONDARO_PAL GetSetregIntFromKeynode: pKeynode is NULL");
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  EXPECT_EQ(Told(CPALUtils::GetSetregIntFromKeynode(&minusOne, m_number)), "true");
  EXPECT_EQ(m_number, -1);
}

TEST_F(Library, QuestionsAboutTheSet) {
  EXPECT_EQ(Told(CPALUtils::GetProductYear(m_text)),
            "false 6 ONDARO_PAL GetProductYear: system_info_get_custom_int is failed");
  EXPECT_FALSE(CPALUtils::GetModelId(m_text));
  EXPECT_FALSE(CPALUtils::IsOndaroInitReset());
  EXPECT_THAT(Told(true), testing::EndsWith(" 6 ONDARO_PAL IsOndaroInitReset: setreg check fail"));
  EXPECT_EQ(m_text, "before");
  m_fake.m_values["db/comss/modelid"] = "QX-1";
  EXPECT_TRUE(CPALUtils::GetModelId(m_text));
  EXPECT_EQ(m_text, "QX-1");
  for (const int number : {0, 1, 2, 23, -1, -2}) {
    m_fake.m_values["com.halvex/featureconf/product.tv_year"] = number;
    m_fake.m_values["db/menu/network/airplay_init"] = m_fake.m_values["power"] = number;
    EXPECT_TRUE(CPALUtils::GetProductYear(m_text));
    EXPECT_EQ(m_text, "20" + std::to_string(number));
    EXPECT_EQ(CPALUtils::IsOndaroInitReset(), number == 0);
    EXPECT_EQ(CPALUtils::IsValidPowerState(), number == 0 || number == 1);
  }
}

TEST_F(Library, JsonMembers) {
  const std::pair<const char*, const char*> cases[] = {{R"({"a": "x", "b": 1})", "x"},
                                                       {R"({"b": "x"})", ""},
                                                       {R"({"a": 5})", "5"},
                                                       {R"({"a": true})", "true"},
                                                       {R"({"a": null})", ""},
                                                       {"null", ""},
                                                       {"{", "error"},
                                                       {"", "error"},
                                                       {"[1]", "thrown"},
                                                       {R"({"a": {}})", "thrown"},
                                                       {R"({"a": [1]})", "thrown"},
                                                       {"5", "thrown"}};
  for (const auto& [json, value] : cases) {
    try {
      m_text = CPALUtils::ParseJsonVal(json, "a");
    } catch (const Json::Exception&) {
      m_text = "thrown";
    }
    EXPECT_EQ(m_text, value) << json;
    EXPECT_EQ(Told(true), m_text == "error" ? "true 6 ONDARO_PAL ParseJsonVal: json parse error"
                                            : "true 4 ONDARO_PAL ParseJsonVal: no error to parse");
  }
}

TEST_F(Library, AHexDumpBreaksLinesOnlyWhenMoreFollowsAndAllocatesNothing) {
  const auto dump = [this](const std::string& bytes) {
    const int before = Allocations::count;
    CPALUtils::PrintDataToHex("L", bytes.data(), bytes.size());
    EXPECT_EQ(Allocations::count, before);
    std::string lines;
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      lines += entry.body + "\n";
    }
    return lines;
  };
  const std::string zeros(1010, '\0'), line = "L[  0]:[" + std::string(32, '0') + "]\n";
  EXPECT_EQ(dump(""), "L[  0]:[]\n");
  EXPECT_EQ(dump("\xAB\x0F\xFF\x80"), "L[  0]:[ab0fff80]\n");
  EXPECT_EQ(dump(zeros.substr(0, 16)), line);
  EXPECT_EQ(dump(zeros.substr(0, 17)), line + "L[ 16]:[00]\n");
  EXPECT_EQ(dump(zeros.substr(0, 32)), line + "L[ 16]:[" + std::string(32, '0') + "]\n");
  EXPECT_THAT(dump(zeros), testing::EndsWith("L[1008]:[0000]\n"));
}

}  // namespace
