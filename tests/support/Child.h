#ifndef ONDARO_TESTS_SUPPORT_CHILD_H
#define ONDARO_TESTS_SUPPORT_CHILD_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace ondaro::test {

/// A forked process that runs `body` and leaves without destructors. It dies with the thread that
/// made it, and with this object; SIGALRM ends one that hangs for `seconds`, with 0 nothing does.
class Child {
 public:
  template <typename Body>
  explicit Child(Body body, unsigned seconds = 60) : m_pid(fork()) {
    if (m_pid < 0) {
      throw std::runtime_error("fork");
    }
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      alarm(seconds);
      body();
      _exit(0);
    }
  }
  ~Child() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      Wait();
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t Pid() const { return m_pid; }

  /// 0 for a child whose body came to its end.
  int Wait() {
    int status = -1;
    waitpid(std::exchange(m_pid, -1), &status, 0);
    return status;
  }

 private:
  pid_t m_pid;
};

template <typename Body>
int RunInChild(Body body) {
  return Child(body).Wait();
}

}  // namespace ondaro::test

#endif
