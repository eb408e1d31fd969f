#include "bus/PlainPeer.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "bus/WaitUntil.h"

namespace ondaro::test {

namespace {

void ThrowOn(GError* error) {
  if (error == nullptr) {
    return;
  }
  const std::string message = error->message;
  g_error_free(error);
  throw std::runtime_error(message);
}

Event Unpack(GVariant* body) {
  const gchar* name = nullptr;
  const gchar* data = nullptr;
  g_variant_get(body, "(&s&s)", &name, &data);
  return {name, data};
}

void Record(gpointer events, GVariant* body) {
  static_cast<std::vector<Event>*>(events)->push_back(Unpack(body));
}

}  // namespace

void SyncWithBus(GDBusConnection* connection) {
  GVariant* reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (reply != nullptr) {
    g_variant_unref(reply);
  }
}

PlainPeer::PlainPeer() {
  GError* error = nullptr;
  m_connection = g_dbus_connection_new_for_address_sync(
      getenv("DBUS_SYSTEM_BUS_ADDRESS"),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  ThrowOn(error);
}

PlainPeer::~PlainPeer() {
  g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
  Drain();
  g_object_unref(m_connection);
}

bool PlainPeer::Own() {
  constexpr guint DO_NOT_QUEUE = 4;
  return CallBus("RequestName", g_variant_new("(su)", BUS_NAME, DO_NOT_QUEUE)) == "(uint32 1,)";
}

void PlainPeer::Release() { CallBus("ReleaseName", g_variant_new("(s)", BUS_NAME)); }

std::string PlainPeer::Owner() {
  const std::string reply = CallBus("GetNameOwner", g_variant_new("(s)", BUS_NAME));
  return reply.substr(0, 2) == "('" ? reply.substr(2, reply.size() - 5) : std::string();
}

void PlainPeer::Serve(const std::string& descriptionFile) {
  std::ifstream file(descriptionFile);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  GError* error = nullptr;
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(text.c_str(), &error);
  ThrowOn(error);
  static const GDBusInterfaceVTable table = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* body,
         GDBusMethodInvocation* invocation, gpointer events) {
        Record(events, body);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
      },
      nullptr,
      nullptr,
      {nullptr}};
  g_dbus_connection_register_object(m_connection, node->path, node->interfaces[0], &table,
                                    &m_received, nullptr, &error);
  g_dbus_node_info_unref(node);
  ThrowOn(error);
}

void PlainPeer::Listen() {
  g_dbus_connection_signal_subscribe(
      m_connection, nullptr, INTERFACE, SIGNAL, OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* body,
         gpointer events) { Record(events, body); },
      &m_heard, nullptr);
  SyncWithBus(m_connection);
}

void PlainPeer::Emit(GVariant* body, const char* member, const char* interface) {
  GError* error = nullptr;
  g_dbus_connection_emit_signal(m_connection, nullptr, OBJECT_PATH, interface, member, body,
                                &error);
  ThrowOn(error);
  SyncWithBus(m_connection);
}

void PlainPeer::EmitEvent(const std::string& name, const std::string& data) {
  Emit(g_variant_new("(ss)", name.c_str(), data.c_str()));
}

std::string PlainPeer::Call(GVariant* body, const char* member, const char* interface,
                            const char* path, const char* destination, int timeoutMilliseconds) {
  std::string result;
  g_dbus_connection_call(
      m_connection, destination, path, interface, member, body, nullptr, G_DBUS_CALL_FLAGS_NONE,
      timeoutMilliseconds, nullptr,
      [](GObject* source, GAsyncResult* ready, gpointer text) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(source),
                                                        ready, &error);
        gchar* printed = reply != nullptr ? g_variant_print(reply, TRUE)
                                          : g_strconcat("error: ", error->message, nullptr);
        *static_cast<std::string*>(text) = printed;
        g_free(printed);
        g_clear_error(&error);
        if (reply != nullptr) {
          g_variant_unref(reply);
        }
      },
      &result);
  // Bounded by the call's own timeout, after which `result` is not written any more.
  while (result.empty()) {
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
  }
  return result;
}

std::string PlainPeer::CallEvent(const std::string& name, const std::string& data) {
  return Call(g_variant_new("(ss)", name.c_str(), data.c_str()));
}

std::string PlainPeer::CallBus(const char* member, GVariant* body) {
  return Call(body, member, "org.freedesktop.DBus", "/org/freedesktop/DBus",
              "org.freedesktop.DBus");
}

}  // namespace ondaro::test
