#include "LogSink.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace ondaro::host {
namespace {

// A process that closes "everything from 3 up" and opens its own files gets the lowest numbers;
// log lines must not land in those.
constexpr int LOWEST_LOG_DESCRIPTOR = 200;

/// Keeps the signals a write can raise (no reader, file size limit, terminal of another job) from
/// being delivered to the thread, and takes back the one that was raised.
class SignalGuard {
 public:
  SignalGuard() {
    sigset_t raised;
    sigemptyset(&raised);
    for (const int signal : SIGNALS) {
      sigaddset(&raised, signal);
    }
    pthread_sigmask(SIG_BLOCK, &raised, &m_previous);
    sigemptyset(&m_pending);
    for (const int signal : SIGNALS) {
      if (sigismember(&m_previous, signal) == 1) {
        sigpending(&m_pending);
        break;
      }
    }
  }

  ~SignalGuard() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }

  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

  /// One that was pending before the write is the caller's and stays.
  void Discard(int signal) {
    if (sigismember(&m_pending, signal) == 1) {
      return;
    }
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, signal);
    const timespec atOnce{};
    sigtimedwait(&raised, nullptr, &atOnce);
  }

 private:
  static constexpr int SIGNALS[] = {SIGPIPE, SIGXFSZ, SIGTTOU};

  sigset_t m_previous;
  sigset_t m_pending;
};

class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int descriptor) : m_descriptor(descriptor) {}
  ~OwnedDescriptor() {
    if (m_descriptor >= 0) {
      close(m_descriptor);
    }
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  int Get() const { return m_descriptor; }

 private:
  int m_descriptor;
};

struct Pieces {
  iovec* first;
  int count;
};

ssize_t WriteGuarded(int descriptor, Pieces pieces) {
  SignalGuard guard;
  const ssize_t written = writev(descriptor, pieces.first, pieces.count);
  if (written < 0) {
    const int error = errno;
    if (error == EPIPE || error == EFBIG) {
      guard.Discard(error == EPIPE ? SIGPIPE : SIGXFSZ);
    }
    errno = error;
  }
  return written;
}

/// A regular file raises a signal only under a file size limit. Asked when the file is opened: the
/// guard costs as much as the write.
bool MayRaise(int file) {
  struct stat status {};
  rlimit size{};
  return fstat(file, &status) != 0 || !S_ISREG(status.st_mode) ||
         getrlimit(RLIMIT_FSIZE, &size) != 0 || size.rlim_cur != RLIM_INFINITY;
}

ssize_t SendWithoutWaiting(int descriptor, Pieces pieces) {
  msghdr message{};
  message.msg_iov = pieces.first;
  message.msg_iovlen = static_cast<std::size_t>(pieces.count);
  return sendmsg(descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

/// O_NONBLOCK belongs to the open file, which a pipe or terminal on standard error shares with
/// other processes. So the line goes through an open file of its own. It lives no longer than
/// the write: a host may put another file on standard error, and a reader waits for its end.
ssize_t WriteWithoutWaiting(int descriptor, Pieces pieces) {
  const OwnedDescriptor own(
      open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (own.Get() >= 0) {
    return WriteGuarded(own.Get(), pieces);
  }
  // Another user's pipe cannot be opened again. One that polls writable takes a line whole,
  // unless another writer fills it in between: the one case left in which a line can wait.
  pollfd ready{descriptor, POLLOUT, 0};
  if (poll(&ready, 1, 0) != 1) {
    errno = EAGAIN;
    return -1;
  }
  return WriteGuarded(descriptor, pieces);
}

ssize_t WriteToStandardError(Pieces pieces) {
  // Asked each time: a host may put another file there at any time.
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) {
    return -1;
  }
  if (S_ISREG(status.st_mode)) {
    return WriteGuarded(STDERR_FILENO, pieces);
  }
  if (S_ISSOCK(status.st_mode)) {
    return SendWithoutWaiting(STDERR_FILENO, pieces);
  }
  return WriteWithoutWaiting(STDERR_FILENO, pieces);
}

// A file system that filled up within a line has its beginning; the next line must not follow it.
std::atomic<bool> g_torn{false};

std::atomic<bool> g_fileMayRaise{true};

ssize_t WriteToFile(int file, Pieces pieces) {
  if (g_fileMayRaise.load(std::memory_order_relaxed)) {
    return WriteGuarded(file, pieces);
  }
  return writev(file, pieces.first, pieces.count);
}

}  // namespace

int OpenLogFile(const char* path) {
  const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
  if (opened < 0) {
    return -1;
  }
  g_fileMayRaise.store(MayRaise(opened), std::memory_order_relaxed);
  const int moved = fcntl(opened, F_DUPFD_CLOEXEC, LOWEST_LOG_DESCRIPTOR);
  if (moved < 0) {
    return opened;
  }
  close(opened);
  return moved;
}

bool WriteLine(int descriptor, const char* line, std::size_t size) {
  char newline = '\n';
  iovec pieces[] = {{&newline, 1}, {const_cast<char*>(line), size}};
  const bool torn = g_torn.load(std::memory_order_relaxed);
  const Pieces all = torn ? Pieces{pieces, 2} : Pieces{pieces + 1, 1};
  const std::size_t wanted = torn ? size + 1 : size;

  const ssize_t written =
      descriptor == STDERR_FILENO ? WriteToStandardError(all) : WriteToFile(descriptor, all);
  if (written <= 0) {
    return false;
  }
  const bool cut = static_cast<std::size_t>(written) < wanted;
  if (cut != torn) {
    g_torn.store(cut, std::memory_order_relaxed);
  }
  if (cut) {
    errno = ENOSPC;
  }
  return !cut;
}

}  // namespace ondaro::host
