#include <gmock/gmock.h>

#include <iterator>
#include <map>

#include "Catalogue.h"
#include "Tool.h"
#include "bus/PrivateBus.h"

namespace ondaro::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const char* const HELPERS = R"(
  cd $ONDARO_HOST_STATE; mkfifo in; exec 4<>in; S=ONDARO_STATUS
  trap 'exec 2>&-; kill -9 $pids; wait' EXIT
  ctl() { "$CTL" "$@"; }
  keep() { ctl set "$@"; ctl get "$1"; }
  pair() { ctl auth generate --key k --cert c "$@"; }
  each() { for words in "$@"; do ctl $words; printf "$? "; done; }
  bad() {
    for line in "$@"; do printf 'ONDARO_STATUS after\n%s\n' "$line" | ctl load; printf "$? "; done
    ctl get $S
  }
  # up FD ARGUMENTS: ready in the background; all it prints comes by FD, its input goes to 4.
  up() {
    fd=$1 line=; shift; mkfifo out$fd 2>&-
    "$CTL" "$@" <in >out$fd 2>&1 &
    pids="$pids $!"; eval "pid$fd=$! && exec $fd<out$fd"
    until [ "${line##*: }" = ready ] || [ "${line##*: }" = waiting ]; do read -r line <&$fd || return; done
  }
  hear() { read -r line <&$1; echo "${line#*Z }"; }
  rest() { sed -E 's/[-0-9]{10}T[0-9:]{8}\.[0-9]{6}Z/TIME/' <&$1; }
  await() { ctl set $S off; up 5 wait "$S$1"; ctl set $S "$2"; wait $!; printf "$? "; rest 5; }
  frozen() { kill -STOP $1; until grep -q 'State:.T' /proc/$1/status; do :; done; }
  event() { printf '{"event":"A","data":"%s","time":"2026-11-23T23:59:%sZ"}\n' "$1" "$2"; }
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
    {"each 'get SDR --log' 'watch -n 1 -n 2'", 0, "2 2 ", "--count goes once, and takes one value"},
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
    {"printf '\\033[2J' | ctl load", 3, "", "no property '\\x1b[2J'"},
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
    // The host's cryptography is not beside it, is damaged, is another library.
    {"H=ondaro-platform-host; ln -s ${CTL%/bin/*}/lib/lib$H.so.1 .; export LD_LIBRARY_PATH=.;"
     "each '--log error auth system-id'; mkdir $H; echo >$H/crypto.so; each 'auth system-id';"
     "ln -sf ../lib$H.so.1 $H/crypto.so; each 'auth system-id'",
     0, "1 1 1 ", "/ondaro-platform-host/crypto.so: cannot open shared object file"},

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

    // What goes on until it is told.
    {"ctl set ONDARO_TOS_STATUS off; up 5 watch ONDARO_TOS_STATUS ONDARO_TOS_STATUS -n 2;"
     "ctl set $S unseen; ctl set ONDARO_TOS_STATUS on; ctl set ONDARO_TOS_STATUS on; rest 5",
     0, "TIME ONDARO_TOS_STATUS off → on\nTIME ONDARO_TOS_STATUS on → on\n", ""},
    {"up 5 watch --json -n 1; ctl set $S on; rest 5", 0,
     R"({"name":"ONDARO_STATUS","new":"on","old":null,"time":"TIME"})"
     "\n",
     ""},
    {"up 5 store watch a/b c -n 4; for v in x x; do ctl store set a/b \"$(printf 'x\\ny')\"; done;"
     "ctl store set c --int 7; ctl store set c ''; rest 5",
     0, "TIME a/b x\\ny\nTIME a/b x\\ny\nTIME c 7\nTIME c \n", ""},
    {"await =on=1 on=1; await !=off on; await = ''; await '' any", 0, "0 on=1\n0 on\n0 \n0 any\n",
     ""},
    {"for s in INT TERM; do up 5 watch; kill -$s $!; wait $!; printf \"$? \"; rest 5; done", 0,
     "0 0 ", ""},
    {"up 5 wait $S=never; kill -INT $!; wait $!; printf \"$? \"; rest 5", 0,
     "1 ondaro-ctl: interrupted before ONDARO_STATUS=never came about\n", ""},

    // Daemon and applications.
    {"up 5 store watch a --json -n 1; up 6 serve A --json -n 1; ctl store set a --int 1;"
     "ctl send A b; rest 5; rest 6",
     0, R"({"key":"a","time":"TIME","value":1}
{"data":"b","event":"A","time":"TIME"}
)",
     ""},
    {"ctl send A b", 4, "", "nobody owns com.halvex.tv.ondaro); start it, or stand in for it with"},
    {"for v in listen serve; do ctl $v A --timeout 0.05 >o; printf \"$? \"; done", 0, "5 5 ",
     "is over"},
    {"up 5 serve A; frozen $pid5; ctl send A b --timeout 0.1", 5, "", "did not answer in time"},
    {"up 5 serve A '' -n 4; ctl send UNHEARD x && ctl send A '' && ctl send '' 'no name' &&"
     "ctl send A '{\"path\":\"C:\\n\"}' && ctl send A \"$(printf 'a\\nb ä')\"; echo $?; rest 5",
     0, "0\nTIME A \nTIME  no name\nTIME A {\"path\":\"C:\\n\"}\nTIME A a\\nb ä\n", ""},
    {"up 5 serve A; up 6 listen A B --json -n 3; printf 'A \"1\"\\n\\nUNHEARD x\\nB\\nA' >&4;"
     "printf '  2\\n' >&4; cat <&6 >r; ctl send --replay r; kill $pid5; rest 5; rest 6 <r",
     0, "TIME A \"1\"\nTIME A  2\n", ""},
    {"up 5 serve A -n 4; begin=$(date +%s%3N); for s in 00 30 20 40; do event x $s; done |"  // back
     "ctl send --replay - --speed 100; t=$(($(date +%s%3N) - begin)); [ $t -ge 400 -a $t -lt 20000 "
     "]",
     0, "", ""},
    {"up 5 listen N; up 6 watch $S; for n in 1 2; do up 7 serve A; echo N $n >&4; hear 5;"
     "ctl set $S $n; hear 6; kill $pid7; wait $pid7; echo $?; done",
     0, "N 1\nONDARO_STATUS (unknown) → 1\n0\nN 2\nONDARO_STATUS 1 → 2\n0\n", ""},
    {"up 5 listen N; printf 'N last words' | ctl serve A -n 1 >o 2>e & hear 5; ctl send A b; wait "
     "$!",
     0, "N last words\n", ""},
    {"up 5 serve A; ctl send A $(printf '\\377'); printf 'N \\377\\n' >&4; read -r line <&5;"
     "echo ${line%sent*}; ctl send A b",
     0, "ondaro-ctl: 'N' was not\n", "event and data must be UTF-8"},
    {"up 5 serve A; ctl serve A <in >o 2>e & pids=\"$pids $!\"; until grep -qs another e; do :; "
     "done;"
     "kill $pid5; until [ -s o ]; do :; done; grep -c took e; up 6 listen N; echo N x >&4; hear 6",
     0, "1\nN x\n", ""},

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
};  // namespace ondaro::test

class CommandTest : public ToolTest {
 protected:
  PrivateBus m_bus;
};

TEST_F(CommandTest, DoesWhatTheTableSays) {
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

TEST_F(CommandTest, ABusThatGoesAwayIsAbsent) {
  auto serve = StartReady({"serve", "PLAY"});
  auto listen = StartReady({"listen", "STATUS"});
  m_bus.Kill();
  EXPECT_EQ(serve->Wait(), 4);
  EXPECT_EQ(listen->Wait(), 4);
  EXPECT_THAT(StandardError(), HasSubstr("went away"));
}

// The tool's table and the library's are two; this holds them together.
TEST_F(CommandTest, TheCatalogueIsTheLibrarys) {
  auto watch = StartReady({"watch"});
  for (const ctl::Property& property : ctl::CATALOGUE) {
    if (property.key == nullptr) {
      continue;
    }
    const std::string name(property.name);
    const bool isText = property.kind == ctl::Kind::Text;
    std::string old = "(unknown)";
    for (const std::string value : {isText ? "a b" : "true", isText ? "c" : "false"}) {
      Set(name, value);
      if (property.hasEvents) {
        EXPECT_THAT(watch->ReadLine().value_or(""),
                    AllOf(HasSubstr(name), HasSubstr(old), testing::EndsWith(value)));
      }
      old = value;
    }
    const std::string option = isText ? "" : " --int";
    EXPECT_EQ(RunShell(std::string("$CTL store get ") + property.key + option).out,
              isText ? "c\n" : "0\n");
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
