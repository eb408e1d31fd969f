// A process of the store, driven by lines on its standard input. Each command is answered by one
// line "> ..."; a change called back is a line "* key=value", an error line of the backend "! ...".

#include <glib.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace {

volatile int g_syncs = 0;
volatile int g_signalAtSync = 0;
GMainLoop* g_loop = nullptr;

void Answer(const std::string& text) { std::cout << "> " << text << std::endl; }

std::string Get(const std::string& key) {
  char* value = platform_settings_get_string(key.c_str());
  const std::string text = value != nullptr ? value : "(null)";
  std::free(value);
  return text;
}

void PrintChange(platform_settings_node* node, void* /*userData*/) {
  std::cout << "* " << platform_settings_node_name(node) << "="
            << platform_settings_node_string(node) << std::endl;
}

/// As other libraries do: the store is used when all that ends before it has ended.
void SetAtExit() { platform_settings_set_string("db/exit", Get("db/before-exit").c_str()); }

/// `COUNT` writes in a row, "PREFIX-0" to the last; the number of failed ones.
int Burst(const std::string& key, int count, const std::string& prefix) {
  int failed = 0;
  for (int i = 0; i < count; ++i) {
    const std::string value = prefix + "-" + std::to_string(i);
    failed += platform_settings_set_string(key.c_str(), value.c_str()) != 0 ? 1 : 0;
  }
  return failed;
}

/// Makes root obey the modes of files like anyone.
long DropCapabilities() {
  constexpr unsigned VERSION_3 = 0x20080522;
  struct {
    unsigned version = VERSION_3;
    int pid = 0;
  } header;
  const unsigned none[6] = {};
  return syscall(SYS_capset, &header, none);
}

/// From here on the disk is full for each file of that size.
int LimitFiles(rlim_t bytes) {
  rlimit limit = {};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = bytes == 0 ? limit.rlim_max : bytes;
  signal(SIGXFSZ, SIG_IGN);
  return setrlimit(RLIMIT_FSIZE, &limit);
}

using Arguments = std::istringstream;
using Command = std::function<std::string(Arguments&)>;

template <typename Value>
Value Next(Arguments& arguments) {
  Value value{};
  arguments >> value;
  return value;
}

const std::map<std::string, Command>& Commands() {
  static const std::map<std::string, Command> commands = {
      {"get", [](Arguments& line) { return Get(Next<std::string>(line)); }},
      {"set",
       [](Arguments& line) {
         const auto key = Next<std::string>(line);
         const auto value = Next<std::string>(line);
         return std::to_string(platform_settings_set_string(key.c_str(), value.c_str()));
       }},
      {"set-large",
       [](Arguments& line) {
         const auto key = Next<std::string>(line);
         const std::string value(Next<std::size_t>(line), 'x');
         return std::to_string(platform_settings_set_string(key.c_str(), value.c_str()));
       }},
      {"burst",
       [](Arguments& line) {
         const auto key = Next<std::string>(line);
         const auto count = Next<int>(line);
         return std::to_string(Burst(key, count, Next<std::string>(line)));
       }},
      {"subscribe",
       [](Arguments& line) {
         return std::to_string(
             platform_settings_subscribe(Next<std::string>(line).c_str(), PrintChange, nullptr));
       }},
      {"syncs", [](Arguments&) { return std::to_string(g_syncs); }},
      {"signal-at-sync",
       [](Arguments& line) {
         g_signalAtSync = Next<int>(line);
         return std::string();
       }},
      {"drop-capabilities", [](Arguments&) { return std::to_string(DropCapabilities()); }},
      {"limit-files",
       [](Arguments& line) { return std::to_string(LimitFiles(Next<rlim_t>(line))); }},
      {"set-at-exit", [](Arguments&) { return std::to_string(std::atexit(&SetAtExit)); }},
  };
  return commands;
}

gboolean OnInput(GIOChannel* channel, GIOCondition, gpointer) {
  gchar* line = nullptr;
  if (g_io_channel_read_line(channel, &line, nullptr, nullptr, nullptr) != G_IO_STATUS_NORMAL) {
    g_main_loop_quit(g_loop);
    return G_SOURCE_REMOVE;
  }
  Arguments arguments(line);
  g_free(line);
  Answer(Commands().at(Next<std::string>(arguments))(arguments));
  return G_SOURCE_CONTINUE;
}

}  // namespace

/// Called by the engine in place of the C library's: counts, and strikes in the middle of a commit.
extern "C" int fdatasync(int fd) {
  g_syncs = g_syncs + 1;
  if (const int number = g_signalAtSync) {
    g_signalAtSync = 0;
    raise(number);
  }
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

int platform_log_print(int, int, const char*, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  std::cout << "! " << text << std::endl;
  g_free(text);
  return 0;
}

int main() {
  g_loop = g_main_loop_new(nullptr, FALSE);
  GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
  const guint watch =
      g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &OnInput, nullptr);
  Answer("ready");
  g_main_loop_run(g_loop);
  static_cast<void>(watch);
  g_io_channel_unref(input);
  g_main_loop_unref(g_loop);
  return 0;
}
