// The helpers: access to the settings store, questions about the set, JSON members, hex dumps.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cerrno>
#include <functional>

#include "AllocationCount.h"
#include "FakePlatform.h"
#include "ondaro/pal/CPALUtils.h"

namespace {

using NOndaroPAL::CPALUtils;
using ::testing::ElementsAre;

void Ignore(platform_settings_node*, void*) {}

class Utils : public ::testing::Test {
 protected:
  /// The lines of one function since the last call, without its name.
  std::vector<std::string> TakeLines(const std::string& function) {
    const std::string name = " ONDARO_PAL " + function + ": ";
    std::vector<std::string> lines = m_fake.TakeLogTexts();
    for (std::string& line : lines) {
      EXPECT_EQ(line.find(name), 1U) << line;
      line.erase(1, name.size() - 1);
    }
    return lines;
  }

  FakePlatform& m_fake = FakePlatform::Get();
  std::string m_text = "before";
  int m_number = 5;
  bool m_flag = true;
};

TEST_F(Utils, NothingIsAskedOfTheStoreWithoutAKey) {
  const std::string none;
  const std::pair<const char*, std::function<bool()>> operations[] = {
      {"SetregSetStr", [&] { return CPALUtils::SetregSetStr(none, "v"); }},
      {"SetregGetStr", [&] { return CPALUtils::SetregGetStr(none, m_text); }},
      {"SetregSetInt", [&] { return CPALUtils::SetregSetInt(none, 1); }},
      {"SetregGetInt", [&] { return CPALUtils::SetregGetInt(none, m_number); }},
      {"SetregSetBool", [&] { return CPALUtils::SetregSetBool(none, true); }},
      {"SetregGetBool", [&] { return CPALUtils::SetregGetBool(none, m_flag); }},
      {"RegisterSetregChangedCb",
       [&] { return CPALUtils::RegisterSetregChangedCb(none, Ignore, nullptr); }},
      {"DeregisterSetregChangedCb",
       [&] { return CPALUtils::DeregisterSetregChangedCb(none, Ignore); }},
  };
  for (const auto& [name, call] : operations) {
    EXPECT_FALSE(call());
    EXPECT_THAT(TakeLines(name), ElementsAre("6 pKey is empty"));
  }
  EXPECT_TRUE(m_fake.m_storeCalls.empty());
}

TEST_F(Utils, FlagsAndFailedReads) {
  EXPECT_TRUE(CPALUtils::SetregSetBool("k", true));
  EXPECT_THAT(TakeLines("SetregSetBool"), ElementsAre("4 Succeed to set key k as 1"));
  for (const int number : {2, 0, 1}) {
    m_fake.m_values["k"] = number;
    EXPECT_TRUE(CPALUtils::SetregGetBool("k", m_flag));
    EXPECT_EQ(m_flag, number == 1);
    EXPECT_THAT(TakeLines("SetregGetBool"), ElementsAre("4 Succeed to get key k"));
  }
  m_fake.m_areStoreCallsFailing = true;
  EXPECT_FALSE(CPALUtils::SetregSetBool("k", true));
  EXPECT_THAT(TakeLines("SetregSetBool"), ElementsAre("6 Failed to set key k"));
  EXPECT_FALSE(CPALUtils::SetregGetBool("k", m_flag));
  EXPECT_TRUE(m_flag);
  EXPECT_THAT(TakeLines("SetregGetBool"), ElementsAre("6 Failed to get key k"));
  EXPECT_FALSE(CPALUtils::SetregGetStr("k", m_text));
  EXPECT_EQ(m_text, "before");
  EXPECT_FALSE(CPALUtils::SetregGetInt("k", m_number));
  EXPECT_EQ(m_number, GARBAGE_OF_FAILED_READ);  // the store's own
}

TEST_F(Utils, NodeReaders) {
  platform_settings_node broken{std::nullopt, std::nullopt};
  platform_settings_node text{"name", SettingsValue(std::string("value"))};
  platform_settings_node minusOne{"name", SettingsValue(-1)};
  const std::pair<const char*, std::function<bool(platform_settings_node*)>> readers[] = {
      {"Key", [&](auto* node) { return CPALUtils::GetSetregKeyFromKeynode(node, m_text); }},
      {"Str", [&](auto* node) { return CPALUtils::GetSetregStrFromKeynode(node, m_text); }},
      {"Int", [&](auto* node) { return CPALUtils::GetSetregIntFromKeynode(node, m_number); }},
  };
  const char* const failures[] = {"keynode name", "str from keynode", "int from keynode"};
  for (std::size_t index = 0; index < std::size(readers); ++index) {
    const auto& [kind, read] = readers[index];
    EXPECT_FALSE(read(nullptr) || read(&broken));
    EXPECT_THAT(
        TakeLines(std::string("GetSetreg") + kind + "FromKeynode"),
        ElementsAre("6 pKeynode is NULL", std::string("6 failed to get ") + failures[index]));
  }
  EXPECT_TRUE(readers[0].second(&text));
  EXPECT_EQ(m_text, "name");
  EXPECT_THAT(TakeLines("GetSetregKeyFromKeynode"),
              ElementsAre("4 Succeed to get keynode name name"));
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  EXPECT_TRUE(readers[1].second(&text) && readers[2].second(&minusOne));
  EXPECT_EQ(m_text, "value");
  EXPECT_EQ(m_number, -1);
  EXPECT_TRUE(m_fake.TakeLog().empty());
}

TEST_F(Utils, QuestionsAboutTheSet) {
  EXPECT_FALSE(CPALUtils::GetProductYear(m_text));
  EXPECT_THAT(TakeLines("GetProductYear"), ElementsAre("6 system_info_get_custom_int is failed"));
  EXPECT_FALSE(CPALUtils::GetModelId(m_text));
  EXPECT_EQ(m_text, "before");
  const std::pair<int, const char*> years[] = {{23, "2023"}, {5, "205"}, {0, "200"}, {-1, "20-1"}};
  for (const auto& [number, year] : years) {
    m_fake.m_productYear = number;
    EXPECT_TRUE(CPALUtils::GetProductYear(m_text));
    EXPECT_EQ(m_text, year);
  }
  m_fake.m_values["db/comss/modelid"] = std::string("QX-1");
  EXPECT_TRUE(CPALUtils::GetModelId(m_text));
  EXPECT_EQ(m_text, "QX-1");
  EXPECT_FALSE(CPALUtils::IsOndaroInitReset());
  EXPECT_EQ(m_fake.TakeLogTexts().back(), "6 ONDARO_PAL IsOndaroInitReset: setreg check fail");
  for (const int number : {0, 1, 2, -1, -2}) {
    m_fake.m_values["db/menu/network/airplay_init"] = m_fake.m_powerState = number;
    EXPECT_EQ(CPALUtils::IsOndaroInitReset(), number == 0);
    EXPECT_EQ(CPALUtils::IsValidPowerState(), number == 0 || number == 1);
  }
}

TEST_F(Utils, JsonMembers) {
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
    EXPECT_THAT(TakeLines("ParseJsonVal"),
                ElementsAre(m_text == "error" ? "6 json parse error" : "4 no error to parse"));
  }
}

TEST_F(Utils, HexDumpBreaksLinesOnlyWhenMoreFollowsAndAllocatesNothing) {
  const auto dump = [this](const std::string& bytes) {
    CPALUtils::PrintDataToHex("L", bytes.data(), bytes.size());
    return TakeLines("PrintDataToHex");
  };
  const std::string full = ":[" + std::string(32, '0') + "]";
  const std::string zeros(1010, '\0');
  EXPECT_THAT(dump(""), ElementsAre("4 L[  0]:[]"));
  EXPECT_THAT(dump("\xAB\x0F\xFF\x80"), ElementsAre("4 L[  0]:[ab0fff80]"));
  EXPECT_THAT(dump(zeros.substr(0, 16)), ElementsAre("4 L[  0]" + full));
  EXPECT_THAT(dump(zeros.substr(0, 17)), ElementsAre("4 L[  0]" + full, "4 L[ 16]:[00]"));
  EXPECT_THAT(dump(zeros.substr(0, 32)), ElementsAre("4 L[  0]" + full, "4 L[ 16]" + full));
  EXPECT_EQ(dump(zeros).back(), "4 L[1008]:[0000]");
  m_fake.m_isLogDiscarded = true;
  const int before = g_allocations;
  CPALUtils::PrintDataToHex("L", zeros.data(), zeros.size());
  EXPECT_EQ(g_allocations, before);
}

}  // namespace
