// Messages of any type, sender, path and member to both ends, and any answer to the client's calls,
// between the library's own calls.

#include "Fuzz.h"
#include "PipeBus.h"
#include "library/FakePlatform.h"
#include "ondaro/pal/CPALFactory.h"

using namespace ondaro::fuzz;

namespace {

const char* const TYPES[] = {"(s)",  "(si)", "()",       "(sss)",  "(as)",  "(vs)",
                             "(ay)", "(og)", "(a{sv}h)", "(d(n))", "(ass)", "(y)"};

GVariant* AnyBody(Input& input) {
  const unsigned kind = input.Number(4);
  if (kind < 2) {
    gchar* name = g_utf8_make_valid(input.Text().c_str(), -1);
    gchar* data = g_utf8_make_valid(input.Text().c_str(), -1);
    GVariant* body = g_variant_new("(ss)", name, data);
    g_free(name);
    g_free(data);
    return body;
  }
  std::string type = TYPES[input.Number(12)];
  if (kind == 3) {
    const std::string own = input.CText(), tuple = "(" + own + ")";
    if (g_variant_type_string_is_valid(tuple.c_str()) != FALSE &&
        g_variant_is_signature(own.c_str()) != FALSE) {
      type = tuple;
    }
  }
  return bus::MakeBody(type, input.Text());
}

/// The contract's text, or any that a message may have in this place.
template <typename Check>
std::string Field(Input& input, const char* usual, Check check) {
  const std::string other = input.Number(4) == 0 ? input.Text() : "";
  return check(other.c_str()) != FALSE ? other.c_str() : usual;
}

void SendAny(Input& input, bool isSignal) {
  const std::string path = Field(input, bus::PATH, g_variant_is_object_path);
  const std::string interface = Field(input, bus::INTERFACE, g_dbus_is_interface_name);
  const std::string member =
      Field(input, isSignal ? "sendDataToClient" : "sendDataToServer", g_dbus_is_member_name);
  const std::string sender = Field(input, ":1.7", g_dbus_is_name);
  GDBusMessage* message =
      isSignal ? g_dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str())
               : g_dbus_message_new_method_call(nullptr, path.c_str(), interface.c_str(),
                                                member.c_str());
  g_dbus_message_set_sender(message, sender.c_str());
  g_dbus_message_set_body(message, AnyBody(input));
  bus::Send(message);
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  static NOndaroAPI::CIpcClient& client = NOndaroPAL::GetIpcClient();
  static NOndaroAPI::CIpcServer& server = NOndaroPAL::GetIpcServer();
  while (!input.IsEmpty()) {
    const unsigned kind = input.Number(8);
    try {
      switch (kind) {
        case 0:
          client.RegisterEventHandler(input.Text(), [](const std::string&) { throw 1; });
          break;
        case 1:
          server.RegisterEventHandler(input.Text(), [](const std::string& text) {
            server.UnregisterEventHandler();
            server.SendDataToClient(text, text);
          });
          break;
        case 2:
          bus::SetReply(AnyBody(input));
          client.SendDataToServer(input.Text(), "data");
          break;
        case 3:
          server.SendDataToClient(input.Text(), input.Text());
          break;
        default:
          SendAny(input, kind % 2 == 0);
      }
    } catch (const std::exception&) {
    }
  }
  bus::Deliver();
  bus::SetReply(nullptr);
  client.UnregisterEventHandler();
  server.UnregisterEventHandler();
  FakePlatform::Get().TakeLog();
}
