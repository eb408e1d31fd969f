#ifndef ONDARO_PLATFORM_HOST_SIGNALGUARD_H
#define ONDARO_PLATFORM_HOST_SIGNALGUARD_H

#include <signal.h>

#include <cerrno>
#include <ctime>
#include <initializer_list>

namespace ondaro::host {

/// Keeps signals that a write can raise from this thread, and takes back those that were raised.
/// One that was pending before is the caller's and stays. Leaves `errno` alone.
class SignalGuard {
 public:
  explicit SignalGuard(std::initializer_list<int> signals) {
    sigemptyset(&m_own);
    for (const int signal : signals) {
      sigaddset(&m_own, signal);
    }
    pthread_sigmask(SIG_BLOCK, &m_own, &m_previous);
    for (const int signal : signals) {
      sigset_t pending;
      if (sigismember(&m_previous, signal) == 1 && sigpending(&pending) == 0 &&
          sigismember(&pending, signal) == 1) {
        sigdelset(&m_own, signal);
      }
    }
  }
  ~SignalGuard() {
    const int error = errno;
    const timespec atOnce{};
    while (sigtimedwait(&m_own, nullptr, &atOnce) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    errno = error;
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  sigset_t m_own;
  sigset_t m_previous;
};

}  // namespace ondaro::host

#endif
