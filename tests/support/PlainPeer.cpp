#include "support/PlainPeer.h"

#include <cstdlib>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace ondaro::test {

namespace {

constexpr const char* BUS = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";

}  // namespace

void SyncWithBus(GDBusConnection* connection) {
  GVariant* reply =
      g_dbus_connection_call_sync(connection, BUS, BUS_PATH, BUS, "GetId", nullptr, nullptr,
                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (reply != nullptr) {
    g_variant_unref(reply);
  }
}

PlainPeer::PlainPeer()
    : m_connection(g_dbus_connection_new_for_address_sync(
          getenv("DBUS_SYSTEM_BUS_ADDRESS"),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr)) {
  if (m_connection == nullptr) {
    throw std::runtime_error("no connection to the bus");
  }
}

PlainPeer::~PlainPeer() {
  g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
  Drain();
  g_object_unref(m_connection);
}

bool PlainPeer::Own() {
  constexpr guint ALLOW_REPLACEMENT = 1, REPLACE_EXISTING = 2, DO_NOT_QUEUE = 4;
  return CallBus("RequestName", g_variant_new("(su)", BUS_NAME,
                                              ALLOW_REPLACEMENT | REPLACE_EXISTING |
                                                  DO_NOT_QUEUE)) == "(uint32 1,)";
}

void PlainPeer::Release() { CallBus("ReleaseName", g_variant_new("(s)", BUS_NAME)); }

std::string PlainPeer::Owner() {
  const std::string reply = CallBus("GetNameOwner", g_variant_new("(s)", BUS_NAME));
  return reply.substr(0, 2) == "('" ? reply.substr(2, reply.size() - 5) : std::string();
}

void PlainPeer::Listen(const char* interface) {
  g_dbus_connection_signal_subscribe(
      m_connection, nullptr, interface, SIGNAL, OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* body,
         gpointer events) {
        const gchar* name = nullptr;
        const gchar* data = nullptr;
        g_variant_get(body, "(&s&s)", &name, &data);
        static_cast<std::vector<Event>*>(events)->emplace_back(name, data);
      },
      &m_heard, nullptr);
  SyncWithBus(m_connection);
}

void PlainPeer::Emit(GVariant* body, const char* member, const char* interface,
                     const char* destination, const char* path) {
  g_dbus_connection_emit_signal(m_connection, destination, path, interface, member, body, nullptr);
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
        g_clear_pointer(&reply, g_variant_unref);
      },
      &result);
  // Bounded by the call's own timeout, after which `result` is not written any more.
  while (result.empty()) {
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
  }
  return result;
}

std::string PlainPeer::CallBus(const char* member, GVariant* body) {
  return Call(body, member, BUS, BUS_PATH, BUS);
}

}  // namespace ondaro::test
