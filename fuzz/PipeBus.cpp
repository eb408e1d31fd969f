#include "PipeBus.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <map>

#include "Fuzz.h"

namespace ondaro::fuzz::bus {

Owner owner = {};

namespace {

GDBusConnection* g_library = nullptr;
GDBusConnection* g_fuzzer = nullptr;

/// The library's calls, by their serials on the way back.
using Calls = std::map<guint32, guint32>;

/// In GLib's own thread: all that the library sends goes back to it, as from another connection.
GDBusMessage* Route(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                    gpointer userData) {
  Calls& calls = *static_cast<Calls*>(userData);
  const bool isCall = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
  const bool isEvent = g_strcmp0(g_dbus_message_get_interface(message), INTERFACE) == 0;
  const auto replied = calls.find(g_dbus_message_get_reply_serial(message));
  if (isIncoming == FALSE || (!isCall && !isEvent && replied == calls.end())) {
    return message;
  }
  GDBusMessage* next = isCall && !isEvent  // what a proxy asks for itself
                           ? g_dbus_message_new_method_error_literal(message, INTERFACE, "nobody")
                           : g_dbus_message_copy(message, nullptr);
  if (replied != calls.end()) {
    g_dbus_message_set_reply_serial(next, replied->second);
    calls.erase(replied);
  }
  g_dbus_message_set_sender(next, ":1.1");
  guint32 serial = 0;
  g_dbus_connection_send_message(connection, next, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial,
                                 nullptr);
  if (isCall && isEvent) {
    calls[serial] = g_dbus_message_get_serial(message);
  }
  g_object_unref(next);
  g_object_unref(message);
  return nullptr;
}

GDBusConnection* Connect(int descriptor) {
  GSocket* socket = g_socket_new_from_fd(descriptor, nullptr);
  GSocketConnection* stream = g_socket_connection_factory_create_connection(socket);
  GDBusConnection* connection = g_dbus_connection_new_sync(
      G_IO_STREAM(stream), nullptr, G_DBUS_CONNECTION_FLAGS_NONE, nullptr, nullptr, nullptr);
  g_object_unref(stream);
  g_object_unref(socket);
  Expect(connection != nullptr, "a connection");
  return connection;
}

}  // namespace

void Open() {
  int ends[2] = {};
  Expect(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair");
  g_clear_object(&g_library);
  g_clear_object(&g_fuzzer);
  g_library = Connect(ends[0]);
  g_fuzzer = Connect(ends[1]);
  g_dbus_connection_add_filter(g_fuzzer, Route, new Calls,
                               [](gpointer calls) { delete static_cast<Calls*>(calls); });
}

void Close() {
  Sync();
  g_dbus_connection_close_sync(g_fuzzer, nullptr, nullptr);
  while (g_dbus_connection_is_closed(g_library) == FALSE) {
    g_thread_yield();
  }
  // GLib ends the calls under way before it lets go of the lock that this takes.
  g_dbus_connection_get_last_serial(g_library);
}

GVariant* MakeBody(const std::string& type, const std::string& bytes) {
  GBytes* shared = g_bytes_new(bytes.data(), bytes.size());  // the body may go on using them
  GVariant* untrusted =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), shared, FALSE));
  GVariant* body = g_variant_get_normal_form(untrusted);
  g_variant_unref(untrusted);
  g_bytes_unref(shared);
  return body;
}

void Send(GDBusMessage* message) {
  g_dbus_connection_send_message(g_fuzzer, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                 nullptr);
  g_object_unref(message);
  Sync();
}

// A ping has everything before it on the other side, and its answer what that caused; the second
// one brings back what was sent on.
void Sync() {
  for (int round = 0; round < 2 && g_dbus_connection_is_closed(g_library) == FALSE; ++round) {
    GError* error = nullptr;
    GVariant* pong = g_dbus_connection_call_sync(
        g_fuzzer, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, &error);  // a hang is the fuzzer's to tell
    Expect(pong != nullptr, error != nullptr ? error->message : "");
    g_variant_unref(pong);
  }
}

void Deliver() {
  for (bool isMoving = true; isMoving;) {
    Sync();
    isMoving = false;
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
      isMoving = true;
    }
  }
}

}  // namespace ondaro::fuzz::bus

using namespace ondaro::fuzz;

GDBusConnection* g_bus_get_sync(GBusType, GCancellable*, GError**) {
  return G_DBUS_CONNECTION(g_object_ref(bus::g_library));
}

/// Without a bus between them there is no name to call.
GDBusProxy* g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                  GDBusInterfaceInfo* info, const gchar*, const gchar* path,
                                  const gchar* interface, GCancellable* cancellable,
                                  GError** error) {
  static const auto original =
      reinterpret_cast<decltype(&g_dbus_proxy_new_sync)>(dlsym(RTLD_NEXT, "g_dbus_proxy_new_sync"));
  return original(connection, flags, info, nullptr, path, interface, cancellable, error);
}

guint g_bus_own_name(GBusType, const gchar*, GBusNameOwnerFlags, GBusAcquiredCallback busAcquired,
                     GBusNameAcquiredCallback nameAcquired, GBusNameLostCallback nameLost,
                     gpointer userData, GDestroyNotify) {
  bus::owner = {busAcquired, nameAcquired, nameLost, userData,
                g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)};
  return 1;
}

void g_bus_unown_name(guint) { g_clear_object(&bus::owner.connection); }
