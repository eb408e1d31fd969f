#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "doctor/DoctorChecks.h"
#include "ondaro/OndaroApi.h"
#include "properties/Properties.h"
#include "support/ExitCode.h"
#include "text/LineReader.h"

namespace ondaro::ctl {
namespace {

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
  try {
    const GLibOwner<GDBusNodeInfo, g_dbus_node_info_unref> node(
        g_dbus_node_info_new_for_xml(LineReader(file).ReadWhole().c_str(), nullptr));
    return node != nullptr && DescribesMessaging(*node);
  } catch (const Failure&) {  // not to be read
    return false;
  }
}

/// Where the daemon's end finds no bus on which it could take the name.
[[noreturn]] void MakeDaemonsEnd() noexcept {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null", 1);
  _exit(OndaroFactory_GetIpcServerHandle() == nullptr ? 1 : 0);
}

}  // namespace

Finding CheckDescription(const std::string& file) {
  const pid_t child = fork();
  if (child == 0) {
    MakeDaemonsEnd();
  }
  int status = -1;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  RequireOfSet(WIFEXITED(status) && WEXITSTATUS(status) == 0,
               "the library cannot use " ONDARO_INTERFACE_DESCRIPTION "; install it again");
  Require(DescribesMessaging(file), file +
                                        " does not describe the daemon's interface; install "
                                        "com.halvex.tv.ondaro.interface.xml again");
  return {Finding::State::Ok, file + " describes the daemon's interface"};
}

}  // namespace ondaro::ctl
