// Who may own the name, call the daemon and hear its events, asked of a real dbus-daemon that
// reads the shipped policy after the defaults of a system bus.
//
// One user plays every role: the policy's rule for the role is made to name that user. So each
// rule is exercised without the role's account on the machine, as an ordinary user too.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

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
  const char* rule;  // the attribute that names the role in the policy; null: no rule of its own
  bool mayOwn;
  bool mayCall;
  bool mayHear;
};

const Role ROLES[] = {
    {"Root", "user=\"root\"", true, true, true},
    {"DaemonUser", "user=\"ondaro\"", true, false, false},
    {"ApplicationGroup", "group=\"ondaro\"", false, true, true},
    {"Anybody", nullptr, false, false, false},
};

/// The shipped policy with the role's rule made to name `player`.
std::string PolicyFor(const Role& role, const std::string& user, const std::string& group) {
  std::ifstream file(ONDARO_TEST_POLICY);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (role.rule == nullptr) {
    return text;
  }
  const std::string rule = role.rule;
  const bool byGroup = rule.compare(0, 5, "group") == 0;
  const std::size_t place = text.find(rule);
  if (place == std::string::npos) {
    throw std::runtime_error("the policy has no rule " + rule);
  }
  return text.replace(place, rule.size(),
                      byGroup ? "group=\"" + group + "\"" : "user=\"" + user + "\"");
}

class PolicyFile {
 public:
  explicit PolicyFile(const std::string& text)
      : m_path(testing::TempDir() + "ondaro-policy-XXXXXX") {
    close(mkstemp(m_path.data()));
    std::ofstream(m_path) << text;
  }
  ~PolicyFile() { unlink(m_path.c_str()); }
  PolicyFile(const PolicyFile&) = delete;
  PolicyFile& operator=(const PolicyFile&) = delete;

  std::string Configuration() const {
    return std::string(SYSTEM_DEFAULTS) + "\n  <include>" + m_path + "</include>";
  }

 private:
  std::string m_path;
};

/// Lets the test itself own the name where another right is in question.
std::string OwnerMayBeTheTest() {
  return "\n  <policy user=\"" + UserName() + "\"><allow own=\"" + BUS_NAME + "\"/></policy>";
}

std::string RunTool(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "gdbus");
  ChildProcess tool(arguments, {geteuid() == 0 ? std::optional(Player()) : std::nullopt, true, {}});
  return ReadAllWhileServing(tool);
}

class Policy : public testing::TestWithParam<Role> {
 protected:
  PolicyFile m_file{PolicyFor(GetParam(), Player(), PlayersGroup())};
};

TEST_P(Policy, SaysWhoOwnsTheName) {
  PrivateBus bus(m_file.Configuration());
  const std::string answer =
      RunTool({"call", "--system", "--dest", "org.freedesktop.DBus", "--object-path", "/",
               "--method", "org.freedesktop.DBus.RequestName", BUS_NAME, "uint32 4"});
  EXPECT_EQ(answer == "(uint32 1,)\n", GetParam().mayOwn) << answer;
  EXPECT_EQ(answer.find("AccessDenied") != std::string::npos, !GetParam().mayOwn) << answer;
}

TEST_P(Policy, SaysWhoCallsTheDaemon) {
  PrivateBus bus(m_file.Configuration() + OwnerMayBeTheTest());
  PlainPeer daemon;
  daemon.Serve(ONDARO_TEST_DESCRIPTION);
  ASSERT_TRUE(daemon.Own());
  const std::string answer =
      RunTool({"call", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH, "--method",
               std::string(INTERFACE) + "." + METHOD, "event", "data"});
  EXPECT_EQ(answer == "(0,)\n", GetParam().mayCall) << answer;
  EXPECT_EQ(answer.find("AccessDenied") != std::string::npos, !GetParam().mayCall) << answer;
  EXPECT_EQ(daemon.Received().size(), GetParam().mayCall ? 1U : 0U);
}

TEST_P(Policy, SaysWhoHearsTheDaemon) {
  PrivateBus bus(m_file.Configuration() + OwnerMayBeTheTest());
  PlainPeer daemon;
  ASSERT_TRUE(daemon.Own());
  ChildProcess monitor({"gdbus", "monitor", "--system", "--dest", BUS_NAME},
                       {geteuid() == 0 ? std::optional(Player()) : std::nullopt, true, {}});
  const auto mark = [&](const char* text) {
    daemon.Emit(g_variant_new("(s)", text), "marker", "org.example.Marker");
  };
  ASSERT_TRUE(monitor.ReadLineWith("is owned by"));
  // It prints that before it subscribes.
  ASSERT_TRUE(WaitUntil([&] {
    mark("first");
    return monitor.HasLine();
  }));
  mark("begin");
  ASSERT_TRUE(monitor.ReadLineWith("('begin',)"));
  daemon.EmitEvent("event", "data");
  mark("end");
  const std::string line = monitor.ReadLine().value_or("");
  EXPECT_EQ(line.find("('event', 'data')") != std::string::npos, GetParam().mayHear) << line;
  EXPECT_EQ(line.find("('end',)") != std::string::npos, !GetParam().mayHear) << line;
}

INSTANTIATE_TEST_SUITE_P(Roles, Policy, testing::ValuesIn(ROLES),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(PolicyAsShipped, KeepsOutEventsThatTheDaemonDidNotSend) {
  const PolicyFile file(PolicyFor(ROLES[0], UserName(), {}));
  PrivateBus bus(file.Configuration());
  PlainPeer daemon;
  PlainPeer pretender;
  PlainPeer application;
  ASSERT_TRUE(daemon.Own());
  application.Listen();
  pretender.EmitEvent("made", "up");
  daemon.EmitEvent("real", "one");
  ASSERT_TRUE(WaitUntil([&] { return !application.Heard().empty(); }));
  EXPECT_EQ(application.Heard(), std::vector<Event>({{"real", "one"}}));
}

TEST(PolicyAsShipped, NamesADestinationInEverySendRule) {
  std::ifstream file(ONDARO_TEST_POLICY);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  int rules = 0;
  for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
    const std::string element = text.substr(at, text.find('>', at) - at);
    if (element.find(" send_") == std::string::npos) {
      continue;
    }
    ++rules;
    EXPECT_NE(element.find("send_destination=\"com.halvex.tv.ondaro\""), std::string::npos)
        << element;
  }
  EXPECT_GT(rules, 0);
}

}  // namespace
}  // namespace ondaro::test
