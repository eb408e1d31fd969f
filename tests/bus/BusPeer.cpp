// One end of the messaging, or both, in a process of its own, driven through the exported functions
// by lines on standard input; answers and events go to standard output, a line each:
//
//   server | client | config | auth     get the handle              -> "server ok" or "server null"
//   expect NAME (as server or client)   register, print events      -> later "NAME DATA"
//   echo NAME REPLY                     server: answer NAME's data with the event REPLY
//   send NAME DATA                      from the end whose handle was got last -> "sent CODE"
//   clear                               unregister everything       -> "cleared"
//   sync                                wait for what the bus has sent so far -> "synced"
//   volley COUNT WINDOW                 client: COUNT events "ping" with WINDOW unanswered at most;
//                                       each must come back as "pong", in order -> "volley ok"
//   flood NAME COUNT                    send COUNT events and say nothing
//   memory                              -> "memory KIB", resident now
//   quit                                exit at once, whatever is under way
//
// The main loop runs between two lines. The process ends with its input too.
#include <gio/gio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ondaro/OndaroApi.h"

namespace {

class Peer {
 public:
  void Run(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    const auto entry = COMMANDS.find(command);
    if (entry == COMMANDS.end()) {
      Say("unknown " + command);
      return;
    }
    (this->*entry->second)(words);
  }

  static void Say(const std::string& text) { std::printf("%s\n", text.c_str()); }

 private:
  using Command = void (Peer::*)(std::istringstream&);
  static const std::map<std::string, Command> COMMANDS;

  struct Registration {
    std::string name;
    std::string reply;
    Peer* peer;
  };

  static std::string Word(std::istringstream& words) {
    std::string word;
    words >> word;
    return word;
  }

  void GetServer(std::istringstream&) {
    m_server = OndaroFactory_GetIpcServerHandle();
    m_sendsToClient = true;
    Say(m_server != nullptr ? "server ok" : "server null");
  }

  void GetClient(std::istringstream&) {
    m_client = OndaroFactory_GetIpcClientHandle();
    m_sendsToClient = false;
    Say(m_client != nullptr ? "client ok" : "client null");
  }

  void GetConfig(std::istringstream&) {
    Say(OndaroFactory_GetSystemConfigHandle() != nullptr ? "config ok" : "config null");
  }

  void GetAuth(std::istringstream&) {
    Say(OndaroFactory_GetCoreAuthHandle() != nullptr ? "auth ok" : "auth null");
  }

  Registration* Remember(const std::string& name, const std::string& reply) {
    m_registrations.push_back(std::make_unique<Registration>(Registration{name, reply, this}));
    return m_registrations.back().get();
  }

  void Expect(std::istringstream& words) {
    Registration* registration = Remember(Word(words), {});
    const auto print = [](const char* data, void* userData) {
      Say(static_cast<Registration*>(userData)->name + " " + data);
    };
    if (m_sendsToClient) {
      OndaroApi_IpcServer_RegisterEventHandler(m_server, registration->name.c_str(), print,
                                               registration);
    } else {
      OndaroApi_IpcClient_RegisterEventHandler(m_client, registration->name.c_str(), print,
                                               registration);
    }
    Say("expecting " + registration->name);
  }

  void Echo(std::istringstream& words) {
    const std::string name = Word(words);
    Registration* registration = Remember(name, Word(words));
    OndaroApi_IpcServer_RegisterEventHandler(
        m_server, name.c_str(),
        [](const char* data, void* userData) {
          const auto* self = static_cast<Registration*>(userData);
          OndaroApi_IpcServer_SendDataToClient(self->peer->m_server, self->reply.c_str(), data);
        },
        registration);
    Say("echoing " + name);
  }

  int SendEvent(const std::string& name, const std::string& data) {
    return m_sendsToClient
               ? OndaroApi_IpcServer_SendDataToClient(m_server, name.c_str(), data.c_str())
               : OndaroApi_IpcClient_SendDataToServer(m_client, name.c_str(), data.c_str());
  }

  void Send(std::istringstream& words) {
    const std::string name = Word(words);
    Say("sent " + std::to_string(SendEvent(name, Word(words))));
  }

  void Clear(std::istringstream&) {
    if (m_sendsToClient) {
      OndaroApi_IpcServer_UnregisterEventHandler(m_server);
    } else {
      OndaroApi_IpcClient_UnregisterEventHandler(m_client);
    }
    Say("cleared");
  }

  void Sync(std::istringstream&) {
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    g_variant_unref(reply);
    g_object_unref(connection);
    Say("synced");
  }

  void Volley(std::istringstream& words) {
    words >> m_count >> m_window;
    m_sent = m_answered = 0;
    OndaroApi_IpcClient_RegisterEventHandler(
        m_client, "pong",
        [](const char* data, void* userData) { static_cast<Peer*>(userData)->Answered(data); },
        this);
    SendOn();
  }

  void SendOn() {
    while (m_sent < m_count && m_sent - m_answered < m_window) {
      SendEvent("ping", std::to_string(m_sent++));
    }
  }

  void Answered(const std::string& data) {
    if (data != std::to_string(m_answered)) {
      Say("volley: " + data + " instead of " + std::to_string(m_answered));
      std::exit(EXIT_FAILURE);
    }
    ++m_answered;
    if (m_answered == m_count) {
      Say("volley ok");
    }
    SendOn();
  }

  void Flood(std::istringstream& words) {
    const std::string name = Word(words);
    const int count = std::stoi(Word(words));
    for (int i = 0; i < count; ++i) {
      SendEvent(name, std::to_string(i));
    }
  }

  void Memory(std::istringstream&) {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    Say("memory " + std::to_string(resident * (sysconf(_SC_PAGESIZE) / 1024)));
  }

  void Quit(std::istringstream&) { std::exit(EXIT_SUCCESS); }

  OndaroApi_IpcServer_h m_server = nullptr;
  OndaroApi_IpcClient_h m_client = nullptr;
  bool m_sendsToClient = false;
  std::vector<std::unique_ptr<Registration>> m_registrations;
  long m_count = 0;
  long m_window = 0;
  long m_sent = 0;
  long m_answered = 0;
};

const std::map<std::string, Peer::Command> Peer::COMMANDS = {
    {"server", &Peer::GetServer}, {"client", &Peer::GetClient}, {"config", &Peer::GetConfig},
    {"auth", &Peer::GetAuth},     {"expect", &Peer::Expect},    {"echo", &Peer::Echo},
    {"send", &Peer::Send},        {"clear", &Peer::Clear},      {"sync", &Peer::Sync},
    {"volley", &Peer::Volley},    {"flood", &Peer::Flood},      {"memory", &Peer::Memory},
    {"quit", &Peer::Quit},
};

gboolean OnInput(GIOChannel* channel, GIOCondition, gpointer peer) {
  gchar* text = nullptr;
  gsize end = 0;
  const GIOStatus status = g_io_channel_read_line(channel, &text, nullptr, &end, nullptr);
  if (status == G_IO_STATUS_AGAIN) {
    return G_SOURCE_CONTINUE;
  }
  if (status != G_IO_STATUS_NORMAL) {
    std::exit(EXIT_SUCCESS);
  }
  const std::string line(text, end);
  g_free(text);
  static_cast<Peer*>(peer)->Run(line);
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  static Peer peer;  // outlives main(): the library's objects point to its registrations
  GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
  g_io_channel_set_encoding(input, nullptr, nullptr);  // any bytes
  g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), OnInput, &peer);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
