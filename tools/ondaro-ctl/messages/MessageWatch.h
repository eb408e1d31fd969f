#ifndef ONDARO_CTL_MESSAGE_WATCH_H
#define ONDARO_CTL_MESSAGE_WATCH_H

#include <functional>
#include <memory>

#include "messages/Bus.h"

namespace ondaro::ctl {

/// Sees messages of the process's bus connection, whoever in the process sends or takes them: the
/// library keeps the outcome of its own calls to itself, and events without a handler.
class MessageWatch {
 public:
  /// Takes a message, in the loop; one that is not incoming goes out.
  using Handler = std::function<void(GDBusMessage* message, bool isIncoming)>;

  MessageWatch(const Bus& bus, MainLoop& loop, Handler handler);
  ~MessageWatch();

  MessageWatch(const MessageWatch&) = delete;
  MessageWatch& operator=(const MessageWatch&) = delete;

 private:
  GDBusConnection* m_pConnection;
  std::shared_ptr<struct MessageWatchState> m_pState;
  guint m_nFilter;
};

/// Takes the reply to the latest call of `method`, whoever in the process made it.
MessageWatch::Handler OnReplyTo(const std::string& method, Bus::Handler then);

/// True for an event that arrives, by method call or by signal.
bool IsEvent(GDBusMessage* message, bool isIncoming);

}  // namespace ondaro::ctl

#endif
