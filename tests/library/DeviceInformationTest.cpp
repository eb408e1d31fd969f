// Questions about the set, and the value of a JSON member.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "FakePlatform.h"
#include "ondaro/pal/CPALUtils.h"

namespace {

using NOndaroPAL::CPALUtils;
using ::testing::ElementsAre;

TEST(DeviceInformation, ProductYear) {
  FakePlatform& fake = FakePlatform::Get();
  std::string year = "before";
  EXPECT_FALSE(CPALUtils::GetProductYear(year));
  EXPECT_EQ(year, "before");
  EXPECT_THAT(fake.TakeLogTexts(), ElementsAre("6 ONDARO_PAL GetProductYear: "
                                               "system_info_get_custom_int is failed"));
  const std::pair<int, const char*> years[] = {{23, "2023"}, {5, "205"}, {0, "200"}, {-1, "20-1"}};
  for (const auto& [number, text] : years) {
    fake.m_productYear = number;
    EXPECT_TRUE(CPALUtils::GetProductYear(year));
    EXPECT_EQ(year, text);
  }
}

TEST(DeviceInformation, ModelInitFlagAndPower) {
  FakePlatform& fake = FakePlatform::Get();
  std::string model;
  EXPECT_FALSE(CPALUtils::GetModelId(model));
  fake.m_values["db/comss/modelid"] = std::string("QX-1");
  EXPECT_TRUE(CPALUtils::GetModelId(model));
  EXPECT_EQ(model, "QX-1");

  fake.TakeLog();
  EXPECT_FALSE(CPALUtils::IsOndaroInitReset());
  EXPECT_EQ(fake.TakeLogTexts().back(), "6 ONDARO_PAL IsOndaroInitReset: setreg check fail");
  for (const int flag : {0, 1, -1}) {
    fake.m_values["db/menu/network/airplay_init"] = flag;
    EXPECT_EQ(CPALUtils::IsOndaroInitReset(), flag == 0);
  }
  for (const int state : {0, 1, 2, -1, -2}) {
    fake.m_powerState = state;
    EXPECT_EQ(CPALUtils::IsValidPowerState(), state == 0 || state == 1) << state;
  }
}

TEST(DeviceInformation, JsonMembers) {
  const struct {
    const char* json;
    const char* value;
  } cases[] = {
      {R"({"a": "x", "b": 1})", "x"},
      {R"({"b": "x"})", ""},
      {R"({"a": 5})", "5"},
      {R"({"a": true})", "true"},
      {R"({"a": null})", ""},
      {"null", ""},
      {"{", "error"},
      {"", "error"},
  };
  for (const auto& oneCase : cases) {
    EXPECT_EQ(CPALUtils::ParseJsonVal(oneCase.json, "a"), oneCase.value) << oneCase.json;
  }
  FakePlatform::Get().TakeLog();
  for (const char* json : {"[1]", "5", R"({"a": {}})", R"({"a": [1]})"}) {
    EXPECT_THROW(CPALUtils::ParseJsonVal(json, "a"), Json::Exception) << json;
    EXPECT_THAT(FakePlatform::Get().TakeLogTexts(),
                ElementsAre("4 ONDARO_PAL ParseJsonVal: no error to parse"));
  }
  CPALUtils::ParseJsonVal("{", "a");
  EXPECT_THAT(FakePlatform::Get().TakeLogTexts(),
              ElementsAre("6 ONDARO_PAL ParseJsonVal: json parse error"));
}

}  // namespace
