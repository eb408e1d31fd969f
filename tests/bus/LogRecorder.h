#ifndef ONDARO_TESTS_BUS_LOGRECORDER_H
#define ONDARO_TESTS_BUS_LOGRECORDER_H

#include <string>
#include <vector>

namespace ondaro::test {

constexpr int PRIORITY_ERROR = 6;

struct LogLine {
  int priority;
  std::string body;  // without file, function and line
};

/// The platform log of a test that links LogRecorder.cpp: the library's lines, kept in memory.
class LogRecorder {
 public:
  static void Clear();
  /// The lines whose body begins with `start`, in order.
  static std::vector<LogLine> Lines(const std::string& start);
  static bool Has(const std::string& start) { return !Lines(start).empty(); }
};

}  // namespace ondaro::test

#endif
