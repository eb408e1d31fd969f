#include "FileCalls.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <type_traits>

namespace ondaro::test {
namespace {

using Kind = FileCall::Kind;

thread_local const FileWatcher* t_watcher = nullptr;

std::string PathOf(int fd) {
  std::array<char, PATH_MAX> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// Makes the system call, unless the watcher lets it fail. `path` is a name or a descriptor.
template <typename Path, typename... Arguments>
long Call(Kind kind, Path path, long number, Arguments... arguments) {
  if (const FileWatcher* const watcher = t_watcher) {
    t_watcher = nullptr;
    const int before = errno;
    FileCall call{kind, {}};
    if constexpr (std::is_same_v<Path, int>) {
      call.path = PathOf(path);
    } else {
      call.path = path;
    }
    const int error = (*watcher)(call);
    errno = error != 0 ? error : before;
    t_watcher = watcher;
    if (error != 0) {
      return -1;
    }
  }
  return syscall(number, arguments...);
}

}  // namespace

FileWatch::FileWatch(FileWatcher watcher) : m_watcher(std::move(watcher)) {
  t_watcher = &m_watcher;
}
FileWatch::~FileWatch() { t_watcher = nullptr; }

}  // namespace ondaro::test

using ondaro::test::Call;
using ondaro::test::Kind;

// The engine calls the names that end in 64, the backend the others; both are the same calls here.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): nor are the system's allowed
extern "C" {

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(rest);
  const bool creates = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
  return static_cast<int>(
      Call(creates ? Kind::CREATE : Kind::OPEN, path, SYS_openat, AT_FDCWD, path, flags, mode));
}
ssize_t pread64(int fd, void* data, size_t size, off_t offset) {
  return Call(Kind::READ, fd, SYS_pread64, fd, data, size, offset);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off_t offset) {
  return Call(Kind::WRITE, fd, SYS_pwrite64, fd, data, size, offset);
}
int ftruncate64(int fd, off_t length) noexcept {
  return static_cast<int>(Call(Kind::TRUNCATE, fd, SYS_ftruncate, fd, length));
}
int fdatasync(int fd) { return static_cast<int>(Call(Kind::SYNC, fd, SYS_fdatasync, fd)); }
int fsync(int fd) { return static_cast<int>(Call(Kind::SYNC, fd, SYS_fsync, fd)); }
int unlink(const char* path) noexcept {
  return static_cast<int>(Call(Kind::REMOVE, path, SYS_unlink, path));
}
int rename(const char* from, const char* to) noexcept {
  return static_cast<int>(Call(Kind::RENAME, from, SYS_rename, from, to));
}
void* mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  const long result =
      fd < 0 ? syscall(SYS_mmap, address, size, protection, flags, fd, offset)
             : Call(Kind::MAP, fd, SYS_mmap, address, size, protection, flags, fd, offset);
  return reinterpret_cast<void*>(result);  // NOLINT(performance-no-int-to-ptr)
}

int open(const char* path, int flags, ...) __attribute__((alias("open64")));
ssize_t pread(int fd, void* data, size_t size, off_t offset) __attribute__((alias("pread64")));
ssize_t pwrite(int fd, const void* data, size_t size, off_t offset)
    __attribute__((alias("pwrite64")));
int ftruncate(int fd, off_t length) noexcept __attribute__((alias("ftruncate64")));
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept
    __attribute__((alias("mmap64")));

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
