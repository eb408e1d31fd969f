#ifndef ONDARO_TESTS_BUS_EXCHANGE_H
#define ONDARO_TESTS_BUS_EXCHANGE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "Files.h"
#include "Tier.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"

namespace ondaro::test {

/// A process of the helper program BusPeer, which says what the lines mean.
class Peer : public ChildProcess {
 public:
  explicit Peer(const std::string& logFile = "/dev/null")
      : ChildProcess({LoggingTo(logFile)}), m_logFile(logFile) {}

  /// Whether each of the lines was answered with "done".
  template <typename... Lines>
  bool Do(const Lines&... lines) {
    return (DoLine(lines) && ...);
  }
  /// Becomes the daemon's end, which may send some time after the handle was got.
  bool Serve() {
    return Do("get server") && WaitUntil([this] { return Do("send probe"); });
  }
  /// How many lines of its log contain `text`.
  int Logged(const std::string& text) const {
    std::ifstream file(m_logFile);
    int count = 0;
    for (std::string line; std::getline(file, line);) {
      count += static_cast<int>(line.find(text) != std::string::npos);
    }
    return count;
  }
  bool LogsSoon(const std::string& text, int times = 1) const {
    return WaitUntil([&] { return Logged(text) == times; });
  }

 private:
  static const char* LoggingTo(const std::string& logFile) {
    setenv("ONDARO_HOST_LOG", ("verbose:" + logFile).c_str(), 1);
    return ONDARO_TEST_BUS_PEER;
  }
  bool DoLine(const std::string& line) {
    Write(line + "\n");
    const std::string answer = ReadLine().value_or("(nothing)");
    EXPECT_TRUE(answer == "done" || answer == "failed") << line << ": " << answer;
    return answer == "done";
  }

  std::string m_logFile;
};

/// A bus, and a state of the host backend that is the test's own.
class Exchange : public testing::Test {
 protected:
  Exchange() { setenv("ONDARO_HOST_STATE", m_state.Path().c_str(), 1); }

  const TemporaryDirectory m_state;
  std::unique_ptr<PrivateBus> m_bus = std::make_unique<PrivateBus>();
};

}  // namespace ondaro::test

#endif
