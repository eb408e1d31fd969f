#include "bus/LogRecorder.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform/Log.h"

namespace ondaro::test {

namespace {

struct Record {
  std::mutex mutex;
  std::vector<LogLine> lines;
};

Record& TheRecord() {
  static auto* record = new Record;  // logged to until the last destructor of the process
  return *record;
}

}  // namespace

void LogRecorder::Clear() {
  const std::lock_guard lock(TheRecord().mutex);
  TheRecord().lines.clear();
}

std::vector<LogLine> LogRecorder::Lines(const std::string& start) {
  const std::lock_guard lock(TheRecord().mutex);
  std::vector<LogLine> found;
  for (const LogLine& line : TheRecord().lines) {
    if (line.body.compare(0, start.size(), start) == 0) {
      found.push_back(line);
    }
  }
  return found;
}

}  // namespace ondaro::test

int platform_log_print(int, int priority, const char*, const char* format, ...) {
  std::array<char, 1024> text{};  // event data may be megabytes
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  const std::string whole = text.data();
  const std::size_t prefix = whole.find(" > ");
  auto& record = ondaro::test::TheRecord();
  const std::lock_guard lock(record.mutex);
  record.lines.push_back(
      {priority, prefix == std::string::npos ? whole : whole.substr(prefix + 3)});
  return 0;
}
