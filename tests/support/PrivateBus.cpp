#include "support/PrivateBus.h"

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace ondaro::test {

namespace {

constexpr const char* ADDRESS_VARIABLE = "DBUS_SYSTEM_BUS_ADDRESS";

}  // namespace

const char* const OPEN_POLICY = R"(
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_type="signal"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>)";

PrivateBus::PrivateBus(const std::string& policy)
    : m_address("unix:path=" + m_directory / "socket") {
  // Other users' processes reach the socket too.
  std::filesystem::permissions(m_directory.Path(), std::filesystem::perms(0755));
  WriteFile(m_directory / "bus.conf",
            "<busconfig>\n  <type>system</type>\n  <auth>EXTERNAL</auth>\n  <listen>" + m_address +
                "</listen>" + policy + "\n</busconfig>\n");
  Start();
  setenv(ADDRESS_VARIABLE, m_address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  unsetenv(ADDRESS_VARIABLE);
  m_daemon.reset();
}

void PrivateBus::Kill() { m_daemon.reset(); }

void PrivateBus::Freeze() { m_daemon->Freeze(); }

void PrivateBus::Thaw() { m_daemon->Signal(SIGCONT); }

void PrivateBus::Start() {
  const std::string log = m_directory / "bus.log";
  m_daemon = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + m_directory / "bus.conf",
                               "--nofork", "--nopidfile", "--nosyslog", "--print-address"},
      log);
  if (m_daemon->ReadLine()) {
    return;
  }
  throw std::runtime_error("the private bus did not start: " + ReadFile(log));
}

}  // namespace ondaro::test
