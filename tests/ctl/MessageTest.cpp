#include <gmock/gmock.h>
#include <signal.h>

#include <optional>

#include "Tool.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class MessageTest : public ToolTest {
 protected:
  void KillBus() { m_bus.Kill(); }

 private:
  PrivateBus m_bus;
};

TEST_F(MessageTest, ApplicationsReachTheDaemon) {
  auto serve = StartReady({"serve", "PLAY", ""});
  const struct {
    std::string event;
    std::string data;
    std::string shown;
  } cases[] = {{"PLAY", "film 1", "Z PLAY film 1"},
               {"PLAY", "", "Z PLAY "},
               {"", "no name", "Z  no name"},
               {"PLAY", R"({"path":"C:\n"})", R"(Z PLAY {"path":"C:\n"})"},
               {"PLAY", "two\nlines \xc3\xa4", "Z PLAY two\\nlines \xc3\xa4"}};
  for (const auto& [event, data, shown] : cases) {
    const Outcome sent = Run({"send", event, data});
    EXPECT_EQ(sent.code, 0) << sent.err;
    EXPECT_EQ(sent.out + sent.err, "");
    EXPECT_THAT(serve->ReadLine().value_or(""), EndsWith(shown));
  }
  EXPECT_EQ(Run({"send", "UNHEARD", "x"}).code, 0) << "the daemon answers whatever it is";
}

TEST_F(MessageTest, TheLastEventServedIsAnswered) {
  auto serve = StartReady({"serve", "PLAY", "-n", "1"});
  EXPECT_EQ(Run({"send", "PLAY", "x"}).code, 0);
  EXPECT_EQ(serve->Wait(), 0);
}

TEST_F(MessageTest, LinesOfTheDaemonReachApplications) {
  auto serve = StartReady({"serve", "PLAY"});
  auto listen = Start({"listen", "STATUS", "VOLUME", "--json", "-n", "3"});
  ASSERT_TRUE(WaitUntil([&] { return StandardError() == "ready\n"; }));
  serve->Write("STATUS playing now\n\nVOLUME  7\nUNHEARD x\nSTAT");
  serve->Write("US\n");
  const std::vector<Json::Value> events = ParseObjects(listen->ReadAll());
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0]["event"], "STATUS");
  EXPECT_EQ(events[0]["data"], "playing now");
  EXPECT_EQ(events[1]["event"], "VOLUME");
  EXPECT_EQ(events[1]["data"], " 7");
  EXPECT_EQ(events[2]["data"], "");
  EXPECT_TRUE(events[2]["time"].isString());
  EXPECT_EQ(listen->Wait(), 0);
}

TEST_F(MessageTest, ListenOutlivesTheDaemon) {
  auto listen = StartReady({"listen", "STATUS"});
  for (const std::string number : {"1", "2"}) {
    auto serve = StartReady({"serve", "PLAY"});
    serve->Write("STATUS " + number + "\n");
    EXPECT_THAT(listen->ReadLine().value_or(""), EndsWith("STATUS " + number));
    serve->Signal(SIGTERM);
    EXPECT_EQ(serve->Wait(), 0);
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
  auto second = Start({"serve", "PLAY"});
  ASSERT_TRUE(WaitUntil(
      [&] { return StandardError().find("another daemon owns the name") != std::string::npos; }));
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
  KillBus();
  EXPECT_EQ(serve->Wait(), 4);
  EXPECT_EQ(listen->Wait(), 4);
  EXPECT_THAT(StandardError(), HasSubstr("went away"));
  for (const Words& arguments :
       {Words{"serve", "PLAY"}, Words{"listen", "STATUS"}, Words{"send", "PLAY", "x"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 4);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("DBUS_SYSTEM_BUS_ADDRESS"));
  }
}

TEST_F(MessageTest, ListenHasItsLimits) {
  EXPECT_EQ(Run({"listen", "STATUS", "--timeout", "0.05"}).code, 5);
  EXPECT_EQ(Run({"serve", "PLAY", "--timeout", "0.05"}).code, 5);
}

}  // namespace
}  // namespace ondaro::test
