// Who may own the name, call the daemon and hear its events, asked of a real dbus-daemon that
// reads the shipped policy after the defaults of a system bus.
//
// The policy's names are made to be accounts that every Debian has. Run by root, each role is
// played by a user of its own; run by another user, that one plays every role in turn.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>
#include <regex>

#include "support/Files.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

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

struct Role {
  const char* name;
  const char* attribute;  // that names the role in the policy; none does everybody else
  const char* account;
  bool mayOwn, mayCallAndHear;

  friend void PrintTo(const Role& role, std::ostream* stream) { *stream << role.name; }
};

const Role ROLES[] = {{"Root", "user=\"root\"", "root", true, true},
                      {"DaemonUser", "user=\"ondaro\"", "games", true, false},
                      {"ApplicationGroup", "group=\"ondaro\"", "news", false, true},
                      {"Anybody", nullptr, "nobody", false, false}};
const Role& DAEMON = ROLES[1];
const Role& APPLICATION = ROLES[2];

bool IsRoot() { return geteuid() == 0; }

passwd PlayerOf(const Role& role) {
  return *(IsRoot() ? getpwnam(role.account) : getpwuid(geteuid()));
}

/// The thread alone becomes the role's player, which no function of the C library does. The kernel
/// tells the bus who a connection's maker was at that time.
class AsPlayer {
 public:
  explicit AsPlayer(const Role& role) {
    const passwd player = PlayerOf(role);
    if (IsRoot()) {
      syscall(SYS_setgroups, 0, nullptr);
      syscall(SYS_setresgid, player.pw_gid, player.pw_gid, player.pw_gid);
      syscall(SYS_setresuid, player.pw_uid, player.pw_uid, 0);
    }
  }
  ~AsPlayer() {
    if (syscall(SYS_setresuid, 0, 0, 0) == 0) {
      syscall(SYS_setresgid, 0, 0, 0);
    }
  }
  AsPlayer(const AsPlayer&) = delete;
  AsPlayer& operator=(const AsPlayer&) = delete;
};

/// The shipped policy, its names made to be the players': of all roles, or of the one there is.
std::string Names(const Role& played) {
  std::string text = ReadFile(ONDARO_TEST_POLICY);
  for (const Role& role : ROLES) {
    if (role.attribute != nullptr && (IsRoot() || std::string(role.name) == played.name)) {
      const passwd player = PlayerOf(role);
      const bool isUser = role.attribute[0] == 'u';
      const std::string name = isUser ? player.pw_name : getgrgid(player.pw_gid)->gr_name;
      text = std::regex_replace(text, std::regex(role.attribute),
                                std::string(isUser ? "user=\"" : "group=\"").append(name) + '"');
    }
  }
  return text;
}

/// A bus with the policy on it.
class Stage {
 public:
  explicit Stage(const Role& played, const std::string& more = "") {
    WriteFile(m_directory / "policy", Names(played));
    const std::string include = "<include>" + m_directory / "policy" + "</include>";
    m_bus.emplace(SYSTEM_DEFAULTS + include + more);
    // GLib's thread starts with the first connection and stays what its maker was.
    m_first.emplace();
  }

 private:
  const TemporaryDirectory m_directory;
  std::optional<PrivateBus> m_bus;
  std::optional<PlainPeer> m_first;
};

PlainPeer Connect(const Role& role) {
  const AsPlayer player(role);
  return PlainPeer();
}

/// Where one user plays all roles, it owns the name as well.
std::string OwnerMayBeAnybody() {
  const std::string rule = std::string("<allow own=\"") + BUS_NAME + "\"/>";
  return IsRoot() ? "" : "<policy context=\"mandatory\">" + rule + "</policy>";
}

/// Sends the event to everybody, and to one alone.
void SendTwice(PlainPeer& from, const PlainPeer& to, const char* name, const char* interface) {
  for (const char* destination : {"", g_dbus_connection_get_unique_name(to.Connection())}) {
    from.Emit(g_variant_new("(ss)", name, "data"), SIGNAL, interface, OBJECT_PATH,
              *destination == '\0' ? nullptr : destination);
  }
}

/// What it has been sent until now.
std::vector<std::string> Heard(const PlainPeer& peer) {
  SyncWithBus(peer.Connection());
  Drain();
  return peer.Heard();
}

class Policy : public testing::TestWithParam<Role> {};

TEST_P(Policy, SaysWhoOwnsTheName) {
  const Stage stage(GetParam());
  EXPECT_EQ(Connect(GetParam()).Own(), GetParam().mayOwn);
}

TEST_P(Policy, SaysWhoCallsTheDaemonAndWhoHearsIt) {
  const Stage stage(GetParam(), OwnerMayBeAnybody());
  PlainPeer daemon = Connect(DAEMON), player = Connect(GetParam());
  ASSERT_TRUE(daemon.Own());
  // It serves no object, and GLib says so to a call that reaches it.
  const std::string answer = player.Call(g_variant_new("(ss)", "event", "data"));
  EXPECT_NE(answer.find(GetParam().mayCallAndHear ? "UnknownMethod" : "AccessDenied"),
            std::string::npos)
      << answer;
  SendTwice(daemon, player, "event", INTERFACE);
  EXPECT_EQ(Heard(player),
            std::vector<std::string>(GetParam().mayCallAndHear ? 2 : 0, "('event', 'data')"));
}

TEST_P(Policy, LetsTheOwnerHearEverybody) {
  const Stage stage(GetParam(), OwnerMayBeAnybody());
  PlainPeer daemon = Connect(DAEMON), player = Connect(GetParam());
  ASSERT_TRUE(daemon.Own());
  SendTwice(player, daemon, "event", "org.example.Other");
  EXPECT_EQ(Heard(daemon), std::vector<std::string>(2, "('event', 'data')"));
}

TEST_P(Policy, KeepsOutEventsOfAllButTheOwner) {
  const Stage stage(APPLICATION, OwnerMayBeAnybody());
  PlainPeer daemon = Connect(DAEMON), player = Connect(GetParam());
  PlainPeer application = Connect(APPLICATION);
  ASSERT_TRUE(daemon.Own());
  SendTwice(player, application, "made up", INTERFACE);
  SendTwice(daemon, application, "real", INTERFACE);
  EXPECT_EQ(Heard(application), std::vector<std::string>(2, "('real', 'data')"));
}

INSTANTIATE_TEST_SUITE_P(Roles, Policy, testing::ValuesIn(ROLES),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace ondaro::test
