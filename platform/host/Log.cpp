/**
 * The log of an ordinary Linux machine: platform/Log.h.
 *
 * One message is one line, written in one piece:
 *
 *     12345.678901  4242  4243 I ONDARO_API: CCoreAuthImpl.cpp: GetSystemID(93) > text
 *
 *   time      CLOCK_MONOTONIC, seconds (at least five columns) and six digits of microseconds
 *   pid, tid  of the writing process and thread, at least five columns each
 *   priority  V (2 and less), D (3), I (4), W (5), E (6), F (7 and more)
 *   tag       followed by ": "; it contains neither a space nor a colon itself
 *   message   the formatted text, to the end of the line
 *
 * Fields are separated by spaces, those in front of a narrow number included. Lines end with the
 * byte 0x0A. In tag and message a control character is written as an escape, so that nothing else
 * ends a line and a reader can restore the text: \n, \t, \\ for the backslash itself, \xHH for the
 * others (in the tag also for space and colon). A newline at the end of a message is part of its
 * text and shows as \n. All other bytes stand as they are. A line has at most 4096 bytes, which is
 * what a pipe takes whole; a longer message ends in \+N, N being the number of its bytes left out.
 *
 * ONDARO_HOST_LOG, read at the first message, is THRESHOLD[:SINK]:
 *
 *   THRESHOLD  verbose, debug, info, warning, error, fatal or off; error when empty or unknown
 *   SINK       stderr, or the path of a file to append to; stderr when empty or not to be opened
 *
 * All log buffers go to the one sink. A line the sink does not take at once is dropped.
 * Returns 0 for a message written or filtered out, -1 for one dropped.
 *
 * There is no lock, no heap and no destructor here: the log serves static constructors and
 * destructors, forked children and every thread alike.
 */
#include "platform/Log.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "HostLog.h"
#include "LogLine.h"
#include "LogSink.h"

namespace ondaro::host {
namespace {

constexpr char VARIABLE[] = "ONDARO_HOST_LOG";

constexpr int UNKNOWN_THRESHOLD = INT_MIN;
constexpr int UNKNOWN_SINK = -1;

constexpr struct {
  std::string_view word;
  int threshold;
} THRESHOLDS[] = {{"verbose", 2}, {"debug", 3}, {"info", 4},     {"warning", 5},
                  {"error", 6},   {"fatal", 7}, {"off", INT_MAX}};

// Each goes from unknown to its value once; threads that meet at the first message agree on it.
std::atomic<int> g_threshold{UNKNOWN_THRESHOLD};
std::atomic<int> g_sink{UNKNOWN_SINK};

struct Settings {
  std::string_view threshold;
  const char* path;  // null for standard error
};

Settings ReadSettings() {
  const char* const text = std::getenv(VARIABLE);
  if (text == nullptr) {
    return {};
  }
  const char* const colon = std::strchr(text, ':');
  if (colon == nullptr) {
    return {text, nullptr};
  }
  const std::string_view sink = colon + 1;
  const bool isFile = !sink.empty() && sink != "stderr";
  return {{text, static_cast<std::size_t>(colon - text)}, isFile ? colon + 1 : nullptr};
}

bool Passes(int priority) {
  int threshold = g_threshold.load(std::memory_order_relaxed);
  if (threshold != UNKNOWN_THRESHOLD) {
    return priority >= threshold;
  }
  threshold = LOG_PRIORITY_ERROR;
  const std::string_view wanted = ReadSettings().threshold;
  for (const auto& known : THRESHOLDS) {
    if (known.word == wanted) {
      threshold = known.threshold;
    }
  }
  g_threshold.store(threshold, std::memory_order_relaxed);
  return priority >= threshold;
}

void ReportUnusable(const char* path, int error) {
  platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "log file %s: %s", path,
                     strerrordesc_np(error));
}

int Sink() {
  int sink = g_sink.load(std::memory_order_acquire);
  if (sink != UNKNOWN_SINK) {
    return sink;
  }
  const char* const path = ReadSettings().path;
  const int file = path == nullptr ? -1 : OpenLogFile(path);
  const int error = errno;
  const int chosen = file >= 0 ? file : STDERR_FILENO;
  if (!g_sink.compare_exchange_strong(sink, chosen, std::memory_order_acq_rel)) {
    if (file >= 0) {
      close(file);
    }
    return sink;
  }
  if (path != nullptr && file < 0) {
    ReportUnusable(path, error);
  }
  return chosen;
}

bool Write(const LogLine& line) {
  int sink = Sink();
  if (WriteLine(sink, line.Data(), line.Size())) {
    return true;
  }
  if (errno != EBADF || sink == STDERR_FILENO) {
    return false;
  }
  // The host closed what was not its own: open the file again.
  g_sink.compare_exchange_strong(sink, UNKNOWN_SINK, std::memory_order_acq_rel);
  return WriteLine(Sink(), line.Data(), line.Size());
}

}  // namespace
}  // namespace ondaro::host

int platform_log_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
  if (!ondaro::host::Passes(priority)) {
    return 0;
  }
  if (format == nullptr) {
    return -1;
  }
  const int error = errno;
  std::va_list arguments;
  va_start(arguments, format);
  const ondaro::host::LogLine line(priority, tag, format, arguments);
  va_end(arguments);
  const bool written = ondaro::host::Write(line);
  errno = error;
  return written ? 0 : -1;
}
