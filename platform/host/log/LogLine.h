#ifndef ONDARO_PLATFORM_HOST_LOGLINE_H
#define ONDARO_PLATFORM_HOST_LOGLINE_H

#include <cstdarg>
#include <cstddef>

namespace ondaro::host {

/// One line of the log, built without the heap; docs/host-backend.md describes it. A process has
/// one large room for it. Whoever finds that taken, by another thread or by what a signal
/// interrupted, makes do with the small one in the object: it keeps a message of 4 KiB whole, too.
class LogLine {
 public:
  LogLine(int priority, const char* tag, const char* format, va_list arguments);
  ~LogLine();
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;

  const char* Data() const { return m_text; }
  std::size_t Size() const { return static_cast<std::size_t>(m_end - m_text); }

 private:
  void AppendHeader(int priority, const char* tag);
  void AppendCharacter(const char* text, std::size_t size, bool isTag);
  void AppendText(const char* text, std::size_t have, std::size_t size, std::size_t room,
                  bool isTag);

  char m_small[5 * 1024];
  const bool m_isLarge;
  char* const m_text;
  char* m_end;
};

}  // namespace ondaro::host

#endif
