#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "doctor/DoctorChecks.h"
#include "ondaro/OndaroApi.h"
#include "properties/Properties.h"
#include "support/ExitCode.h"
#include "support/LineReader.h"

namespace ondaro::ctl {
namespace {

enum Verdict { USABLE, REFUSED, WRONG };

bool HasTypes(GDBusArgInfo** arguments, const std::string& types) {
  std::string found;
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    found += (*arguments)->signature;
  }
  return found == types;
}

/// The daemon's end registers the first interface of the root node.
bool DescribesMessaging(const GDBusNodeInfo& node) {
  GDBusInterfaceInfo* const interface = node.interfaces == nullptr ? nullptr : node.interfaces[0];
  if (interface == nullptr || g_strcmp0(node.path, DAEMON_PATH) != 0 ||
      g_strcmp0(interface->name, DAEMON_NAME) != 0) {
    return false;
  }
  const GDBusMethodInfo* const method =
      g_dbus_interface_info_lookup_method(interface, DAEMON_METHOD);
  const GDBusSignalInfo* const signal =
      g_dbus_interface_info_lookup_signal(interface, DAEMON_SIGNAL);
  return method != nullptr && HasTypes(method->in_args, "ss") && HasTypes(method->out_args, "i") &&
         signal != nullptr && HasTypes(signal->args, "ss");
}

bool DescribesMessaging(const std::string& file) {
  const GLibOwner<GDBusNodeInfo, g_dbus_node_info_unref> node(
      g_dbus_node_info_new_for_xml(LineReader(file).ReadWhole().c_str(), nullptr));
  return node != nullptr && DescribesMessaging(*node);
}

Verdict Judge(const std::string& file) noexcept {
  try {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null", 1);
    if (OndaroFactory_GetIpcServerHandle() == nullptr) {
      return REFUSED;
    }
    return DescribesMessaging(file) ? USABLE : WRONG;
  } catch (...) {
    return WRONG;
  }
}

int WaitFor(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Finding CheckDescription(const std::string& file) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(Judge(file));
  }
  switch (WaitFor(child)) {
    case USABLE:
      return {Finding::State::Ok, file + " describes the daemon's interface"};
    case REFUSED:
      throw Failure(ExitCode::Failed, "the library cannot use " ONDARO_INTERFACE_DESCRIPTION
                                      "; install it again" +
                                          SeeLog());
    default:
      throw Failure(ExitCode::Failed, file +
                                          " does not describe the daemon's interface; install "
                                          "com.halvex.tv.ondaro.interface.xml again");
  }
}

}  // namespace ondaro::ctl
