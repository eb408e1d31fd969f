// The calls of both ends, each the other's peer, between messages of any type from a third, losses
// of name and connection and the ends' destruction, from handlers too. Whatever is sent to the
// daemon's end is answered, and nothing but exceptions of the standard library's goes out of a
// call.

#include <memory>

#include "Fuzz.h"
#include "ondaro/pal/CPALFactory.h"
#include "support/FakePlatform.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

using namespace ondaro::fuzz;
using namespace ondaro::test;

namespace {

/// A bus for this process alone, on which the library meets a peer that sends what it likes.
class FuzzedBus {
 public:
  static FuzzedBus& Get() {
    static FuzzedBus bus;
    return bus;
  }

  /// Has the library's connection made; not while an end still holds one that was closed.
  void Open() {
    if (m_library == nullptr) {
      m_library = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    }
    if (m_library != nullptr) {
      g_dbus_connection_set_exit_on_close(m_library, FALSE);
      m_name = g_dbus_connection_get_unique_name(m_library);
    }
  }
  void Close() {
    if (m_library != nullptr) {
      g_dbus_connection_close_sync(m_library, nullptr, nullptr);
    }
    g_clear_object(&m_library);
  }

  GDBusConnection* Peer() { return m_peer; }
  /// The library's address, also of a connection that is closed by now.
  const char* LibraryName() const { return m_name.c_str(); }

  /// What was sent until now has been handled, and what that caused.
  void Deliver() {
    for (int round = 0; round < 2; ++round) {
      SyncWithBus(m_peer);
      if (m_library != nullptr) {
        SyncWithBus(m_library);
      }
      Drain();
    }
  }

 private:
  PrivateBus m_bus;
  GDBusConnection* const m_peer = ConnectToBus();
  GDBusConnection* m_library = nullptr;
  std::string m_name;
};

enum Side { CLIENT, SERVER };

std::unique_ptr<NOndaroAPI::IIpcClientImpl> g_client;
std::unique_ptr<NOndaroAPI::IIpcServerImpl> g_server;
int g_unanswered = 0;

template <typename Operation>
void Try(Side side, Operation operation) {
  try {
    if (side == CLIENT && g_client != nullptr) {
      operation(*g_client);
    } else if (side == SERVER && g_server != nullptr) {
      operation(*g_server);
    }
  } catch (const std::exception&) {
  }
}

/// The name is the server's or somebody else's, or a handler has destroyed the server. GLib itself
/// does not bear that its connection is lost while it asks.
bool IsNameSettled() {
  const std::vector<SLogEntry> log = FakePlatform::Get().TakeLog();
  return g_server == nullptr || std::any_of(log.begin(), log.end(), [](const SLogEntry& entry) {
           return entry.function.rfind("BusName", 0) == 0;
         });
}

void Make(Side side) {
  FuzzedBus::Get().Open();
  try {
    if (side == SERVER) {
      g_server.reset();
      FakePlatform::Get().TakeLog();
      g_server.reset(NOndaroPAL::CPALFactory::CreateIpcServerImpl());
      Expect(WaitUntil(IsNameSettled), "the server is told");
    } else if (g_server == nullptr) {  // a client asks the daemon for its properties, and waits
      g_client.reset(NOndaroPAL::CPALFactory::CreateIpcClientImpl());
    }
  } catch (const std::exception&) {
  }
}

void Destroy(Side side) { side == CLIENT ? g_client.reset() : g_server.reset(); }

void Call(NOndaroAPI::IIpcClientImpl& end, const std::string& name, const std::string& data) {
  end.SendDataToServer(name, data);
}
void Call(NOndaroAPI::IIpcServerImpl& end, const std::string& name, const std::string& data) {
  end.SendDataToClient(name, data);
}

void Send(Side side, const std::string& name, const std::string& data) {
  Try(side, [&](auto& end) { Call(end, name, data); });
}

void Unregister(Side side) {
  Try(side, [](auto& end) { end.UnregisterEventHandler(); });
}

/// `deed` is what the handler does.
void Register(Side side, const std::string& name, unsigned deed) {
  const auto handler = [=, own = std::string(64, 'x')](const std::string& data) {
    switch (deed % 5) {
      case 1:
        Unregister(side);
        break;
      case 2:
        Register(side, name, deed + 1);
        break;
      case 3:
        if (!data.empty()) {
          Send(side, name, data.substr(1));
        }
        break;
      case 4:
        Destroy(side == CLIENT ? SERVER : CLIENT);
    }
    Expect(own == std::string(64, 'x'), "the handler outlives its own call");
    if (deed > 128) {
      throw deed;
    }
  };
  Try(side, [&](auto& end) { end.RegisterEventHandler(name, handler); });
}

/// A message's body of any type, made of any bytes.
GVariant* MakeBody(const std::string& type, const std::string& bytes) {
  GBytes* shared = g_bytes_new(bytes.data(), bytes.size());  // the body may go on using them
  GVariant* untrusted =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), shared, FALSE));
  GVariant* body = g_variant_get_normal_form(untrusted);
  g_variant_unref(untrusted);
  g_bytes_unref(shared);
  return body;
}

/// A message that the peer makes up.
void SendOther(Input& input, Side side) {
  static const char* const TYPES[] = {"(s)", "(ss)", "(si)", "()", "(sss)", "(as)", "(a{sv}h)"};
  FuzzedBus& bus = FuzzedBus::Get();
  const char* const type = TYPES[input.Number(7)];
  GVariant* const body = MakeBody(type, input.Text());
  if (side == CLIENT) {
    g_dbus_connection_emit_signal(bus.Peer(), nullptr, OBJECT_PATH, INTERFACE, SIGNAL, body,
                                  nullptr);
    return;
  }
  ++g_unanswered;
  g_dbus_connection_call(
      bus.Peer(), bus.LibraryName(), OBJECT_PATH, INTERFACE, METHOD, body, nullptr,
      G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr,
      [](GObject* peer, GAsyncResult* ready, gpointer) {
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(peer), ready, nullptr);
        g_clear_pointer(&reply, g_variant_unref);
        --g_unanswered;
      },
      nullptr);
}

/// The peer is the daemon, for a while.
void TakeOrReturnName() {
  static bool isTaken = false;
  constexpr guint REPLACE_EXISTING = 2, ALLOW_REPLACEMENT = 1;
  isTaken = !isTaken;
  CallBus(FuzzedBus::Get().Peer(), isTaken ? "RequestName" : "ReleaseName",
          isTaken ? g_variant_new("(su)", BUS_NAME, REPLACE_EXISTING | ALLOW_REPLACEMENT)
                  : g_variant_new("(s)", BUS_NAME));
}

void Step(Input& input) {
  const unsigned kind = input.Number(11);
  const Side side = kind % 2 == 0 ? CLIENT : SERVER;
  const std::string name(kind < 4 ? input.Number(3) : 0, 'n');
  if (kind < 2) {
    Register(side, name, input.Number(256));
  } else if (kind < 4) {
    Send(side, name, input.Text());
  } else if (kind < 6) {
    SendOther(input, side);
  } else if (kind < 8) {
    static void (*const LIFE[])(Side) = {Unregister, Destroy, Make};
    LIFE[input.Number(3)](side);
  } else if (kind == 8) {
    FuzzedBus::Get().Deliver();
  } else if (kind == 9) {
    TakeOrReturnName();
  } else {
    FuzzedBus::Get().Close();
  }
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  Make(CLIENT);
  Make(SERVER);
  while (!input.IsEmpty()) {
    Step(input);
  }
  FuzzedBus::Get().Deliver();
  Destroy(CLIENT);
  Destroy(SERVER);
  while (g_unanswered > 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
  FakePlatform::Get().TakeLog();
}
