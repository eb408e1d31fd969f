// One end of the messaging, or both, in a process of its own, driven through the exported functions
// by lines on standard input. Each is answered with "done" or, where the library says so, "failed";
// events go to standard output too, a line "NAME DATA" each.
//
//   get server|client|config|auth  get the handle
//   race COUNT           that many threads get all handles at once
//   expect NAME          register, as server or client, and print events
//   end NAME             end the main thread with the first event
//   echo NAME REPLY      server: answer NAME's data with the event REPLY
//   send NAME DATA       from the end whose handle was got last
//   volley COUNT WINDOW  client: COUNT events "ping" with WINDOW unanswered at most, each of which
//                        must come back as "pong", in order; answered when all have
//   flood NAME COUNT     send COUNT events; no answer
//   quit                 exit at once, whatever is under way
//
// The main loop runs between two lines. The process ends with its input too.
#include <gio/gio.h>
#include <glib-unix.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ondaro/OndaroApi.h"

namespace {

using Handler = std::function<void(const char* data)>;

// All of it outlives main(): the library's objects point to it.
OndaroApi_IpcServer_h g_server = nullptr;
OndaroApi_IpcClient_h g_client = nullptr;
bool g_sendsToClient = false;
std::list<Handler> g_handlers;

void Say(const std::string& text) { std::printf("%s\n", text.c_str()); }
void Answer(bool isDone) { Say(isDone ? "done" : "failed"); }

std::string ReadLine() {
  std::string line;
  for (int byte = std::getchar(); byte != '\n'; byte = std::getchar()) {
    if (byte == EOF) {
      std::exit(EXIT_SUCCESS);
    }
    line += static_cast<char>(byte);
  }
  return line;
}

const void* Get(const std::string& family) {
  g_sendsToClient = family == "server" || (family != "client" && g_sendsToClient);
  if (family == "server") {
    return g_server = OndaroFactory_GetIpcServerHandle();
  }
  if (family == "client") {
    return g_client = OndaroFactory_GetIpcClientHandle();
  }
  return family == "config" ? static_cast<const void*>(OndaroFactory_GetSystemConfigHandle())
                            : OndaroFactory_GetCoreAuthHandle();
}

/// Each thread begins with another family. True when all were given the same handles.
bool Race(std::size_t count) {
  using Handles = std::array<const void*, 4>;
  std::vector<Handles> got(count);
  std::atomic<std::size_t> waiting{count};
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      for (--waiting; waiting > 0;) {
        std::this_thread::yield();
      }
      const std::function<const void*()> getters[] = {
          OndaroFactory_GetIpcServerHandle, OndaroFactory_GetIpcClientHandle,
          OndaroFactory_GetSystemConfigHandle, OndaroFactory_GetCoreAuthHandle};
      for (std::size_t turn = number; turn < number + 4; ++turn) {
        got[number][turn % 4] = getters[turn % 4]();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const bool isAnyNull = std::count(got[0].begin(), got[0].end(), nullptr) > 0;
  return !isAnyNull && std::count(got.begin(), got.end(), got[0]) == std::ptrdiff_t(count);
}

void Register(const std::string& name, const Handler& handler) {
  const auto call = [](const char* data, void* entry) { (*static_cast<Handler*>(entry))(data); };
  void* entry = &g_handlers.emplace_back(handler);
  if (g_sendsToClient) {
    OndaroApi_IpcServer_RegisterEventHandler(g_server, name.c_str(), call, entry);
  } else {
    OndaroApi_IpcClient_RegisterEventHandler(g_client, name.c_str(), call, entry);
  }
}

bool Send(const std::string& name, const std::string& data) {
  return 0 == (g_sendsToClient
                   ? OndaroApi_IpcServer_SendDataToClient(g_server, name.c_str(), data.c_str())
                   : OndaroApi_IpcClient_SendDataToServer(g_client, name.c_str(), data.c_str()));
}

void Expect(const std::string& name) {
  Register(name, [name](const char* data) { Say(name + " " + data); });
  Answer(true);
}

void Echo(const std::string& name, const std::string& reply) {
  Register(name, [reply](const char* data) {
    OndaroApi_IpcServer_SendDataToClient(g_server, reply.c_str(), data);
  });
  Answer(true);
}

void Volley(long count, long window) {
  static long sent, answered;
  sent = answered = 0;
  const auto sendOn = [=] {
    while (sent < count && sent - answered < window) {
      Send("ping", std::to_string(sent++));
    }
  };
  Register("pong", [=](const char* data) {
    if (data != std::to_string(answered)) {
      Say(std::string("volley: ") + data + " instead of " + std::to_string(answered));
    }
    if (++answered == count) {
      Answer(true);
    }
    sendOn();
  });
  sendOn();
}

void Run(const std::string& line) {
  std::istringstream words(line);
  std::string command, first, second;
  words >> command >> first >> second;
  const auto number = [](const std::string& text) { return std::stol(text); };
  const std::map<std::string, std::function<void()>> commands = {
      {"get", [&] { Answer(Get(first) != nullptr); }},
      {"race", [&] { Answer(Race(std::stoul(first))); }},
      {"expect", [&] { Expect(first); }},
      {"end",
       [&] {
         Register(first, [](const char*) { pthread_exit(nullptr); });
         Answer(true);
       }},
      {"echo", [&] { Echo(first, second); }},
      {"send", [&] { Answer(Send(first, second)); }},
      {"volley", [&] { Volley(number(first), number(second)); }},
      {"flood",
       [&] {
         for (long i = 0; i < number(second); ++i) {
           Send(first, std::to_string(i));
         }
       }},
      {"quit", [] { std::exit(EXIT_SUCCESS); }}};
  commands.at(command)();
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  std::setvbuf(stdin, nullptr, _IONBF, 0);  // the next line stays for the main loop to see
  const auto onInput = [](gint, GIOCondition, gpointer) -> gboolean {
    Run(ReadLine());
    return G_SOURCE_CONTINUE;
  };
  g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), onInput, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
