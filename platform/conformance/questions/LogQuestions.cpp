#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <future>
#include <regex>

#include "../Question.h"
#include "platform/Log.h"

namespace conformance {
namespace {

constexpr int ERROR = 6;
constexpr char TAG[] = "CONFORMANCE";
constexpr int MESSAGES = 200;  // of a thread
constexpr int THREADS = 8;
constexpr int LONG_CALL_MS = 1000;

/// No other message of any run has it.
std::string NewMark() {
  static int count = 0;
  return "check" + Show(getpid()) + "-" + std::to_string(g_get_monotonic_time()) + "-" +
         Show(++count);
}

std::string Numbered(const std::string& mark, int number) {
  return "<" + mark + "." + Show(number) + ">";
}

std::string LongText(int thread) { return std::string(150, static_cast<char>('a' + thread)); }

void Log(const std::string& text) { platform_log_print(0, ERROR, TAG, "%s", text.c_str()); }

template <typename Print>
void ForEachFormat(const char* mark, Print print) {
  print("<%s> %d %u %lld %x %05d|%-6s|%c %%", mark, -42, 42U, -4200000000LL, 255U, 42, "ab", 'z');
  print("<%s> %s: %s(%d) > %zu bytes", mark, "File.cpp", "Function", 7, std::size_t{9});
  print("<%s> %.3f %*d %lx %-10s|", mark, 2.5, 6, 42, 0xfeedUL, TAG);
  print("no value in <%s>, caf\xc3\xa9 100%% %s", mark, "%s %d %n stays");
}

// ---- What is logged, by processes of their own: many a port finds its sink once in a process

/// Priority, tag, text.
const Help LOG_ONE("log-one", [](const Arguments& arguments) {
  platform_log_print(0, std::stoi(arguments[0]), arguments[1].c_str(), "%s", arguments[2].c_str());
});

/// A mark.
const Help LOG_FORMATS("log-formats", [](const Arguments& arguments) {
  ForEachFormat(arguments[0].c_str(), [](const char* format, auto... values) {
    platform_log_print(0, ERROR, TAG, format, values...);
  });
});

/// A mark, and the number of threads.
const Help LOG_MANY("log-many", [](const Arguments& arguments) {
  std::vector<std::future<void>> threads(std::stoul(arguments[1]));
  std::atomic<bool> areAllThere{false};
  int count = 0;
  for (std::future<void>& thread : threads) {
    thread = std::async(std::launch::async, [&, number = count++] {
      while (!areAllThere) {
        std::this_thread::yield();
      }
      for (int i = 0; i < MESSAGES; ++i) {
        Log(Numbered(arguments[0], number * MESSAGES + i) + " " + LongText(number));
      }
    });
  }
  areAllThere = true;
});

/// A file, or nothing: stops in the middle until that is there. Replies how many milliseconds the
/// slowest call took.
const Help LOG_TIMED("log-timed", [](const Arguments& arguments) {
  gint64 slowest = 0;
  for (int i = 0; i < MESSAGES; ++i) {
    if (i == MESSAGES / 2 && !arguments[0].empty()) {
      Helper::SayReady();
      WaitFor([&] { return std::filesystem::exists(arguments[0]); });
    }
    const gint64 start = g_get_monotonic_time();
    Log("on a damaged sink " + LongText(0));
    slowest = std::max(slowest, g_get_monotonic_time() - start);
  }
  Reply(std::to_string(slowest / 1000));
});

const Help LOG_ON("log-on", [](const Arguments& /*none*/) {
  LeavesNothing("logged a message", [] { Log("again and again"); });
});

// ---- The sink, and what it then holds

/// Whether the port writes to standard error or to the file that the declaration names.
Start LoggingTo(const std::string& sink) {
  Start start;
  start.error = sink;
  if (IsDeclared("log.environment")) {
    start.environment = Filled(Declared("log.environment"), {{"sink", sink}});
  }
  return start;
}

int CountOf(const std::string& part, const std::string& whole) {
  int count = 0;
  for (std::size_t at = whole.find(part); at != std::string::npos; at = whole.find(part, at + 1)) {
    ++count;
  }
  return count;
}

/// What the port's log holds when a helper has logged, as soon as the mark is in it often enough.
std::string LogOf(const std::string& help, const Arguments& arguments, const std::string& mark,
                  int count = 1) {
  const std::string command = Filled(Declared("log.read"));
  Helper(help, arguments, LoggingTo(Filled("{sink}"))).Reply("logged");
  std::string log;
  WaitFor([&] { return CountOf(mark, log = RunShell(command)) >= count; });
  return log;
}

/// What the log holds when a helper has logged one message with that mark.
std::string LogOfOne(const std::string& mark, const std::string& tag = TAG,
                     const std::string& priority = "6") {
  return LogOf("log-one", {priority, tag, mark}, mark);
}

/// The line of the log that the text is in; empty without one.
std::string LineOf(const std::string& text, const std::string& log) {
  const std::size_t at = log.find(text);
  const std::size_t start = at == std::string::npos ? at : log.rfind('\n', at) + 1;
  return at == std::string::npos ? "" : log.substr(start, log.find('\n', at) - start);
}

void IsLogged(const std::string& text, const std::string& log, const std::string& mark) {
  Holds(CountOf(text, log) == 1, "logged a message", Show(text), Show(LineOf(mark, log)));
}

// ---- Questions

const Question LOG_01("LOG-01", [] {
  const std::string mark = NewMark();
  const std::string log = LogOf("log-many", {mark, "1"}, mark, MESSAGES);
  for (int i = 0; i < MESSAGES; ++i) {
    Same("logged 200 messages; number " + Show(i) + " is there so often", 1,
         CountOf(Numbered(mark, i), log));
  }
  Holds(CountOf("<" + mark, LineOf(Numbered(mark, 0), log)) == 1, "looked at a line of the log",
        "one message", Show(LineOf(Numbered(mark, 0), log)));
});

const Question LOG_02("LOG-02", [] {
  const std::string mark = NewMark();
  Holds(CountOf(mark, LogOfOne(mark)) == 1,
        "logged a message to buffer 0, and read the log by 'log.read'", "the message",
        "nothing of it");
});

const Question LOG_03("LOG-03", [] {
  const std::pair<const char*, const char*> kinds[] = {
      {"3", "log.debug"}, {"4", "log.info"}, {"6", "log.error"}};
  for (const auto& [priority, ownKey] : kinds) {
    const std::string mark = NewMark();
    const std::string line = LineOf(mark, LogOfOne(mark, TAG, priority));
    for (const auto& [other, key] : kinds) {
      const bool isOwn = key == ownKey;
      Holds(std::regex_search(line, std::regex(Declared(key))) == isOwn,
            std::string("logged with priority ") + priority + ", and looked for '" + key + "'",
            isOwn ? "it matches the line" : "it does not match the line", Show(line));
    }
  }
});

const Question LOG_04("LOG-04", [] {
  const std::string mark = NewMark();
  std::vector<std::string> expected;
  ForEachFormat(mark.c_str(), [&](const char* format, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, format, values...);
    expected.emplace_back(text);
  });
  const std::string log = LogOf("log-formats", {mark}, mark, static_cast<int>(expected.size()));
  for (const std::string& text : expected) {
    IsLogged(text, log, text.substr(0, text.find('>')));
  }
});

std::string NewPipe() {
  std::string path = NewFile();
  mkfifo(path.c_str(), S_IRUSR | S_IWUSR);
  return path;
}

/// What is done to the sink must be done to the port's own.
void NeedsSink() {
  std::string declared = Declared("log.read");
  if (IsDeclared("log.environment")) {
    declared += Declared("log.environment");
  }
  if (CountOf("{sink}", declared) == 0) {
    Undeclared(
        "neither 'log.environment' nor 'log.read' names {sink}: the file, in place of the "
        "port's own, that the kit fills, blocks and closes");
  }
  const std::string mark = NewMark();
  Needs("LOG-02", CountOf(mark, LogOfOne(mark)) == 1, "nothing came");
  Holds(CountOf(mark, ReadFile(Filled("{sink}"))) == 1, "logged, and looked into {sink}",
        "the message", "nothing: the declaration names {sink}, but the port does not write there");
}

void IsNoWorry(Helper&& writer, const std::string& what) {
  const int slowest = std::stoi(writer.Reply("logged 200 messages to " + what));
  Holds(slowest < LONG_CALL_MS, "logged 200 messages to " + what,
        "no call of " + Show(LONG_CALL_MS) + " ms", Show(slowest) + " ms");
}

const Question LOG_05("LOG-05", [] {
  NeedsSink();
  const std::string full = NewPipe();
  const int ends = open(full.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  while (write(ends, LongText(0).data(), 100) > 0 || write(ends, "x", 1) > 0) {
  }
  Start unread = LoggingTo(NewPipe());
  unread.error = Filled("{sink}");
  const std::pair<const char*, Start> sinks[] = {
      {"an ordinary file", LoggingTo(Filled("{sink}"))},
      {"a pipe that is full and that nobody reads", LoggingTo(full)},
      {"a pipe that nobody has opened", unread}};
  for (const auto& [what, start] : sinks) {
    IsNoWorry(Helper("log-timed", {""}, start), what);
  }
  close(ends);
});

const Question LOG_06("LOG-06", [] {
  NeedsSink();
  IsNoWorry(Helper("log-timed", {""}, LoggingTo("/dev/full")), "a device that is full");
  for (const std::string& path : {TheContext().scratch, Filled("{sink}") + "/log"}) {
    Start start = LoggingTo(path);
    start.error.clear();
    start.isErrorClosed = true;
    IsNoWorry(Helper("log-timed", {""}, start),
              "a file that cannot be opened, with standard error closed");
  }
  const std::string pipe = NewPipe();
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const std::string goOn = NewFile();
  Helper writer("log-timed", {goOn}, LoggingTo(pipe));
  Needs("LOG-05", writer.IsReady(), "messages to a pipe did not go on");
  close(reader);
  WriteFile(goOn, "");
  IsNoWorry(std::move(writer), "a pipe whose reader goes away in the middle");
});

const Question LOG_07("LOG-07", [] {
  constexpr int ROUNDS = 4;  // threads that take turns by chance mix nothing
  for (int round = 0; round < ROUNDS; ++round) {
    const std::string mark = NewMark();
    const std::string log = LogOf("log-many", {mark, Show(THREADS)}, mark, THREADS * MESSAGES);
    for (int i = 0; i < THREADS * MESSAGES; ++i) {
      IsLogged(Numbered(mark, i) + " " + LongText(i / MESSAGES), log, Numbered(mark, i));
    }
  }
});

const Question LOG_08("LOG-08", [] {
  std::vector<Asked> tags = AskedOfSets("log tag");
  tags.push_back({"log tag", TAG, ""});
  for (const Asked& tag : tags) {
    const std::string mark = NewMark();
    const std::string line = LineOf(mark, LogOfOne(mark, tag.name));
    for (const Asked& other : tags) {
      Holds((CountOf(other.name, line) == 1) == (other.name == tag.name),
            "logged a message with the tag " + tag.name, "a line with this tag alone", Show(line));
    }
  }
});

const Question LOG_09("LOG-09", [] {
  constexpr std::size_t SIZE = 4096;
  const std::string mark = NewMark();
  std::string message = mark;
  while (message.size() < SIZE - mark.size()) {
    message += static_cast<char>('a' + message.size() % 26);
  }
  message += mark;
  IsLogged(message, LogOf("log-one", {"6", TAG, message}, mark, 2), mark);
});

const Question LOG_10("LOG-10", [] {
  const std::string newline = IsDeclared("log.newline") ? Declared("log.newline") : "\n";
  for (const char* const rest : {"\nsecond line", "\n"}) {
    const std::string mark = NewMark();
    LogOf("log-one", {"6", TAG, mark + rest}, mark);
    // What follows it is a line of its own.
    const std::string next = NewMark();
    const std::string log = LogOfOne(next);
    const std::string expected = mark + newline + (rest + 1) + "\n";
    Holds(CountOf(expected, log) == 1,
          "logged " + Show(mark + rest) + "; by 'log.newline' a newline shows as " + Show(newline),
          Show(expected), Show(log.substr(std::min(log.find(mark), log.size()), expected.size())));
  }
});

const Question LOG_11("LOG-11", [] {
  const std::string mark = NewMark();
  const std::string log = LogOf("log-many", {mark, "1"}, mark, MESSAGES);
  for (int i = 1; i < MESSAGES; ++i) {
    Holds(log.find(Numbered(mark, i - 1)) < log.find(Numbered(mark, i)),
          "logged 200 messages on one thread", "number " + Show(i) + " behind the one before",
          "it stands before that, or is not there");
  }
});

const Question LOG_12("LOG-12", [] {
  NeedsSink();
  const std::string much = NewFile();
  Helper("log-on", {}, LoggingTo(much)).Reply("logged a message");
  std::filesystem::remove(much);
});

}  // namespace
}  // namespace conformance
