#include <gmock/gmock.h>
#include <signal.h>

#include "Catalogue.h"
#include "Tool.h"

namespace ondaro::test {
namespace {

using ctl::CATALOGUE;
using ctl::Kind;
using testing::HasSubstr;
using testing::MatchesRegex;

class WatchTest : public ToolTest {};

constexpr char TIME[] = "[0-9]{4}-[0-9][0-9]-[0-9][0-9]T[0-9:]{8}\\.[0-9]{6}Z";

TEST_F(WatchTest, ShowsOldAndNewOfEveryPropertyWithEvents) {
  auto watch = StartReady({"watch"});
  for (const ctl::Property& property : CATALOGUE) {
    if (!property.hasEvents) {
      continue;
    }
    const std::string name(property.name);
    const std::string first = property.kind == Kind::Text ? "two words" : "true";
    const std::string second = property.kind == Kind::Text ? "a\nb" : "false";
    Set(name, first);
    EXPECT_THAT(watch->ReadLine().value_or(""),
                testing::EndsWith("Z " + name + " (unknown) → " + first));
    Set(name, second);
    const std::string shown = property.kind == Kind::Text ? "a\\nb" : "false";
    EXPECT_THAT(watch->ReadLine().value_or(""),
                testing::EndsWith("Z " + name + " " + first + " → " + shown));
  }
}

TEST_F(WatchTest, OnlyWhatWasNamedUpToTheCount) {
  Set("ONDARO_TOS_STATUS", "not_accept");
  auto watch = StartAndSee({"watch", "ONDARO_TOS_STATUS", "ONDARO_TOS_STATUS", "-n", "2", "--json"},
                           "ready");
  Set("ONDARO_STATUS", "unseen");
  Set("ONDARO_TOS_STATUS", "accept");
  Set("ONDARO_TOS_STATUS", "accept");
  const std::vector<Json::Value> events = ParseObjects(watch->ReadAll());
  EXPECT_EQ(watch->Wait(), 0);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_THAT(events[0]["time"].asString(), MatchesRegex(TIME));
  EXPECT_EQ(events[0]["name"], "ONDARO_TOS_STATUS");
  EXPECT_EQ(events[0]["old"], "not_accept");
  EXPECT_EQ(events[0]["new"], "accept");
  EXPECT_EQ(events[1]["old"], "accept");
}

TEST_F(WatchTest, EndsByTimeoutAndBySignal) {
  const Outcome late = Run({"watch", "--timeout", "0.05"});
  EXPECT_EQ(late.code, 5);
  EXPECT_EQ(late.out, "ready\n");
  for (const int number : {SIGINT, SIGTERM}) {
    auto watch = StartReady({"watch"});
    watch->Signal(number);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_EQ(StandardError(), "");
  }
}

TEST_F(WatchTest, WaitsForAValue) {
  const struct {
    std::string condition;
    std::string value;
  } cases[] = {{"ONDARO_STATUS=on=1", "on=1"},
               {"ONDARO_STATUS!=off", "on"},
               {"ONDARO_STATUS=", ""},
               {"ONDARO_STATUS", "any"}};
  for (const auto& [condition, value] : cases) {
    SCOPED_TRACE(condition);
    Set("ONDARO_STATUS", "off");
    auto wait = StartAndSee({"wait", condition}, "waiting");
    Set("ONDARO_STATUS", value);
    EXPECT_EQ(wait->ReadAll(), value + "\n");
    EXPECT_EQ(wait->Wait(), 0);
  }
}

TEST_F(WatchTest, WaitSeesWhatIsTrueAlready) {
  EXPECT_EQ(Run({"wait", "ONDARO_STATUS!=off", "--timeout", "0"}).code, 5)
      << "a value that cannot be read is none";
  Set("ONDARO_STATUS", "on");
  EXPECT_EQ(Run({"wait", "ONDARO_STATUS=on", "--timeout", "0"}).code, 0);
  EXPECT_EQ(Run({"wait", "ONDARO_STATUS!=on", "--timeout", "0"}).code, 5);
  EXPECT_EQ(Run({"wait", "ONDARO_STATUS", "--timeout", "0"}).code, 5) << "nothing changed";
  const Json::Value object = ParseObject(Run({"wait", "ONDARO_STATUS!=off", "--json"}).out);
  EXPECT_EQ(object["name"], "ONDARO_STATUS");
  EXPECT_EQ(object["value"], "on");
}

TEST_F(WatchTest, AnInterruptedWaitHasFailed) {
  auto wait = StartAndSee({"wait", "ONDARO_STATUS=never"}, "waiting");
  wait->Signal(SIGINT);
  EXPECT_EQ(wait->Wait(), 1);
  EXPECT_THAT(StandardError(), HasSubstr("interrupted before ONDARO_STATUS=never"));
}

}  // namespace
}  // namespace ondaro::test
