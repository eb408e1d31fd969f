// What ends by itself: a shell script in, exit code, standard output and error out.
#include <gmock/gmock.h>

#include <iterator>
#include <map>

#include "Catalogue.h"
#include "Tool.h"

namespace ondaro::test {
namespace {

using testing::HasSubstr;
using testing::Not;

const char* const HELPERS = R"(
  cd $ONDARO_HOST_STATE
  S=ONDARO_STATUS
  ctl() { "$CTL" "$@"; }
  keep() { ctl set "$@"; ctl get "$1"; }
  pair() { ctl auth generate --key k --cert c "$@"; }
  each() { for words in "$@"; do ctl $words; printf "$? "; done; }
  bad() {
    for line in "$@"; do printf 'ONDARO_STATUS after\n%s\n' "$line" | ctl load; printf "$? "; done
    ctl get $S
  }
  )";

const struct {
  std::string script;
  int code;
  std::string out;  // all of it
  std::string err;  // some of it; nothing means nothing
} COMMANDS[] = {
    // Wrong usage.
    {"ctl", 2, "", "a verb is missing"},
    {"ctl ''", 2, "", "no verb ''"},
    {"ctl lst", 2, "", "did you mean list?"},
    {"ctl frobnicate", 2, "", "See 'ondaro-ctl --help'"},
    {"ctl --frobnicate", 2, "", "no option '--frobnicate'"},
    {"ctl --log loud get SDR", 2, "", "'loud'"},
    {"ctl get SDR x", 2, "", "'x' is one word too many\nSee 'ondaro-ctl get --help'"},
    {"each 'list x' 'dump x' 'load a b' 'device x' 'auth system-id x'", 0, "2 2 2 2 2 ", "'b' is"},
    {"each get 'store get' 'store watch' wait serve listen 'auth sign' 'auth generate --key k'", 0,
     "2 2 2 2 2 2 2 2 ", "is required\nSee 'ondaro-ctl auth generate --help'"},
    {"ctl set $S -x", 2, "", "no option '-x'; a word that begins with '-' goes after '--'"},
    {"ctl get SDR --jsn", 2, "", "no option '--jsn', did you mean --json?"},
    {"ctl store put", 2, "", "no verb 'put'\nSee 'ondaro-ctl store --help'"},
    {"ctl store set --int a/b 12x", 2, "", "'12x'"},
    {"ctl store set --int a/b 4294967296", 2, "", "32 bits\nSee 'ondaro-ctl store set --help'"},
    {"each 'watch -n 0' 'watch -n 010' 'watch --timeout soon' 'watch --timeout nan'", 0, "2 2 2 2 ",
     "'nan' is not a number of seconds"},
    {"ctl auth generate --key k --cert k", 2, "", "two files"},
    {"each 'auth sign --key k' 'auth sign --key k --hash 00 --hash-file f'", 0, "2 2 ", "once"},
    {"ctl auth sign --key k --hash abc", 2, "", "hexadecimal"},
    {"each 'send A' 'send A b --replay f'", 0, "2 2 ", "EVENT and DATA, or --replay FILE"},
    {"each 'send A b --speed 2' 'send --replay f --speed 0'", 0, "2 2 ", "'0' is not a number"},
    {"ctl trace --format svg", 2, "", "none of summary, chrome, mermaid"},
    {"ctl doctor --key k", 2, "", "go together"},

    // No such property.
    {"each 'get NOPE' 'set nope x' 'watch ONDARO_STATUS NOPE' 'wait =1'", 0, "3 3 3 3 ",
     "no property 'NOPE'; 'ondaro-ctl list' shows them all"},
    {"ctl get status", 3, "", "did you mean ONDARO_STATUS or ONDARO_TOS_STATUS?"},
    {"ctl get ONDARO_SUPORT", 3, "", "did you mean ONDARO_SUPPORT?"},

    // What fails.
    {"ctl set SDR 2", 1, "", "can only be read"},
    {"ctl set ONDARO_SET_PROCESS_GRP no.such.app", 1, "", "could not be written"},
    {"ctl get ONDARO_SET_PROCESS_GRP", 1, "", "can only be written"},
    {"ctl get $S", 1, "", "never set"},
    {"each 'watch ONDARO_INIT' 'wait ONDARO_INIT=true'", 0, "1 1 ",
     "has no change events; these have: ONDARO_CLEAR_DATA"},
    {"each 'store get a/b' 'store set /a//b x' 'store watch /a//b'", 0, "1 1 1 ", "refused"},
    {"each 'load none' 'trace none' 'send --replay none' 'auth sign --key none --hash 00'", 0,
     "1 1 1 1 ", "none cannot be read: No such file"},
    {"each 'load .' 'trace .' 'send --replay .'", 0, "1 1 1 ", ". cannot be read: Is a directory"},
    {"export ONDARO_HOST_STATE=/dev/null; each 'get ONDARO_STATUS' 'set ONDARO_STATUS x' watch", 0,
     "1 1 1 ", "--log error"},

    // Bus absent, and time over.
    {"export DBUS_SYSTEM_BUS_ADDRESS=unix:path=none; each 'send A b' 'serve A' 'listen A'", 0,
     "4 4 4 ", "is it running, and does DBUS_SYSTEM_BUS_ADDRESS"},
    {"ctl watch --timeout 0.05", 5, "ready\n", "the time is over"},
    {"ctl store watch a/b --timeout 0", 5, "ready\n", "the time is over"},
    {"ctl wait $S!=off --timeout 0", 5, "", "in time"},  // what cannot be read has no value
    {"ctl set $S on; each 'wait ONDARO_STATUS!=on --timeout 0' 'wait ONDARO_STATUS --timeout 0'", 0,
     "5 5 ", "in time"},

    // Values come back as they were given.
    {"keep $S error", 0, "error\n", ""},  // a value here, not a failed read
    {"keep $S ''; ctl get $S --json", 0, "\n{\"name\":\"ONDARO_STATUS\",\"value\":\"\"}\n", ""},
    {R"(keep $S 'C:\n "q" [a,b] $HOME %s')", 0, "C:\\n \"q\" [a,b] $HOME %s\n", ""},
    {"keep $S '[a,b]'; keep $S -- --json", 0, "[a,b]\n--json\n", ""},
    {"keep ONDARO_ENABLE_USAGE_RPT set", 0, "set\n", ""},  // a verb's name as well
    {"keep ONDARO_ENABLE_USAGE_RPT sometimes", 0, "false\n", "stores false"},
    {"keep ONDARO_INIT True", 0, "false\n", "stores false"},
    {"keep $S on; ctl wait $S!=off --json --timeout 0", 0,
     "on\n{\"name\":\"ONDARO_STATUS\",\"value\":\"on\"}\n", ""},
    {"ctl set $S \"$(printf '\\377\"\\001\\\\ \xc3\xa4')\"; ctl get $S --json", 0,
     "{\"name\":\"ONDARO_STATUS\",\"value\":\"\xef\xbf\xbd\\\"\\u0001\\\\ \xc3\xa4\"}\n", ""},
    {"ctl set $S \"$(printf 'a\\nb')\"; ctl set ONDARO_TOS_STATUS ''; ctl list | sed -n "
     "'2p;5,6p;8p'",
     0,
     "ONDARO_ENABLE_USAGE_RPT  (cannot be read)\nONDARO_SET_PROCESS_GRP   (write-only)\n"
     "ONDARO_STATUS            a\\nb\nONDARO_TOS_STATUS        \n",
     ""},
    {"ctl list --json | sed -n '1p; 9p'", 0,
     R"({"events":true,"name":"ONDARO_CLEAR_DATA","state":"unreadable","value":null,"writable":true}
{"events":false,"name":"SDR","state":"ok","value":"1","writable":false}
)",
     ""},
    {"ctl store set a/t 12; ctl store get a/t; ctl store get a/t --json", 0,
     "12\n{\"key\":\"a/t\",\"value\":\"12\"}\n", ""},
    {"ctl store set a --int -- -2147483648; ctl store get a --int --json", 0,
     "{\"key\":\"a\",\"value\":-2147483648}\n", ""},
    {"ctl store set a --int 1; ctl store get a", 1, "", "add --int"},
    {"ctl store set a 1; ctl store get a --int", 1, "", "leave out --int"},
    {"ctl store set db/comss/modelid 'Q 1'; ctl store set --int db/menu/network/airplay_init 0;"
     "ctl device; ctl device --json",
     0, R"(product year  (unknown)
model id      Q 1
init reset    yes
power usable  yes
{"init_reset":true,"model_id":"Q 1","power_usable":true,"product_year":null}
)",
     ""},

    // Device key, certificate and signature.
    {"pair; stat -c %a k", 0, "600\n", "key in k, certificate in c"},
    {"echo precious >c; pair || cat c; ls k", 2, "precious\n", "--force replaces it"},
    {"echo precious >c; pair --force; grep -c BEGIN k c", 0, "k:1\nc:1\n", "key in k"},
    {"ctl auth generate --key /dev/null --cert c --force || ls c", 2, "", "no regular file"},
    {"ctl auth generate --key no/k --cert c || ls c", 2, "", "no/k cannot be written"},
    {"pair; ctl auth sign --key k --hash 77 | grep -Ecx '([0-9a-f]{2})+'", 0, "1\n", "key in k"},
    {R"(pair; ctl auth sign --key k --hash 77 --json | grep -cx '{"signature":"[0-9a-f]*"}')", 0,
     "1\n", "key in k"},
    {"pair; printf %32s >h; ctl auth sign --key k --hash-file h --out s;"
     "openssl pkeyutl -verify -certin -inkey c -in h -sigfile s",
     0, "Signature Verified Successfully\n", "signature in s"},
    {"echo x >k; ctl auth sign --key k --hash 00", 1, "", "a device key"},
    {R"(ctl auth system-id --json | sed s/$(ctl get SYSTEM_ID)/$(ctl auth system-id | wc -c)/)", 0,
     "{\"system_id\":\"33\"}\n", ""},

    // The dump, and a recording: as a whole, or not at all.
    {"ctl store set --int db/menu/network/ondaro_enable_usage_rpt 7; ctl dump | grep -v SYSTEM", 0,
     "SDR 1\nTARGET_REPOSITORY emulator\n", "ONDARO_ENABLE_USAGE_RPT has no value that can be"},
    {"ctl set $S a; ctl dump --json | sed 's/\"SYS.*\",//'", 0,
     "{\"ONDARO_STATUS\":\"a\",\"SDR\":\"1\",\"TARGET_REPOSITORY\":\"emulator\"}\n",
     "ONDARO_INIT has no value"},
    {"printf '# yesterday\\n\\nONDARO_STATUS\\nONDARO_INIT true' >d; ctl load d; ctl get "
     "ONDARO_INIT",
     0, "true\n", "2 properties loaded"},
    {"ctl set $S before; bad 'NOPE x' ' ONDARO_INIT true'", 0, "3 3 before\n",
     "standard input, line 2: there is no property 'NOPE'"},
    {R"(ctl set $S before; bad 'ONDARO_INIT \q' 'SDR \' 'SDR \x4' 'SDR \xg0' 'SDR \x00' 'SDR x	y')",
     0, "1 1 1 1 1 1 before\n", "nothing was written"},
    {R"(printf '{"event":"A","data":"b","time":"2026-11-23T23:59:00Z"}\n\n' | ctl send --replay -)",
     1, "", "standard input, line 2: not an object with time, event and data"},
    {R"(echo '{"event":"A","data":"b","time":"noon"}' | ctl send --replay -)", 1, "", "line 1: "},
    {"seq -s [ 5000 | tr -d 0-9 | ctl send --replay -", 1, "", "line 1: "},

    // Where the output goes.
    {"ctl --version", 0, "ondaro-ctl " ONDARO_CTL_VERSION "\n", ""},
    {"ctl list >/dev/full", 1, "", "No space left"},
    {"ctl list >&-", 1, "", "cannot write"},  // no file of the store takes its place
    {"ctl set $S x <&- >&- 2>&-; ctl get $S", 0, "x\n", ""},
    {"{ ctl watch; echo $? >code; } | head -n 1 & until [ -s code ]; do ctl set $S $((n += 1)); "
     "done;"
     "cat code",
     0, "ready\n0\n", ""},
    {"script -qec '$CTL list' /dev/null | grep -c '\\[1m'", 0, "13\n", ""},
    {"NO_COLOR=1 script -qec '$CTL list' /dev/null | grep -c '\\[1m'", 1, "0\n", ""},
    {"ctl list | grep -c '\\[1m'", 1, "0\n", ""},
    {"ctl --log error get SDR", 0, "1\n", "key : SDR"},
    {"ONDARO_HOST_LOG=error $CTL get SDR", 0, "1\n", "key : SDR"},
    {"ONDARO_HOST_LOG=error $CTL get SDR --log debug:log; grep -q ']Entered ' log", 0, "1\n", ""},
};

class CommandTest : public ToolTest {};

TEST_F(CommandTest, DoesWhatTheTableSays) {
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  for (const auto& command : COMMANDS) {
    SCOPED_TRACE(command.script);
    UseSet(std::to_string(&command - COMMANDS));
    const Outcome outcome = RunShell(HELPERS + command.script);
    EXPECT_EQ(outcome.code, command.code) << outcome.err;
    EXPECT_EQ(outcome.out, command.out);
    EXPECT_THAT(outcome.err, HasSubstr(command.err));
    EXPECT_EQ(outcome.err.empty(), command.err.empty()) << outcome.err;
    for (const char* internal : {"terminate", "exception", "Error:", "std::", "CLI", "PRIVATE"}) {
      EXPECT_THAT(outcome.out + outcome.err, Not(HasSubstr(internal)));
    }
  }
}

TEST_F(CommandTest, ADumpComesBackByteForByte) {
  std::string allBytes;
  for (int c = 1; c < 256; ++c) {
    allBytes += static_cast<char>(c);
  }
  const std::string values[] = {allBytes, "", " ", "ends in a blank ", "\\n\r\n\n"};
  std::map<std::string, std::string> written;
  for (const ctl::Property& property : ctl::CATALOGUE) {
    if (property.key != nullptr) {
      const std::string name(property.name);
      const bool isText = property.kind == ctl::Kind::Text;
      written[name] = isText ? values[written.size() % std::size(values)] : "true";
      Set(name, written[name]);
    }
  }
  // What a set says about itself stays its own.
  const auto dump = [this] { return RunShell("$CTL dump | grep -v SYSTEM_ID").out; };
  const std::string first = dump();
  UseSet("another");
  EXPECT_THAT(Run({"load"}, first).err, HasSubstr("SDR cannot be loaded; skipped"));
  for (const auto& [name, value] : written) {
    EXPECT_EQ(Run({"get", name}).out, value + "\n");
  }
  EXPECT_EQ(dump(), first);
}

}  // namespace
}  // namespace ondaro::test
