#ifndef ONDARO_CTL_REPLY_WATCH_H
#define ONDARO_CTL_REPLY_WATCH_H

#include <functional>
#include <memory>
#include <string>

#include "Bus.h"

namespace ondaro::ctl {

/// What the bus brought back for a method call.
struct Reply {
  bool isError = false;
  std::string errorName;
  std::string errorMessage;

  /// True when there is nobody to take the call, or nobody any more.
  bool IsFromNobody() const;
};

/// Sees the reply to the next call of `method` on the bus connection, whoever in the process makes
/// it. The library keeps the outcome of its own calls to itself.
class ReplyWatch {
 public:
  using Handler = std::function<void(const Reply& reply)>;

  /// `handler` is called once, in the loop.
  ReplyWatch(const Bus& bus, MainLoop& loop, const char* method, Handler handler);
  ~ReplyWatch();

  ReplyWatch(const ReplyWatch&) = delete;
  ReplyWatch& operator=(const ReplyWatch&) = delete;

 private:
  struct State;

  static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                 gboolean isIncoming, gpointer userData);
  static gboolean Deliver(gpointer userData);

  GDBusConnection* m_pConnection;
  std::shared_ptr<State> m_pState;
  guint m_nFilter;
};

}  // namespace ondaro::ctl

#endif
