#ifndef ONDARO_PLATFORM_HOST_LOGLINE_H
#define ONDARO_PLATFORM_HOST_LOGLINE_H

#include <climits>
#include <cstdarg>
#include <cstddef>

namespace ondaro::host {

/// One line of the log, built in place without the heap; Log.cpp describes the format.
class LogLine {
 public:
  /// What a pipe takes in one piece, the newline included.
  static constexpr std::size_t CAPACITY = PIPE_BUF;

  LogLine(int priority, const char* tag, const char* format, va_list arguments);

  const char* Data() const { return m_text; }
  std::size_t Size() const { return static_cast<std::size_t>(m_end - m_text); }

 private:
  void AppendHeader(int priority, const char* tag);
  void AppendMessage(const char* format, va_list arguments);
  void EscapeMessage(const char* message, std::size_t length);

  char m_text[CAPACITY];
  char* m_end = m_text;
};

}  // namespace ondaro::host

#endif
