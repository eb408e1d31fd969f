#include "support/PlainPeer.h"

#include <cstdlib>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace ondaro::test {

namespace {

/// Takes both over, of which one is there.
std::string Print(GVariant* reply, GError* error) {
  gchar* const printed = reply != nullptr ? g_variant_print(reply, TRUE)
                                          : g_strconcat("error: ", error->message, nullptr);
  std::string text = printed;
  g_free(printed);
  g_clear_error(&error);
  g_clear_pointer(&reply, g_variant_unref);
  return text;
}

}  // namespace

std::string CallBus(GDBusConnection* connection, const char* member, GVariant* body) {
  constexpr const char* BUS = "org.freedesktop.DBus";
  GError* error = nullptr;
  GVariant* reply =
      g_dbus_connection_call_sync(connection, BUS, "/org/freedesktop/DBus", BUS, member, body,
                                  nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  return Print(reply, error);
}

GDBusConnection* ConnectToBus() {
  constexpr auto FLAGS =
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  GDBusConnection* const connection = g_dbus_connection_new_for_address_sync(
      getenv("DBUS_SYSTEM_BUS_ADDRESS"), FLAGS, nullptr, nullptr, nullptr);
  if (connection == nullptr) {
    throw std::runtime_error("no connection to the bus");
  }
  return connection;
}

PlainPeer::PlainPeer() : m_connection(ConnectToBus()) {
  g_dbus_connection_signal_subscribe(
      m_connection, nullptr, nullptr, nullptr, OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* body,
         gpointer heard) {
        static_cast<std::vector<std::string>*>(heard)->push_back(
            Print(g_variant_ref(body), nullptr));
      },
      &m_heard, nullptr);
  SyncWithBus(m_connection);
}

PlainPeer::~PlainPeer() {
  g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
  Drain();
  g_object_unref(m_connection);
}

bool PlainPeer::Own() {
  constexpr guint ALLOW_REPLACEMENT = 1, REPLACE_EXISTING = 2, DO_NOT_QUEUE = 4;
  constexpr guint FLAGS = ALLOW_REPLACEMENT | REPLACE_EXISTING | DO_NOT_QUEUE;
  return CallBus(m_connection, "RequestName", g_variant_new("(su)", BUS_NAME, FLAGS)) ==
         "(uint32 1,)";
}

std::string PlainPeer::Owner() {
  const std::string reply = CallBus(m_connection, "GetNameOwner", g_variant_new("(s)", BUS_NAME));
  return reply.front() == '(' ? reply : "";
}

void PlainPeer::Emit(GVariant* body, const char* member, const char* interface, const char* path,
                     const char* destination) {
  g_dbus_connection_emit_signal(m_connection, destination, path, interface, member, body, nullptr);
  SyncWithBus(m_connection);
}

std::string PlainPeer::Call(GVariant* body, const char* member, const char* path,
                            const char* destination, int timeoutMilliseconds) {
  std::string result;
  g_dbus_connection_call(
      m_connection, destination, path, INTERFACE, member, body, nullptr, G_DBUS_CALL_FLAGS_NONE,
      timeoutMilliseconds, nullptr,
      [](GObject* source, GAsyncResult* ready, gpointer text) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(source),
                                                        ready, &error);
        *static_cast<std::string*>(text) = Print(reply, error);
      },
      &result);
  // Bounded by the call's own timeout, after which `result` is not written any more.
  while (result.empty()) {
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
  }
  return result;
}

}  // namespace ondaro::test
