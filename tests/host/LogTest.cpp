// The lines of the host's log, and what becomes of one that its sink does not take. The log reads
// its settings once per process, so each case logs in a child of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
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
  /// The file's lines, each of them whole, when a child with these settings has run `body`.
  template <typename Body>
  std::vector<Line> LinesOf(const std::string& settings, Body body) const {
    static const std::regex format(R"( *(\d+\.\d{6}) +(\d+) +(\d+) ([VDIWEF]) (.*))");
    std::filesystem::remove(m_file);
    setenv("ONDARO_HOST_LOG", settings.c_str(), 1);
    EXPECT_EQ(RunInChild(body), 0) << settings;
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
  const std::vector<std::array<const char*, 3>> cases = {
      {"ONDARO_PAL", "set process group fail\n", R"(ONDARO_PAL: set process group fail\n)"},
      {"", "", ": "},
      {"a b:c\\d\n", "a\r\tc\x1b[\x7f \\n", R"(a\x20b\x3ac\\d\n: a\x0d\tc\x1b[\x7f \\n)"},
      {"T", "\xc3\xbc \xe2\x82\xac \xff\xfe", "T: \xc3\xbc \xe2\x82\xac \xff\xfe"},
      {"T",
       "\xc2\x9b"
       "2J \xe2\x86\x92 \x9d \xc2\xa0",
       "T: \\xc2\\x9b"
       "2J \xe2\x86\x92 \\x9d \xc2\xa0"},
  };
  const auto now = [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch());
  };
  const double before = now().count();
  const std::vector<Line> lines = LinesOf("debug:" + m_file, [&] {
    for (const auto& [tag, message, line] : cases) {
      platform_log_print(0, INFO, tag, "%s", message);
    }
  });
  ASSERT_EQ(lines.size(), cases.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].text, cases[i][2]);
    EXPECT_EQ(lines[i].process, lines[i].thread);
    EXPECT_TRUE(lines[i].time + 1e-6 >= before && lines[i].time <= now().count());
  }
}

// Sanitizers make larger frames.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(LogTest, NeedsNoMoreThanEightKibibytesOfStack) {
  constexpr std::size_t SIZE = 256UL * 1024;
  const auto touched = [](void* (*body)(void*)) {
    std::vector<char> stack(SIZE, '\x5a');
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack.data(), SIZE);
    pthread_t thread{};
    pthread_create(&thread, &attributes, body, nullptr);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    return stack.end() -
           std::find_if(stack.begin(), stack.end(), [](char b) { return b != '\x5a'; });
  };
  LinesOf("debug:" + m_file, [&] {
    static const std::string text(100'000, '\n');
    const auto log = [](void*) -> void* {
      platform_log_print(0, INFO, "T", "%d %s", 42, text.c_str());
      return nullptr;
    };
    log(nullptr);
    const auto alone = touched([](void* argument) { return argument; });
    _exit(touched(log) - alone <= 8L * 1024 ? 0 : 1);
  });
}
#endif

TEST_F(LogTest, FiltersBeforeItFormatsAndWritesErrorsToStandardErrorUnlessTold) {
  std::map<std::string, std::string> logged = {{"info", "IWEF"}};
  std::string letters = "VDIWEF";
  for (const char* name : {"verbose", "debug", "info", "warning", "error", "fatal", "off"}) {
    logged[name + (":" + m_file)] = letters;
    letters.erase(0, 1);
  }
  for (const std::string& other : {"nonsense:" + m_file, ":" + m_file, std::string("error:stderr"),
                                   std::string(":"), std::string(), std::string("unset")}) {
    logged[other] = "EF";
  }
  for (const auto& [settings, expected] : logged) {
    const auto lowest = 8 - static_cast<int>(expected.size());
    std::string found;
    for (const Line& line : LinesOf(settings, [&, unset = settings == "unset"] {
           unset ? unsetenv("ONDARO_HOST_LOG") : 0;
           dup2(open(m_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
           const auto* const nowhere = reinterpret_cast<const char*>(8);
           for (int priority = 2; priority <= 7; ++priority) {
             platform_log_print(0, priority, "T", "%s", priority < lowest ? nowhere : "");
           }
         })) {
      found += line.priority;
    }
    EXPECT_EQ(found, expected) << settings;
  }
}

TEST_F(LogTest, ServesForkedChildrenAndTheLastDestructorsUnderTheirOwnIds) {
  const std::vector<Line> lines = LinesOf("debug:" + m_file, [] {
    static const struct AtExit {
      ~AtExit() { platform_log_print(0, INFO, "T", "%d", getpid()); }
    } atExit;
    platform_log_print(0, INFO, "T", "%d", getpid());
    const int status = RunInChild([] {
      std::thread([] { platform_log_print(0, INFO, "T", "%d", gettid()); }).join();
      std::exit(0);
    });
    std::exit(status == 0 ? 0 : 1);
  });
  ASSERT_EQ(lines.size(), 4U);
  for (const Line& line : lines) {
    EXPECT_EQ("T: " + std::to_string(line.thread), line.text);
  }
  EXPECT_NE(lines[0].process, lines[1].process);
  EXPECT_EQ(lines[0].process, lines[3].process);
}

TEST_F(LogTest, OpensItsFileAgainWhenTheHostClosedIt) {
  const std::string other = m_directory / "other";
  const std::vector<Line> lines = LinesOf("debug:" + m_file, [&] {
    platform_log_print(0, INFO, "T", "one");
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
      close(descriptor);
    }
    for (int own = 0; own < 10; ++own) {
      open(other.c_str(), O_WRONLY | O_CREAT, 0600);
    }
    platform_log_print(0, INFO, "T", "two");
  });
  EXPECT_EQ(lines.size(), 2U);
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
    setenv("ONDARO_HOST_LOG", settings.c_str(), 1);
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
