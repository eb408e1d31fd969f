#include "support/NewFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

[[noreturn]] void Fail(const std::string& path, const std::string& reason = std::strerror(errno)) {
  throw Failure(path + " cannot be written: " + reason);
}

/// The name under which the file is written; in place of another it comes as a whole.
std::string WrittenName(const std::string& path, bool replace) {
  struct stat present {};
  if (replace && lstat(path.c_str(), &present) == 0 && !S_ISREG(present.st_mode)) {
    Fail(path, "it is there and no regular file");
  }
  return replace ? path + ".new" : path;
}

}  // namespace

NewFile::NewFile(const std::string& path, mode_t mode, bool replace)
    : m_path(path),
      m_written(WrittenName(path, replace)),
      m_file(open(m_written.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)) {
  if (m_file.Number() < 0 && errno == EEXIST) {
    Fail(m_written,
         replace ? "it is left over; remove it first" : "it is there already; --force replaces it");
  }
  if (m_file.Number() < 0) {
    Fail(m_written);
  }
}

NewFile::~NewFile() {
  if (!m_written.empty()) {
    unlink(m_written.c_str());
  }
}

void NewFile::Write(std::string_view bytes) const {
  if (!WriteAll(m_file.Number(), bytes)) {
    Fail(m_path);
  }
}

void NewFile::Commit() {
  if (fsync(m_file.Number()) != 0 ||
      (m_written != m_path && std::rename(m_written.c_str(), m_path.c_str()) != 0)) {
    Fail(m_path);
  }
  m_written.clear();
}

}  // namespace ondaro::ctl
