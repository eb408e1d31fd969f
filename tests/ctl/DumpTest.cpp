#include <gmock/gmock.h>

#include <fstream>

#include "Tool.h"

namespace ondaro::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class DumpTest : public ToolTest {};

const std::string TEXT_PROPERTIES[] = {"ONDARO_ENROLLMENT", "ONDARO_STATUS", "ONDARO_TOS_STATUS",
                                       "WIDEVINE_ONDARO_SUPPORT", "WIDEVINE_ONDARO_VERSION"};

/// Every byte that a value can hold, and what plain lines would lose.
std::string AllBytes() {
  std::string bytes;
  for (int c = 1; c < 256; ++c) {
    bytes += static_cast<char>(c);
  }
  return bytes;
}

TEST_F(DumpTest, ADumpComesBackByteForByte) {
  const std::string values[] = {AllBytes(), "", " ", "ends in a blank ", "\\n\r\n\n"};
  std::size_t i = 0;
  for (const std::string& name : TEXT_PROPERTIES) {
    Set(name, values[i++]);
  }
  Set("ONDARO_INIT", "true");
  Set("ONDARO_SUPPORT", "false");
  Set("ONDARO_CLEAR_DATA", "false");
  Set("ONDARO_ENABLE_USAGE_RPT", "default");
  const std::string dump = Run({"dump"}).out;
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 12);

  UseSet("another");
  const Outcome loaded = Run({"load"}, dump);
  EXPECT_EQ(loaded.code, 0) << loaded.err;
  EXPECT_EQ(loaded.out, "");
  EXPECT_THAT(loaded.err, HasSubstr("SDR cannot be loaded; skipped"));
  EXPECT_THAT(loaded.err, HasSubstr("9 properties loaded"));
  i = 0;
  for (const std::string& name : TEXT_PROPERTIES) {
    EXPECT_EQ(Run({"get", name}).out, values[i++] + "\n");
  }

  // What the other set says about itself stays its own.
  const auto withoutSystemId = [](const std::string& text) {
    const std::size_t begin = text.find("SYSTEM_ID");
    return text.substr(0, begin) + text.substr(text.find('\n', begin));
  };
  EXPECT_EQ(withoutSystemId(Run({"dump"}).out), withoutSystemId(dump));
}

TEST_F(DumpTest, WhatCannotBeReadBackIsLeftOut) {
  Set("ONDARO_STATUS", "a");
  EXPECT_EQ(Run({"store", "set", "--int", "db/menu/network/ondaro_enable_usage_rpt", "7"}).code, 0);
  const Outcome outcome = Run({"dump"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.out, Not(HasSubstr("ONDARO_ENABLE_USAGE_RPT")));
  EXPECT_THAT(outcome.err, HasSubstr("ONDARO_ENABLE_USAGE_RPT has no value that can be read"));
  EXPECT_THAT(outcome.err, HasSubstr("ONDARO_INIT has no value that can be read"));

  const Json::Value object = ParseObject(Run({"dump", "--json"}).out);
  EXPECT_EQ(object["ONDARO_STATUS"], "a");
  EXPECT_EQ(object["SDR"], "1");
  EXPECT_FALSE(object.isMember("ONDARO_INIT"));
}

TEST_F(DumpTest, LoadReadsFilesCommentsAndBareNames) {
  Set("ONDARO_STATUS", "a");
  std::ofstream(Path("dump")) << "# of yesterday\n\nONDARO_STATUS\nONDARO_INIT true";
  EXPECT_EQ(Run({"load", Path("dump")}).code, 0);
  EXPECT_EQ(Run({"get", "ONDARO_STATUS"}).out, "\n");
  EXPECT_EQ(Run({"get", "ONDARO_INIT"}).out, "true\n");
}

TEST_F(DumpTest, ABadLineKeepsTheWholeDumpOut) {
  Set("ONDARO_STATUS", "before");
  const struct {
    std::string line;
    int code;
  } cases[] = {{"NOPE x", 3},
               {" ONDARO_INIT true", 3},
               {"ONDARO_INIT true\r", 1},
               {"ONDARO_INIT \\q", 1},
               {"ONDARO_INIT \\", 1},
               {"ONDARO_INIT \\x4", 1},
               {"ONDARO_INIT \\xg0", 1},
               {"ONDARO_INIT \\x00", 1}};
  for (const auto& [line, code] : cases) {
    SCOPED_TRACE(line);
    const Outcome outcome = Run({"load"}, "ONDARO_STATUS after\n" + line + "\n");
    EXPECT_EQ(outcome.code, code);
    EXPECT_THAT(outcome.err, HasSubstr("standard input, line 2: "));
    EXPECT_THAT(outcome.err, HasSubstr("nothing was written"));
    EXPECT_EQ(Run({"get", "ONDARO_STATUS"}).out, "before\n");
  }
}

}  // namespace
}  // namespace ondaro::test
