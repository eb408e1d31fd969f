// Messages go to standard error, a line each: priority, tag and text. What it does not take at
// once is dropped.
#include "platform/Log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t LONGEST_LINE = 4096;  // what a pipe takes in one piece

/// False as well for an end that is closed, on which a write would raise a signal.
bool IsWritable() {
  pollfd sink{STDERR_FILENO, POLLOUT, 0};
  return poll(&sink, 1, 0) == 1 && sink.revents == POLLOUT;
}

}  // namespace

int platform_log_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
  char line[LONGEST_LINE];
  const int start = std::snprintf(line, LONGEST_LINE / 2, "%d %s: ", priority, tag);
  char* const text = line + std::min<int>(start, LONGEST_LINE / 2 - 1);
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, LONGEST_LINE - static_cast<std::size_t>(text - line) - 1, format, arguments);
  va_end(arguments);

  char* const end = line + std::strlen(line);
  std::replace(text, end, '\n', ' ');
  *end = '\n';
  const auto size = static_cast<std::size_t>(end + 1 - line);
  return IsWritable() && write(STDERR_FILENO, line, size) == static_cast<ssize_t>(size) ? 0 : -1;
}
