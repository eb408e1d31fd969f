#ifndef ONDARO_CTL_BUS_H
#define ONDARO_CTL_BUS_H

#include <gio/gio.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "support/GLibOwner.h"
#include "support/MainLoop.h"

namespace ondaro::ctl {

/// The daemon's bus name, which is its interface's as well, its object, the method by which
/// applications reach it, and the signal by which it reaches them.
inline constexpr char DAEMON_NAME[] = "com.halvex.tv.ondaro";
inline constexpr char DAEMON_PATH[] = "/com/halvex/tv/ondaro";
inline constexpr char DAEMON_METHOD[] = "sendDataToServer";
inline constexpr char DAEMON_SIGNAL[] = "sendDataToClient";

/// What to do about a refusal.
inline constexpr char WHO_MAY_OWN[] =
    "by the policy com.halvex.tv.ondaro.conf root and the user ondaro may own the daemon's name";
inline constexpr char WHO_MAY_CALL[] =
    "by the policy com.halvex.tv.ondaro.conf root and the group ondaro may call the daemon and "
    "hear its events";

/// A question that doctor and messaging put to the bus or the daemon.
struct BusCall {
  const char* destination;
  const char* path;
  const char* interface;
  const char* method;
  GVariant* parameters;  // floating, or null
};
BusCall CallBus(const char* method, GVariant* parameters = nullptr);
BusCall CallDaemon();  // the library asks it the same

/// What came back for a method call.
struct Reply {
  std::shared_ptr<GVariant> value;  // of a call made here, unless it is an error
  std::string errorName;            // empty for an answer that is no error
  std::string errorMessage;
  bool isOfBus = false;  // the bus answered in place of the one called

  bool IsError() const { return !errorName.empty(); }

  /// True when there was no answer in time.
  bool IsTimeout() const { return errorName == NO_ANSWER; }

  /// True when the bus's policy kept the call out.
  bool IsRefusal() const;

  /// True when there is nobody to take the call, or nobody any more.
  bool IsFromNobody() const;

  static constexpr char NO_ANSWER[] = "(none)";
};
Reply ReplyOf(GDBusMessage* message);

/// Waits for the answer, but only some seconds.
Reply Ask(GDBusConnection* connection, const BusCall& call);

/// A Failure that says that the bus refused `what`, and what to do.
[[noreturn]] void FailRefused(const std::string& what, const std::string& whoMay);

/// A reference to the process's connection to the system bus, which the library uses as well; its
/// end does not end the process. A Failure when the bus cannot be reached.
GDBusConnection* ConnectToBus();

/// Serves the connection to the system bus: while it lives, a bus that goes away ends the loop with
/// a Failure; when it goes, all that was sent is out.
class Bus {
 public:
  using Handler = std::function<void(const Reply& reply)>;

  /// A Failure when the bus cannot be reached.
  explicit Bus(MainLoop& loop);
  ~Bus();

  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  GDBusConnection* Connection() const { return m_pConnection; }
  std::string OwnName() const { return g_dbus_connection_get_unique_name(m_pConnection); }

  /// Returns when the bus has taken all that was sent up to now.
  void Flush() const { g_dbus_connection_flush_sync(m_pConnection, nullptr, nullptr); }

  /// Calls `then` when the bus has dealt with all that was sent up to now, and the loop with what
  /// the bus answered to it.
  void AfterRoundTrip(std::function<void()> then);

  /// Calls `then` with the answer, which may take its time. That to CallDaemon() comes when there
  /// is no daemon or one that answers: the library asks the same before it hands out the
  /// application's end, and does not return from that to the loop.
  void Call(const BusCall& call, Handler then);

  /// Calls `handler` with the daemon name's owner now, when there is one, and whenever that
  /// changes.
  void WatchOwner(std::function<void(const std::string& owner)> handler);

  /// Calls `handler` with the reply to the latest call of `method`.
  void WatchReplies(const std::string& method, Handler handler);

  /// Calls `handler` with the events that arrive, by method call or by signal.
  void WatchEvents(std::function<void(const std::string& event, const std::string& data)> handler);

 private:
  /// Called, in the loop, with every message that comes or goes, whoever in the process sends or
  /// takes it: the library keeps the outcome of its own calls to itself, and events without a
  /// handler. Only what comes has a sender.
  using MessageHandler = std::function<void(GDBusMessage* message, const char* sender)>;

  static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                 gboolean isIncoming, gpointer userData);
  static gboolean Deliver(gpointer userData);
  static void OnClosed(GDBusConnection* connection, gboolean remote, GError* error,
                       gpointer userData);
  static void OnOwner(GDBusConnection* connection, const gchar* name, const gchar* owner,
                      gpointer userData);

  MainLoop& m_loop;
  GDBusConnection* m_pConnection;
  gulong m_nClosedHandler;
  guint m_nOwnerWatch = 0;
  std::function<void(const std::string& owner)> m_onOwner;
  std::list<MessageHandler> m_handlers;
  guint m_nFilter;

  static Bus* s_pLiving;  // of the loop's thread alone; the process has one connection
};

}  // namespace ondaro::ctl

#endif
