#include <gtest/gtest.h>

#include "Judging.h"
#include "platform/SystemInfo.h"

namespace conformance {
namespace {

constexpr char NO_FEATURE[] = "conformance/no-such-feature";

/// The values that the declared feature is given one after the other, or the one that it has.
template <typename Use>
void ForEachValue(Use use) {
  if (TheContext().declaration.Find(keys::FEATURE_SET) == nullptr) {
    use(std::stoi(Declared(keys::FEATURE_VALUE)));
    return;
  }
  for (const int value : {4711, 0, -1}) {
    Apply(keys::FEATURE_SET, {{"value", std::to_string(value)}}, "SET-08");
    use(value);
  }
}

}  // namespace

TEST(SystemInfo, SYS_01_AFeatureOfTheSetHasAValue) {
  const std::string& key = Declared(keys::FEATURE_KEY);
  ForEachValue([&](int expected) {
    int value = ~expected;
    EXPECT_EQ(platform_system_info_get_custom_int(key.c_str(), &value), 0) << key;
    EXPECT_EQ(value, expected) << key;
  });
}

TEST(SystemInfo, SYS_02_AnUnknownFeatureFails) {
  int value = 0;
  EXPECT_NE(platform_system_info_get_custom_int(NO_FEATURE, &value), 0);
}

TEST(SystemInfo, SYS_03_AnyThreadMayAsk) {
  const auto ask = [key = Declared(keys::FEATURE_KEY)] {
    int value = 0;
    const int status = platform_system_info_get_custom_int(key.c_str(), &value);
    return std::pair(status, value);
  };
  ForEachValue([&](int expected) {
    Needs("SYS-01", ask() == std::pair(0, expected), "the feature has not its value");
    for (const auto& answer : FromManyThreads(ask)) {
      EXPECT_EQ(answer, std::pair(0, expected));
    }
  });
}

}  // namespace conformance
