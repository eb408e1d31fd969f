#include "Question.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/SettingsStore.h"

namespace conformance {
namespace {

using Clock = std::chrono::steady_clock;

std::unique_ptr<const Context>& ContextHolder() {
  static std::unique_ptr<const Context> context;
  return context;
}

std::string NewFile() {
  static std::atomic<int> count{0};
  return TheContext().scratch + "/" + std::to_string(g_get_monotonic_time()) + "-" +
         std::to_string(++count);
}

bool WaitUntil(Clock::time_point deadline, const std::function<bool()>& done) {
  constexpr guint TICK_MS = 5;  // not every port delivers on the main context, and wakes it
  const guint ticks = g_timeout_add(
      TICK_MS, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool isDone = done();
  for (; !isDone && Clock::now() < deadline; isDone = done()) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(ticks);
  return isDone;
}

long long OpenDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

/// 0 where the C library does not tell.
long long BytesInUse() {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
  const auto memory = mallinfo2();
  return static_cast<long long>(memory.uordblks) + static_cast<long long>(memory.hblkhd);
#else
  return 0;
#endif
}

bool CarryOut(const std::string& action) {
  const std::size_t verbEnd = action.find(' ');
  const std::size_t key = action.find_first_not_of(' ', verbEnd);
  if (action.compare(0, verbEnd, "run") == 0) {
    return DoesSucceed(action.substr(key));
  }
  const std::size_t keyEnd = action.find(' ', key);
  const std::string name = action.substr(key, keyEnd - key);
  const std::string value = action.substr(action.find_first_not_of(' ', keyEnd));
  return (action.compare(0, verbEnd, "set-int") == 0
              ? platform_settings_set_int(name.c_str(), std::stoi(value))
              : platform_settings_set_string(name.c_str(), value.c_str())) == 0;
}

Outcome Run(const std::string& command, const std::string& output) {
  Start start;
  start.command = {"/bin/sh", "-c", command};
  start.output = output;
  return Process(start).End(TheContext().patience * 3);
}

}  // namespace

void SetContext(Context context) {
  ContextHolder() = std::make_unique<const Context>(std::move(context));
}

const Context& TheContext() { return *ContextHolder(); }

void Fail(const std::string& done, const std::string& expected, const std::string& came) {
  throw Answer{Status::FAILED,
               "done:     " + done + "\nexpected: " + expected + "\ncame:     " + came};
}

void Absent(const std::string& reason) { throw Answer{Status::ABSENT, reason}; }

void Undeclared(const std::string& reason) { throw Answer{Status::UNDECLARED, reason}; }

void Needs(const std::string& clause, bool holds, const std::string& reason) {
  if (!holds) {
    throw Answer{Status::BLOCKED, "needs " + clause + ": " + reason, clause};
  }
}

void Holds(bool holds, const std::string& done, const std::string& expected,
           const std::string& came) {
  if (!holds) {
    Fail(done, expected, came);
  }
}

std::string Show(int value) { return std::to_string(value); }

std::string Show(const std::string& text) {
  constexpr std::size_t LONG = 64;
  constexpr std::size_t END = 24;
  std::string shown = "\"";
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.size() > LONG && i == LONG - END) {
      shown += "\" ... \"";
      i = text.size() - END;
    }
    const auto byte = static_cast<unsigned char>(text[i]);
    char escaped[8];
    std::snprintf(escaped, sizeof escaped,
                  byte >= ' ' && byte < 0x7f ? "%c"
                  : byte == '\n'             ? "\\n"
                                             : "\\x%02x",
                  byte);
    shown += escaped;
  }
  return shown + "\"" + (text.size() > LONG ? " (" + std::to_string(text.size()) + " bytes)" : "");
}

std::string Show(const char* textOrNull) {
  return textOrNull != nullptr ? Show(std::string(textOrNull)) : "nothing";
}

void SameList(const std::string& done, const std::vector<std::string>& expected,
              const std::vector<std::string>& came, std::string (*show)(const std::string&)) {
  const auto differing =
      std::mismatch(expected.begin(), expected.end(), came.begin(), came.end()).first;
  const auto at = static_cast<std::size_t>(differing - expected.begin());
  const auto summary = [&](const std::vector<std::string>& list) {
    constexpr std::size_t MOST = 6;
    std::string text = std::to_string(list.size());
    for (std::size_t i = 0; i < std::min(list.size(), MOST); ++i) {
      text += (i == 0 ? ": " : ", ") + show(list[i]);
    }
    return text + (list.size() > MOST ? ", ..." : "") + "\nnumber " + std::to_string(at + 1) +
           " is " + (at < list.size() ? show(list[at]) : "not there");
  };
  Holds(expected == came, done, summary(expected), summary(came));
}

const std::string& Declared(const char* key) {
  if (!IsDeclared(key)) {
    Undeclared(std::string("'") + key + "' is missing in the declaration");
  }
  return *TheContext().declaration.Find(key);
}

bool IsDeclared(const char* key) { return TheContext().declaration.Find(key) != nullptr; }

std::string Filled(const std::string& text, Placeholders others) {
  others.emplace("scratch", TheContext().scratch);
  others.emplace("sink", TheContext().scratch + "/stderr");
  return Fill(text, others);
}

void Apply(const char* key, const Placeholders& placeholders) {
  Needs("SET-08", CarryOut(Filled(Declared(key), placeholders)),
        std::string("'") + key + "' could not be carried out");
}

bool WaitFor(const std::function<bool()>& done) {
  return WaitUntil(Clock::now() + TheContext().patience, done);
}

void Settle() {
  WaitUntil(Clock::now() + TheContext().patience / 50 + Milliseconds(20), [] { return false; });
}

void OnManyThreads(const std::function<void()>& call) {
  constexpr int THREADS = 4;
  constexpr int CALLS = 25;
  std::mutex mutex;
  std::optional<Answer> failed;
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&] {
      try {
        for (int j = 0; j < CALLS; ++j) {
          call();
        }
      } catch (const Answer& answer) {
        const std::lock_guard lock(mutex);
        failed = answer;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  if (failed) {
    failed->text += "\n(asked on 4 threads at once)";
    throw Answer(*failed);
  }
}

void LeavesNothing(const std::string& done, const std::function<void()>& once) {
  constexpr int WARM_UP = 50;
  constexpr int LEAST = 100;
  constexpr int MOST = 1'000'000;
  constexpr long long SLACK = 16'384;  // what may be made once and kept
  for (int i = 0; i < WARM_UP; ++i) {
    once();
  }
  const long long descriptors = OpenDescriptors();
  const long long bytes = BytesInUse();
  const Clock::time_point deadline = Clock::now() + TheContext().patience / 5;
  int count = 0;
  for (; count < LEAST || (count < MOST && Clock::now() < deadline); ++count) {
    once();
  }
  const std::string often = done + ", " + Show(count) + " times";
  const long long more = BytesInUse() - bytes;
  Holds(more <= SLACK + count, often, "no more memory in use",
        std::to_string(more) + " bytes more");
  const long long open = OpenDescriptors();
  Holds(open <= descriptors, often, std::to_string(descriptors) + " open descriptors, as before",
        std::to_string(open));
}

std::string RunShell(const std::string& command) {
  const std::string output = NewFile();
  const Outcome outcome = Run(command, output);
  Holds(outcome.isGood, "carried out: " + command, "its good end", outcome.inWords);
  std::string printed = ReadFile(output);
  std::remove(output.c_str());
  return printed;
}

bool DoesSucceed(const std::string& command) { return Run(command, "").isGood; }

Arguments Helper::Command(const std::string& help, const Arguments& arguments,
                          const std::string& reply) {
  Arguments all = {std::filesystem::read_symlink("/proc/self/exe"),
                   "--help-with",
                   TheContext().declaration.Path(),
                   TheContext().scratch,
                   std::to_string(TheContext().patience.count()),
                   help,
                   reply};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

Helper::Helper(const std::string& help, const Arguments& arguments, Start start,
               const std::string& reply)
    : Process((start.command = Command(help, arguments, reply), start)), m_reply(reply) {}

Helper::Helper(const std::string& help, const Arguments& arguments, Start start)
    : Helper(help, arguments, std::move(start), NewFile()) {}

bool Helper::IsReady() const {
  return WaitFor([this] { return std::filesystem::exists(m_reply + ".ready"); });
}

bool Helper::HasReplied() const { return std::filesystem::exists(m_reply); }

std::string Helper::Reply(const std::string& done) {
  const Outcome outcome = Finish();
  Holds(outcome.isGood, done, "the good end of the process", outcome.inWords);
  return ReadFile(m_reply);
}

void Helper::SayReady() { WriteFile(TheContext().reply + ".ready", ""); }

std::string Ask(const std::string& help, const Arguments& arguments) {
  return Helper(help, arguments).Reply("another process did '" + help + "'");
}

}  // namespace conformance
