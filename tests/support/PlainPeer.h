#ifndef ONDARO_TESTS_SUPPORT_PLAINPEER_H
#define ONDARO_TESTS_SUPPORT_PLAINPEER_H

#include <gio/gio.h>

#include <string>
#include <utility>
#include <vector>

namespace ondaro::test {

// The bus contract as an independent program knows it.
constexpr const char* BUS_NAME = "com.halvex.tv.ondaro";
constexpr const char* OBJECT_PATH = "/com/halvex/tv/ondaro";
constexpr const char* INTERFACE = "com.halvex.tv.ondaro";
constexpr const char* METHOD = "sendDataToServer";
constexpr const char* SIGNAL = "sendDataToClient";

/// An event's name and data.
using Event = std::pair<std::string, std::string>;

/// Asks the bus over `connection` without iterating a main context. When it returns, everything
/// that the bus sent to the connection before has arrived and waits in the main contexts.
void SyncWithBus(GDBusConnection* connection);

/// A bus connection of its own that speaks plain GDBus, on the thread's main context: the other
/// end for whatever is tested. The library never sees it but over the bus.
class PlainPeer {
 public:
  PlainPeer();
  ~PlainPeer();

  PlainPeer(const PlainPeer&) = delete;
  PlainPeer& operator=(const PlainPeer&) = delete;

  GDBusConnection* Connection() const { return m_connection; }
  std::string UniqueName() const { return g_dbus_connection_get_unique_name(m_connection); }

  /// Asks for the well-known name, would take it from its owner and let another take it, and does
  /// not queue; true when it is owned now.
  bool Own();
  void Release();
  /// Who owns the well-known name; empty when nobody does.
  std::string Owner();

  /// Records the events that anyone sends, from now on.
  void Listen(const char* interface = INTERFACE);
  const std::vector<Event>& Heard() const { return m_heard; }

  /// Sends a signal, as a rule from the daemon's path, to all or to one connection, and returns
  /// when the bus has it.
  void Emit(GVariant* body, const char* member = SIGNAL, const char* interface = INTERFACE,
            const char* destination = nullptr, const char* path = OBJECT_PATH);
  void EmitEvent(const std::string& name, const std::string& data);

  /// Calls the daemon while iterating the main context: the reply, or "error: " and the message.
  std::string Call(GVariant* body, const char* member = METHOD, const char* interface = INTERFACE,
                   const char* path = OBJECT_PATH, const char* destination = BUS_NAME,
                   int timeoutMilliseconds = -1);
  std::string CallBus(const char* member, GVariant* body);

 private:
  GDBusConnection* m_connection;
  std::vector<Event> m_heard;
};

}  // namespace ondaro::test

#endif
