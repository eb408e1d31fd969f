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
  std::function<bool(const std::string& key)> call;
  const char* failure;
  std::vector<std::string> success;
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
      {[&](const auto& key) { return CPALUtils::SetregSetStr(key, "v%s"); },
       "6 ONDARO_PAL SetregSetStr: Failed to set key k",
       {"4 ONDARO_PAL SetregSetStr: Succeed to set key k as v%s"}},
      {[&](const auto& key) { return CPALUtils::SetregGetStr(key, m_text); },
       "6 ONDARO_PAL SetregGetStr: Failed to get key k",
       {}},
      {[&](const auto& key) { return CPALUtils::SetregSetInt(key, -7); },
       "6 ONDARO_PAL SetregSetInt: Failed to set key k",
       {"4 ONDARO_PAL SetregSetInt: Succeed to set key k as -7"}},
      {[&](const auto& key) { return CPALUtils::SetregGetInt(key, m_number); },
       "6 ONDARO_PAL SetregGetInt: Failed to get key k",
       {"4 ONDARO_PAL SetregGetInt: Succeed to get key k"}},
      {[&](const auto& key) { return CPALUtils::SetregSetBool(key, true); },
       "6 ONDARO_PAL SetregSetBool: Failed to set key k",
       {"4 ONDARO_PAL SetregSetBool: Succeed to set key k as 1"}},
      {[&](const auto& key) { return CPALUtils::SetregGetBool(key, m_flag); },
       "6 ONDARO_PAL SetregGetBool: Failed to get key k",
       {"4 ONDARO_PAL SetregGetBool: Succeed to get key k"}},
      {[&](const auto& key) { return CPALUtils::RegisterSetregChangedCb(key, Ignore, nullptr); },
       "6 ONDARO_PAL RegisterSetregChangedCb: Failed to register for setreg key k nottification",
       {"3 ONDARO_PAL RegisterSetregChangedCb: Succeed to register for notification for key k "}},
      {[&](const auto& key) { return CPALUtils::DeregisterSetregChangedCb(key, Ignore); },
       "6 ONDARO_PAL DeregisterSetregChangedCb: Failed to Un register for setreg key k "
       "nottification",
       {"3 ONDARO_PAL DeregisterSetregChangedCb: Succeed to Un register for notification for key k "
        ""}},
  };
  for (const SOperation& operation : operations) {
    const std::string function =
        std::string(operation.failure).substr(0, std::string(operation.failure).find(": "));
    m_fake.m_storeCalls.clear();
    EXPECT_FALSE(operation.call(""));
    EXPECT_THAT(m_fake.TakeLogTexts(), ElementsAre(function + ": pKey is empty"));
    EXPECT_THAT(m_fake.m_storeCalls, IsEmpty());

    m_fake.m_areStoreCallsFailing = true;
    EXPECT_FALSE(operation.call("k"));
    EXPECT_THAT(m_fake.TakeLogTexts(), ElementsAre(operation.failure));
    m_fake.m_areStoreCallsFailing = false;

    EXPECT_TRUE(operation.call("k"));
    EXPECT_EQ(m_fake.TakeLogTexts(), operation.success);
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
}

TEST_F(SettingsAccess, ValuesAtTheEdge) {
  m_fake.m_values["empty"] = std::string();
  EXPECT_TRUE(CPALUtils::SetregGetStr("empty", m_text));
  EXPECT_EQ(m_text, "");
  m_flag = true;
  m_fake.m_values["two"] = 2;
  EXPECT_TRUE(CPALUtils::SetregGetBool("two", m_flag));
  EXPECT_FALSE(m_flag);
  EXPECT_TRUE(CPALUtils::SetregSetBool("b", false));
  EXPECT_EQ(m_fake.m_values["b"], SettingsValue(0));
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

TEST_F(SettingsAccess, UserDataComesBackUnchanged) {
  static const void* seen;
  const int marker = 0;
  EXPECT_TRUE(CPALUtils::RegisterSetregChangedCb(
      "k", [](platform_settings_node*, void* userData) { seen = userData; }, &marker));
  m_fake.Change("k", 1);
  EXPECT_EQ(seen, &marker);
}

}  // namespace
