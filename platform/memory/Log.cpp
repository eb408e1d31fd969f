// Messages go to standard error, a line each: priority, tag and text, in which a newline shows as
// \n. What it does not take at once is dropped.
#include "platform/Log.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Fault.h"

namespace {

using ondaro::memory::Has;

constexpr std::size_t LONGEST_TEXT = 8192;

/// False as well for an end that is closed, on which a write would raise a signal.
bool IsWritable() {
  pollfd sink{STDERR_FILENO, POLLOUT, 0};
  const int count = poll(&sink, 1, Has("log-waits") ? -1 : 0);
  return (count == 1 && sink.revents == POLLOUT) || Has("log-dies");
}

bool WriteOut(const std::string& line) {
  const bool isOut = IsWritable() && write(STDERR_FILENO, line.data(), line.size()) ==
                                         static_cast<ssize_t>(line.size());
  if (!isOut && Has("log-exits")) {
    std::_Exit(EXIT_FAILURE);
  }
  return isOut;
}

}  // namespace

int platform_log_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
  char text[LONGEST_TEXT];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, Has("log-cut") ? 1024 : sizeof text, format, arguments);
  va_end(arguments);
  std::string line = std::to_string(Has("log-one-priority") ? 4 : priority) + " " +
                     (Has("log-no-tag") ? "log" : tag) + ": ";
  for (const char* at = Has("log-unformatted") ? format : text; *at != '\0'; ++at) {
    const bool isLast = at[1] == '\0';
    line += *at != '\n'                    ? std::string(1, *at)
            : Has("log-blank")             ? " "
            : Has("log-trimmed") && isLast ? ""
                                           : "\\n";
  }
  line += '\n';
  static std::string kept;
  if (Has("log-twice")) {
    WriteOut(line);
  }
  if (Has("log-swapped") && kept.empty()) {
    kept = line;
    return 0;
  }
  if (Has("log-leaks")) {
    static_cast<void>(dup(STDOUT_FILENO));
  }
  if (Has("log-torn")) {
    WriteOut(line.substr(0, line.size() / 2));
    line.erase(0, line.size() / 2);
  }
  const bool isOut = WriteOut(line + kept);
  kept.clear();
  return isOut ? 0 : -1;
}
