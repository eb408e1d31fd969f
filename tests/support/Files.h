#ifndef ONDARO_TESTS_SUPPORT_FILES_H
#define ONDARO_TESTS_SUPPORT_FILES_H

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace ondaro::test {

/// Goes with its object, but not with the copies of it that forked processes have.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(
      const std::filesystem::path& base = std::filesystem::temp_directory_path())
      : m_path(base / "ondaro-test-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (m_owner == getpid()) {
      std::filesystem::remove_all(m_path, ignored);
    }
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string operator/(const std::string& name) const { return m_path + "/" + name; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
  const pid_t m_owner = getpid();
};

inline std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace ondaro::test

#endif
