// The log statement as the platform log receives it, the tracers' cost, and the hex dump.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AllocationCount.h"
#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALUtils.h"

namespace {

using NOndaroPAL::CPALUtils;
using ::testing::ElementsAre;

TEST(Diagnostics, TheFormatReachesTheLogUnformattedBehindThePrefix) {
  FakePlatform& fake = FakePlatform::Get();
  uint32_t length = 0;
  OndaroApi_SystemConfig_DestroyProperty(
      OndaroApi_SystemConfig_GetProperty(OndaroFactory_GetSystemConfigHandle(), "SDR", &length));
  std::map<std::string, std::string> fileOfFunction;
  for (const SLogEntry& entry : fake.TakeLog()) {
    EXPECT_EQ(entry.buffer, 0);
    EXPECT_EQ(entry.format.rfind("%s: %s(%d) > ", 0), 0U) << entry.format;
    EXPECT_GT(entry.line, 0);
    fileOfFunction[entry.function] = entry.file;
    if (entry.function == "_GetProperty") {
      EXPECT_EQ(entry.format, "%s: %s(%d) > key : %s");
    }
    if (entry.function == "~ONDAROCALLTRACE") {
      EXPECT_EQ(entry.format, "%s: %s(%d) > [%s]Left");
    }
  }
  EXPECT_EQ(fileOfFunction["_GetProperty"], "CSystemConfigImpl.cpp");
  EXPECT_EQ(fileOfFunction["CSystemConfigImpl"], "CSystemConfigImpl.cpp");
  EXPECT_EQ(fileOfFunction["ONDAROCALLTRACE"], "OndaroPALDebug.h");
  EXPECT_EQ(fileOfFunction["~ONDARO_API_CALL_TRACER"], "Debug.h");
}

TEST(Diagnostics, ATracerIsTwoLogCallsAndNothingAllocates) {
  FakePlatform& fake = FakePlatform::Get();
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  fake.m_isLogDiscarded = true;
  fake.m_nLogCalls = 0;
  const int before = g_allocations;
  // Refused at the first precondition: nothing but the tracer and the line between.
  OndaroApi_SystemConfig_GetProperty(config, nullptr, nullptr);
  EXPECT_EQ(fake.m_nLogCalls, 3);
  EXPECT_EQ(g_allocations, before);
  CPALUtils::PrintDataToHex("label", std::string(15, 'x').data(), 15);
  EXPECT_EQ(g_allocations, before);

  // A short name and value live in the strings themselves: the caller's buffer alone is allocated.
  uint32_t length = 0;
  const char* value = OndaroApi_SystemConfig_GetProperty(config, "SDR", &length);
  EXPECT_EQ(g_allocations, before + 1);
  OndaroApi_SystemConfig_DestroyProperty(value);
}

std::vector<std::string> Dump(const std::string& bytes) {
  FakePlatform::Get().TakeLog();
  CPALUtils::PrintDataToHex("L", bytes.data(), bytes.size());
  std::vector<std::string> lines;
  for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
    EXPECT_EQ(entry.format, "%s: %s(%d) > %s[%3d]:[%s]");
    EXPECT_EQ(entry.Text().rfind("4 ONDARO_PAL PrintDataToHex: ", 0), 0U);
    lines.push_back(entry.body);
  }
  return lines;
}

TEST(Diagnostics, HexDumpBreaksLinesOnlyWhenMoreFollows) {
  const std::string full(32, '0');
  const auto bytes = [](std::size_t count) { return std::string(count, '\0'); };
  EXPECT_THAT(Dump(""), ElementsAre("L[  0]:[]"));
  EXPECT_THAT(Dump("\xAB\x0F\xFF\x80"), ElementsAre("L[  0]:[ab0fff80]"));
  EXPECT_THAT(Dump(bytes(16)), ElementsAre("L[  0]:[" + full + "]"));
  EXPECT_THAT(Dump(bytes(17)), ElementsAre("L[  0]:[" + full + "]", "L[ 16]:[00]"));
  EXPECT_THAT(Dump(bytes(32)), ElementsAre("L[  0]:[" + full + "]", "L[ 16]:[" + full + "]"));
  EXPECT_EQ(Dump(bytes(1010)).back(), "L[1008]:[0000]");
}

}  // namespace
