#ifndef ONDARO_FUZZ_FUZZ_H
#define ONDARO_FUZZ_FUZZ_H

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace ondaro::fuzz {

inline const GLogLevelFlags CRITICALS_ARE_FATAL =
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));

/// A finding, as is every crash, every critical of GLib and everything a sanitizer reports.
inline void Expect(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
  }
}

/// The bytes of one run, taken from the front; zeros and empty texts when they are used up.
class Input {
 public:
  explicit Input(std::string bytes) : m_bytes(std::move(bytes)) {}

  bool IsEmpty() const { return m_position == m_bytes.size(); }
  unsigned Number(unsigned limit) {
    return IsEmpty() ? 0 : static_cast<std::uint8_t>(m_bytes[m_position++]) % limit;
  }
  /// As long as the next byte says.
  std::string Text() { return Take(Number(256)); }
  std::string Rest() { return Take(m_bytes.size()); }

 private:
  std::string Take(std::size_t length) {
    std::string text = m_bytes.substr(m_position, length);
    m_position += text.size();
    return text;
  }

  std::string m_bytes;
  std::size_t m_position = 0;
};

/// Each target is one source with this function.
void Run(Input input);

}  // namespace ondaro::fuzz

#endif
