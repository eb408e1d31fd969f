// The log reads its settings once per process, so each case logs in a child of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "platform/Log.h"

namespace {

using namespace ondaro::test;

constexpr std::size_t MAX_LINE = 4096;
constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int ERROR = 6;

struct Line {
  double time = 0;
  pid_t process = 0;
  pid_t thread = 0;
  char priority = 0;
  std::string tag;
  std::string message;      // as it was logged, without what was left out
  std::size_t omitted = 0;  // bytes
};

/// The reader's side of the format.
std::string Unescape(const std::string& text, std::size_t& omitted) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      result += text[i];
      continue;
    }
    switch (text.at(++i)) {
      case 'n':
        result += '\n';
        break;
      case 't':
        result += '\t';
        break;
      case '\\':
        result += '\\';
        break;
      case 'x':
        result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
        break;
      case '+':
        omitted = std::stoul(text.substr(i + 1));
        return result;
      default:
        throw std::runtime_error("unknown escape");
    }
  }
  return result;
}

std::optional<Line> ParseLine(const std::string& text) {
  Line line;
  char micros[7] = {};
  int seconds = 0;
  int length = 0;
  // NOLINTNEXTLINE(cert-err34-c): numbers this small do not overflow
  if (std::sscanf(text.c_str(), "%d.%6[0-9] %d %d %c %n", &seconds, micros, &line.process,
                  &line.thread, &line.priority, &length) != 5) {
    return std::nullopt;
  }
  const std::string rest = text.substr(static_cast<std::size_t>(length));
  const std::size_t end = rest.find_first_of(" :");
  if (std::strlen(micros) != 6 || std::strchr("VDIWEF", line.priority) == nullptr ||
      end == std::string::npos || rest.compare(end, 2, ": ") != 0) {
    return std::nullopt;
  }
  std::size_t none = 0;
  line.time = seconds + std::stoi(micros) / 1e6;
  line.tag = Unescape(rest.substr(0, end), none);
  line.message = Unescape(rest.substr(end + 2), line.omitted);
  return line;
}

/// Every line has to be whole.
std::vector<Line> Parse(const std::string& log) {
  EXPECT_TRUE(log.empty() || log.back() == '\n');
  std::vector<Line> lines;
  std::istringstream stream(log);
  for (std::string text; std::getline(stream, text);) {
    EXPECT_LT(text.size(), MAX_LINE);
    const std::optional<Line> line = ParseLine(text);
    if (line) {
      lines.push_back(*line);
    } else {
      ADD_FAILURE() << "not a log line: " << text;
    }
  }
  return lines;
}

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string Repeated(const std::string& unit, std::size_t times) {
  std::string text;
  for (std::size_t i = 0; i < times; ++i) {
    text += unit;
  }
  return text;
}

class LogTest : public testing::Test {
 protected:
  void LogTo(const std::string& settings) { setenv("ONDARO_HOST_LOG", settings.c_str(), 1); }

  TemporaryDirectory m_directory;
  const std::string m_file = m_directory / "log";
};

TEST_F(LogTest, KeepsOneMessageOnOneLineThatAReaderCanUndo) {
  const std::vector<std::pair<std::string, std::string>> messages = {
      {"ONDARO_API", "CPALUtils.cpp: PrintDataToHex(12) > label[ 16]:[00ff]"},
      {"ONDARO_PAL", "[void f()]Entered "},
      {"ONDARO_PAL", "set process group fail\n"},
      {"", ""},
      {"a b:c\\d\n", "a\nb\r\tc\x1b[31m\x7f\x01 \\n \\ \\x41 \\+7"},
      {"T", "gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xff\xfe"},
      {"T", std::string(MAX_LINE * 3 / 4, 'x') + "\n"},
      {"T", "x" + Repeated("\xe2\x82\xac", MAX_LINE)},
      {"T", Repeated("\x01", MAX_LINE)},
  };
  LogTo("debug:" + m_file);
  const double before = Now();
  Child child([&] {
    for (const auto& [tag, message] : messages) {
      platform_log_print(0, INFO, tag.c_str(), "%s", message.c_str());
    }
  });
  const pid_t pid = child.Pid();
  ASSERT_EQ(child.Wait(), 0);

  const std::vector<Line> lines = Parse(ReadFile(m_file));
  ASSERT_EQ(lines.size(), messages.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].tag, messages[i].first);
    // What a long message lost is counted, and never half a character.
    const std::string& whole = messages[i].second;
    EXPECT_EQ(whole.substr(0, lines[i].message.size()), lines[i].message);
    EXPECT_EQ(whole.size(), lines[i].message.size() + lines[i].omitted);
    EXPECT_EQ(lines[i].omitted == 0, whole.size() < MAX_LINE);
    EXPECT_NE(static_cast<unsigned char>(whole.c_str()[lines[i].message.size()]) & 0xc0U, 0x80U);
    EXPECT_EQ(lines[i].process, pid);
    EXPECT_EQ(lines[i].thread, pid);
    EXPECT_GE(lines[i].time + 1e-6, before);
    EXPECT_LE(lines[i].time, Now());
  }
}

TEST_F(LogTest, FiltersByThreshold) {
  const std::map<std::string, std::string> logged = {
      {"verbose", "VDIWEF"}, {"debug", "DIWEF"}, {"info", "IWEF"},
      {"warning", "WEF"},    {"error", "EF"},    {"fatal", "F"},
      {"off", ""},           {"", "EF"},         {"nonsense", "EF"}};
  for (const auto& [threshold, letters] : logged) {
    std::filesystem::remove(m_file);
    LogTo(threshold + ":" + m_file);
    ASSERT_EQ(RunInChild([] {
                for (int priority = 2; priority <= 7; ++priority) {
                  platform_log_print(0, priority, "T", "%d", priority);
                }
              }),
              0);
    std::string found;
    for (const Line& line : Parse(ReadFile(m_file))) {
      found += line.priority;
    }
    EXPECT_EQ(found, letters) << threshold;
  }
}

TEST_F(LogTest, WritesErrorsToStandardErrorUnlessTold) {
  for (const char* settings : {"", "error", "error:stderr", ":"}) {
    LogTo(settings);
    if (*settings == '\0') {
      unsetenv("ONDARO_HOST_LOG");
    }
    ASSERT_EQ(RunInChild([&] {
                dup2(open(m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
                platform_log_print(0, INFO, "T", "not this");
                platform_log_print(0, ERROR, "T", "this");
              }),
              0);
    const std::vector<Line> lines = Parse(ReadFile(m_file));
    ASSERT_EQ(lines.size(), 1U) << settings;
    EXPECT_EQ(lines[0].message, "this");
  }
}

TEST_F(LogTest, DoesNotMixLinesOfThreadsAndProcesses) {
  constexpr int PROCESSES = 2;
  constexpr int THREADS = 4;
  constexpr int MESSAGES = 500;
  LogTo("debug:" + m_file);
  const auto logFromThreads = [] {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
      threads.emplace_back([thread] {
        for (int i = 0; i < MESSAGES; ++i) {
          platform_log_print(0, INFO, "T", "%d %s", i,
                             std::string(100, static_cast<char>('a' + thread)).c_str());
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  };
  {
    Child first(logFromThreads);
    Child second(logFromThreads);
    ASSERT_EQ(first.Wait(), 0);
    ASSERT_EQ(second.Wait(), 0);
  }
  const std::vector<Line> lines = Parse(ReadFile(m_file));
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(PROCESSES * THREADS * MESSAGES));
  std::map<pid_t, int> next;
  for (const Line& line : lines) {
    const std::size_t space = line.message.find(' ');
    EXPECT_EQ(std::stoi(line.message), next[line.thread]++);
    EXPECT_EQ(line.message.find_first_not_of(line.message[space + 1], space + 1),
              std::string::npos);
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(PROCESSES * THREADS));
}

TEST_F(LogTest, ShowsAForkedChildUnderItsOwnIds) {
  LogTo("debug:" + m_file);
  ASSERT_EQ(RunInChild([] {
              platform_log_print(0, INFO, "T", "%d", getpid());
              const int status = RunInChild([] {
                platform_log_print(0, INFO, "T", "%d", getpid());
                std::thread([] { platform_log_print(0, INFO, "T", "%d", gettid()); }).join();
              });
              _exit(status == 0 ? 0 : 1);
            }),
            0);
  const std::vector<Line> lines = Parse(ReadFile(m_file));
  ASSERT_EQ(lines.size(), 3U);
  for (const Line& line : lines) {
    EXPECT_EQ(std::to_string(line.thread), line.message);
  }
  EXPECT_NE(lines[0].process, lines[1].process);
  EXPECT_EQ(lines[1].process, lines[2].process);
}

TEST_F(LogTest, ServesTheLastDestructors) {
  LogTo("debug:" + m_file);
  ASSERT_EQ(RunInChild([] {
              static const struct AtExit {
                ~AtExit() { platform_log_print(0, INFO, "T", "last words"); }
              } atExit;
              platform_log_print(0, INFO, "T", "first words");
              std::exit(0);
            }),
            0);
  EXPECT_EQ(Parse(ReadFile(m_file)).size(), 2U);
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
  EXPECT_EQ(Parse(ReadFile(m_file)).size(), 2U);
  EXPECT_EQ(ReadFile(other), "") << "a line in a file of the host";
}

TEST_F(LogTest, DropsWhatTheSinkDoesNotTake) {
  struct Case {
    const char* name;
    std::string settings;
    std::function<void()> makeSink;
  };
  const auto fileAtItsLimit = [] {
    const rlimit limit{100, 100};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  const auto pipeToNobody = [] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
  };
  const auto pipeNobodyReads = [] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDERR_FILENO);
  };
  const auto socketNobodyReads = [] {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    dup2(ends[1], STDERR_FILENO);
  };
  const std::vector<Case> cases = {
      {"file at its limit", "info:" + m_file, fileAtItsLimit},
      {"pipe without reader", "info", pipeToNobody},
      {"full pipe", "info", pipeNobodyReads},
      {"full socket", "info", socketNobodyReads},
      {"full disk", "info:/dev/full", [] {}},
      {"closed standard error", "info", [] { close(STDERR_FILENO); }},
  };
  for (const Case& sink : cases) {
    std::filesystem::remove(m_file);
    LogTo(sink.settings);
    EXPECT_EQ(RunInChild([&] {
                sink.makeSink();
                const int flags = fcntl(STDERR_FILENO, F_GETFL);
                errno = 1234;
                int dropped = 0;
                for (int i = 0; i < 5000; ++i) {
                  dropped += platform_log_print(0, INFO, "T", "%100d", i) != 0 ? 1 : 0;
                }
                const bool errnoKept = errno == 1234;
                sigset_t blocked;
                sigset_t pending;
                pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
                sigpending(&pending);
                const bool signalsKept =
                    sigisemptyset(&blocked) == 1 && sigisemptyset(&pending) == 1;
                const bool flagsKept = fcntl(STDERR_FILENO, F_GETFL) == flags;
                _exit(errnoKept && signalsKept && flagsKept && dropped > 0 ? 0 : 1);
              }),
              0)
        << sink.name;
  }
}

TEST_F(LogTest, DoesNotFormatAFilteredMessage) {
  LogTo("error:" + m_file);
  ASSERT_EQ(RunInChild([] {
              const auto* const nowhere = reinterpret_cast<const char*>(8);
              platform_log_print(0, DEBUG, nowhere, "%s", nowhere);
            }),
            0);
}

}  // namespace
