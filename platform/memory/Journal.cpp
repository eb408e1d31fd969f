#include "Journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace ondaro::memory {
namespace {

/// In front of key and value, which follow without an end of their own.
struct Head {
  std::uint32_t keySize;
  std::uint32_t valueSize;
  std::int32_t isText;
};

class Lock {
 public:
  explicit Lock(int file) : m_file(file) { flock(m_file, LOCK_EX); }
  ~Lock() { flock(m_file, LOCK_UN); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  const int m_file;
};

}  // namespace

Journal::Journal(const std::string& path)
    : m_file(path.empty() ? memfd_create("settings", MFD_CLOEXEC)
                          : open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}

bool Journal::Append(const std::string& key, const Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  const std::string bytes = text != nullptr ? *text : std::to_string(std::get<int>(value));
  const Head head{static_cast<std::uint32_t>(key.size()), static_cast<std::uint32_t>(bytes.size()),
                  text != nullptr};
  const std::string record =
      std::string(reinterpret_cast<const char*>(&head), sizeof head) + key + bytes;
  const Lock lock(m_file);
  const off_t end = lseek(m_file, 0, SEEK_END);
  return end >= 0 &&
         pwrite(m_file, record.data(), record.size(), end) == static_cast<ssize_t>(record.size());
}

void Journal::ReadOn(const std::function<void(const std::string&, const Value&)>& use) {
  std::string news;
  {
    const Lock lock(m_file);
    const off_t end = lseek(m_file, 0, SEEK_END);
    if (end <= static_cast<off_t>(m_readTo)) {
      return;
    }
    news.resize(static_cast<std::size_t>(end) - m_readTo);
    if (pread(m_file, news.data(), news.size(), static_cast<off_t>(m_readTo)) !=
        static_cast<ssize_t>(news.size())) {
      return;
    }
  }
  m_readTo += news.size();
  for (std::size_t at = 0; at < news.size();) {
    Head head{};
    std::memcpy(&head, news.data() + at, sizeof head);
    const std::string key = news.substr(at + sizeof head, head.keySize);
    const std::string bytes = news.substr(at + sizeof head + head.keySize, head.valueSize);
    at += sizeof head + head.keySize + head.valueSize;
    use(key, head.isText != 0 ? Value(bytes) : Value(std::stoi(bytes)));
  }
}

}  // namespace ondaro::memory
