// The calls of both ends, each the other's peer, between messages of any type, delivery, losses of
// name and connection and the ends' destruction, from handlers too. What each call says, which
// handler gets what, and how the log tells of replies is held against a model: a table of handlers
// for each end, and the queue of what has arrived.

#include <deque>
#include <map>
#include <memory>

#include "Fuzz.h"
#include "PipeBus.h"
#include "ondaro/pal/CPALFactory.h"
#include "support/FakePlatform.h"

using namespace ondaro::fuzz;

namespace {

enum Side { CLIENT, SERVER };

struct Model {
  bool isThere = false;
  bool isCut = false;         // the connection that it had is closed
  unsigned registration = 0;  // of the subscription or the object; 0 without
  bool isTold = false;        // of the bus, as the server is
  bool ownsName = false;
  std::map<std::string, unsigned> handlers = {};
} g_model[2];

struct Arrived {
  Side side;
  unsigned registration;
  bool isCall;  // whose end is still to come
  std::string name, data;
};

std::unique_ptr<NOndaroAPI::IIpcClientImpl> g_client;
std::unique_ptr<NOndaroAPI::IIpcServerImpl> g_server;
std::deque<Arrived> g_arrived;
bool g_isOpen = false;
unsigned g_registrations = 0;

const char* const REPLIED = "g_dbus_proxy_call result : 0";
const char* const REFUSED = "another line";
std::vector<std::string> g_ends;  // of the client's calls, as the log has them

/// False when it throws.
template <typename Operation>
bool Try(Side side, Operation operation) {
  try {
    side == CLIENT ? operation(*g_client) : operation(*g_server);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void Handle(Side side, unsigned handler, const std::string& data);

void Register(Side side, const std::string& name, unsigned number) {
  Model& model = g_model[side];
  const bool isHeard = side == SERVER || model.registration != 0 || !model.isCut;
  const auto handler = [=](const std::string& data) {
    Handle(side, number, data);
    Expect(name.size() <= 2, "the handler outlives its own call");
  };
  Expect(Try(side, [&](auto& end) { end.RegisterEventHandler(name, handler); }) == isHeard,
         "a handler is registered where events can be had");
  if (isHeard) {
    model.handlers[name] = number;
    model.registration += side == CLIENT && model.registration == 0 ? ++g_registrations : 0;
  }
}

void Unregister(Side side) {
  Try(side, [](auto& end) { end.UnregisterEventHandler(); });
  g_model[side].handlers.clear();
  g_model[CLIENT].registration = side == CLIENT ? 0 : g_model[CLIENT].registration;
}

void Call(NOndaroAPI::IIpcClientImpl& end, const std::string& name, const std::string& data) {
  end.SendDataToServer(name, data);
}
void Call(NOndaroAPI::IIpcServerImpl& end, const std::string& name, const std::string& data) {
  end.SendDataToClient(name, data);
}

void Send(Side side, const std::string& name, const std::string& data) {
  const bool isText =
      g_utf8_validate(data.data(), static_cast<gssize>(data.size()), nullptr) != FALSE;
  const bool isSent = isText && (side == CLIENT || g_model[SERVER].ownsName);
  Expect(Try(side, [&](auto& end) { Call(end, name, data); }) == isSent, "what can be is sent");
  if (!isSent) {
    return;
  }
  bus::Sync();
  const Side other = side == CLIENT ? SERVER : CLIENT;
  const Model& receiver = g_model[other];
  if (!g_model[side].isCut && !receiver.isCut && receiver.registration != 0) {
    g_arrived.push_back({other, receiver.registration, side == CLIENT, name, data});
  } else if (side == CLIENT) {
    g_ends.emplace_back(REFUSED);
  }
}

void MakeOrDestroy(Side side) {
  Model& model = g_model[side];
  if (model.isThere) {
    side == CLIENT ? g_client.reset() : g_server.reset();
    model = Model();
    return;
  }
  try {
    side == CLIENT ? g_client.reset(NOndaroPAL::CPALFactory::CreateIpcClientImpl())
                   : g_server.reset(NOndaroPAL::CPALFactory::CreateIpcServerImpl());
    model.isThere = true;
  } catch (const std::exception&) {
  }
  Expect(model.isThere == (side == SERVER || g_isOpen), "the client needs a bus");
  model.isCut = !g_isOpen;
}

void EndCall(Arrived& event, const char* end) {
  if (std::exchange(event.isCall, false)) {
    g_ends.emplace_back(end);
  }
}

/// Whether a handler must get something, once what comes before is done with.
bool HasNext() {
  for (; !g_arrived.empty(); g_arrived.pop_front()) {
    Arrived& next = g_arrived.front();
    const Model& model = g_model[next.side];
    const bool isReached = next.registration == model.registration;
    if (isReached && model.handlers.count(next.name) != 0) {
      return true;
    }
    EndCall(next, isReached ? REPLIED : REFUSED);
  }
  return false;
}

/// What the handlers do.
void Handle(Side side, unsigned handler, const std::string& data) {
  Expect(HasNext(), "nothing is handled twice, or by who is gone");
  Arrived event = g_arrived.front();
  g_arrived.pop_front();
  Expect(event.side == side && event.data == data && g_model[side].handlers[event.name] == handler,
         "each event in its turn, by its handler");
  switch (handler % 5) {
    case 1:
      Unregister(side);
      break;
    case 2:
      Register(side, event.name, handler + 1);
      break;
    case 3:
      if (!data.empty()) {
        Send(side, event.name, data.substr(1));
      }
      break;
    case 4:
      MakeOrDestroy(side == CLIENT ? SERVER : CLIENT);
  }
  EndCall(event, REPLIED);
  if (handler > 128) {
    throw handler;
  }
}

void Deliver() {
  bus::Deliver();
  Expect(!HasNext(), "everything is handled");
  std::vector<std::string> ends;
  for (const SLogEntry& entry : FakePlatform::Get().TakeLog()) {
    if (entry.function == "_SendDataToServerAyncResultCallback") {
      ends.emplace_back(entry.body == REPLIED ? REPLIED : REFUSED);
    }
  }
  Expect(ends == std::exchange(g_ends, {}), "each call has its end");
}

void OpenOrClose() {
  g_isOpen = !g_isOpen;
  if (g_isOpen) {
    bus::Open();
    return;
  }
  bus::Close();
  g_model[CLIENT].isCut = g_model[SERVER].isCut = true;
  for (Arrived& event : g_arrived) {
    EndCall(event, REFUSED);
  }
}

/// The next that the server is told: of the bus, and of its name, owned and lost in turn.
void TellServer() {
  Model& model = g_model[SERVER];
  const bool isFirst = !std::exchange(model.isTold, model.isThere);
  if (!model.isThere || (model.isCut && !isFirst && !model.ownsName)) {
    return;
  }
  if (isFirst && !model.isCut) {
    model.registration = ++g_registrations;
    bus::owner.busAcquired(bus::owner.connection, bus::INTERFACE, bus::owner.userData);
  } else if (!model.ownsName && !model.isCut) {
    model.ownsName = true;
    bus::owner.nameAcquired(bus::owner.connection, bus::INTERFACE, bus::owner.userData);
  } else {
    if (model.isCut) {
      Deliver();
    }
    model.ownsName = false;
    model.registration = 0;
    bus::owner.nameLost(model.isCut ? nullptr : bus::owner.connection, bus::INTERFACE,
                        bus::owner.userData);
  }
}

/// A message to an end that is no event.
void SendOther(Input& input, Side side) {
  static const char* const TYPES[] = {"(s)", "(si)", "()", "(sss)", "(as)", "(vs)", "(a{sv}h)"};
  GDBusMessage* message =
      side == CLIENT
          ? g_dbus_message_new_signal(bus::PATH, bus::INTERFACE, "sendDataToClient")
          : g_dbus_message_new_method_call(nullptr, bus::PATH, bus::INTERFACE, "sendDataToServer");
  const char* type = TYPES[input.Number(7)];
  g_dbus_message_set_sender(message, ":1.7");
  g_dbus_message_set_body(message, bus::MakeBody(type, input.Text()));
  bus::Send(message);
}

void Step(Input& input) {
  const unsigned kind = input.Number(11);
  const Side side = kind % 2 == 0 ? CLIENT : SERVER;
  const bool isThere = g_model[side].isThere;
  const std::string name(kind < 4 ? input.Number(3) : 0, 'n');
  if (kind < 2 && isThere) {
    Register(side, name, input.Number(256));
  } else if (kind < 4 && isThere) {
    Send(side, name, "data" + input.Text());
  } else if (kind < 6 && g_isOpen) {
    SendOther(input, side);
  } else if (kind == 6 || kind == 7) {
    isThere&& input.Number(2) == 0 ? Unregister(side) : MakeOrDestroy(side);
  } else if (kind == 8) {
    Deliver();
  } else if (kind == 9) {
    TellServer();
  } else if (kind == 10) {
    OpenOrClose();
  }
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  OpenOrClose();
  MakeOrDestroy(CLIENT);
  MakeOrDestroy(SERVER);
  while (!input.IsEmpty()) {
    Step(input);
  }
  if (g_isOpen) {
    OpenOrClose();
  }
  Deliver();
  for (const Side side : {CLIENT, SERVER}) {
    if (g_model[side].isThere) {
      MakeOrDestroy(side);
    }
  }
}
