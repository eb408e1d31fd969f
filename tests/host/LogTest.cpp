// The lines of the host's log, and what becomes of one that its sink does not take. The log reads
// its settings once per process, so each case logs in a child of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "platform/Log.h"

namespace {

using namespace ondaro::test;

constexpr std::size_t MAX_LINE = 4096;
constexpr int INFO = 4;
constexpr int ERROR = 6;

struct Line {
  double time = 0;
  pid_t process = 0;
  pid_t thread = 0;
  char priority = 0;
  std::string text;  // tag and message as they stand
};

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class LogTest : public testing::Test {
 protected:
  void LogTo(const std::string& settings) {
    std::filesystem::remove(m_file);
    setenv("ONDARO_HOST_LOG", settings.c_str(), 1);
  }

  /// Every line has to be whole.
  std::vector<Line> Lines() const {
    const std::string log = ReadFile(m_file);
    EXPECT_TRUE(log.empty() || log.back() == '\n');
    std::vector<Line> lines;
    std::istringstream stream(log);
    for (std::string text; std::getline(stream, text);) {
      EXPECT_LT(text.size(), MAX_LINE);
      Line& line = lines.emplace_back();
      int seconds = 0;
      int micros = 0;
      int begin = 0;
      int end = 0;
      // NOLINTNEXTLINE(cert-err34-c): numbers this small do not overflow
      std::sscanf(text.c_str(), "%d.%n%6d%n %d %d %c", &seconds, &begin, &micros, &end,
                  &line.process, &line.thread, &line.priority);
      EXPECT_EQ(end - begin, 6) << text;
      line.time = seconds + micros / 1e6;
      line.text = text.substr(text.find(line.priority, static_cast<std::size_t>(end)) + 2);
    }
    return lines;
  }

  const TemporaryDirectory m_directory;
  const std::string m_file = m_directory / "log";
};

TEST_F(LogTest, KeepsOneMessageOnOneLineThatAReaderCanUndo) {
  struct Case {
    const char* tag;
    std::string message;
    std::string line;
  };
  const std::vector<Case> cases = {
      {"ONDARO_PAL", "[void f()]Entered ", "ONDARO_PAL: [void f()]Entered "},
      {"ONDARO_PAL", "set process group fail\n", R"(ONDARO_PAL: set process group fail\n)"},
      {"", "", ": "},
      {"a b:c\\d\n", "a\r\tc\x1b[\x7f \\n", R"(a\x20b\x3ac\\d\n: a\x0d\tc\x1b[\x7f \\n)"},
      {"T", "\xc3\xbc \xe2\x82\xac \xff\xfe", "T: \xc3\xbc \xe2\x82\xac \xff\xfe"},
  };
  LogTo("debug:" + m_file);
  const double before = Now();
  Child child([&] {
    for (const Case& each : cases) {
      platform_log_print(0, INFO, each.tag, "%s", each.message.c_str());
    }
  });
  const pid_t pid = child.Pid();
  ASSERT_EQ(child.Wait(), 0);
  const std::vector<Line> lines = Lines();
  ASSERT_EQ(lines.size(), cases.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].text, cases[i].line);
    EXPECT_EQ(lines[i].process, pid);
    EXPECT_EQ(lines[i].thread, pid);
    EXPECT_GE(lines[i].time + 1e-6, before);
    EXPECT_LE(lines[i].time, Now());
  }
}

TEST_F(LogTest, CountsWhatALongMessageLostAndNeverHalfACharacter) {
  LogTo("debug:" + m_file);
  ASSERT_EQ(RunInChild([] {
              // Cut at each of its bytes.
              for (std::size_t before = 0; before < 3; ++before) {
                std::string message(before, 'x');
                while (message.size() < 2 * MAX_LINE) {
                  message += "\xe2\x82\xac";
                }
                platform_log_print(0, INFO, "T", "%s", message.c_str());
              }
            }),
            0);
  std::size_t before = 0;
  for (const Line& line : Lines()) {
    const std::size_t mark = line.text.find("\\+");
    const std::size_t kept = mark - std::string("T: ").size() - before;
    const std::size_t whole = (2 * MAX_LINE - before + 2) / 3 * 3;
    EXPECT_EQ(kept % 3, 0U);
    EXPECT_EQ(std::stoul(line.text.substr(mark + 2)), whole - kept);
    ++before;
  }
  EXPECT_EQ(before, 3U);
}

TEST_F(LogTest, FiltersByThresholdBeforeItFormats) {
  const std::map<std::string, std::string> logged = {
      {"verbose", "VDIWEF"}, {"debug", "DIWEF"}, {"info", "IWEF"},
      {"warning", "WEF"},    {"error", "EF"},    {"fatal", "F"},
      {"off", ""},           {"", "EF"},         {"nonsense", "EF"}};
  for (const auto& [threshold, letters] : logged) {
    LogTo(threshold + ":" + m_file);
    const auto lowest = 8 - static_cast<int>(letters.size());
    ASSERT_EQ(RunInChild([lowest] {
                const auto* const nowhere = reinterpret_cast<const char*>(8);
                for (int priority = 2; priority <= 7; ++priority) {
                  platform_log_print(0, priority, "T", "%s", priority < lowest ? nowhere : "");
                }
              }),
              0);
    std::string found;
    for (const Line& line : Lines()) {
      found += line.priority;
    }
    EXPECT_EQ(found, letters) << threshold;
  }
}

TEST_F(LogTest, WritesErrorsToStandardErrorUnlessTold) {
  for (const char* settings : {"unset", "", "error", "error:stderr", ":"}) {
    LogTo(settings);
    if (std::string(settings) == "unset") {
      unsetenv("ONDARO_HOST_LOG");
    }
    ASSERT_EQ(RunInChild([&] {
                dup2(open(m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
                platform_log_print(0, INFO, "T", "not this");
                platform_log_print(0, ERROR, "T", "this");
              }),
              0);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 1U) << settings;
    EXPECT_EQ(lines[0].text, "T: this");
  }
}

TEST_F(LogTest, DoesNotMixLinesOfProcesses) {
  constexpr int MESSAGES = 500;
  LogTo("debug:" + m_file);
  const auto log = [] {
    for (int i = 0; i < MESSAGES; ++i) {
      platform_log_print(0, INFO, "T", "%s%d", std::string(500, 'x').c_str(), i);
    }
  };
  Child first(log);
  Child second(log);
  ASSERT_EQ(first.Wait() + second.Wait(), 0);
  std::map<pid_t, int> next;
  for (const Line& line : Lines()) {
    EXPECT_EQ(line.text, "T: " + std::string(500, 'x') + std::to_string(next[line.process]++));
  }
  EXPECT_EQ(next.size(), 2U);
}

TEST_F(LogTest, ServesForkedChildrenAndTheLastDestructorsUnderTheirOwnIds) {
  LogTo("debug:" + m_file);
  ASSERT_EQ(RunInChild([] {
              static const struct AtExit {
                ~AtExit() { platform_log_print(0, INFO, "T", "%d", getpid()); }
              } atExit;
              platform_log_print(0, INFO, "T", "%d", getpid());
              const int status = RunInChild([] {
                std::thread([] { platform_log_print(0, INFO, "T", "%d", gettid()); }).join();
                std::exit(0);
              });
              std::exit(status == 0 ? 0 : 1);
            }),
            0);
  const std::vector<Line> lines = Lines();
  ASSERT_EQ(lines.size(), 4U);
  for (const Line& line : lines) {
    EXPECT_EQ("T: " + std::to_string(line.thread), line.text);
  }
  EXPECT_NE(lines[0].process, lines[1].process);
  EXPECT_EQ(lines[0].process, lines[3].process);
}

TEST_F(LogTest, OpensItsFileAgainWhenTheHostClosedIt) {
  LogTo("debug:" + m_file);
  const std::string other = m_directory / "other";
  ASSERT_EQ(RunInChild([&] {
              platform_log_print(0, INFO, "T", "one");
              for (int descriptor = 3; descriptor < 1024; ++descriptor) {
                close(descriptor);
              }
              for (int own = 0; own < 10; ++own) {
                open(other.c_str(), O_WRONLY | O_CREAT, 0600);
              }
              platform_log_print(0, INFO, "T", "two");
            }),
            0);
  EXPECT_EQ(Lines().size(), 2U);
  EXPECT_EQ(ReadFile(other), "") << "a line in a file of the host";
}

/// Logs until lines are dropped; true when that is all that the caller can notice.
bool DropsQuietly() {
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  errno = 1234;
  int dropped = 0;
  for (int i = 0; i < 5000; ++i) {
    dropped += platform_log_print(0, INFO, "T", "%100d", i) != 0 ? 1 : 0;
  }
  const bool isErrnoKept = errno == 1234;
  sigset_t blocked;
  sigset_t pending;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  sigpending(&pending);
  return isErrnoKept && sigisemptyset(&blocked) == 1 && sigisemptyset(&pending) == 1 &&
         fcntl(STDERR_FILENO, F_GETFL) == flags && dropped > 0;
}

TEST_F(LogTest, DropsWhatTheSinkDoesNotTake) {
  struct Case {
    const char* name;
    std::string settings;
    std::function<void()> makeSink;
  };
  const auto pipeToNobody = [](bool hasReader) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDERR_FILENO);
    if (!hasReader) {
      close(ends[0]);
    }
  };
  const auto fileAtItsLimit = [] {
    const rlimit limit{100, 100};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  const auto socketNobodyReads = [] {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    dup2(ends[1], STDERR_FILENO);
  };
  const std::vector<Case> cases = {
      {"file at its limit", "info:" + m_file, fileAtItsLimit},
      {"pipe without reader", "info", [&] { pipeToNobody(false); }},
      {"full pipe", "info", [&] { pipeToNobody(true); }},
      {"full socket", "info", socketNobodyReads},
      {"full disk", "info:/dev/full", [] {}},
      {"closed standard error", "info", [] { close(STDERR_FILENO); }},
  };
  for (const Case& sink : cases) {
    LogTo(sink.settings);
    EXPECT_EQ(RunInChild([&] {
                sink.makeSink();
                _exit(DropsQuietly() ? 0 : 1);
              }),
              0)
        << sink.name;
  }
}

}  // namespace
