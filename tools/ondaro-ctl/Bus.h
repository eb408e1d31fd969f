#ifndef ONDARO_CTL_BUS_H
#define ONDARO_CTL_BUS_H

#include <gio/gio.h>

#include <functional>
#include <string>

#include "MainLoop.h"

namespace ondaro::ctl {

/// The daemon's bus name, which is its interface's as well, its object, the method by which
/// applications reach it, and the signal by which it reaches them.
inline constexpr char DAEMON_NAME[] = "com.halvex.tv.ondaro";
inline constexpr char DAEMON_PATH[] = "/com/halvex/tv/ondaro";
inline constexpr char DAEMON_METHOD[] = "sendDataToServer";
inline constexpr char DAEMON_SIGNAL[] = "sendDataToClient";

/// A reference to the process's connection to the system bus, which the library uses as well; its
/// end does not end the process. A Failure when the bus cannot be reached.
GDBusConnection* ConnectToBus();

/// Serves the connection to the system bus: while it lives, a bus that goes away ends the loop with
/// a Failure; when it goes, all that was sent is out.
class Bus {
 public:
  /// A Failure when the bus cannot be reached.
  explicit Bus(MainLoop& loop);
  ~Bus();

  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  GDBusConnection* Connection() const { return m_pConnection; }
  std::string OwnName() const;

  /// Calls `then` when the bus has dealt with all that was sent up to now, and the loop with what
  /// the bus answered to it.
  void AfterRoundTrip(std::function<void()> then);

  /// Calls `then` when there is no daemon or one that answers: the library asks it the same before
  /// it hands out the application's end, and does not return from that to the loop.
  void WhenDaemonAnswers(std::function<void()> then);

 private:
  struct Call {
    const char* destination;
    const char* path;
    const char* interface;
    const char* method;
    GVariant* parameters;
  };

  void AfterAnswer(const Call& call, std::function<void()> then);
  static void OnClosed(GDBusConnection* connection, gboolean remote, GError* error,
                       gpointer userData);

  MainLoop& m_loop;
  GDBusConnection* m_pConnection;
  gulong m_nClosedHandler;
};

}  // namespace ondaro::ctl

#endif
