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

// Every operation by key: refused without a key, failing in the store, succeeding.
TEST_F(Utils, OperationsByKeyLogTheirOwnMessages) {
  const std::string failed = "6 Failed to ", done = "4 Succeed to ";
  const struct {
    const char* name;
    std::function<bool(const std::string& key)> call;
    std::string failure, success;  // empty: nothing is said
  } operations[] = {
      {"SetregSetStr", [&](const auto& key) { return CPALUtils::SetregSetStr(key, "v%s"); },
       failed + "set key k", done + "set key k as v%s"},
      {"SetregGetStr", [&](const auto& key) { return CPALUtils::SetregGetStr(key, m_text); },
       failed + "get key k", ""},
      {"SetregSetInt", [&](const auto& key) { return CPALUtils::SetregSetInt(key, 2); },
       failed + "set key k", done + "set key k as 2"},
      {"SetregGetInt", [&](const auto& key) { return CPALUtils::SetregGetInt(key, m_number); },
       failed + "get key k", done + "get key k"},
      {"SetregGetBool", [&](const auto& key) { return CPALUtils::SetregGetBool(key, m_flag); },
       failed + "get key k", done + "get key k"},
      {"SetregSetBool", [&](const auto& key) { return CPALUtils::SetregSetBool(key, true); },
       failed + "set key k", done + "set key k as 1"},
      {"RegisterSetregChangedCb",
       [&](const auto& key) { return CPALUtils::RegisterSetregChangedCb(key, Ignore, nullptr); },
       failed + "register for setreg key k nottification",
       "3 Succeed to register for notification for key k "},
      {"DeregisterSetregChangedCb",
       [&](const auto& key) { return CPALUtils::DeregisterSetregChangedCb(key, Ignore); },
       failed + "Un register for setreg key k nottification",
       "3 Succeed to Un register for notification for key k "},
  };
  for (const auto& operation : operations) {
    m_fake.m_storeCalls.clear();
    EXPECT_FALSE(operation.call(""));
    EXPECT_THAT(TakeLines(operation.name), ElementsAre("6 pKey is empty"));
    EXPECT_TRUE(m_fake.m_storeCalls.empty());
    m_fake.m_areStoreCallsFailing = true;
    EXPECT_FALSE(operation.call("k"));
    EXPECT_THAT(TakeLines(operation.name), ElementsAre(operation.failure));
    m_fake.m_areStoreCallsFailing = false;
    EXPECT_TRUE(operation.call("k"));
    EXPECT_EQ(TakeLines(operation.name),
              std::vector<std::string>(operation.success.empty() ? 0 : 1, operation.success));
  }
  EXPECT_EQ(m_text, "v%s");
  EXPECT_EQ(m_number, 2);
  EXPECT_FALSE(m_flag);  // only 1 is true
}

TEST_F(Utils, FailedReadsTouchOnlyTheIntegerTheStoreWrote) {
  EXPECT_FALSE(CPALUtils::SetregGetStr("missing", m_text));
  EXPECT_FALSE(CPALUtils::SetregGetBool("missing", m_flag));
  EXPECT_FALSE(CPALUtils::SetregGetInt("missing", m_number));
  EXPECT_EQ(m_text, "before");
  EXPECT_TRUE(m_flag);
  EXPECT_EQ(m_number, GARBAGE_OF_FAILED_READ);
}

TEST_F(Utils, NodeReaders) {
  platform_settings_node broken{std::nullopt, std::nullopt};
  platform_settings_node text{"name", SettingsValue(std::string("value"))};
  platform_settings_node minusOne{"name", SettingsValue(-1)};
  const auto readsKey = [&](auto* node) {
    return CPALUtils::GetSetregKeyFromKeynode(node, m_text);
  };
  const auto readsText = [&](auto* node) {
    return CPALUtils::GetSetregStrFromKeynode(node, m_text);
  };
  const auto readsNumber = [&](auto* node) {
    return CPALUtils::GetSetregIntFromKeynode(node, m_number);
  };
  platform_settings_node* const none = nullptr;
  EXPECT_FALSE(readsKey(none) || readsKey(&broken));
  EXPECT_THAT(TakeLines("GetSetregKeyFromKeynode"),
              ElementsAre("6 pKeynode is NULL", "6 failed to get keynode name"));
  EXPECT_FALSE(readsText(none) || readsText(&minusOne));
  EXPECT_THAT(TakeLines("GetSetregStrFromKeynode"),
              ElementsAre("6 pKeynode is NULL", "6 failed to get str from keynode"));
  EXPECT_FALSE(readsNumber(none) || readsNumber(&text));
  EXPECT_THAT(TakeLines("GetSetregIntFromKeynode"),
              ElementsAre("6 pKeynode is NULL", "6 failed to get int from keynode"));
  EXPECT_EQ(m_text, "before");
  EXPECT_EQ(m_number, 5);

  EXPECT_TRUE(readsKey(&text));
  EXPECT_EQ(m_text, "name");
  EXPECT_THAT(TakeLines("GetSetregKeyFromKeynode"),
              ElementsAre("4 Succeed to get keynode name name"));
  EXPECT_TRUE(readsText(&text));
  EXPECT_EQ(m_text, "value");
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  EXPECT_TRUE(readsNumber(&minusOne));
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
  const std::string parsed = "4 no error to parse", refused = "6 json parse error";
  const struct {
    const char* json;
    std::string value, line;
  } cases[] = {
      {R"({"a": "x", "b": 1})", "x", parsed},
      {R"({"b": "x"})", "", parsed},
      {R"({"a": 5})", "5", parsed},
      {R"({"a": true})", "true", parsed},
      {R"({"a": null})", "", parsed},
      {"null", "", parsed},
      {"{", "error", refused},
      {"", "error", refused},
      {"[1]", "thrown", parsed},
      {"5", "thrown", parsed},
      {R"({"a": {}})", "thrown", parsed},
      {R"({"a": [1]})", "thrown", parsed},
  };
  for (const auto& [json, value, line] : cases) {
    try {
      m_text = CPALUtils::ParseJsonVal(json, "a");
    } catch (const Json::Exception&) {
      m_text = "thrown";
    }
    EXPECT_EQ(m_text, value) << json;
    EXPECT_THAT(TakeLines("ParseJsonVal"), ElementsAre(line));
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
