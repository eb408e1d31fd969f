#include "support/PrivateBus.h"

#include <fcntl.h>

namespace ondaro::test {

const char* const OPEN_POLICY = R"(
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_type="signal"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>)";

PrivateBus::PrivateBus(const std::string& policy) {
  const std::string address = "unix:path=" + m_directory / "socket";
  // Other users' processes reach the socket too.
  std::filesystem::permissions(m_directory.Path(), std::filesystem::perms(0755));
  WriteFile(m_configuration,
            "<busconfig>\n  <type>system</type>\n  <auth>EXTERNAL</auth>\n  <listen>" + address +
                "</listen>" + policy + "\n</busconfig>\n");
  Start();
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

void PrivateBus::Start() {
  const std::string log = m_directory / "bus.log", option = "--config-file=" + m_configuration;
  int address[2] = {-1, -1};
  bool isReady = pipe2(address, O_CLOEXEC) == 0;
  m_daemon.emplace(
      [&] {
        dup2(address[1], STDOUT_FILENO);
        dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDERR_FILENO);
        execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile",
               "--nosyslog", "--print-address", nullptr);
        _exit(1);
      },
      0);
  close(address[1]);
  char first = 0;
  isReady = isReady && read(address[0], &first, 1) == 1;
  close(address[0]);
  if (!isReady) {
    throw std::runtime_error("the private bus did not start: " + ReadFile(log));
  }
}

}  // namespace ondaro::test
