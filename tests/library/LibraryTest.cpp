// What the model does not see: costs, records that no call of the library filled, the decryption
// module, callers beside the exported functions, and the helpers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>
#include <unistd.h>

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

  /// What a call that fails says.
  std::string Said(bool result) {
    const std::string told = Told(result);
    return told.rfind("false 6", 0) == 0 ? told.substr(told.find(": ") + 2) : told;
  }

  FakePlatform& m_fake = FakePlatform::Get();
  std::string m_text = "before";
  int m_number = 5;
  bool m_flag = true;
};

/// What a call writes to the log, and in which files; it allocates nothing.
template <typename TCall>
std::string Written(TCall call) {
  FakePlatform::Get().TakeLog();
  const int before = Allocations::count;
  call();
  EXPECT_EQ(Allocations::count, before);
  std::string lines;
  for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
    lines += entry.file + " " + entry.body.substr(0, 50) + "\n";
  }
  return lines;
}

TEST_F(Library, ALineNamesItsFileAndAllocatesNothing) {
  CSystemConfigImpl object;
  EXPECT_EQ(m_fake.TakeLog().front().file, "OndaroPALDebug.h");
  EXPECT_THAT(
      Written([] { OndaroApi_SystemConfig_GetProperty(nullptr, nullptr, nullptr); }),
      testing::MatchesRegex("Debug.h .*\nOndaroApiSystemConfig.cpp key is .*\nDebug.h .*\n"));
  // A short name and value live in the strings themselves.
  Written([&] { EXPECT_EQ(object.GetProperty("SDR"), "1"); });
  EXPECT_EQ(object.GetProperty("TARGET_REPOSITORY"), "emulator");
}

TEST_F(Library, AHexDumpBreaksLinesOnlyWhenMoreFollows) {
  const auto dump = [](std::size_t length) {
    const std::string bytes(length, '\xA0');
    return Written([&] { CPALUtils::PrintDataToHex("L", bytes.data(), bytes.size()); });
  };
  const std::string full = "CPALUtils.cpp L[  0]:[a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0]\n";
  EXPECT_EQ(dump(0), "CPALUtils.cpp L[  0]:[]\n");
  EXPECT_EQ(dump(16), full);
  EXPECT_EQ(dump(17), full + "CPALUtils.cpp L[ 16]:[a0]\n");
  EXPECT_THAT(dump(1010), testing::EndsWith("L[1008]:[a0a0]\n"));
}

TEST_F(Library, TheFirstPointerThatIsMissingIsNamed) {
  char byte = 'x';
  const OndaroApi_CoreAuthInfoRO_t in = {nullptr, 0};
  OndaroApi_CoreAuthInfoRW_t out = {}, bytes = {&byte, 0}, length = {nullptr, 9};
  // Without a handle, which is asked for last.
  const auto get = OndaroApi_SystemConfig_GetProperty;
  EXPECT_EQ(Said(get(nullptr, "k", nullptr) != nullptr), "pLength is null");
  const auto generate = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert;
  EXPECT_EQ(Said(generate(nullptr, nullptr, nullptr)), "key is null");
  EXPECT_EQ(Said(generate(nullptr, &out, nullptr)), "cert is null");
  EXPECT_EQ(Said(generate(nullptr, &bytes, &bytes)), "return by [key is not empty]");
  EXPECT_EQ(Said(generate(nullptr, &out, &length)), "return by [cert is not empty]");
  const auto sign = OndaroApi_CoreAuth_SignHash;
  EXPECT_EQ(Said(sign(nullptr, nullptr, nullptr, nullptr)), "key is null");
  EXPECT_EQ(Said(sign(nullptr, &in, nullptr, nullptr)), "hash is null");
  EXPECT_EQ(Said(sign(nullptr, &in, &in, nullptr)), "sign is null");
  EXPECT_EQ(Said(OndaroApi_CoreAuth_GetModelCertChain(nullptr, nullptr)), "certChain is null");
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(nullptr);
  EXPECT_EQ(Said(false), "authInfo is null");
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
  const struct {
    std::function<void()> fault;
    std::string expected;
  } rows[] = {{supports(0), none},
              {supports(10), none},
              {supports(12), none},
              {[&] { m_fake.m_isCreateFailing = true; }, none},
              {[&] { m_fake.m_hasKeyInterface = false; }, "true" + noKeys},
              {[&] { m_fake.m_operationStatus = 3; },
               "false 6 ONDARO_API GetSystemID: getSystemId failed." + keys +
                   "GenerateDeviceKeyAndCert failed." + signs + "ondaroSign failed."},
              {empty(m_fake.m_key), "true" + keys + "return by [key.empty()]true"},
              {empty(m_fake.m_cert), "true" + keys + "return by [cert.empty()]true"},
              {empty(m_fake.m_sign), "truetrue" + signs + "sign is empty"},
              {empty(m_fake.m_systemId), "truetruetrue"}};
  for (const auto& row : rows) {
    m_fake.Reset();
    row.fault();
    NOndaroAPI::CCoreAuth wrapper(CPALFactory::CreateCoreAuthImpl());
    const bool isOpen = row.expected != none;
    EXPECT_EQ(m_fake.m_nInstances, isOpen);
    EXPECT_EQ(Told(true).find("EME instance = ") != std::string::npos, isOpen);
    auto* const handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&wrapper);
    const OndaroApi_CoreAuthInfoRO_t device = {"k", 1}, hash = {"h", 1};
    OndaroApi_CoreAuthInfoRW_t key = {}, cert = {}, sign = {}, chain = {nullptr, 3};
    EXPECT_EQ(Told(wrapper.GetSystemID(m_text)) +
                  Told(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(handle, &key, &cert)) +
                  Told(OndaroApi_CoreAuth_SignHash(handle, &device, &hash, &sign)),
              row.expected);
    EXPECT_TRUE(wrapper.GetModelCertChain(&chain) && chain.length == 3);
    for (OndaroApi_CoreAuthInfoRW_t* record : {&key, &cert, &sign}) {
      OndaroApi_CoreAuth_DestroyCoreAuthInfo(record);
    }
  }
  EXPECT_EQ(m_fake.m_signed, "k h");
}

TEST_F(Library, TheModulesEndIsToldAlsoWhenItFails) {
  {
    NOndaroAPI::CCoreAuth wrapper(CPALFactory::CreateCoreAuthImpl());
    auto* const handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&wrapper);
    const OndaroApi_CoreAuthInfoRO_t in = {"in", 2}, broken = {nullptr, 9};
    OndaroApi_CoreAuthInfoRW_t out = {};
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
  platform_settings_node node{STATUS_KEY, SettingsValue(std::string("b"))};
  CSystemConfigImpl::OndaroStatusChangedCallback(&node, nullptr);
  EXPECT_EQ(Told(true),
            "true 6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: Nullptr: "
            "pThis");
  auto* const gone = new CSystemConfigImpl;
  delete gone;
  m_fake.TakeLog();
  CSystemConfigImpl::OndaroStatusChangedCallback(nullptr, gone);
  CSystemConfigImpl::OndaroSupportChangedCallback(&node, gone);
  EXPECT_EQ(Told(true), "true");
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

TEST_F(Library, ProcessGroups) {
  CSystemConfigImpl object;
  m_fake.m_values["x"] = 4711;
  m_fake.TakeLog();
  const std::string said =
      " 6 ONDARO_PAL _SetProperty: key : ONDARO_SET_PROCESS_GRP 4 ONDARO_API SetProcessGroup: pid "
      "of caller process : " +
      std::to_string(getpid()) + ", pid of appid (";
  EXPECT_EQ(Told(object.SetProperty("ONDARO_SET_PROCESS_GRP", "x")), "true" + said + "x) : 4711\n");
  EXPECT_EQ(Told(object.SetProperty("ONDARO_SET_PROCESS_GRP", "y")),
            "false" + said + "y) : -1\n 6 ONDARO_API SetProcessGroup: set process group fail\n");
}

TEST_F(Library, NothingIsAskedOfTheStoreWithoutAKeyOrANode) {
  const std::string none;
  m_fake.m_onStoreCall = [](const std::string& call) { return ADD_FAILURE() << call, true; };
  for (const std::string& told :
       {Told(CPALUtils::SetregSetStr(none, "v")), Told(CPALUtils::SetregGetStr(none, m_text)),
        Told(CPALUtils::SetregSetInt(none, 1)), Told(CPALUtils::SetregGetInt(none, m_number)),
        Told(CPALUtils::SetregSetBool(none, true)), Told(CPALUtils::SetregGetBool(none, m_flag)),
        Told(CPALUtils::RegisterSetregChangedCb(none, Ignore, nullptr)),
        Told(CPALUtils::DeregisterSetregChangedCb(none, Ignore)),
        Told(CPALUtils::GetSetregKeyFromKeynode(nullptr, m_text)),
        Told(CPALUtils::GetSetregStrFromKeynode(nullptr, m_text)),
        Told(CPALUtils::GetSetregIntFromKeynode(nullptr, m_number))}) {
    EXPECT_THAT(told, testing::MatchesRegex(
                          "false 6 ONDARO_PAL [A-Za-z]+: (pKey is empty|pKeynode is NULL)"));
  }
}

TEST_F(Library, FlagsAndSubscriptions) {
  EXPECT_TRUE(CPALUtils::RegisterSetregChangedCb("k", Ignore, nullptr));
  EXPECT_TRUE(CPALUtils::DeregisterSetregChangedCb("k", Ignore));
  EXPECT_FALSE(CPALUtils::DeregisterSetregChangedCb("k", Ignore));
  m_fake.TakeLog();
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
  EXPECT_TRUE(m_flag && !CPALUtils::RegisterSetregChangedCb("k", Ignore, nullptr));
}

TEST_F(Library, Nodes) {
  platform_settings_node nameless{nullptr, std::nullopt}, node{"name", SettingsValue(-1)};
  const std::string key = " ONDARO_PAL GetSetregKeyFromKeynode: ";
  EXPECT_EQ(Told(CPALUtils::GetSetregKeyFromKeynode(&nameless, m_text)),
            "false 6" + key + "failed to get keynode name");
  EXPECT_EQ(Told(CPALUtils::GetSetregKeyFromKeynode(&node, m_text)),
            "true 4" + key + "Succeed to get keynode name name");
  EXPECT_EQ(m_text, "name");
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  EXPECT_EQ(Told(CPALUtils::GetSetregIntFromKeynode(&node, m_number)), "true");
  EXPECT_EQ(m_number, -1);
}

TEST_F(Library, QuestionsAboutTheSet) {
  EXPECT_EQ(Told(CPALUtils::GetProductYear(m_text)),
            "false 6 ONDARO_PAL GetProductYear: system_info_get_custom_int is failed");
  EXPECT_FALSE(CPALUtils::GetModelId(m_text) || CPALUtils::IsOndaroInitReset());
  EXPECT_THAT(Told(true), testing::EndsWith(" 6 ONDARO_PAL IsOndaroInitReset: setreg check fail"));
  m_fake.m_values["db/comss/modelid"] = "QX-1";
  EXPECT_TRUE(CPALUtils::GetModelId(m_text) && m_text == "QX-1");
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
                                                       {"{", "error"},
                                                       {"", "error"},
                                                       {"[1]", "thrown"},
                                                       {R"({"a": {}})", "thrown"}};
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

}  // namespace
