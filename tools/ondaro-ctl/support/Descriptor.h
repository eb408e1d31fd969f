#ifndef ONDARO_CTL_DESCRIPTOR_H
#define ONDARO_CTL_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace ondaro::ctl {

/// Owns a file descriptor; a negative number is none.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : m_number(number) {}
  ~Descriptor() {
    if (m_number >= 0) {
      close(m_number);
    }
  }

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const noexcept { return m_number; }

 private:
  int m_number;
};

/// False, with errno set, when not all could be written.
inline bool WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace ondaro::ctl

#endif
