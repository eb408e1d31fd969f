// The access layer over the settings store: results, out-parameters and messages.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "FakePlatform.h"
#include "ondaro/pal/CPALUtils.h"

namespace {

using NOndaroPAL::CPALUtils;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

void Ignore(platform_settings_node*, void*) {}

struct SOperation {
  const char* name;
  std::function<bool(const std::string& key)> call;
  const char* failure;
  const char* priority;
  const char* success;  // empty: nothing is said
};

class SettingsAccess : public ::testing::Test {
 protected:
  FakePlatform& m_fake = FakePlatform::Get();
  std::string m_text = "before";
  int m_number = 5;
  bool m_flag = false;
};

// Every operation by key: refused without a key, failing in the store, succeeding.
TEST_F(SettingsAccess, OperationsByKeyLogTheirOwnMessages) {
  const SOperation operations[] = {
      {"SetregSetStr", [&](const auto& key) { return CPALUtils::SetregSetStr(key, "v%s"); },
       "set key k", "4", "Succeed to set key k as v%s"},
      {"SetregGetStr", [&](const auto& key) { return CPALUtils::SetregGetStr(key, m_text); },
       "get key k", "", ""},
      {"SetregSetInt", [&](const auto& key) { return CPALUtils::SetregSetInt(key, -7); },
       "set key k", "4", "Succeed to set key k as -7"},
      {"SetregGetInt", [&](const auto& key) { return CPALUtils::SetregGetInt(key, m_number); },
       "get key k", "4", "Succeed to get key k"},
      {"SetregSetBool", [&](const auto& key) { return CPALUtils::SetregSetBool(key, true); },
       "set key k", "4", "Succeed to set key k as 1"},
      {"SetregGetBool", [&](const auto& key) { return CPALUtils::SetregGetBool(key, m_flag); },
       "get key k", "4", "Succeed to get key k"},
      {"RegisterSetregChangedCb",
       [&](const auto& key) { return CPALUtils::RegisterSetregChangedCb(key, Ignore, nullptr); },
       "register for setreg key k nottification", "3",
       "Succeed to register for notification for key k "},
      {"DeregisterSetregChangedCb",
       [&](const auto& key) { return CPALUtils::DeregisterSetregChangedCb(key, Ignore); },
       "Un register for setreg key k nottification", "3",
       "Succeed to Un register for notification for key k "},
  };
  for (const SOperation& operation : operations) {
    const std::string begin = std::string(" ONDARO_PAL ") + operation.name + ": ";
    m_fake.m_storeCalls.clear();
    EXPECT_FALSE(operation.call(""));
    EXPECT_THAT(m_fake.TakeLogTexts(), ElementsAre("6" + begin + "pKey is empty"));
    EXPECT_THAT(m_fake.m_storeCalls, IsEmpty());

    m_fake.m_areStoreCallsFailing = true;
    EXPECT_FALSE(operation.call("k"));
    EXPECT_THAT(m_fake.TakeLogTexts(), ElementsAre("6" + begin + "Failed to " + operation.failure));
    m_fake.m_areStoreCallsFailing = false;

    EXPECT_TRUE(operation.call("k"));
    const std::string line = operation.priority + begin + operation.success;
    EXPECT_EQ(m_fake.TakeLogTexts(), std::vector<std::string>(*operation.success != 0, line));
  }
  EXPECT_EQ(m_text, "v%s");
  EXPECT_EQ(m_number, -7);
  EXPECT_TRUE(m_flag);
}

TEST_F(SettingsAccess, FailedReadsTouchOnlyTheIntegerTheStoreWrote) {
  m_flag = true;
  EXPECT_FALSE(CPALUtils::SetregGetStr("missing", m_text));
  EXPECT_FALSE(CPALUtils::SetregGetBool("missing", m_flag));
  EXPECT_FALSE(CPALUtils::SetregGetInt("missing", m_number));
  EXPECT_EQ(m_text, "before");
  EXPECT_TRUE(m_flag);
  EXPECT_EQ(m_number, m_fake.m_nGarbageOnFailedRead);

  m_fake.m_values["two"] = 2;
  EXPECT_TRUE(CPALUtils::SetregGetBool("two", m_flag));
  EXPECT_FALSE(m_flag);
  m_fake.m_values["empty"] = std::string();
  EXPECT_TRUE(CPALUtils::SetregGetStr("empty", m_text));
  EXPECT_EQ(m_text, "");
}

TEST_F(SettingsAccess, NodeReaders) {
  platform_settings_node broken{std::nullopt, std::nullopt};
  platform_settings_node text{"name", SettingsValue(std::string("value"))};
  platform_settings_node minusOne{"name", SettingsValue(-1)};

  EXPECT_FALSE(CPALUtils::GetSetregKeyFromKeynode(nullptr, m_text));
  EXPECT_FALSE(CPALUtils::GetSetregStrFromKeynode(nullptr, m_text));
  EXPECT_FALSE(CPALUtils::GetSetregIntFromKeynode(nullptr, m_number));
  EXPECT_FALSE(CPALUtils::GetSetregKeyFromKeynode(&broken, m_text));
  EXPECT_FALSE(CPALUtils::GetSetregStrFromKeynode(&minusOne, m_text));
  EXPECT_FALSE(CPALUtils::GetSetregIntFromKeynode(&text, m_number));
  EXPECT_EQ(m_text, "before");
  EXPECT_EQ(m_number, 5);
  EXPECT_THAT(m_fake.TakeLogTexts(),
              ElementsAre("6 ONDARO_PAL GetSetregKeyFromKeynode: pKeynode is NULL",
                          "6 ONDARO_PAL GetSetregStrFromKeynode: pKeynode is NULL",
                          "6 ONDARO_PAL GetSetregIntFromKeynode: pKeynode is NULL",
                          "6 ONDARO_PAL GetSetregKeyFromKeynode: failed to get keynode name",
                          "6 ONDARO_PAL GetSetregStrFromKeynode: failed to get str from keynode",
                          "6 ONDARO_PAL GetSetregIntFromKeynode: failed to get int from keynode"));

  EXPECT_TRUE(CPALUtils::GetSetregKeyFromKeynode(&text, m_text));
  EXPECT_EQ(m_text, "name");
  EXPECT_TRUE(CPALUtils::GetSetregStrFromKeynode(&text, m_text));
  EXPECT_EQ(m_text, "value");
  errno = EIO;  // left over from elsewhere: must not make -1 a failure
  EXPECT_TRUE(CPALUtils::GetSetregIntFromKeynode(&minusOne, m_number));
  EXPECT_EQ(m_number, -1);
  EXPECT_THAT(
      m_fake.TakeLogTexts(),
      ElementsAre("4 ONDARO_PAL GetSetregKeyFromKeynode: Succeed to get keynode name name"));
}

}  // namespace
