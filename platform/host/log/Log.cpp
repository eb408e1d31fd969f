/**
 * The log of an ordinary Linux machine: platform/Log.h. One message is one line, written in one
 * piece; docs/host-backend.md describes its fields, its escapes and ONDARO_HOST_LOG.
 *
 * There is no lock, no heap and no destructor here, and at most 8 KiB of stack: the log serves
 * static constructors and destructors, forked children and every thread alike.
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

#include "LogLine.h"
#include "LogSink.h"
#include "log/HostLog.h"

namespace ondaro::host {
namespace {

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
  const char* const text = secure_getenv("ONDARO_HOST_LOG");
  const std::string_view all = text != nullptr ? text : "";
  const std::size_t colon = all.find(':');
  if (colon == std::string_view::npos || colon + 1 == all.size() ||
      all.substr(colon + 1) == "stderr") {
    return {all.substr(0, colon), nullptr};
  }
  return {all.substr(0, colon), text + colon + 1};
}

bool Passes(int priority) {
  int threshold = g_threshold.load(std::memory_order_relaxed);
  if (threshold == UNKNOWN_THRESHOLD) {
    threshold = LOG_PRIORITY_ERROR;
    for (const auto& known : THRESHOLDS) {
      threshold = known.word == ReadSettings().threshold ? known.threshold : threshold;
    }
    g_threshold.store(threshold, std::memory_order_relaxed);
  }
  return priority >= threshold;
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
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "log file %s: %s", path,
                       strerrordesc_np(error));
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
