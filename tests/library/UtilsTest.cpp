// The helpers: access to the settings store, questions about the set, JSON members, hex dumps.

#include <json/json.h>

#include <cerrno>

#include "Allocations.h"
#include "PlatformTest.h"
#include "ondaro/pal/CPALUtils.h"

namespace {

using NOndaroPAL::CPALUtils;

void Ignore(platform_settings_node*, void*) {}

class Utils : public PlatformTest {
 protected:
  std::string m_text = "before";
  int m_number = 5;
  bool m_flag = true;
};

TEST_F(Utils, NothingIsAskedOfTheStoreWithoutAKey) {
  const std::string none;
  for (const std::string& told :
       {Told(CPALUtils::SetregSetStr(none, "v")), Told(CPALUtils::SetregGetStr(none, m_text)),
        Told(CPALUtils::SetregSetInt(none, 1)), Told(CPALUtils::SetregGetInt(none, m_number)),
        Told(CPALUtils::SetregSetBool(none, true)), Told(CPALUtils::SetregGetBool(none, m_flag)),
        Told(CPALUtils::RegisterSetregChangedCb(none, Ignore, nullptr)),
        Told(CPALUtils::DeregisterSetregChangedCb(none, Ignore))}) {
    EXPECT_THAT(told, testing::MatchesRegex("false 6 [A-Za-z]+: pKey is empty"));
  }
  EXPECT_TRUE(m_fake.m_storeCalls.empty());
}

TEST_F(Utils, FlagsAndFailedReads) {
  EXPECT_EQ(Told(CPALUtils::SetregSetBool("k", true)),
            "true 4 SetregSetBool: Succeed to set key k as 1");
  for (const int number : {2, 0, 1}) {
    m_fake.m_values["k"] = number;
    EXPECT_EQ(Told(CPALUtils::SetregGetBool("k", m_flag)),
              "true 4 SetregGetBool: Succeed to get key k");
    EXPECT_EQ(m_flag, number == 1);
  }
  EXPECT_TRUE(CPALUtils::RegisterSetregChangedCb("k", Ignore, nullptr));
  EXPECT_TRUE(CPALUtils::DeregisterSetregChangedCb("k", Ignore));
  EXPECT_FALSE(CPALUtils::DeregisterSetregChangedCb("k", Ignore));
  m_fake.m_areStoreCallsFailing = true;
  EXPECT_FALSE(CPALUtils::RegisterSetregChangedCb("k", Ignore, nullptr));
  m_fake.TakeLog();
  ExpectAlike({
      {Told(CPALUtils::SetregSetBool("k", true)), "false 6 SetregSetBool: Failed to set key k"},
      {Told(CPALUtils::SetregGetBool("k", m_flag)), "false 6 SetregGetBool: Failed to get key k"},
  });
  EXPECT_TRUE(m_flag);
}

TEST_F(Utils, NodeReaders) {
  platform_settings_node broken{std::nullopt, std::nullopt};
  platform_settings_node text{"name", SettingsValue(std::string("value"))};
  platform_settings_node minusOne{"name", SettingsValue(-1)};
  const std::string key = "GetSetregKeyFromKeynode: ", str = "GetSetregStrFromKeynode: ",
                    none = "pKeynode is NULL";
  const std::string number = "GetSetregIntFromKeynode: ";
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  ExpectAlike({
      {Told(CPALUtils::GetSetregKeyFromKeynode(nullptr, m_text)), "false 6 " + key + none},
      {Told(CPALUtils::GetSetregKeyFromKeynode(&broken, m_text)),
       "false 6 " + key + "failed to get keynode name"},
      {Told(CPALUtils::GetSetregKeyFromKeynode(&text, m_text)),
       "true 4 " + key + "Succeed to get keynode name name"},
      {m_text, "name"},
      {Told(CPALUtils::GetSetregStrFromKeynode(nullptr, m_text)), "false 6 " + str + none},
      {Told(CPALUtils::GetSetregIntFromKeynode(nullptr, m_number)), "false 6 " + number + none},
      {Told(CPALUtils::GetSetregIntFromKeynode(&minusOne, m_number)), "true"},
  });
  EXPECT_EQ(m_number, -1);
}

TEST_F(Utils, QuestionsAboutTheSet) {
  ExpectAlike({
      {Told(CPALUtils::GetProductYear(m_text)),
       "false 6 GetProductYear: system_info_get_custom_int is failed"},
      {Told(CPALUtils::GetModelId(m_text)),
       "false 6 SetregGetStr: Failed to get key db/comss/modelid"},
      {Told(CPALUtils::IsOndaroInitReset()),
       "false 6 SetregGetInt: Failed to get key db/menu/network/airplay_init 6 IsOndaroInitReset: "
       "setreg check fail"},
      {m_text, "before"},
  });
  const std::pair<int, const char*> years[] = {{23, "2023"}, {5, "205"}, {0, "200"}, {-1, "20-1"}};
  for (const auto& [number, year] : years) {
    m_fake.m_productYear = number;
    EXPECT_TRUE(CPALUtils::GetProductYear(m_text));
    EXPECT_EQ(m_text, year);
  }
  m_fake.m_values["db/comss/modelid"] = std::string("QX-1");
  EXPECT_TRUE(CPALUtils::GetModelId(m_text));
  EXPECT_EQ(m_text, "QX-1");
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
    EXPECT_EQ(Told(true), m_text == "error" ? "true 6 ParseJsonVal: json parse error"
                                            : "true 4 ParseJsonVal: no error to parse");
  }
}

TEST_F(Utils, HexDumpBreaksLinesOnlyWhenMoreFollowsAndAllocatesNothing) {
  const auto dump = [this](const std::string& bytes) {
    CPALUtils::PrintDataToHex("L", bytes.data(), bytes.size());
    return Told(true);
  };
  const std::string line = "true 4 PrintDataToHex: L[  0]:[", next = "] 4 PrintDataToHex: L[ 16]:[";
  const std::string full(32, '0'), zeros(1010, '\0');
  ExpectAlike({{dump(""), line + "]"},
               {dump("\xAB\x0F\xFF\x80"), line + "ab0fff80]"},
               {dump(zeros.substr(0, 16)), line + full + "]"},
               {dump(zeros.substr(0, 17)), line + full + next + "00]"},
               {dump(zeros.substr(0, 32)), line + full + next + full + "]"}});
  EXPECT_THAT(dump(zeros), testing::EndsWith(" L[1008]:[0000]"));
  m_fake.m_isLogDiscarded = true;
  const int before = Allocations::count;
  CPALUtils::PrintDataToHex("L", zeros.data(), zeros.size());
  EXPECT_EQ(Allocations::count, before);
}

}  // namespace
