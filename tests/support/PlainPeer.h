#ifndef ONDARO_TESTS_SUPPORT_PLAINPEER_H
#define ONDARO_TESTS_SUPPORT_PLAINPEER_H

#include <gio/gio.h>

#include <string>
#include <vector>

namespace ondaro::test {

// The bus contract as an independent program knows it.
constexpr const char* BUS_NAME = "com.halvex.tv.ondaro";
constexpr const char* OBJECT_PATH = "/com/halvex/tv/ondaro";
constexpr const char* INTERFACE = "com.halvex.tv.ondaro";
constexpr const char* METHOD = "sendDataToServer";
constexpr const char* SIGNAL = "sendDataToClient";

/// A connection that the library does not share.
GDBusConnection* ConnectToBus();

/// Asks the bus itself, without iterating a main context: the reply, or "error: " and the message.
std::string CallBus(GDBusConnection* connection, const char* member, GVariant* body = nullptr);

/// When it returns, everything that the bus sent to the connection before has arrived and waits in
/// the main contexts.
inline void SyncWithBus(GDBusConnection* connection) { CallBus(connection, "GetId"); }

/// A bus connection of its own that speaks plain GDBus, on the thread's main context: the other
/// end for whatever is tested. The library never sees it but over the bus.
class PlainPeer {
 public:
  PlainPeer();
  ~PlainPeer();

  PlainPeer(const PlainPeer&) = delete;
  PlainPeer& operator=(const PlainPeer&) = delete;

  GDBusConnection* Connection() const { return m_connection; }

  /// Asks for the well-known name, would take it from its owner and let another take it, and does
  /// not queue; true when it is owned now.
  bool Own();
  void Release() { CallBus(m_connection, "ReleaseName", g_variant_new("(s)", BUS_NAME)); }
  /// Who owns the well-known name, as the bus says it; empty when nobody does.
  std::string Owner();

  /// The bodies of all signals from the daemon's path since the beginning, delivered so far.
  const std::vector<std::string>& Heard() const { return m_heard; }

  /// Sends a signal, as a rule from the daemon's path, to all or to one connection, and returns
  /// when the bus has it.
  void Emit(GVariant* body, const char* member = SIGNAL, const char* interface = INTERFACE,
            const char* path = OBJECT_PATH, const char* destination = nullptr);
  void EmitEvent(const char* name, const char* data) { Emit(g_variant_new("(ss)", name, data)); }

  /// Calls the daemon while iterating the main context: the reply, or "error: " and the message.
  std::string Call(GVariant* body, const char* member = METHOD, const char* path = OBJECT_PATH,
                   const char* destination = BUS_NAME, int timeoutMilliseconds = -1);

 private:
  GDBusConnection* m_connection;
  std::vector<std::string> m_heard;
};

}  // namespace ondaro::test

#endif
