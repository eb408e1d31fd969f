#include "DevelopmentRoot.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

namespace ondaro::host {
namespace {

namespace fs = std::filesystem;

constexpr char LOCK_FILE[] = "lock";
constexpr char UNFINISHED_SUFFIX[] = ".new";
constexpr std::size_t MAX_FILE_SIZE = 65'536;

[[noreturn]] void ThrowErrno(const fs::path& path) {
  throw std::system_error(errno, std::generic_category(), path.string());
}

class File {
 public:
  File(const fs::path& path, int flags)
      : m_descriptor(open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
  ~File() {
    if (m_descriptor >= 0) {
      close(m_descriptor);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool IsOpen() const { return m_descriptor >= 0; }
  int Get() const { return m_descriptor; }

 private:
  int m_descriptor;
};

/// Nothing when there is no such file.
std::optional<std::string> Read(const fs::path& path) {
  const File file(path, O_RDONLY);
  if (!file.IsOpen()) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    ThrowErrno(path);
  }
  std::string text(MAX_FILE_SIZE, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = read(file.Get(), text.data() + size, text.size() - size);
    if (got < 0 && errno != EINTR) {
      ThrowErrno(path);
    }
    if (got == 0) {
      break;
    }
    size += got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  text.resize(size);
  return text;
}

void WriteAll(const File& file, std::string_view text, const fs::path& path) {
  while (!text.empty()) {
    const ssize_t written = write(file.Get(), text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      ThrowErrno(path);
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
}

/// The file is there whole or not at all, also after a loss of power. Called under the lock.
void Store(const fs::path& path, const std::string& text) {
  const fs::path unfinished = path.string() + UNFINISHED_SUFFIX;
  const File file(unfinished, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  if (!file.IsOpen()) {
    ThrowErrno(unfinished);
  }
  WriteAll(file, text, unfinished);
  const File directory(path.parent_path(), O_RDONLY | O_DIRECTORY);
  if (fsync(file.Get()) != 0 || rename(unfinished.c_str(), path.c_str()) != 0 ||
      !directory.IsOpen() || fsync(directory.Get()) != 0) {
    ThrowErrno(path);
  }
}

/// Against other processes and, each holder having opened the file itself, other threads.
class Lock {
 public:
  explicit Lock(const fs::path& path) : m_file(path, O_RDWR | O_CREAT) {
    if (!m_file.IsOpen()) {
      ThrowErrno(path);
    }
    while (flock(m_file.Get(), LOCK_EX) != 0) {
      if (errno != EINTR) {
        ThrowErrno(path);
      }
    }
  }

 private:
  File m_file;
};

fs::path DirectoryIn(const std::string& state) {
  fs::path directory = fs::path(state) / ROOT_DIRECTORY;
  if (mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    ThrowErrno(directory);
  }
  return directory;
}

/// Nothing when one of the files is missing.
std::optional<Issuer> Load(const fs::path& keyFile, const fs::path& certificateFile) {
  // The certificate was stored last.
  const std::optional<std::string> certificate = Read(certificateFile);
  const std::optional<std::string> key = Read(keyFile);
  if (!certificate || !key) {
    return std::nullopt;
  }
  Issuer root{KeyFromPem(*key), CertificateFromPem(*certificate)};
  if (!BelongTogether(*root.key, *root.certificate)) {
    throw CertificateError("key and certificate do not belong together");
  }
  return root;
}

Issuer Create(const fs::path& keyFile, const fs::path& certificateFile) {
  if (fs::exists(certificateFile)) {
    throw CertificateError("certificate without its key");
  }
  // A key without a certificate is from a process that ended in between; nothing was signed yet.
  Key key = MakeKey();
  Certificate certificate = MakeRoot(*key);
  Store(keyFile, ToPem(*key));
  Store(certificateFile, ToPem(*certificate));
  return {std::move(key), std::move(certificate)};
}

}  // namespace

Issuer LoadDevelopmentRoot(const std::string& state) {
  const fs::path directory = DirectoryIn(state);
  const fs::path keyFile = directory / ROOT_KEY_FILE;
  const fs::path certificateFile = directory / ROOT_CERTIFICATE_FILE;
  try {
    if (std::optional<Issuer> root = Load(keyFile, certificateFile)) {
      return std::move(*root);
    }
    const Lock lock(directory / LOCK_FILE);
    if (std::optional<Issuer> root = Load(keyFile, certificateFile)) {
      return std::move(*root);
    }
    return Create(keyFile, certificateFile);
  } catch (const CertificateError& error) {
    throw CertificateError("development root in " + directory.string() + ": " + error.what());
  }
}

}  // namespace ondaro::host
