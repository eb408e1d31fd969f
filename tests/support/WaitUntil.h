#ifndef ONDARO_TESTS_SUPPORT_WAITUNTIL_H
#define ONDARO_TESTS_SUPPORT_WAITUNTIL_H

#include <glib.h>

#include <chrono>

namespace ondaro::test {

constexpr std::chrono::seconds PATIENCE{30};

/// Iterates the thread's main context until `predicate` holds; false when `limit` passed first.
/// The predicate may look at what other threads and processes did: it is asked again and again.
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::milliseconds limit = PATIENCE) {
  constexpr guint TICK_MILLISECONDS = 2;
  GMainContext* context = g_main_context_get_thread_default();
  GSource* tick = g_timeout_source_new(TICK_MILLISECONDS);
  g_source_set_callback(
      tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick, context);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool holds = predicate();
  while (!holds && std::chrono::steady_clock::now() < deadline) {
    g_main_context_iteration(context, TRUE);
    holds = predicate();
  }
  g_source_destroy(tick);
  g_source_unref(tick);
  return holds;
}

/// Delivers what is ready now.
inline void Drain() {
  while (g_main_context_iteration(g_main_context_get_thread_default(), FALSE)) {
  }
}

}  // namespace ondaro::test

#endif
