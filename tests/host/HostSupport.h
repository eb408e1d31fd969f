#ifndef ONDARO_TESTS_HOST_HOSTSUPPORT_H
#define ONDARO_TESTS_HOST_HOSTSUPPORT_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/Files.h"

namespace ondaro::test {

/// Where a sync costs nothing, for tests of what is not the disk's.
inline std::filesystem::path FastDirectory() {
  const std::filesystem::path memory = "/dev/shm";
  return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

/// The process's own state directory, from the first call on. The settings in it outlast a test.
inline const TemporaryDirectory& StateDirectory() {
  static const TemporaryDirectory directory(FastDirectory());
  setenv("ONDARO_HOST_STATE", directory.Path().c_str(), 1);
  return directory;
}

/// A forked process that runs `body` and leaves without destructors. It dies with the thread that
/// made it; one that hangs is ended by SIGALRM.
class Child {
 public:
  template <typename Body>
  explicit Child(Body body) : m_pid(fork()) {
    if (m_pid < 0) {
      throw std::runtime_error("fork");
    }
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      alarm(60);
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
    waitpid(m_pid, &status, 0);
    m_pid = -1;
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
