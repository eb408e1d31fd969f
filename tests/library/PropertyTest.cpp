// Reads and writes of properties through the exported functions: the catalogue, the mixed key,
// the buffers, and what each leaves in the log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Property : public ::testing::Test {
 protected:
  void SetUp() override { m_fake.TakeLog(); }

  std::optional<std::string> Read(const std::string& key) {
    uint32_t length = 0;
    const char* value = OndaroApi_SystemConfig_GetProperty(m_config, key.c_str(), &length);
    if (value == nullptr) {
      return std::nullopt;
    }
    const std::string text(value, length);
    EXPECT_EQ(value[length], '\0');
    OndaroApi_SystemConfig_DestroyProperty(value);
    return text;
  }

  bool Write(const std::string& key, const std::string& value) {
    return OndaroApi_SystemConfig_SetProperty(m_config, key.c_str(), value.c_str());
  }

  /// What the read or the write itself logged, without the tracer around it.
  std::vector<std::string> InnerLog() {
    std::vector<std::string> log = m_fake.TakeLogTexts();
    return {log.begin() + 1, log.end() - 1};
  }

  FakePlatform& m_fake = FakePlatform::Get();
  OndaroApi_SystemConfig_h m_config = OndaroFactory_GetSystemConfigHandle();
};

const char* const STRING_PROPERTIES[][2] = {
    {"ONDARO_ENROLLMENT", "db/ondaro/property/enterprise_enrollment"},
    {"ONDARO_STATUS", "memory/menu/network/ondaro_status"},
    {"ONDARO_TOS_STATUS", "db/menu/network/ondaro_tos_status"},
    {"WIDEVINE_ONDARO_VERSION", "db/ondaro/property/widevine_ondaro_version"},
    {"WIDEVINE_ONDARO_SUPPORT", "db/ondaro/property/widevine_ondaro_support"},
};

const char* const FLAG_PROPERTIES[][2] = {
    {"ONDARO_INIT", "db/menu/network/ondaro_init"},
    {"ONDARO_SUPPORT", "db/menu/network/ondaro_support"},
    {"ONDARO_CLEAR_DATA", "db/menu/network/ondaro_clear_data"},
};

constexpr char USAGE_PROPERTY[] = "ONDARO_ENABLE_USAGE_RPT";
constexpr char USAGE_KEY[] = "db/menu/network/ondaro_enable_usage_rpt";

TEST_F(Property, StringsAreStoredAndReadUnchanged) {
  const std::string values[] = {"", "not_accept", "two\nlines\tand \x01", std::string(70'000, 'x')};
  for (const auto& [name, key] : STRING_PROPERTIES) {
    EXPECT_EQ(Read(name), "error") << name;
    for (const std::string& value : values) {
      EXPECT_TRUE(Write(name, value));
      EXPECT_EQ(m_fake.m_values[key], SettingsValue(value)) << name;
      EXPECT_EQ(Read(name), value) << name;
    }
  }
}

TEST_F(Property, FlagsAreTrueForExactlyOneAndExactlyTheWord) {
  for (const auto& [name, key] : FLAG_PROPERTIES) {
    EXPECT_EQ(Read(name), "error") << name;
    for (const int number : {0, 2, -1, 1}) {
      m_fake.m_values[key] = number;
      EXPECT_EQ(Read(name), number == 1 ? "true" : "false") << name << number;
    }
    for (const char* word : {"", "TRUE", "1", "true ", "false", "true"}) {
      EXPECT_TRUE(Write(name, word));
      EXPECT_EQ(m_fake.m_values[key], SettingsValue(std::string(word) == "true" ? 1 : 0)) << word;
    }
  }
}

TEST_F(Property, UsageReportTranslatesWordsAndNumbers) {
  const std::pair<const char*, int> words[] = {
      {"false", 0}, {"default", 1}, {"true", 2}, {"set", 3}};
  for (const auto& [word, number] : words) {
    EXPECT_TRUE(Write(USAGE_PROPERTY, word));
    EXPECT_EQ(m_fake.m_values[USAGE_KEY], SettingsValue(number));
    EXPECT_EQ(Read(USAGE_PROPERTY), word);
  }
  EXPECT_TRUE(Write(USAGE_PROPERTY, "sometimes"));
  EXPECT_EQ(Read(USAGE_PROPERTY), "false");
  for (const int number : {7, -1}) {
    m_fake.m_values[USAGE_KEY] = number;
    EXPECT_EQ(Read(USAGE_PROPERTY), "");
  }
}

TEST_F(Property, ARefusingStoreFailsEveryWriteAndReadsAsError) {
  m_fake.m_areStoreCallsFailing = true;
  for (const char* name : {"ONDARO_INIT", "ONDARO_STATUS", USAGE_PROPERTY}) {
    EXPECT_FALSE(Write(name, "true")) << name;
    EXPECT_EQ(Read(name), "error") << name;
  }
}

TEST_F(Property, FixedValuesAndNamesWithoutGetterOrSetter) {
  EXPECT_EQ(Read("TARGET_REPOSITORY"), "emulator");
  EXPECT_EQ(Read("TARGET_REPOSITORY:x"), "emulator");
  for (const char* name : {"ONDARO_SET_PROCESS_GRP", "SDR:1", "", ":x", "ondaro_status"}) {
    EXPECT_EQ(Read(name), "") << name;
  }
  for (const char* name :
       {"SYSTEM_ID", "TARGET_REPOSITORY", "SDR", "ONDARO_STATUS:", "ONDARO_STATUS:a", ""}) {
    EXPECT_FALSE(Write(name, "x")) << name;
  }
  EXPECT_THAT(m_fake.m_storeCalls, IsEmpty());
  OndaroApi_SystemConfig_DestroyProperty(nullptr);
}

TEST_F(Property, ReadsLeaveTheirPathInTheLog) {
  m_fake.m_values["memory/menu/network/ondaro_status"] = std::string("on");
  m_fake.m_values["db/menu/network/ondaro_init"] = 1;
  const std::string noKey = "3 ONDARO_PAL _ExtractKeyFromMixedKey: data is not included";
  const std::string noData = "3 ONDARO_PAL _ExtractDataFromMixedKey: data is not included";
  const auto read = [this](const char* key) {
    Read(key);
    return InnerLog();
  };
  EXPECT_THAT(read("SDR"), ElementsAre("6 ONDARO_PAL _GetProperty: key : SDR"));
  EXPECT_THAT(read("SDR:1"),
              ElementsAre("6 ONDARO_PAL _GetProperty: key : SDR:1",
                          "4 ONDARO_PAL _ExtractKeyFromMixedKey: key : SDR",
                          "6 ONDARO_PAL _GetProperty: property[SDR:1] is undefined"));
  EXPECT_THAT(read("NONE"), ElementsAre("6 ONDARO_PAL _GetProperty: key : NONE", noKey,
                                        "6 ONDARO_PAL _GetProperty: property[NONE] is undefined"));
  EXPECT_THAT(read("ONDARO_STATUS"),
              ElementsAre("6 ONDARO_PAL _GetProperty: key : ONDARO_STATUS", noKey, noData));
  EXPECT_THAT(read("ONDARO_STATUS:a:b"),
              ElementsAre("6 ONDARO_PAL _GetProperty: key : ONDARO_STATUS:a:b",
                          "4 ONDARO_PAL _ExtractKeyFromMixedKey: key : ONDARO_STATUS",
                          "4 ONDARO_PAL _ExtractDataFromMixedKey: data : a:b"));
  EXPECT_THAT(
      read("ONDARO_INIT"),
      ElementsAre("6 ONDARO_PAL _GetProperty: key : ONDARO_INIT", noKey, noData,
                  "4 ONDARO_PAL SetregGetInt: Succeed to get key db/menu/network/ondaro_init"));
}

TEST_F(Property, WritesLeaveTheirPathInTheLog) {
  Write("ONDARO_CLEAR_DATA", "true");
  EXPECT_THAT(InnerLog(), ElementsAre("6 ONDARO_PAL _SetProperty: key : ONDARO_CLEAR_DATA",
                                      "4 ONDARO_PAL SetregSetInt: Succeed to set key "
                                      "db/menu/network/ondaro_clear_data as 1"));
  Write("SDR", "0");
  EXPECT_THAT(InnerLog(), ElementsAre("6 ONDARO_PAL _SetProperty: key : SDR",
                                      "6 ONDARO_PAL _SetProperty: property[SDR] is undefined"));
}

TEST_F(Property, SystemIdOpensTheDecryptionModuleOnFirstRead) {
  EXPECT_THAT(m_fake.m_cdmCalls, IsEmpty());
  EXPECT_EQ(Read("SYSTEM_ID"), "system-id");
  EXPECT_THAT(m_fake.m_cdmCalls,
              ElementsAre("supported[com.widevine.alpha]", "create[com.widevine.alpha][0][1]",
                          "query[getSystemId][ ][]"));
  m_fake.m_systemId = "";
  EXPECT_EQ(Read("SYSTEM_ID"), "");
  m_fake.m_operationStatus = 1;
  EXPECT_EQ(Read("SYSTEM_ID"), "error");
}

TEST_F(Property, ProcessGroupIsSetWithWhateverTheLookupReturned) {
  const int pid = getpid();
  const std::string caller = std::to_string(pid);
  m_fake.m_appPid = 4711;
  EXPECT_TRUE(Write("ONDARO_SET_PROCESS_GRP", "app.id"));
  EXPECT_EQ(InnerLog().back(), "4 ONDARO_API SetProcessGroup: pid of caller process : " + caller +
                                   ", pid of appid (app.id) : 4711\n");
  m_fake.m_appPid = -1;
  m_fake.m_setGroupResult = -1;
  EXPECT_FALSE(Write("ONDARO_SET_PROCESS_GRP", "gone"));
  EXPECT_EQ(InnerLog().back(), "6 ONDARO_API SetProcessGroup: set process group fail\n");
  EXPECT_THAT(m_fake.m_groupRequests,
              ElementsAre(std::make_pair(4711, pid), std::make_pair(-1, pid)));
}

}  // namespace
