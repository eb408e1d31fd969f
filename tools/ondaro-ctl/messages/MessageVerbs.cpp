#include <algorithm>
#include <list>

#include "Feed.h"
#include "messages/Bus.h"
#include "ondaro/OndaroApi.h"
#include "properties/Properties.h"
#include "text/LineReader.h"

namespace ondaro::ctl {
namespace {

void Show(Feed& feed, const std::string& event, const std::string& data) {
  feed.Show(JsonObject({{"event", JsonText(event)}, {"data", JsonText(data)}}), event, data);
}

/// What the C callback of both ends gets: an event of this name.
struct Named {
  Feed& feed;
  std::string name;

  static void OnEvent(const char* data, void* userData) {
    const auto& event = *static_cast<Named*>(userData);
    event.feed.Loop().Protect([&] { Show(event.feed, event.name, data); });
  }
};

/// One end of the messaging, showing events: those named, as the library delivers them, or all.
template <class Handle>
class End {
 public:
  End(const Output& output, const FeedOptions& options)
      : m_feed(output, options), m_bus(m_feed.Loop()) {
    for (const std::string& name : options.names) {
      m_named.push_back({m_feed, name});
    }
    if (m_named.empty()) {
      m_bus.WatchEvents([this](const std::string& event, const std::string& data) {
        // By then the library has answered the call: the last one may end the process.
        m_bus.AfterRoundTrip([this, event, data] { Show(m_feed, event, data); });
      });
    }
  }

 protected:
  void Register(void (*add)(Handle, const char*, void (*)(const char*, void*), void*)) {
    for (Named& named : m_named) {
      add(m_pHandle, named.name.c_str(), Named::OnEvent, &named);
    }
  }

  Feed m_feed;
  Bus m_bus;
  std::list<Named> m_named;
  Handle m_pHandle = nullptr;
};

// ---- The daemon's end ---------------------------------------------------------------------------

class Server : private End<OndaroApi_IpcServer_h> {
 public:
  Server(const Output& output, const FeedOptions& options) : End(output, options) {
    m_bus.WatchReplies("RequestName", [](const Reply& reply) {
      if (reply.IsRefusal()) {
        FailRefused("the daemon's name", WHO_MAY_OWN);
      }
    });
    m_pHandle = Made(OndaroFactory_GetIpcServerHandle(),
                     "the interface description of the daemon could not be used");
    Register(OndaroApi_IpcServer_RegisterEventHandler);
    m_bus.WatchOwner([this](const std::string& owner) { OwnedBy(owner); });
  }

  ~Server() { OndaroApi_IpcServer_UnregisterEventHandler(m_pHandle); }

  void Run() {
    m_feed.Out().Note(std::string("asking the bus for the name ") + DAEMON_NAME);
    m_feed.Run();
  }

 private:
  void OwnedBy(const std::string& owner) {
    if (owner != m_bus.OwnName()) {
      m_hasQueued = true;
      m_feed.Out().Note("another daemon owns the name; waiting for it to end");
      return;
    }
    if (m_hasQueued) {
      m_feed.Out().Note("took the name over; calls of applications fail until it is started again");
    }
    // The library learns of its name no later than that.
    m_bus.AfterRoundTrip([this] {
      m_feed.Out().Ready();
      if (!std::exchange(m_isReading, true)) {
        m_input.Follow(
            m_feed.Loop(), [this](std::string_view line) { Send(line); }, [] {});
      }
    });
  }

  void Send(std::string_view line) {
    if (line.empty()) {
      return;
    }
    const std::size_t space = std::min(line.find(' '), line.size());
    const std::string event(line.substr(0, space));
    const std::string data(line.substr(std::min(space + 1, line.size())));
    if (OndaroApi_IpcServer_SendDataToClient(m_pHandle, event.c_str(), data.c_str()) != 0) {
      m_feed.Out().Error("'" + event +
                         "' was not sent: event and data must be UTF-8 and "
                         "together shorter than 32 MiB" +
                         SeeLog());
    }
    // Input without end does not pile up in this process.
    m_bus.Flush();
  }

  bool m_hasQueued = false;
  bool m_isReading = false;
  LineReader m_input{"-"};
};

// ---- The application's end ----------------------------------------------------------------------

void RequireHeard(const Reply& reply) {
  if (reply.IsRefusal()) {
    FailRefused("a call of the daemon, and so keeps its events from this user", WHO_MAY_CALL);
  }
}

void Ignore(const char* /*data*/, void* /*userData*/) {}

class Listener : private End<OndaroApi_IpcClient_h> {
 public:
  using End::End;

  ~Listener() {
    if (m_pHandle != nullptr) {
      OndaroApi_IpcClient_UnregisterEventHandler(m_pHandle);
    }
  }

  void Run() {
    m_bus.Call(CallDaemon(), [this](const Reply& reply) {
      RequireHeard(reply);
      m_pHandle = Client();
      Register(OndaroApi_IpcClient_RegisterEventHandler);
      if (m_named.empty()) {
        // What the library subscribes to with its first handler brings all events.
        OndaroApi_IpcClient_RegisterEventHandler(m_pHandle, "", Ignore, nullptr);
      }
      m_bus.AfterRoundTrip([this] {
        m_feed.Out().Ready();
        m_bus.WatchOwner(
            [this](const std::string& /*owner*/) { m_bus.Call(CallDaemon(), RequireHeard); });
      });
    });
    m_feed.Run();
  }
};

template <class Which>
void RunEnd(const Output& output, const FeedOptions& options) {
  Which(output, options).Run();
}

}  // namespace

void AddMessageVerbs(CLI::App& app, Session& session) {
  constexpr char NAMES[] = "Names of the events to print; all when left out";
  AddFeed(AddVerb(app, session, "serve",
                  "Be the daemon: print events, send lines 'EVENT DATA' of standard input",
                  RunEnd<Server>),
          "EVENT", NAMES);
  AddFeed(AddVerb(app, session, "listen", "Be an application: print events of the daemon",
                  RunEnd<Listener>),
          "EVENT", NAMES);
}

}  // namespace ondaro::ctl
