#include "support/MainLoop.h"

#include <glib-unix.h>

#include <cmath>
#include <csignal>

#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

gboolean OnSignal(gpointer userData) {
  static_cast<MainLoop*>(userData)->Stop();
  return G_SOURCE_CONTINUE;
}

gboolean OnTimeout(gpointer userData) {
  *static_cast<bool*>(userData) = true;
  return G_SOURCE_CONTINUE;
}

}  // namespace

MainLoop::MainLoop()
    : m_nInterrupt(g_unix_signal_add(SIGINT, OnSignal, this)),
      m_nTerminate(g_unix_signal_add(SIGTERM, OnSignal, this)) {}

MainLoop::~MainLoop() {
  g_source_remove(m_nInterrupt);
  g_source_remove(m_nTerminate);
}

bool MainLoop::RunFor(std::optional<double> seconds) {
  constexpr double MILLISECONDS = 1000.0;
  bool isOver = false;
  const guint timer = seconds
                          ? g_timeout_add(static_cast<guint>(std::ceil(*seconds * MILLISECONDS)),
                                          OnTimeout, &isOver)
                          : 0;
  // What stopped it before it ran, a callback during a call into the library, counts as well.
  while (!m_stopped && !isOver) {
    g_main_context_iteration(nullptr, TRUE);
  }
  if (timer != 0) {
    g_source_remove(timer);
  }
  m_stopped = false;
  if (m_failure != nullptr) {
    std::rethrow_exception(std::exchange(m_failure, nullptr));
  }
  return !isOver;
}

void MainLoop::Run(std::optional<double> seconds, const std::string& onTimeout) {
  Require(RunFor(seconds), onTimeout, ExitCode::TimedOut);
}

}  // namespace ondaro::ctl
