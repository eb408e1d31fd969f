// The daemon's end through the library. See BusBench.cpp for the letters on standard input.
#include <gio/gio.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "BusLog.h"
#include "ondaro/OndaroApi.h"

namespace {

struct Daemon {
  OndaroApi_IpcServer_h ipc;
  std::string payload;
};

gboolean OnInput(GIOChannel*, GIOCondition, gpointer userData) {
  auto* daemon = static_cast<Daemon*>(userData);
  char letters[64];
  const ssize_t size = read(STDIN_FILENO, letters, sizeof letters);
  if (size <= 0) {
    std::exit(EXIT_SUCCESS);
  }
  for (ssize_t i = 0; i < size; ++i) {
    if (letters[i] == 's') {
      OndaroApi_IpcServer_SendDataToClient(daemon->ipc, "event", daemon->payload.c_str());
    } else {
      daemon->payload.assign(std::size_t{1} << (letters[i] - 'A'), 'x');
    }
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    ondaro::bench::LogToFile(argv[1]);
  }
  static Daemon daemon{OndaroFactory_GetIpcServerHandle(), {}};
  OndaroApi_IpcServer_RegisterEventHandler(
      daemon.ipc, "event", [](const char*, void*) {}, nullptr);
  g_io_add_watch(g_io_channel_unix_new(STDIN_FILENO), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                 OnInput, &daemon);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
