#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <regex>
#include <sstream>
#include <thread>

#include "Judging.h"
#include "Probes.h"
#include "platform/Log.h"

namespace conformance {
namespace {

constexpr int MAIN_BUFFER = 0;
constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int ERROR = 6;
constexpr char TAG[] = "CONFORMANCE";

constexpr int THREADS = 8;
constexpr int MESSAGES_A_THREAD = 50;
constexpr int TIMED_MESSAGES = 100;
constexpr long long LONG_CALL_MS = 1000;
constexpr char BEGUN[] = "begun";

/// Each message carries a mark that no other message of any run has.
std::string NewMark() {
  static int count = 0;
  return "check" + std::to_string(getpid()) + "-" + std::to_string(++count) + "-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

std::string Numbered(const std::string& mark, int number) {
  return "<" + mark + "." + std::to_string(number) + ">";
}

std::string Name(int priority) {
  return priority == DEBUG ? "debug" : priority == INFO ? "info" : "error";
}

template <typename Print>
void ForEachFormat(const std::string& mark, Print print) {
  print("<%s> %d %u %ld %x %05d|%-6s|%c %%", mark.c_str(), -42, 42U, -4200000000L, 255U, 42, "ab",
        'z');
  print("<%s> %s: %s(%d) > text of %zu bytes", mark.c_str(), "File.cpp", "Function", 7,
        static_cast<std::size_t>(9));
  print("<%s> %.3f %*d %lx %-10s|", mark.c_str(), 2.5, 6, 42, 0xfeedUL, TAG);
  print("no value in <%s>, caf\xc3\xa9 100%%", mark.c_str());
}

std::string LongText(int thread) { return std::string(150, static_cast<char>('a' + thread)); }

/// Writes the port's log and reads what it then holds.
class LogReader {
 public:
  LogReader() : m_error(TheContext().scratch + "/stderr") {}

  /// Writes with a process of its own, since many a port finds its sink once in a process.
  Outcome Write(const char* probe, probes::Arguments arguments) const {
    const Descriptor error(
        open(m_error.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return RunProcess(Writer(error.Get(), probe, std::move(arguments)));
  }

  static Start Writer(int standardError, const char* probe, probes::Arguments arguments) {
    arguments.insert(arguments.begin(), probe);
    Start start = Probe(std::move(arguments));
    start.standardError = standardError;
    if (const std::string* set = TheContext().declaration.Find(keys::LOG_ENVIRONMENT)) {
      start.environment.push_back(Fill(*set, TheContext().WithScratch()));
    }
    return start;
  }

  /// The lines that hold the mark, as soon as there are `count`.
  static std::vector<std::string> Lines(const std::string& mark, std::size_t count) {
    const std::string command = Fill(Declared(keys::LOG_READ), TheContext().WithScratch());
    std::vector<std::string> lines;
    WaitFor([&] {
      lines.clear();
      std::istringstream log(RunShell(command).output);
      for (std::string line; std::getline(log, line);) {
        if (line.find(mark) != std::string::npos) {
          lines.push_back(line);
        }
      }
      return lines.size() >= count;
    });
    return lines;
  }

 private:
  const std::string m_error;
};

int CountOf(const std::string& part, const std::vector<std::string>& lines) {
  int count = 0;
  for (const std::string& line : lines) {
    for (std::size_t at = line.find(part); at != std::string::npos;
         at = line.find(part, at + part.size())) {
      ++count;
    }
  }
  return count;
}

long long SlowestCallMs(const Outcome& timed) {
  return std::stoll(timed.output.substr(sizeof BEGUN));
}

/// Runs on one damaged sink after the other.
void ForEachDamagedSink(const std::function<void(const char* name, int standardError)>& use) {
  use("closed", CLOSE_ERROR);
  {
    Pipe pipe = MakePipe();
    pipe.reader.Close();
    use("a pipe without reader", pipe.writer.Get());
  }
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  use("a full device", full.Get());
}

Pipe FullPipe() {
  Pipe pipe = MakePipe();
  const int writer = pipe.writer.Get();
  const int flags = fcntl(writer, F_GETFL);
  fcntl(writer, F_SETFL, flags | O_NONBLOCK);
  const std::string filling(4096, 'x');
  while (write(writer, filling.data(), filling.size()) > 0) {
  }
  while (write(writer, "x", 1) > 0) {
  }
  fcntl(writer, F_SETFL, flags);
  return pipe;
}

}  // namespace

bool probes::LogMessages(const Arguments& arguments) {
  const int count = std::stoi(arguments[1]);
  for (int i = 0; i < count; ++i) {
    platform_log_print(MAIN_BUFFER, ERROR, TAG, "%s", Numbered(arguments[0], i).c_str());
  }
  return true;
}

bool probes::LogPriorities(const Arguments& arguments) {
  for (const int priority : {DEBUG, INFO, ERROR}) {
    platform_log_print(MAIN_BUFFER, priority, TAG, "%s", Numbered(arguments[0], priority).c_str());
  }
  return true;
}

bool probes::LogFormats(const Arguments& arguments) {
  ForEachFormat(arguments[0], [](const char* format, auto... values) {
    platform_log_print(MAIN_BUFFER, ERROR, TAG, format, values...);
  });
  return true;
}

bool probes::LogFromThreads(const Arguments& arguments) {
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([thread, &mark = arguments[0]] {
      for (int i = 0; i < MESSAGES_A_THREAD; ++i) {
        platform_log_print(MAIN_BUFFER, ERROR, TAG, "%s %s",
                           Numbered(mark, thread * MESSAGES_A_THREAD + i).c_str(),
                           LongText(thread).c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return true;
}

bool probes::LogTimed(const Arguments& arguments) {
  using Clock = std::chrono::steady_clock;
  Answer(BEGUN);
  Clock::duration slowest{};
  for (int i = 0; i < TIMED_MESSAGES; ++i) {
    const Clock::time_point start = Clock::now();
    platform_log_print(MAIN_BUFFER, ERROR, TAG, "%s", Numbered(arguments[0], i).c_str());
    slowest = std::max(slowest, Clock::now() - start);
  }
  Answer(std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count()));
  return true;
}

TEST(Log, LOG_01_OneCallIsOneMessage) {
  const LogReader log;
  const std::string mark = NewMark();
  constexpr int COUNT = 20;
  log.Write(probes::LOG_MESSAGES, {mark, std::to_string(COUNT)});
  const std::vector<std::string> lines = LogReader::Lines(mark, COUNT);
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(COUNT)) << "lines for " << COUNT << " calls";
  for (int i = 0; i < COUNT; ++i) {
    EXPECT_EQ(CountOf(Numbered(mark, i), lines), 1) << "message " << i;
  }
}

TEST(Log, LOG_02_Buffer0IsTheMainBuffer) {
  const LogReader log;
  const std::string mark = NewMark();
  log.Write(probes::LOG_MESSAGES, {mark, "1"});
  EXPECT_FALSE(LogReader::Lines(mark, 1).empty())
      << "no message in what '" << keys::LOG_READ << "' reads";
}

TEST(Log, LOG_03_AMessageKeepsItsPriority) {
  const LogReader log;
  const std::string mark = NewMark();
  log.Write(probes::LOG_PRIORITIES, {mark});
  const std::vector<std::string> lines = LogReader::Lines(mark, 3);
  for (const auto& [priority, key] :
       {std::pair{DEBUG, keys::LOG_DEBUG}, {INFO, keys::LOG_INFO}, {ERROR, keys::LOG_ERROR}}) {
    const std::regex look(Declared(key));
    for (const int other : {DEBUG, INFO, ERROR}) {
      const std::vector<std::string> own = [&, number = Numbered(mark, other)] {
        std::vector<std::string> found;
        std::copy_if(
            lines.begin(), lines.end(), std::back_inserter(found),
            [&](const std::string& line) { return line.find(number) != std::string::npos; });
        return found;
      }();
      Needs("LOG-01", own.size() == 1, "not one " + Name(other) + " message");
      EXPECT_EQ(std::regex_search(own[0], look), other == priority)
          << Name(other) << " message, '" << key << "': " << own[0];
    }
  }
}

TEST(Log, LOG_04_TheTextLoggedIsTheFormattedText) {
  const LogReader log;
  const std::string mark = NewMark();
  std::vector<std::string> expected;
  ForEachFormat(mark, [&](const char* format, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, format, values...);
    expected.emplace_back(text);
  });
  log.Write(probes::LOG_FORMATS, {mark});
  const std::vector<std::string> lines = LogReader::Lines(mark, expected.size());
  for (const std::string& text : expected) {
    EXPECT_EQ(CountOf(text, lines), 1) << text;
  }
}

TEST(Log, LOG_05_ACallNeverBlocksForLong) {
  const Pipe stuck = FullPipe();
  const LogReader log;
  Child writer(LogReader::Writer(stuck.writer.Get(), probes::LOG_TIMED, {NewMark()}));
  ASSERT_FALSE(writer.ReadLine(LONGEST_RUN).empty()) << "the process that logs did not begin";
  const Outcome onStuckSink = writer.Finish(TheContext().patience);
  ASSERT_TRUE(onStuckSink.Succeeded())
      << "standard error is a pipe nobody reads: " << onStuckSink.Describe();
  EXPECT_LT(SlowestCallMs(onStuckSink), LONG_CALL_MS) << "ms, on a sink that takes nothing";

  const Outcome ordinary = log.Write(probes::LOG_TIMED, {NewMark()});
  ASSERT_TRUE(ordinary.Succeeded()) << ordinary.Describe();
  EXPECT_LT(SlowestCallMs(ordinary), LONG_CALL_MS) << "ms";
}

TEST(Log, LOG_06_ACallNeverFailsTheCaller) {
  ForEachDamagedSink([](const char* name, int standardError) {
    const Outcome outcome =
        RunProcess(LogReader::Writer(standardError, probes::LOG_MESSAGES, {NewMark(), "20"}));
    EXPECT_TRUE(outcome.Succeeded()) << "standard error is " << name << ": " << outcome.Describe();
  });
}

TEST(Log, LOG_07_ThreadsDoNotMixMessages) {
  const LogReader log;
  const std::string mark = NewMark();
  constexpr int COUNT = THREADS * MESSAGES_A_THREAD;
  log.Write(probes::LOG_THREADS, {mark});
  const std::vector<std::string> lines = LogReader::Lines(mark, COUNT);
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(COUNT));
  for (int i = 0; i < COUNT; ++i) {
    const std::string whole = Numbered(mark, i) + " " + LongText(i / MESSAGES_A_THREAD);
    EXPECT_EQ(CountOf(whole, lines), 1) << "message " << i;
  }
}

}  // namespace conformance
