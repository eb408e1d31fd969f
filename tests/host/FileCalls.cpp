#include "FileCalls.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>

namespace ondaro::test {
namespace {

thread_local const FileWatcher* t_watcher = nullptr;

std::string PathOf(int fd) {
  std::array<char, PATH_MAX> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// True when the call shall fail, with errno set.
template <typename MakeCall>
bool IsToFail(MakeCall makeCall) {
  const FileWatcher* const watcher = t_watcher;
  if (watcher == nullptr) {
    return false;
  }
  t_watcher = nullptr;
  const int before = errno;
  const int error = (*watcher)(makeCall());
  errno = error != 0 ? error : before;
  t_watcher = watcher;
  return error != 0;
}

using Kind = FileCall::Kind;

template <typename... Arguments>
long Call(long number, const FileCall& call, Arguments... arguments) {
  return IsToFail([&] { return call; }) ? -1 : syscall(number, arguments...);
}

template <typename... Arguments>
long CallOn(int fd, Kind kind, off_t offset, long number, Arguments... arguments) {
  return IsToFail([&] {
    return FileCall{kind, PathOf(fd), offset, {}};
  })
             ? -1
             : syscall(number, fd, arguments...);
}

}  // namespace

FileWatch::FileWatch(FileWatcher watcher) : m_watcher(std::move(watcher)) {
  t_watcher = &m_watcher;
}
FileWatch::~FileWatch() { t_watcher = nullptr; }

}  // namespace ondaro::test

using namespace ondaro::test;

// The engine calls the names that end in 64, the backend the others; both are the same calls here.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): nor are the system's allowed
extern "C" {

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(rest);
  const bool creates = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
  return static_cast<int>(Call(SYS_openat, {creates ? Kind::CREATE : Kind::OPEN, path, 0, {}},
                               AT_FDCWD, path, flags, mode));
}
int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(rest);
  return open64(path, flags, mode);
}
ssize_t pread64(int fd, void* data, size_t size, off_t offset) {
  return CallOn(fd, Kind::READ, offset, SYS_pread64, data, size, offset);
}
ssize_t pread(int fd, void* data, size_t size, off_t offset) {
  return pread64(fd, data, size, offset);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off_t offset) {
  const bool fails = IsToFail([&] {
    return FileCall{Kind::WRITE, PathOf(fd), offset, {static_cast<const char*>(data), size}};
  });
  return fails ? -1 : syscall(SYS_pwrite64, fd, data, size, offset);
}
ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  return pwrite64(fd, data, size, offset);
}
int ftruncate64(int fd, off_t length) noexcept {
  return static_cast<int>(CallOn(fd, Kind::TRUNCATE, length, SYS_ftruncate, length));
}
int ftruncate(int fd, off_t length) noexcept { return ftruncate64(fd, length); }
int fdatasync(int fd) { return static_cast<int>(CallOn(fd, Kind::SYNC, 0, SYS_fdatasync)); }
int fsync(int fd) { return static_cast<int>(CallOn(fd, Kind::SYNC, 0, SYS_fsync)); }
int unlink(const char* path) noexcept {
  return static_cast<int>(Call(SYS_unlink, {Kind::REMOVE, path, 0, {}}, path));
}
int rename(const char* from, const char* to) noexcept {
  return static_cast<int>(Call(SYS_rename, {Kind::RENAME, from, 0, to}, from, to));
}
void* mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  const bool fails = fd >= 0 && IsToFail([&] {
                       return FileCall{Kind::MAP, PathOf(fd), offset, {}};
                     });
  return fails ? MAP_FAILED
               : reinterpret_cast<void*>(  // NOLINT(performance-no-int-to-ptr)
                     syscall(SYS_mmap, address, size, protection, flags, fd, offset));
}
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  return mmap64(address, size, protection, flags, fd, offset);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
