#ifndef ONDARO_TESTS_HOST_FILECALLS_H
#define ONDARO_TESTS_HOST_FILECALLS_H

#include <functional>
#include <string>

namespace ondaro::test {

/// A call by which the store or its engine reaches a file; an executable linked with FileCalls.cpp
/// sees them all before the kernel does.
struct FileCall {
  enum class Kind { OPEN, CREATE, READ, WRITE, TRUNCATE, SYNC, REMOVE, RENAME, MAP };

  Kind kind;
  std::string path;
};

/// Returns 0, or the error with which the call is to fail. Calls of its own are not watched.
using FileWatcher = std::function<int(const FileCall&)>;

/// For this thread and while the object lives.
class FileWatch {
 public:
  explicit FileWatch(FileWatcher watcher);
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

 private:
  FileWatcher m_watcher;
};

}  // namespace ondaro::test

#endif
