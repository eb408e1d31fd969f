#include <gmock/gmock.h>

#include "Tool.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class OutputTest : public ToolTest {};

TEST_F(OutputTest, AReaderThatGoesAwayEndsTheToolQuietly) {
  // head leaves after the first line; the watch notices at its next.
  ChildProcess pipeline(
      {"sh", "-c", "{ $CTL watch; echo code $? >\"$0\"; } 2>\"$0.err\" | head -n 1", Path("code")});
  EXPECT_EQ(pipeline.ReadLine(), "ready");
  int value = 0;
  EXPECT_TRUE(WaitUntil([&] {
    Set("ONDARO_STATUS", std::to_string(++value));
    return ReadWholeFile(Path("code")) == "code 0\n";
  }));
  EXPECT_EQ(ReadWholeFile(Path("code.err")), "");
}

TEST_F(OutputTest, WhatCannotBePrintedIsAFailure) {
  const Outcome full = RunShell("$CTL list >/dev/full");
  EXPECT_EQ(full.code, 1);
  EXPECT_THAT(full.err, HasSubstr("No space left"));
  // Else the settings store's files would take its place.
  EXPECT_EQ(RunShell("$CTL list >&-").code, 1);
  EXPECT_EQ(RunShell("$CTL set ONDARO_STATUS x <&- >&- 2>&-").code, 0);
  EXPECT_EQ(Run({"get", "ONDARO_STATUS"}).out, "x\n");
}

TEST_F(OutputTest, ColourOnATerminalOnly) {
  EXPECT_THAT(Run({"list"}).out, Not(HasSubstr("\033")));
  EXPECT_THAT(RunShell("script -qec '$CTL list' /dev/null").out, HasSubstr("\033"));
  EXPECT_THAT(RunShell("NO_COLOR=1 script -qec '$CTL list' /dev/null").out, Not(HasSubstr("\033")));
}

TEST_F(OutputTest, JsonIsValidWhateverTheBytes) {
  Set("ONDARO_STATUS", "\xff\"\\\x01 \xc3\xa4");
  const Json::Value object = ParseObject(Run({"get", "ONDARO_STATUS", "--json"}).out);
  EXPECT_EQ(object["value"], "\xef\xbf\xbd\"\\\x01 \xc3\xa4");
}

TEST_F(OutputTest, TheLogIsQuietUnlessAskedFor) {
  EXPECT_EQ(Run({"get", "SDR"}).err, "");
  EXPECT_THAT(Run({"--log", "error", "get", "SDR"}).err, HasSubstr("key : SDR"));
  EXPECT_THAT(RunShell("ONDARO_HOST_LOG=error $CTL get SDR").err, HasSubstr("key : SDR"));

  const Outcome toFile = RunShell("ONDARO_HOST_LOG=error $CTL get SDR --log debug:" + Path("log"));
  EXPECT_EQ(toFile.out, "1\n");
  EXPECT_EQ(toFile.err, "");
  EXPECT_THAT(ReadWholeFile(Path("log")), HasSubstr("]Entered "));
}

}  // namespace
}  // namespace ondaro::test
