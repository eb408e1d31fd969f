// Who may own the name, call the daemon and hear its events, asked of a real dbus-daemon that
// reads the shipped policy after the defaults of a system bus.
//
// One user plays every role: the policy's rule for the role is made to name that user. So each
// rule is exercised without the role's account on the machine, as an ordinary user too.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <regex>

#include "Files.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {
namespace {

const char* const SYSTEM_DEFAULTS = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>)";

std::string UserName() { return getpwuid(geteuid())->pw_name; }

/// Who plays the roles: root would match the rules for root whatever role it plays.
std::string Player() { return geteuid() == 0 ? "nobody" : UserName(); }
std::string PlayersGroup() { return getgrgid(getpwnam(Player().c_str())->pw_gid)->gr_name; }

struct Role {
  const char* name;
  std::string rule;   // the attribute that names the role in the policy; none of its own: empty
  std::string taken;  // what the player's is instead
  bool mayOwn, mayCallAndHear;

  friend void PrintTo(const Role& role, std::ostream* stream) { *stream << role.name; }
};

const Role ROLES[] = {
    {"Root", "user=\"root\"", "user=\"" + Player() + "\"", true, true},
    {"DaemonUser", "user=\"ondaro\"", "user=\"" + Player() + "\"", true, false},
    {"ApplicationGroup", "group=\"ondaro\"", "group=\"" + PlayersGroup() + "\"", false, true},
    {"Anybody", "", "", false, false}};

/// The defaults and the shipped policies, with `rule` made to name another.
std::string Configuration(const std::string& rule, const std::string& taken) {
  std::string text = ReadFile(ONDARO_TEST_POLICY);
  text.replace(text.find(rule), rule.size(), taken);
  const std::size_t begin = text.find("<policy");
  return SYSTEM_DEFAULTS + text.substr(begin, text.find("</busconfig>") - begin);
}

/// Lets the test itself own the name where another right is in question.
std::string OwnerMayBeTheTest() {
  return "\n  <policy user=\"" + UserName() + "\"><allow own=\"" + BUS_NAME + "\"/></policy>";
}

/// gdbus, run by the player.
std::unique_ptr<ChildProcess> RunTool(const std::string& arguments) {
  const std::string become = "setpriv --reuid=" + Player() + " --regid=" + PlayersGroup() +
                             " --init-groups --pdeathsig=KILL ";
  const std::string command = "exec " + (geteuid() == 0 ? become : "") + "gdbus " + arguments;
  return std::make_unique<ChildProcess>(std::vector<std::string>{"sh", "-c", command},
                                        ChildProcess::Options{true, ""});
}

class Policy : public testing::TestWithParam<Role> {
 protected:
  static void ExpectRefusal(const std::string& answer, bool isAllowed, const char* allowed) {
    EXPECT_NE(answer.find(isAllowed ? allowed : "AccessDenied"), std::string::npos) << answer;
  }

  const std::string m_configuration = Configuration(GetParam().rule, GetParam().taken);
};

TEST_P(Policy, SaysWhoOwnsTheName) {
  PrivateBus bus(m_configuration);
  const auto tool = RunTool(
      "call -y -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.RequestName "
      "com.halvex.tv.ondaro 'uint32 4'");
  ExpectRefusal(tool->ReadAll(), GetParam().mayOwn, "(uint32 1,)\n");
}

TEST_P(Policy, SaysWhoCallsTheDaemonAndWhoHearsIt) {
  PrivateBus bus(m_configuration + OwnerMayBeTheTest());
  PlainPeer daemon;
  ASSERT_TRUE(daemon.Own());
  // It serves no object, and GLib's own thread says so to a call that reaches it.
  const auto tool = RunTool(
      "call -y -d com.halvex.tv.ondaro -o /com/halvex/tv/ondaro "
      "-m com.halvex.tv.ondaro.sendDataToServer event data");
  ExpectRefusal(tool->ReadAll(), GetParam().mayCallAndHear, "UnknownMethod");

  const auto monitor = RunTool("monitor -y -d com.halvex.tv.ondaro");
  const auto mark = [&](const char* text) {
    daemon.Emit(g_variant_new("(s)", text), "marker", "org.example.Marker");
  };
  ASSERT_TRUE(monitor->ReadLineWith("is owned by"));
  // It prints that before it subscribes.
  ASSERT_TRUE(WaitUntil([&] {
    mark("first");
    return monitor->HasLine();
  }));
  mark("begin");
  ASSERT_TRUE(monitor->ReadLineWith("('begin',)"));
  daemon.EmitEvent("event", "data");
  mark("end");
  const std::string line = monitor->ReadLine().value_or("");
  EXPECT_NE(line.find(GetParam().mayCallAndHear ? "('event', 'data')" : "('end',)"),
            std::string::npos)
      << line;
}

INSTANTIATE_TEST_SUITE_P(Roles, Policy, testing::ValuesIn(ROLES),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(PolicyAsShipped, KeepsOutEventsThatTheDaemonDidNotSend) {
  PrivateBus bus(Configuration("user=\"root\"", "user=\"" + UserName() + "\""));
  PlainPeer daemon, pretender, application;
  ASSERT_TRUE(daemon.Own());
  application.Listen();
  pretender.EmitEvent("made", "up");
  daemon.EmitEvent("real", "one");
  ASSERT_TRUE(WaitUntil([&] { return !application.Heard().empty(); }));
  EXPECT_EQ(application.Heard(), std::vector<Event>({{"real", "one"}}));
}

TEST(PolicyAsShipped, IsReadByTheBusAndNamesADestinationInEverySendRule) {
  PrivateBus bus("<include>" ONDARO_TEST_POLICY "</include>");
  const std::string text = ReadFile(ONDARO_TEST_POLICY);
  const std::regex rule("<[^>]* send_[^>]*>");
  int rules = 0;
  for (std::sregex_iterator at(text.begin(), text.end(), rule), end; at != end; ++at, ++rules) {
    EXPECT_NE(at->str().find("send_destination=\"com.halvex.tv.ondaro\""), std::string::npos);
  }
  EXPECT_GT(rules, 0);
}

}  // namespace
}  // namespace ondaro::test
