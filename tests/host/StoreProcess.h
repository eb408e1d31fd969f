#ifndef ONDARO_TESTS_HOST_STOREPROCESS_H
#define ONDARO_TESTS_HOST_STOREPROCESS_H

#include <stdlib.h>

#include <deque>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "bus/ChildProcess.h"

namespace ondaro::test {

/// A directory that goes with its object, whatever is in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "ondaro-store-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    m_path = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

/// A running store-child on the state directory given.
class StoreProcess {
 public:
  explicit StoreProcess(const std::filesystem::path& state)
      : m_process({"env", "ONDARO_HOST_STATE=" + state.string(), ONDARO_STORE_CHILD}) {
    Reply();
  }

  /// Does a command; its answer, or "(none)" when the process has gone.
  std::string Ask(const std::string& command) {
    Begin(command);
    return Reply();
  }
  void Begin(const std::string& command) { m_process.Write(command + "\n"); }
  std::string Reply() { return Next("> "); }
  /// The next change called back, as "key=value".
  std::string Change() { return Next("* "); }

  bool HasLogged(const std::string& part) { return Log().find(part) != std::string::npos; }

  /// The error lines so far, to be shown when a test fails.
  std::string Log() {
    std::string log;
    for (const std::string& line : m_lines["! "]) log += line + "\n";
    return log;
  }

  ChildProcess& Process() { return m_process; }

 private:
  /// Lines of another kind are kept for those who ask for them.
  std::string Next(const std::string& kind) {
    std::deque<std::string>& lines = m_lines[kind];
    while (lines.empty()) {
      const std::optional<std::string> line = m_process.ReadLine();
      if (!line) return "(none)";
      m_lines[line->substr(0, kind.size())].push_back(line->substr(kind.size()));
    }
    std::string line = lines.front();
    lines.pop_front();
    return line;
  }

  ChildProcess m_process;
  std::map<std::string, std::deque<std::string>> m_lines;
};

}  // namespace ondaro::test

#endif
