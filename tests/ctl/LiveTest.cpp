// What goes on until it is told, and what several processes do together.
#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>

#include "Catalogue.h"
#include "Tool.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {
namespace {

using ctl::Kind;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char TIME[] = "[0-9]{4}(-[0-9][0-9]){2}T([0-9][0-9]:?){3}\\.[0-9]{6}Z";

class WatchTest : public ToolTest {};

// The tool's table and the library's are two; this holds them together.
TEST_F(WatchTest, ShowsOldAndNewOfEveryPropertyWithEvents) {
  auto watch = StartReady({"watch"});
  for (const ctl::Property& property : ctl::CATALOGUE) {
    const std::string name(property.name);
    const bool isText = property.kind == Kind::Text;
    std::string old = "(unknown)";
    for (const std::string value : {isText ? "a\nb" : "true", isText ? "two words" : "false"}) {
      if (property.key == nullptr) {
        continue;
      }
      Set(name, value);
      const std::string shown = value == "a\nb" ? "a\\nb" : value;
      if (property.hasEvents) {
        EXPECT_THAT(watch->ReadLine().value_or(""),
                    EndsWith("Z " + name + " " + old + " → " + shown));
      }
      old = shown;
    }
    if (property.key != nullptr) {
      const std::string number = isText ? "" : " --int";
      EXPECT_EQ(RunShell(std::string("$CTL store get ") + property.key + number).out,
                isText ? "two words\n" : "0\n");
    }
  }
}

TEST_F(WatchTest, OnlyWhatWasNamedUpToTheCount) {
  const std::string name = "ONDARO_TOS_STATUS";
  Set(name, "off");
  auto watch = StartAndSee({"watch", name, name, "-n", "2", "--json"}, "ready");
  Set("ONDARO_STATUS", "unseen");
  Set(name, "on");
  Set(name, "on");
  const std::vector<Json::Value> events = ParseObjects(watch->ReadAll());
  EXPECT_EQ(watch->Wait(), 0);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_THAT(events[0]["time"].asString(), testing::MatchesRegex(TIME));
  EXPECT_EQ(events[0]["name"], name);
  EXPECT_EQ(events[0]["old"], "off");
  EXPECT_EQ(events[0]["new"], "on");
  EXPECT_EQ(events[1]["old"], "on");
}

TEST_F(WatchTest, OfTheStoreShowsEveryWriteAlsoOfTheSameValue) {
  auto watch = StartReady({"store", "watch", "a/b", "c", "-n", "4"});
  EXPECT_EQ(RunShell("for v in x x; do $CTL store set a/b \"$(printf 'x\\ny')\"; done;"
                     "$CTL store set c --int 7; $CTL store set c ''")
                .code,
            0);
  for (const std::string shown : {" a/b x\\ny", " a/b x\\ny", " c 7", " c "}) {
    EXPECT_THAT(watch->ReadLine().value_or(""), EndsWith(shown));
  }
  EXPECT_EQ(watch->Wait(), 0);
}

TEST_F(WatchTest, EndsBySignalAndAWaitHasFailedThen) {
  for (const int number : {SIGINT, SIGTERM}) {
    auto watch = StartReady({"watch"});
    watch->Signal(number);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_EQ(StandardError(), "");
  }
  auto wait = StartAndSee({"wait", "ONDARO_STATUS=never"}, "waiting");
  wait->Signal(SIGINT);
  EXPECT_EQ(wait->Wait(), 1);
  EXPECT_THAT(StandardError(), HasSubstr("interrupted before ONDARO_STATUS=never"));
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

class MessageTest : public ToolTest {
 protected:
  PrivateBus m_bus;
};

TEST_F(MessageTest, ApplicationsReachTheDaemon) {
  auto serve = StartReady({"serve", "PLAY", "", "-n", "6"});
  const struct {
    std::string event;
    std::string data;
    std::string shown;
  } cases[] = {{"PLAY", "film 1", "Z PLAY film 1"},
               {"PLAY", "", "Z PLAY "},
               {"", "no name", "Z  no name"},
               {"PLAY", R"({"path":"C:\n"})", R"(Z PLAY {"path":"C:\n"})"},
               {"PLAY", "two\nlines \xc3\xa4", "Z PLAY two\\nlines \xc3\xa4"}};
  EXPECT_EQ(Run({"send", "UNHEARD", "x"}).code, 0) << "the daemon answers whatever it is";
  for (const auto& [event, data, shown] : cases) {
    const Outcome sent = Run({"send", event, data});
    EXPECT_EQ(sent.code, 0);
    EXPECT_EQ(sent.out + sent.err, "");
    EXPECT_THAT(serve->ReadLine().value_or(""), EndsWith(shown));
  }
  EXPECT_EQ(Run({"send", "PLAY", "the last"}).code, 0) << "answered before serve ends";
  EXPECT_EQ(serve->Wait(), 0);
}

TEST_F(MessageTest, WhatListenRecordsSendPlaysBack) {
  auto serve = StartReady({"serve", "A"});
  auto listen = StartAndSee({"listen", "A", "B", "--json", "-n", "3"}, "ready");
  serve->Write("A \xc3\xa4 \"1\"\n\nUNHEARD x\nB\nA");
  serve->Write("  2\n");
  const std::string recording = listen->ReadAll();
  EXPECT_EQ(listen->Wait(), 0);
  const std::vector<Json::Value> events = ParseObjects(recording);
  ASSERT_EQ(events.size(), 3U);
  EXPECT_THAT(events[0]["time"].asString(), testing::MatchesRegex(TIME));
  EXPECT_EQ(events[1]["event"], "B");
  EXPECT_EQ(events[1]["data"], "");

  EXPECT_EQ(Run({"send", "--replay", "-"}, recording).code, 0);
  for (const std::string shown : {"Z A \xc3\xa4 \"1\"", "Z A  2"}) {
    EXPECT_THAT(serve->ReadLine().value_or(""), EndsWith(shown));
  }
}

TEST_F(MessageTest, ReplayKeepsTheTimeAtItsSpeed) {
  auto serve = StartReady({"serve", "A", "-n", "4"});
  std::string recording;
  for (const std::string second : {"00", "30", "20", "40"}) {  // a clock was put back
    recording += R"({"event":"A","data":"x","time":"2026-11-23T23:59:)" + second + "Z\"}\n";
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Run({"send", "--replay", "-", "--speed", "100"}, recording).code, 0);
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(serve->Wait(), 0);
  EXPECT_GE(passed.count(), 0.4);
  EXPECT_LT(passed.count(), 20);
}

TEST_F(MessageTest, ListenAndWatchOutliveTheDaemon) {
  auto listen = StartReady({"listen", "STATUS"});
  auto watch = StartReady({"watch", "ONDARO_STATUS"});
  for (const std::string number : {"1", "2"}) {
    auto serve = StartReady({"serve", "PLAY"});
    serve->Write("STATUS " + number + "\n");
    EXPECT_THAT(listen->ReadLine().value_or(""), EndsWith("STATUS " + number));
    Set("ONDARO_STATUS", number);
    EXPECT_THAT(watch->ReadLine().value_or(""), EndsWith("→ " + number));
    number == "1" ? serve->Kill() : serve->Signal(SIGTERM);
  }
}

TEST_F(MessageTest, InputMayEndBeforeTheDaemonDoes) {
  auto listen = StartReady({"listen", "STATUS", "-n", "1"});
  auto serve = Start({"serve", "PLAY", "-n", "1"});
  serve->Write("STATUS last words");
  serve->CloseInput();
  EXPECT_THAT(listen->ReadLine().value_or(""), EndsWith("STATUS last words"));
  EXPECT_EQ(Run({"send", "PLAY", "x"}).code, 0);
  EXPECT_EQ(serve->Wait(), 0);
}

TEST_F(MessageTest, AnAbsentDaemonIsToldFromASilentOne) {
  const Outcome absent = Run({"send", "PLAY", "x"});
  EXPECT_EQ(absent.code, 4);
  EXPECT_THAT(absent.err, HasSubstr("'ondaro-ctl serve EVENT'"));
  EXPECT_EQ(Run({"listen", "STATUS", "--timeout", "0.05"}).code, 5);
  EXPECT_EQ(Run({"serve", "PLAY", "--timeout", "0.05"}).code, 5);

  auto serve = StartReady({"serve", "PLAY"});
  serve->Freeze();
  const Outcome silent = Run({"send", "PLAY", "x", "--timeout", "0.1"});
  EXPECT_EQ(silent.code, 5);
  EXPECT_THAT(silent.err, HasSubstr("did not answer in time"));
}

TEST_F(MessageTest, WhatIsNotUtf8IsNotSent) {
  auto serve = StartReady({"serve", "PLAY"});
  const Outcome refused = Run({"send", "PLAY", "\xff"});
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("UTF-8"));
  serve->Write("STATUS \xff\n");
  EXPECT_TRUE(WaitUntil([&] { return StandardError().find("UTF-8") != std::string::npos; }));
  EXPECT_EQ(Run({"send", "PLAY", "still there"}).code, 0);
}

TEST_F(MessageTest, TheSecondDaemonWaitsForTheFirst) {
  auto first = StartReady({"serve", "PLAY"});
  auto second = StartAndSee({"serve", "PLAY"}, "another daemon owns the name");
  first->Kill();
  EXPECT_EQ(second->ReadLine(), "ready");
  EXPECT_THAT(StandardError(), HasSubstr("took the name over"));
  auto listen = StartReady({"listen", "STATUS"});
  second->Write("STATUS taken over\n");
  EXPECT_THAT(listen->ReadLine().value_or(""), EndsWith("STATUS taken over"));
}

TEST_F(MessageTest, ABusThatGoesAwayIsAbsent) {
  auto serve = StartReady({"serve", "PLAY"});
  auto listen = StartReady({"listen", "STATUS"});
  m_bus.Kill();
  EXPECT_EQ(serve->Wait(), 4);
  EXPECT_EQ(listen->Wait(), 4);
  EXPECT_THAT(StandardError(), HasSubstr("went away"));
}

}  // namespace
}  // namespace ondaro::test
