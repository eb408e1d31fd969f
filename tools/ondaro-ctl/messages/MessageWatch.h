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
  /// Says whether to hand a message on. Runs on the bus's own thread.
  using Choice = std::function<bool(GDBusMessage* message, bool isIncoming)>;
  /// Takes a message chosen, in the loop.
  using Handler = std::function<void(GDBusMessage* message)>;

  MessageWatch(const Bus& bus, MainLoop& loop, Choice choice, Handler handler);
  ~MessageWatch();

  MessageWatch(const MessageWatch&) = delete;
  MessageWatch& operator=(const MessageWatch&) = delete;

 private:
  GDBusConnection* m_pConnection;
  std::shared_ptr<struct MessageWatchState> m_pState;
  guint m_nFilter;
};

/// Chooses the reply to the next call of `method`.
MessageWatch::Choice ReplyToNext(const std::string& method);

/// Chooses the events that arrive, by method call or by signal.
bool IsEvent(GDBusMessage* message, bool isIncoming);

}  // namespace ondaro::ctl

#endif
