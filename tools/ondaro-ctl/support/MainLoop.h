#ifndef ONDARO_CTL_MAIN_LOOP_H
#define ONDARO_CTL_MAIN_LOOP_H

#include <glib.h>

#include <exception>
#include <optional>
#include <string>
#include <utility>

namespace ondaro::ctl {

/// The loop in which the library's callbacks arrive. Lives on the main thread; callbacks refer to
/// it, so it is declared before whatever they are registered for.
class MainLoop {
 public:
  MainLoop();
  ~MainLoop();

  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Iterates until Stop(), SIGINT or SIGTERM; false when `seconds` are over first. Throws what
  /// ended a callback.
  bool RunFor(std::optional<double> seconds);

  /// The same, with a Failure of that message when the time is over.
  void Run(std::optional<double> seconds, const std::string& onTimeout);

  void Stop() { m_stopped = true; }

  /// The body of every callback from C: nothing is thrown back into the caller; what was thrown
  /// ends the loop and comes out of Run(). On the loop's own thread only.
  template <class Body>
  void Protect(Body&& body) noexcept {
    try {
      std::forward<Body>(body)();
    } catch (...) {
      if (m_failure == nullptr) {
        m_failure = std::current_exception();
      }
      Stop();
    }
  }

 private:
  guint m_nInterrupt;
  guint m_nTerminate;
  bool m_stopped = false;
  std::exception_ptr m_failure;
};

}  // namespace ondaro::ctl

#endif
