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

}  // namespace

MainLoop::MainLoop()
    : m_pLoop(g_main_loop_new(nullptr, FALSE)),
      m_nInterrupt(g_unix_signal_add(SIGINT, OnSignal, this)),
      m_nTerminate(g_unix_signal_add(SIGTERM, OnSignal, this)) {}

MainLoop::~MainLoop() {
  g_source_remove(m_nInterrupt);
  g_source_remove(m_nTerminate);
}

gboolean MainLoop::OnTimeout(gpointer userData) {
  auto* const pThis = static_cast<MainLoop*>(userData);
  pThis->m_timedOut = true;
  pThis->Stop();
  return G_SOURCE_CONTINUE;
}

void MainLoop::Stop() {
  m_stopped = true;
  g_main_loop_quit(m_pLoop.get());
}

bool MainLoop::RunFor(std::optional<double> seconds) {
  constexpr double MILLISECONDS = 1000.0;
  const guint timer =
      seconds
          ? g_timeout_add(static_cast<guint>(std::ceil(*seconds * MILLISECONDS)), OnTimeout, this)
          : 0;
  // What stopped it before it ran, a callback during a call into the library, counts as well.
  if (!m_stopped) {
    g_main_loop_run(m_pLoop.get());
  }
  if (timer != 0) {
    g_source_remove(timer);
  }
  m_stopped = false;
  if (m_failure != nullptr) {
    std::rethrow_exception(std::exchange(m_failure, nullptr));
  }
  return !std::exchange(m_timedOut, false);
}

void MainLoop::Run(std::optional<double> seconds, const std::string& onTimeout) {
  if (!RunFor(seconds)) {
    throw Failure(ExitCode::TimedOut, onTimeout);
  }
}

}  // namespace ondaro::ctl
