#ifndef ONDARO_CTL_INPUT_LINES_H
#define ONDARO_CTL_INPUT_LINES_H

#include <glib.h>

#include <functional>
#include <string>
#include <string_view>

#include "MainLoop.h"

namespace ondaro::ctl {

/// Calls `handler` with every line of standard input, until its end or its own.
class InputLines {
 public:
  using Handler = std::function<void(std::string_view line)>;

  InputLines(MainLoop& loop, Handler handler);
  ~InputLines();

  InputLines(const InputLines&) = delete;
  InputLines& operator=(const InputLines&) = delete;

 private:
  static gboolean OnReadable(gint descriptor, GIOCondition condition, gpointer userData);

  /// False at the end of the input.
  bool Read(int descriptor);
  void HandleLines();

  MainLoop& m_loop;
  Handler m_handler;
  std::string m_pending;  // received, and not handled yet
  guint m_nSource;
};

}  // namespace ondaro::ctl

#endif
