#include <gmock/gmock.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>

#include "Tool.h"
#include "TraceCalls.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"

namespace ondaro::test {
namespace {

using testing::HasSubstr;

enum Daemon { NONE, RUNNING, FROZEN, ANOTHER };

const std::string SHIPPED;
const std::string NOBODY_CALLS =
    R"(<policy context="mandatory"><deny send_destination="com.halvex.tv.ondaro"/></policy>)";
const std::string EVERYBODY_SENDS =
    R"(<policy context="mandatory"><allow receive_interface="com.halvex.tv.ondaro"/></policy>)";

// Another library, and the description that it reads is not there.
const std::string ANOTHER_LIBRARY =
    "LC_ALL=C sed s/interface.xml/interface.nil/ $LIBRARY >lib-ondaro-platform-tv.so.1.2.3;"
    "ln -s lib-ondaro-platform-tv.so.1.2.3 lib-ondaro-platform-tv.so.1;"
    "LD_LIBRARY_PATH=.:${LIBRARY%/*} doctor";

const struct {
  Daemon daemon;
  std::string policy;
  std::string script;
  int code;
  std::string notOk;  // the checks that are not, and how
  std::string advice;
} TROUBLES[] = {
    {RUNNING, SHIPPED, "doctor", 0, "", ""},
    {NONE, SHIPPED, "doctor", 4, "daemon absent.", "start the daemon"},
    {FROZEN, SHIPPED, "doctor", 1, "daemon failed.", "does not answer"},
    {ANOTHER, SHIPPED, "doctor", 1, "daemon failed.", "takes no calls"},
    {RUNNING, NOBODY_CALLS, "doctor", 1, "policy failed.", "in the group ondaro"},
    {RUNNING, EVERYBODY_SENDS, "doctor", 1, "policy failed.", "install com.halvex"},
    {RUNNING, SHIPPED, "DBUS_SYSTEM_BUS_ADDRESS=unix:path=none doctor", 4,
     "bus absent.daemon unknown.policy unknown.", "is it running"},
    {RUNNING, SHIPPED, "ONDARO_HOST_STATE=/dev/null doctor", 1,
     "store failed.key-system failed.device-key failed.", "--log error"},
    {RUNNING, SHIPPED, "$CTL store set host/cdm/key-system unsupported; doctor", 1,
     "key-system failed.device-key failed.", "does not support the key system"},
    {RUNNING, SHIPPED, "$CTL store set host/cdm/sign fail; doctor", 1, "device-key failed.",
     "did not sign"},
    {RUNNING, SHIPPED, "pair 1; doctor --key key1 --cert cert1", 0, "", ""},
    {RUNNING, SHIPPED, "pair 1; pair 2; doctor --key key1 --cert cert2", 1, "device-key failed.",
     "auth generate"},
    {RUNNING, SHIPPED, "pair 1; doctor --key key1 --cert key1", 1, "device-key failed.",
     "neither PEM nor DER"},
    {RUNNING, SHIPPED, "doctor --description none", 1, "description failed.", "install"},
    {RUNNING, SHIPPED, R"(sed 's/"i"/"s"/' $DESCRIPTION >d; doctor --description d)", 1,
     "description failed.", "d does not describe"},
    {RUNNING, SHIPPED, ANOTHER_LIBRARY, 1, "version failed.description failed.", "1.2.3"},
};

class DoctorTest : public ToolTest {
 protected:
  /// The shipped policy, which lets this user be the daemon as well.
  std::string Policy() const {
    std::string text = ReadWholeFile(ONDARO_TEST_POLICY);
    const std::string root = R"(user="root")";
    text.replace(text.find(root), root.size(),
                 R"(user=")" + std::string(getpwuid(geteuid())->pw_name) + '"');
    std::ofstream(Path("policy")) << text;
    return OPEN_POLICY + ("<include>" + Path("policy") + "</include>");
  }
};

TEST_F(DoctorTest, FindsWhatIsWrongAndNothingElse) {
  for (const auto& trouble : TROUBLES) {
    SCOPED_TRACE(trouble.script + trouble.policy);
    UseSet("set of " + std::to_string(&trouble - TROUBLES));
    const PrivateBus bus(Policy() + trouble.policy);
    PlainPeer another;  // owns the name at most, and has no object
    std::unique_ptr<ChildProcess> daemon;
    if (trouble.daemon == ANOTHER) {
      EXPECT_TRUE(another.Own());
    } else if (trouble.daemon != NONE) {
      daemon = StartReady({"serve", "A"});
    }
    if (trouble.daemon == FROZEN) {
      daemon->Freeze();
    }
    const Outcome outcome = RunShell(
        "doctor() { $CTL doctor --json $*; }; cd $ONDARO_HOST_STATE;"
        "pair() { $CTL auth generate --key key$1 --cert cert$1 2>&-; };" +
        trouble.script);
    EXPECT_EQ(outcome.code, trouble.code) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(trouble.advice));
    EXPECT_EQ((outcome.out + outcome.err).find("PRIVATE"), std::string::npos);
    std::string notOk;
    const std::vector<Json::Value> findings = ParseObjects(outcome.out);
    for (const Json::Value& finding : findings) {
      if (finding["state"] != "ok") {
        notOk += finding["check"].asString() + " " + finding["state"].asString() + ".";
      }
    }
    EXPECT_EQ(findings.size(), 8U);
    EXPECT_EQ(notOk, trouble.notOk) << outcome.out;
  }
}

}  // namespace
}  // namespace ondaro::test
