#include <gmock/gmock.h>

#include "Tool.h"

namespace ondaro::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class UsageTest : public ToolTest {};

struct WrongUse {
  Words arguments;
  int code;
  std::string advice;
};

const WrongUse WRONG_USES[] = {
    {{}, 2, "a verb is missing"},
    {{""}, 2, "no verb ''"},
    {{"lst"}, 2, "did you mean list?"},
    {{"frobnicate"}, 2, "See 'ondaro-ctl --help'"},
    {{"--frobnicate"}, 2, "no option '--frobnicate'"},
    {{"--log", "loud", "get", "SDR"}, 2, "'loud'"},
    {{"get"}, 2, "NAME is required"},
    {{"get", "SDR", "SDR"}, 2, "See 'ondaro-ctl get --help'"},
    {{"get", "SDR", "--frobnicate"}, 2, "--frobnicate"},
    {{"set", "ONDARO_STATUS"}, 2, "VALUE is required"},
    {{"store"}, 2, "See 'ondaro-ctl store --help'"},
    {{"store", "put"}, 2, "no verb 'put'"},
    {{"store", "get"}, 2, "KEY is required"},
    {{"store", "set", "--int", "a/b", "12x"}, 2, "'12x'"},
    {{"store", "set", "--int", "a/b", "4294967296"}, 2, "32 bits"},
    {{"store", "watch"}, 2, "KEY is required"},
    {{"watch", "-n", "0"}, 2, "'0'"},
    {{"watch", "-n", "010"}, 2, "'010'"},
    {{"watch", "--timeout", "soon"}, 2, "'soon'"},
    {{"watch", "--timeout", "nan"}, 2, "'nan'"},
    {{"wait"}, 2, "CONDITION is required"},
    {{"auth", "generate", "--key", "k"}, 2, "--cert is required"},
    {{"auth", "generate", "--key", "k", "--cert", "k"}, 2, "two files"},
    {{"auth", "sign", "--key", "k"}, 2, "--hash HEX or --hash-file FILE"},
    {{"auth", "sign", "--key", "k", "--hash", "00", "--hash-file", "f"}, 2, "once"},
    {{"auth", "sign", "--key", "k", "--hash", "abc"}, 2, "hexadecimal"},
    {{"serve"}, 2, "EVENT is required"},
    {{"listen"}, 2, "EVENT is required"},
    {{"send", "EVENT"}, 2, "DATA is required"},
    {{"trace", "--format", "svg"}, 2, "none of summary, chrome, mermaid"},

    {{"get", "NOPE"}, 3, "'ondaro-ctl list'"},
    {{"get", "status"}, 3, "did you mean ONDARO_STATUS or ONDARO_TOS_STATUS?"},
    {{"get", "ONDARO_SUPORT"}, 3, "did you mean ONDARO_SUPPORT?"},
    {{"set", "ondaro_init", "true"}, 3, "did you mean ONDARO_INIT?"},
    {{"watch", "ONDARO_STATUS", "NOPE"}, 3, "NOPE"},
    {{"wait", "NOPE=1"}, 3, "NOPE"},
    {{"wait", "=1"}, 3, "''"},

    {{"set", "SDR", "2"}, 1, "can only be read"},
    {{"set", "ONDARO_SET_PROCESS_GRP", "no.such.app"}, 1, "could not be written"},
    {{"get", "ONDARO_SET_PROCESS_GRP"}, 1, "can only be written"},
    {{"get", "ONDARO_STATUS"}, 1, "never set"},
    {{"watch", "ONDARO_INIT"}, 1, "has no change events; these have: ONDARO_CLEAR_DATA"},
    {{"wait", "ONDARO_INIT=true"}, 1, "has no change events"},
    {{"store", "get", "a/b"}, 1, "not there"},
    {{"store", "set", "/a//b", "x"}, 1, "--log error"},
    {{"store", "watch", "/a//b"}, 1, "refused"},
    {{"load", "/no/such/file"}, 1, "/no/such/file"},
    {{"trace", "/no/such/file"}, 1, "/no/such/file"},
};

TEST_F(UsageTest, WrongUsesSayWhatToDo) {
  for (const WrongUse& use : WRONG_USES) {
    SCOPED_TRACE(testing::PrintToString(use.arguments));
    const Outcome outcome = Run(use.arguments);
    EXPECT_EQ(outcome.code, use.code);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr(use.advice));
    for (const char* internal : {"terminate", "exception", "Error:", "std::", "CLI", "NOndaro"}) {
      EXPECT_THAT(outcome.err, Not(HasSubstr(internal)));
    }
  }
}

TEST_F(UsageTest, HelpAndVersionGoToStandardOutput) {
  for (const Words& arguments :
       {Words{"--help"}, Words{"--version"}, Words{"get", "--help"}, Words{"store", "-h"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, HasSubstr("ondaro-ctl"));
  }
}

}  // namespace
}  // namespace ondaro::test
