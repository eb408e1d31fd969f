#include <gtest/gtest.h>

#include "Judging.h"
#include "platform/DevicePower.h"

namespace conformance {
namespace {

template <typename Use>
void ForEachState(Use use) {
  if (TheContext().declaration.Find(keys::POWER_SET) == nullptr) {
    use(std::stoi(Declared(keys::POWER_STATE)));
    return;
  }
  for (const int state : {0, 1, 2}) {
    Apply(keys::POWER_SET, {{"value", std::to_string(state)}}, "SET-08");
    use(state);
  }
}

}  // namespace

TEST(Power, POW_01_TheStateIsTheSets) {
  ForEachState([](int state) { EXPECT_EQ(platform_power_get_state(), state); });
}

TEST(Power, POW_02_AnUnknownStateIsNegative) {
  if (TheContext().declaration.Find(keys::POWER_UNKNOWN) == nullptr) {
    Absent("the port declares no way to make the state unknown");
  }
  Apply(keys::POWER_UNKNOWN, {}, "SET-05");
  EXPECT_LT(platform_power_get_state(), 0);
}

TEST(Power, POW_03_AnyThreadMayAsk) {
  ForEachState([](int state) {
    Needs("POW-01", platform_power_get_state() == state, "the state is another");
    for (const int answer : FromManyThreads(platform_power_get_state)) {
      EXPECT_EQ(answer, state);
    }
  });
}

}  // namespace conformance
