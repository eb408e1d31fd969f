#include "LogSink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "SignalGuard.h"

namespace ondaro::host {
namespace {

// A process that closes "everything from 3 up" and opens its own files gets the lowest numbers;
// log lines must not land in those.
constexpr int LOWEST_LOG_DESCRIPTOR = 200;

// Of a process that was started without standard error, the number 2 is somebody else's file.
const bool g_hasStandardError = fcntl(STDERR_FILENO, F_GETFD) >= 0;

// A file system that filled up within a line has its beginning; the next line must not follow it.
std::atomic<bool> g_isTorn{false};

/// A regular file raises a signal only under a file size limit. Asked when the file is opened: the
/// guard costs as much as the write.
std::atomic<bool> g_mayFileRaise{true};

ssize_t WriteGuarded(int descriptor, const iovec* pieces, int count) {
  const SignalGuard guard({SIGPIPE, SIGXFSZ, SIGTTOU});
  return writev(descriptor, pieces, count);
}

/// O_NONBLOCK belongs to the open file, which a pipe or terminal on standard error shares with
/// other processes. So the line goes through an open file of its own. It lives no longer than
/// the write: a host may put another file on standard error, and a reader waits for its end.
ssize_t WriteWithoutWaiting(const iovec* pieces, int count) {
  const int opened =
      open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  // Another user's pipe cannot be opened again. One that polls writable takes a line whole,
  // unless another writer fills it in between: the one case left in which a line can wait.
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  if (opened < 0 && poll(&ready, 1, 0) != 1) {
    errno = EAGAIN;
    return -1;
  }
  const ssize_t written = WriteGuarded(opened < 0 ? STDERR_FILENO : opened, pieces, count);
  if (opened >= 0) {
    const int error = errno;
    close(opened);
    errno = error;
  }
  return written;
}

ssize_t WriteToStandardError(iovec* pieces, int count) {
  // Asked each time: a host may put another file there at any time.
  struct stat status {};
  if (!g_hasStandardError || fstat(STDERR_FILENO, &status) != 0) {
    errno = ENXIO;
    return -1;
  }
  if (S_ISREG(status.st_mode)) {
    return WriteGuarded(STDERR_FILENO, pieces, count);
  }
  if (S_ISSOCK(status.st_mode)) {
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<std::size_t>(count);
    return sendmsg(STDERR_FILENO, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  return WriteWithoutWaiting(pieces, count);
}

}  // namespace

int OpenLogFile(const char* path) {
  const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
  if (opened < 0) {
    return -1;
  }
  struct stat status {};
  rlimit size{};
  g_mayFileRaise = fstat(opened, &status) != 0 || !S_ISREG(status.st_mode) ||
                   getrlimit(RLIMIT_FSIZE, &size) != 0 || size.rlim_cur != RLIM_INFINITY;
  int moved = fcntl(opened, F_DUPFD_CLOEXEC, LOWEST_LOG_DESCRIPTOR);
  if (moved < 0) {
    moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  }
  close(opened);
  return moved;
}

bool WriteLine(int descriptor, const char* line, std::size_t size) {
  char newline = '\n';
  iovec pieces[] = {{&newline, 1}, {const_cast<char*>(line), size}};
  const bool wasTorn = g_isTorn.load(std::memory_order_relaxed);
  iovec* const first = wasTorn ? pieces : pieces + 1;
  const int count = wasTorn ? 2 : 1;
  const ssize_t written = descriptor == STDERR_FILENO ? WriteToStandardError(first, count)
                          : g_mayFileRaise            ? WriteGuarded(descriptor, first, count)
                                                      : writev(descriptor, first, count);
  if (written <= 0) {
    return false;
  }
  const bool isTorn = static_cast<std::size_t>(written) < size + (wasTorn ? 1 : 0);
  if (isTorn != wasTorn) {
    g_isTorn.store(isTorn, std::memory_order_relaxed);
  }
  errno = ENOSPC;
  return !isTorn;
}

}  // namespace ondaro::host
