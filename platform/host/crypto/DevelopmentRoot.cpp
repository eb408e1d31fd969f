#include "DevelopmentRoot.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "StateDirectory.h"

namespace ondaro::host {
namespace {

namespace fs = std::filesystem;

constexpr char LOCK_FILE[] = "lock";
constexpr char UNFINISHED_SUFFIX[] = ".new";
constexpr std::size_t MAX_FILE_SIZE = 65'536;

[[noreturn]] void ThrowErrno(const fs::path& path) {
  throw std::system_error(errno, std::generic_category(), path.string());
}

/// Nothing when there is no such file.
std::optional<std::string> Read(const fs::path& path) {
  const Descriptor file(OpenStateFile(path, O_RDONLY, IfMissing::FAIL));
  if (file.Number() < 0) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    ThrowErrno(path);
  }
  std::string text(MAX_FILE_SIZE, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = read(file.Number(), text.data() + size, text.size() - size);
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

void WriteAll(const Descriptor& file, std::string_view text, const fs::path& path) {
  while (!text.empty()) {
    const ssize_t written = write(file.Number(), text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      ThrowErrno(path);
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
}

/// The file is there whole or not at all, also after a loss of power. Called under the lock.
void Store(const fs::path& path, const std::string& text) {
  const fs::path unfinished = path.string() + UNFINISHED_SUFFIX;
  const Descriptor file(OpenStateFile(unfinished, O_WRONLY | O_TRUNC, IfMissing::MAKE));
  if (file.Number() < 0) {
    ThrowErrno(unfinished);
  }
  WriteAll(file, text, unfinished);
  const StandardStreamsHeld held;
  const Descriptor directory(open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fsync(file.Number()) != 0 || rename(unfinished.c_str(), path.c_str()) != 0 ||
      fsync(directory.Number()) != 0) {
    ThrowErrno(path);
  }
}

/// Against other processes and, each holder having opened the file itself, other threads.
class Lock {
 public:
  explicit Lock(const fs::path& path) : m_file(OpenStateFile(path, O_RDWR, IfMissing::MAKE)) {
    while (flock(m_file.Number(), LOCK_EX) != 0) {
      if (errno != EINTR) {
        ThrowErrno(path);
      }
    }
  }

 private:
  const Descriptor m_file;
};

/// The text of a key, wiped before its memory is given back.
class SecretText {
 public:
  explicit SecretText(std::string text) : m_text(std::move(text)) {}
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;
  ~SecretText() { OPENSSL_cleanse(m_text.data(), m_text.size()); }

  [[nodiscard]] const std::string& Text() const { return m_text; }

 private:
  std::string m_text;
};

/// Nothing when one of the files is missing.
std::optional<Issuer> Load(const fs::path& keyFile, const fs::path& certificateFile) {
  // The certificate was stored last.
  const std::optional<std::string> certificate = Read(certificateFile);
  std::optional<std::string> key = Read(keyFile);
  if (!certificate || !key) {
    return std::nullopt;
  }
  const SecretText keyText(std::move(*key));
  Issuer root{KeyFromPem(keyText.Text()), CertificateFromPem(*certificate)};
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
  Store(keyFile, SecretText(ToPem(*key)).Text());
  Store(certificateFile, ToPem(*certificate));
  return {std::move(key), std::move(certificate)};
}

}  // namespace

Issuer LoadDevelopmentRoot(const std::string& state) {
  const fs::path directory = fs::path(state) / ROOT_DIRECTORY;
  MakeDirectory(directory);
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
