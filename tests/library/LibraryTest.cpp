// What the model does not see: the log statement itself, costs, the end of the process, records
// that no call of the library filled, and callers beside the exported functions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "AllocationCount.h"
#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"
#include "ondaro/pal/CSystemConfigImpl.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class Library : public ::testing::Test {
 protected:
  FakePlatform& m_fake = FakePlatform::Get();
  uint32_t m_length = 0;
};

TEST_F(Library, TheFormatReachesTheLogUnformattedBehindThePrefix) {
  OndaroApi_SystemConfig_DestroyProperty(
      OndaroApi_SystemConfig_GetProperty(OndaroFactory_GetSystemConfigHandle(), "SDR", &m_length));
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
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  m_fake.m_isLogDiscarded = true;
  m_fake.m_nLogCalls = 0;
  const int before = g_allocations;
  // Refused at the first precondition: nothing but the tracer and the line between.
  OndaroApi_SystemConfig_GetProperty(config, nullptr, nullptr);
  EXPECT_EQ(m_fake.m_nLogCalls, 3);
  EXPECT_EQ(g_allocations, before);
  // A short name and value live in the strings themselves: the caller's buffer alone is allocated.
  const char* value = OndaroApi_SystemConfig_GetProperty(config, "SDR", &m_length);
  EXPECT_EQ(g_allocations, before + 1);
  OndaroApi_SystemConfig_DestroyProperty(value);
}

TEST_F(Library, RecordsWithBytesOrALengthAreNotEmpty) {
  char byte = 'x';
  for (const OndaroApi_CoreAuthInfoRW_t& filled :
       {OndaroApi_CoreAuthInfoRW_t{&byte, 0}, {nullptr, 1}}) {
    OndaroApi_CoreAuthInfoRW_t key = filled, cert = {nullptr, 0};
    EXPECT_FALSE(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(nullptr, &key, &cert));
    EXPECT_EQ(m_fake.TakeLog()[1].body, "return by [key is not empty]");
  }
  OndaroApi_CoreAuthInfoRW_t lengthOnly = {nullptr, 9};
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&lengthOnly);
  EXPECT_EQ(lengthOnly.length, 9U);
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

TEST_F(Library, OneStatusAloneIsSupport) {
  for (m_fake.m_supportStatus = -1; m_fake.m_supportStatus <= 12; ++m_fake.m_supportStatus) {
    m_fake.TakeLog();
    const NOndaroAPI::CCoreAuth wrapper(NOndaroPAL::CPALFactory::CreateCoreAuthImpl());
    const bool isRefused =
        m_fake.TakeLog()[1].body == "Key system[com.widevine.alpha] is not supported.";
    EXPECT_EQ(isRefused, m_fake.m_supportStatus != 11);
  }
}

TEST_F(Library, AChangeForNobodyIsTold) {
  platform_settings_node node{"key", SettingsValue(std::string("b"))};
  NOndaroPAL::CSystemConfigImpl::OndaroStatusChangedCallback(&node, nullptr);
  EXPECT_THAT(m_fake.TakeLogTexts(),
              ElementsAre("6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: "
                          "Nullptr: pThis"));
}

// The wrapper's lines come first, then its implementation goes; wrappers in reverse order.
TEST(LibraryDeathTest, ExitDestroysInReverseOrderOfCreation) {
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
