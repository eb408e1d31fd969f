#ifndef ONDARO_CTL_DESCRIPTOR_H
#define ONDARO_CTL_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace ondaro::ctl {

/// Owns a file descriptor; a negative number is none.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : m_number(number) {}
  Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
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

}  // namespace ondaro::ctl

#endif
