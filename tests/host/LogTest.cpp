// The lines of the host's log, and what becomes of one that its sink does not take. The log reads
// its settings once per process, so each case logs in a child of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "platform/Log.h"

namespace {

using namespace ondaro::test;

constexpr int INFO = 4;

struct Line {
  double time;
  pid_t process;
  pid_t thread;
  char priority;
  std::string text;  // tag and message as they stand
};

class LogTest : public testing::Test {
 protected:
  void LogTo(const std::string& settings) {
    std::filesystem::remove(m_file);
    setenv("ONDARO_HOST_LOG", settings.c_str(), 1);
  }

  /// Every line has to be whole.
  std::vector<Line> Lines() const {
    static const std::regex format(R"( *(\d+\.\d{6}) +(\d+) +(\d+) ([VDIWEF]) (.*))");
    std::vector<Line> lines;
    std::istringstream log(ReadFile(m_file));
    for (std::string text; std::getline(log, text) && !log.eof();) {
      std::smatch part;
      EXPECT_TRUE(std::regex_match(text, part, format)) << text;
      lines.push_back(
          {std::stod(part[1]), std::stoi(part[2]), std::stoi(part[3]), *part[4].first, part[5]});
    }
    EXPECT_TRUE(log.eof()) << "a part of a line";
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
  const auto now = [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch());
  };
  const double before = now().count();
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
    EXPECT_TRUE(lines[i].process == pid && lines[i].thread == pid);
    EXPECT_TRUE(lines[i].time + 1e-6 >= before && lines[i].time <= now().count());
  }
}

TEST_F(LogTest, FiltersBeforeItFormatsAndWritesErrorsToStandardErrorUnlessTold) {
  const std::map<std::string, std::string> logged = {{"verbose:" + m_file, "VDIWEF"},
                                                     {"debug:" + m_file, "DIWEF"},
                                                     {"info:" + m_file, "IWEF"},
                                                     {"warning:" + m_file, "WEF"},
                                                     {"error:" + m_file, "EF"},
                                                     {"fatal:" + m_file, "F"},
                                                     {"off:" + m_file, ""},
                                                     {"nonsense:" + m_file, "EF"},
                                                     {":" + m_file, "EF"},
                                                     {"info", "IWEF"},
                                                     {"error:stderr", "EF"},
                                                     {":", "EF"},
                                                     {"", "EF"},
                                                     {"unset", "EF"}};
  for (const auto& [settings, letters] : logged) {
    LogTo(settings);
    const auto lowest = 8 - static_cast<int>(letters.size());
    ASSERT_EQ(RunInChild([&, unset = settings == "unset"] {
                unset ? unsetenv("ONDARO_HOST_LOG") : 0;
                dup2(open(m_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
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
    EXPECT_EQ(found, letters) << settings;
  }
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

TEST_F(LogTest, DropsWhatTheSinkDoesNotTakeAndLeavesNoTrace) {
  std::array<int, 2> pipeToNobody;
  std::array<int, 2> sockets;
  ASSERT_EQ(pipe(pipeToNobody.data()) + socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
  close(pipeToNobody[0]);
  const std::map<std::string, int> sinks = {
      {"info", sockets[1]}, {"info:stderr", pipeToNobody[1]}, {"info:" + m_file, STDERR_FILENO}};
  for (const auto& [settings, descriptor] : sinks) {
    LogTo(settings);
    EXPECT_EQ(RunInChild([sink = descriptor] {
                const rlimit fileSize{100, 100};
                setrlimit(RLIMIT_FSIZE, &fileSize);
                dup2(sink, STDERR_FILENO);
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
                const bool areSignalsKept =
                    sigisemptyset(&blocked) == 1 && sigisemptyset(&pending) == 1;
                const bool areFlagsKept = fcntl(STDERR_FILENO, F_GETFL) == flags;
                _exit(dropped > 0 && isErrnoKept && areSignalsKept && areFlagsKept ? 0 : 1);
              }),
              0)
        << settings;
  }
}

}  // namespace
