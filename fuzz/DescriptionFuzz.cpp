// Any text as interface description: refused with an exception, or the object answers.

#include "Fuzz.h"
#include "PipeBus.h"
#include "ondaro/pal/CPALFactory.h"
#include "support/FakePlatform.h"

using namespace ondaro::fuzz;

namespace {

std::string g_contents;

void Call(const char* path, const char* interface, const char* member, GVariant* body) {
  GDBusMessage* message = g_dbus_message_new_method_call(nullptr, path, interface, member);
  g_dbus_message_set_body(message, body);
  bus::Send(message);
}

/// Default values of the arguments that the method declares.
GVariant* BodyFor(GDBusArgInfo** arguments) {
  std::string type = "(";
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    type += (*arguments)->signature;
  }
  return bus::MakeBody(type + ")", "");
}

void UseObject() {
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(g_contents.c_str(), nullptr);
  Call(node->path, "org.freedesktop.DBus.Introspectable", "Introspect", g_variant_new("()"));
  GDBusMethodInfo** method = node->interfaces[0]->methods;
  for (int count = 0; count < 4 && method != nullptr && *method != nullptr; ++method, ++count) {
    if (g_dbus_is_member_name((*method)->name) != FALSE) {
      Call(node->path, node->interfaces[0]->name, (*method)->name, BodyFor((*method)->in_args));
    }
  }
  g_dbus_node_info_unref(node);
  bus::Deliver();
}

}  // namespace

/// The library's file, whatever its path.
gboolean g_file_get_contents(const gchar*, gchar** contents, gsize* length, GError**) {
  *contents = g_strndup(g_contents.data(), g_contents.size());
  if (length != nullptr) {
    *length = g_contents.size();
  }
  return TRUE;
}

void ondaro::fuzz::Run(Input input) {
  static const bool isOpen = (bus::Open(), true);
  Expect(isOpen, "a bus");
  g_contents = input.Rest();
  try {
    const std::unique_ptr<NOndaroAPI::IIpcServerImpl> server(
        NOndaroPAL::CPALFactory::CreateIpcServerImpl());
    bus::owner.busAcquired(bus::owner.connection, bus::INTERFACE, bus::owner.userData);
    UseObject();
  } catch (const std::exception&) {
  }
  FakePlatform::Get().TakeLog();
}
