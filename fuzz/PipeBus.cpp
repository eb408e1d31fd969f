#include "PipeBus.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <mutex>

#include "Fuzz.h"

namespace ondaro::fuzz::bus {

namespace {

std::mutex g_mutex;
GVariant* g_reply = nullptr;

/// In GLib's own thread.
GDBusMessage* Answer(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                     gpointer) {
  if (isIncoming == FALSE ||
      g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return message;
  }
  GDBusMessage* reply = nullptr;
  {
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (g_reply != nullptr) {
      reply = g_dbus_message_new_method_reply(message);
      g_dbus_message_set_body(reply, g_reply);
    } else {
      reply = g_dbus_message_new_method_error_literal(
          message, "org.freedesktop.DBus.Error.ServiceUnknown", "nobody");
    }
  }
  g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                 nullptr);
  g_object_unref(reply);
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
  return connection;
}

struct Pipe {
  Pipe() {
    int ends[2] = {};
    Expect(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair");
    library = Connect(ends[0]);
    fuzzer = Connect(ends[1]);
    Expect(library != nullptr && fuzzer != nullptr, "two connections");
    g_dbus_connection_add_filter(fuzzer, Answer, nullptr, nullptr);
  }
  GDBusConnection* library;
  GDBusConnection* fuzzer;
};

Pipe& Ends() {
  static auto* const pipe = new Pipe();  // as long as the process, as the shared connection
  return *pipe;
}

}  // namespace

GVariant* MakeBody(const std::string& type, const std::string& bytes) {
  GBytes* shared = g_bytes_new(bytes.data(), bytes.size());  // the body may go on using them
  GVariant* untrusted =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), shared, FALSE));
  GVariant* body = g_variant_get_normal_form(untrusted);
  g_variant_unref(untrusted);
  g_bytes_unref(shared);
  return body;
}

void SetReply(GVariant* body) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  if (g_reply != nullptr) {
    g_variant_unref(g_reply);
  }
  g_reply = body != nullptr ? g_variant_ref_sink(body) : nullptr;
}

void Send(GDBusMessage* message) {
  g_dbus_connection_send_message(Ends().fuzzer, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                 nullptr);
  g_object_unref(message);
}

// A ping has everything before it on the other side; a second one brings back what that caused.
void Deliver() {
  for (int round = 0; round < 2; ++round) {
    GVariant* pong = g_dbus_connection_call_sync(
        Ends().fuzzer, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    Expect(pong != nullptr, "the library's connection still answers");
    g_variant_unref(pong);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
  }
}

}  // namespace ondaro::fuzz::bus

GDBusConnection* g_bus_get_sync(GBusType, GCancellable*, GError**) {
  return G_DBUS_CONNECTION(g_object_ref(ondaro::fuzz::bus::Ends().library));
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

guint g_bus_own_name(GBusType, const gchar* name, GBusNameOwnerFlags,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback, gpointer userData, GDestroyNotify) {
  GDBusConnection* const connection = ondaro::fuzz::bus::Ends().library;
  busAcquired(connection, name, userData);
  nameAcquired(connection, name, userData);
  return 1;
}

void g_bus_unown_name(guint) {}
