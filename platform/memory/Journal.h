#ifndef ONDARO_PLATFORM_MEMORY_JOURNAL_H
#define ONDARO_PLATFORM_MEMORY_JOURNAL_H

#include <cstddef>
#include <functional>
#include <string>
#include <variant>

namespace ondaro::memory {

using Value = std::variant<std::string, int>;

/// All writes of the keys of one lifetime, one behind the other: a file that the processes of a set
/// share, or memory of this process alone. One thread at a time.
class Journal {
 public:
  /// Without a path, of this process alone.
  explicit Journal(const std::string& path);

  /// False when it could not be written.
  bool Append(const std::string& key, const Value& value);
  /// Each write since the last call, in order.
  void ReadOn(const std::function<void(const std::string& key, const Value& value)>& use);

 private:
  const int m_file;
  std::size_t m_readTo = 0;
};

}  // namespace ondaro::memory

#endif
