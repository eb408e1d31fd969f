#include <algorithm>
#include <list>

#include "Bus.h"
#include "Client.h"
#include "InputLines.h"
#include "Text.h"
#include "Verbs.h"
#include "ondaro/OndaroApi.h"

namespace ondaro::ctl {
namespace {

struct EventOptions {
  std::vector<std::string> names;
  Limits limits;
};

/// Shows the events of the names given, as the library delivers them.
class EventPrinter {
 public:
  struct Event {
    EventPrinter& printer;
    std::string name;
  };

  EventPrinter(const Output& output, MainLoop& loop, const EventOptions& options)
      : m_output(output), m_loop(loop), m_count(options.limits.count) {
    for (const std::string& name : options.names) {
      m_events.push_back({*this, name});
    }
  }

  EventPrinter(const EventPrinter&) = delete;
  EventPrinter& operator=(const EventPrinter&) = delete;

  std::list<Event>& Events() { return m_events; }

  /// The C callback of both ends; its user data is the Event.
  static void OnEvent(const char* data, void* userData) {
    const auto& event = *static_cast<Event*>(userData);
    event.printer.m_loop.Protect([&] { event.printer.Print(event.name, data); });
  }

 private:
  void Print(const std::string& name, const std::string& data) {
    const std::string time = Now();
    Json::Value object;
    object["time"] = time;
    object["event"] = JsonText(name);
    object["data"] = JsonText(data);
    m_output.Result(time + " " + m_output.Emphasis(OneLine(name)) + " " + OneLine(data), object);
    if (++m_shown == m_count) {
      m_loop.Stop();
    }
  }

  const Output& m_output;
  MainLoop& m_loop;
  std::uint64_t m_count;
  std::uint64_t m_shown = 0;
  std::list<Event> m_events;
};

// ---- The daemon's end ---------------------------------------------------------------------------

class Server {
 public:
  Server(const Output& output, const EventOptions& options)
      : m_output(output), m_bus(m_loop), m_pHandle(Handle()), m_printer(output, m_loop, options) {
    for (EventPrinter::Event& event : m_printer.Events()) {
      OndaroApi_IpcServer_RegisterEventHandler(m_pHandle, event.name.c_str(), EventPrinter::OnEvent,
                                               &event);
    }
    m_nNameWatch = g_bus_watch_name_on_connection(m_bus.Connection(), DAEMON_NAME,
                                                  G_BUS_NAME_WATCHER_FLAGS_NONE, OnOwner, nullptr,
                                                  this, nullptr);
  }

  ~Server() {
    g_bus_unwatch_name(m_nNameWatch);
    OndaroApi_IpcServer_UnregisterEventHandler(m_pHandle);
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void Run(std::optional<double> seconds) {
    m_output.Note(std::string("asking the bus for the name ") + DAEMON_NAME);
    m_loop.Run(seconds, "the time is over");
  }

 private:
  static OndaroApi_IpcServer_h Handle() {
    const OndaroApi_IpcServer_h handle = OndaroFactory_GetIpcServerHandle();
    if (handle == nullptr) {
      throw Failure(ExitCode::Failed,
                    "the interface description of the daemon could not be used; "
                    "'--log error' shows why");
    }
    return handle;
  }

  static void OnOwner(GDBusConnection* /*connection*/, const gchar* /*name*/, const gchar* owner,
                      gpointer userData) {
    auto* const pThis = static_cast<Server*>(userData);
    pThis->m_loop.Protect([&] { pThis->NameOwnedBy(owner); });
  }

  void NameOwnedBy(const std::string& owner) {
    if (owner != m_bus.OwnName()) {
      m_hasQueued = true;
      m_output.Note("another daemon owns the name; waiting for it to end");
      return;
    }
    if (m_hasQueued) {
      m_output.Note("took the name over; calls of applications fail until it is started again");
    }
    // The library learns of its name no later than that.
    m_bus.AfterRoundTrip([this] { Begin(); });
  }

  void Begin() {
    m_output.Ready();
    if (!m_lines) {
      m_lines.emplace(m_loop, [this](std::string_view line) { Send(line); });
    }
  }

  void Send(std::string_view line) {
    if (line.empty()) {
      return;
    }
    const std::size_t space = std::min(line.find(' '), line.size());
    const std::string event(line.substr(0, space));
    const std::string data(line.substr(std::min(space + 1, line.size())));
    if (OndaroApi_IpcServer_SendDataToClient(m_pHandle, event.c_str(), data.c_str()) != 0) {
      m_output.Error("'" + OneLine(event) +
                     "' was not sent: event and data must be UTF-8 and "
                     "together shorter than 32 MiB; '--log error' shows more");
    }
  }

  const Output& m_output;
  MainLoop m_loop;
  Bus m_bus;
  OndaroApi_IpcServer_h m_pHandle;
  EventPrinter m_printer;
  guint m_nNameWatch = 0;
  bool m_hasQueued = false;
  std::optional<InputLines> m_lines;
};

void Serve(const Output& output, const EventOptions& options) {
  Server(output, options).Run(options.limits.seconds);
}

// ---- The application's end ----------------------------------------------------------------------

class ClientRegistrations {
 public:
  ClientRegistrations(OndaroApi_IpcClient_h handle, std::list<EventPrinter::Event>& events)
      : m_pHandle(handle) {
    for (EventPrinter::Event& event : events) {
      OndaroApi_IpcClient_RegisterEventHandler(handle, event.name.c_str(), EventPrinter::OnEvent,
                                               &event);
    }
  }
  ~ClientRegistrations() { OndaroApi_IpcClient_UnregisterEventHandler(m_pHandle); }

  ClientRegistrations(const ClientRegistrations&) = delete;
  ClientRegistrations& operator=(const ClientRegistrations&) = delete;

 private:
  OndaroApi_IpcClient_h m_pHandle;
};

void Listen(const Output& output, const EventOptions& options) {
  MainLoop loop;
  Bus bus(loop);
  EventPrinter printer(output, loop, options);
  std::optional<ClientRegistrations> registrations;
  bus.WhenDaemonAnswers([&] {
    registrations.emplace(Client(), printer.Events());
    bus.AfterRoundTrip([&] { output.Ready(); });
  });
  loop.Run(options.limits.seconds, "the time is over");
}

}  // namespace

void AddMessageVerbs(CLI::App& app, Session& session) {
  auto options = std::make_shared<EventOptions>();
  CLI::App& serve = *app.add_subcommand(
      "serve", "Be the daemon: print events, send lines 'EVENT DATA' of standard input");
  serve.add_option("EVENT", options->names, "Names of the events to print")->required();
  AddLimits(serve, options->limits);
  OnVerb(serve, session, options, Serve);

  CLI::App& listen = *app.add_subcommand("listen", "Be an application: print events of the daemon");
  listen.add_option("EVENT", options->names, "Names of the events to print")->required();
  AddLimits(listen, options->limits);
  OnVerb(listen, session, options, Listen);
}

}  // namespace ondaro::ctl
