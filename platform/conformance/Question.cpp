#include "Question.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <sstream>

#include "platform/SettingsStore.h"

namespace conformance {
namespace {

using Clock = std::chrono::steady_clock;

Context g_context;

std::map<std::string, Help::Give>& Helps() {
  static std::map<std::string, Help::Give> helps;
  return helps;
}

bool WaitUntil(Clock::time_point deadline, const std::function<bool()>& done) {
  constexpr gulong TICK_US = 1000;  // not every port delivers on the main context, and wakes it
  while (!done()) {
    if (Clock::now() >= deadline) {
      return false;
    }
    if (g_main_context_iteration(nullptr, FALSE) == FALSE) {
      g_usleep(TICK_US);
    }
  }
  return true;
}

long long OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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
  const std::string run = "run ";
  if (action.rfind(run, 0) == 0) {
    return DoesSucceed(action.substr(run.size()));
  }
  std::istringstream words(action);
  std::string verb;
  std::string key;
  std::string value;
  std::getline(words >> verb >> key >> std::ws, value);
  return (verb == "set-int" ? platform_settings_set_int(key.c_str(), std::stoi(value))
                            : platform_settings_set_string(key.c_str(), value.c_str())) == 0;
}

Outcome Run(const std::string& command, const std::string& output) {
  Start start;
  start.output = output;
  return Process({"/bin/sh", "-c", command}, start).End(TheContext().patience * 3);
}

Answer Failed(const std::string& done, const std::string& expected, const std::string& came) {
  return {Status::FAILED, "done:     " + done + "\nexpected: " + expected + "\ncame:     " + came};
}

/// Its last line, to be shown.
std::string SaidLast(const std::string& file) {
  const std::string text = ReadFile(file);
  const std::string whole = text.substr(0, text.find_last_not_of('\n') + 1);
  return whole.empty() ? "" : "\nit said:  " + Show(whole.substr(whole.rfind('\n') + 1));
}

}  // namespace

Help::Help(const std::string& name, const Give& give) { Helps().emplace(name, give); }

Question::Question(const std::string& clause, const std::function<void()>& ask) {
  Questions().insert(clause);
  Help(clause, [ask](const Arguments& /*none*/) { ask(); });
}

std::set<std::string>& Questions() {
  static std::set<std::string> clauses;
  return clauses;
}

void SetContext(Context context) { g_context = std::move(context); }

const Context& TheContext() { return g_context; }

void Reply(const std::string& reply) { throw Answer{Status::PASSED, reply}; }

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
    throw Answer(Failed(done, expected, came));
  }
}

void Refuses(const std::string& done, int status) {
  Holds(status != 0, done, "a status other than 0", "0");
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

const std::string& Declared(const char* key) {
  if (!IsDeclared(key)) {
    Undeclared(std::string("'") + key + "' is missing in the declaration");
  }
  return *TheContext().declaration.at(key);
}

bool IsDeclared(const char* key) { return TheContext().declaration.at(key).has_value(); }

bool IsDeclared(const char* key, const char* orElse) {
  if (!IsDeclared(key) && !IsDeclared(orElse)) {
    Undeclared(std::string("neither '") + key + "' nor '" + orElse + "' is in the declaration");
  }
  return IsDeclared(key);
}

bool Declares(const char* key, const std::string& value) {
  return IsDeclared(key) && Declared(key) == value;
}

std::string Filled(std::string text, Placeholders placeholders) {
  placeholders.emplace("scratch", TheContext().scratch);
  placeholders.emplace("sink", TheContext().scratch + "/stderr");
  for (const auto& [name, value] : placeholders) {
    const std::string mark = "{" + name + "}";
    for (std::size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + value.size())) {
      text.replace(at, mark.size(), value);
    }
  }
  return text;
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
  std::vector<std::future<void>> threads(THREADS);
  for (std::future<void>& thread : threads) {
    thread = std::async(std::launch::async, [&call] {
      for (int i = 0; i < CALLS; ++i) {
        call();
      }
    });
  }
  try {
    for (std::future<void>& thread : threads) {
      thread.get();
    }
  } catch (Answer& failed) {
    failed.text += "\n(asked on 4 threads at once)";
    throw;
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

std::string NewFile() {
  static std::atomic<int> count{0};
  return TheContext().scratch + "/" + std::to_string(g_get_monotonic_time()) + "-" +
         std::to_string(++count);
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
                   TheContext().declarationPath,
                   TheContext().scratch,
                   std::to_string(TheContext().patience.count()),
                   help,
                   reply};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

Helper::Helper(const std::string& help, const Arguments& arguments, const Start& start,
               const std::string& reply)
    : Process(Command(help, arguments, reply), start), m_reply(reply) {}

bool Helper::IsReady() const {
  return WaitFor([this] { return std::filesystem::exists(m_reply + ".ready"); });
}

bool Helper::HasReplied() const { return std::filesystem::exists(m_reply); }

Answer Helper::Ended(const std::string& done, Milliseconds patience, const std::string& said) {
  const Outcome outcome = End(patience);
  const std::optional<Answer> answer = Replied(m_reply);
  return outcome.isGood && answer
             ? *answer
             : Failed(done, "the good end of the process", outcome.inWords + SaidLast(said));
}

std::string Helper::Reply(const std::string& done) {
  const Answer answer = Ended(done, TheContext().patience * 3);
  if (answer.status != Status::PASSED) {
    throw Answer(answer);
  }
  return answer.text;
}

void Helper::SayReady() { WriteFile(TheContext().reply + ".ready", ""); }

std::optional<Answer> Helper::Replied(const std::string& reply) {
  std::istringstream written(ReadFile(reply));
  int status = 0;
  Answer answer;
  if (!(written >> status >> answer.needs) || written.get() != '\n') {
    return {};
  }
  answer.status = static_cast<Status>(status);
  answer.text = std::string(std::istreambuf_iterator<char>(written), {});
  return answer;
}

std::string Ask(const std::string& help, const Arguments& arguments) {
  return Helper(help, arguments).Reply("another process did '" + help + "'");
}

bool Serve(const Arguments& arguments) {
  if (arguments.size() < 6 || arguments[0] != "--help-with") {
    return false;
  }
  SetContext({arguments[1], ReadDeclaration(arguments[1]), arguments[2],
              Milliseconds(std::stoi(arguments[3])), arguments[5]});
  Answer answer;
  try {
    Helps().at(arguments[4])({arguments.begin() + 6, arguments.end()});
  } catch (const Answer& ended) {
    answer = ended;
  }
  WriteFile(arguments[5], Show(static_cast<int>(answer.status)) + " " +
                              (answer.needs.empty() ? "-" : answer.needs) + "\n" + answer.text);
  return true;
}

}  // namespace conformance
