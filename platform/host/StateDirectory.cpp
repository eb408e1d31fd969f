#include "StateDirectory.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace ondaro::host {
namespace {

constexpr char SHARED[] = "/var/lib/ondaro";

std::string Resolve() {
  // Not the caller's environment where a program runs with more rights than its caller has.
  const char* const own = secure_getenv("ONDARO_HOST_STATE");
  if (own != nullptr && *own != '\0') {
    std::string path = std::filesystem::absolute(own).lexically_normal();
    path.erase(path.find_last_not_of('/') + 1);
    return path;
  }
  if (euidaccess(SHARED, W_OK | X_OK) == 0) {
    return SHARED;
  }
  std::vector<char> buffer(1 << 16);
  passwd entry{};
  passwd* user = nullptr;
  getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &user);
  return user != nullptr ? std::string(user->pw_dir) + "/.local/state/ondaro" : SHARED;
}

[[noreturn]] void Fail(const std::string& path, int error = errno) {
  throw std::system_error(error, std::generic_category(), path);
}

struct stat DirectoryOf(const std::string& path) {
  struct stat status {};
  const std::string directory = path.substr(0, path.rfind('/'));
  if (stat(directory.empty() ? "/" : directory.c_str(), &status) != 0) {
    Fail(directory);
  }
  return status;
}

/// Gives what was made to whom the directory belongs that it is in, and the group as many rights as
/// the directory says. What is another's stays as it is.
void Adopt(int descriptor, const struct stat& directory, bool isNew) {
  struct stat status {};
  fstat(descriptor, &status);
  const bool isShared = (directory.st_mode & S_ISGID) != 0 && (directory.st_mode & S_IWGRP) != 0;
  mode_t mode = status.st_mode & S_IRWXU;
  if (isShared) {
    mode |= mode >> 3 | (S_ISDIR(status.st_mode) ? S_ISGID : 0);
  }
  if (isNew && geteuid() == 0) {
    [[maybe_unused]] const int adopted =
        fchownat(descriptor, "", directory.st_uid, directory.st_gid, AT_EMPTY_PATH);
  }
  const bool isOurs = status.st_uid == directory.st_uid || status.st_uid == geteuid();
  if ((status.st_mode & ALLPERMS) != mode && (isNew || isOurs)) {
    // By this name also where the descriptor stands for no more than a path.
    chmod(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), mode);
  }
}

}  // namespace

const std::string& StateDirectory() {
  static const std::string& path = *new std::string(Resolve());
  return path;
}

Descriptor::~Descriptor() {
  if (m_number >= 0) {
    close(m_number);
  }
}

StandardStreamsHeld::StandardStreamsHeld() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    m_isHeld[stream] =
        fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDONLY | O_CLOEXEC) == stream;
  }
}

StandardStreamsHeld::~StandardStreamsHeld() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (m_isHeld[stream]) {
      close(stream);
    }
  }
}

void MakeDirectory(const std::string& path) {
  const StandardStreamsHeld held;
  constexpr int FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  if (Descriptor there(open(path.c_str(), FLAGS)); there.Number() >= 0) {
    return;
  }
  if (errno != ENOENT || path.rfind('/') == std::string::npos) {
    Fail(path);
  }
  if (const std::string above = path.substr(0, path.rfind('/')); !above.empty()) {
    struct stat status {};
    if (stat(above.c_str(), &status) != 0) {
      MakeDirectory(above);
    }
  }
  const bool isNew = mkdir(path.c_str(), S_IRWXU) == 0;
  const Descriptor made(open(path.c_str(), FLAGS));
  if (made.Number() < 0) {
    Fail(path);
  }
  if (isNew) {
    Adopt(made.Number(), DirectoryOf(path), true);
  }
}

int OpenStateFile(const std::string& path, int flags, IfMissing ifMissing) {
  const StandardStreamsHeld held;
  // Not waiting for whoever is to open the other end of a FIFO.
  constexpr int ALWAYS = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  int file = open(path.c_str(), flags | ALWAYS);
  bool isNew = false;
  if (file < 0 && errno == ENOENT && ifMissing == IfMissing::MAKE) {
    file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | ALWAYS, S_IRUSR | S_IWUSR);
    isNew = file >= 0;
    if (!isNew && errno == EEXIST) {
      file = open(path.c_str(), flags | ALWAYS);
    }
  }
  struct stat status {};
  if (file < 0 ? errno == ELOOP : fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
    const Descriptor unwanted(file);
    Fail(path, file < 0 ? ELOOP : EINVAL);
  }
  if (file >= 0) {
    Adopt(file, DirectoryOf(path), isNew);
  }
  return file;
}

}  // namespace ondaro::host
