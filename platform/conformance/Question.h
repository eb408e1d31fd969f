#ifndef ONDARO_PLATFORM_CONFORMANCE_QUESTION_H
#define ONDARO_PLATFORM_CONFORMANCE_QUESTION_H

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Declaration.h"
#include "Process.h"

// What the questions are asked with. Each runs in a process of its own, which it ends by throwing
// an Answer, or by returning: passed.

namespace conformance {

enum class Status { PASSED, FAILED, ABSENT, UNDECLARED, BLOCKED };

struct Answer {
  Status status = Status::PASSED;
  std::string text = {};   // why, unless passed
  std::string needs = {};  // the clause that blocks it
};

/// Asks of a clause; one at namespace scope for each.
struct Question {
  Question(const std::string& clause, const std::function<void()>& ask);
};
/// What another process of the kit does for questions: its arguments in, its reply out.
struct Help {
  using Give = std::function<std::string(const Arguments& arguments)>;
  Help(const std::string& name, const Give& give);
};

// ---- The contract, taken from the headers and the guide when the kit is built (contract.sh)

struct Clause {
  std::string id;        // SET-07
  std::string sentence;  // as the header has it
};
const std::vector<Clause>& Clauses();

/// A row of the guide's table of what the library asks of any set.
struct Asked {
  std::string kind;  // feature, key, key system, log tag, log priority
  std::string name;
  std::string value;  // what it holds: integer, text
};
/// The rows of a kind.
std::vector<Asked> AskedOfSets(const std::string& kind);

// ---- Ends of a question

[[noreturn]] void Fail(const std::string& done, const std::string& expected,
                       const std::string& came);
/// The port says that it has no such thing, and what it has agrees with it.
[[noreturn]] void Absent(const std::string& reason);
[[noreturn]] void Undeclared(const std::string& reason);
/// Nothing can be said unless another clause holds.
void Needs(const std::string& clause, bool holds, const std::string& reason);
void Holds(bool holds, const std::string& done, const std::string& expected,
           const std::string& came);

std::string Show(int value);
/// In quotes, what cannot be printed as \xNN, the middle of a long one left out.
std::string Show(const std::string& text);
std::string Show(const char* textOrNull);

template <typename Expected>
void Same(const std::string& done, const Expected& expected, const Expected& came) {
  Holds(expected == came, done, Show(expected), Show(came));
}
/// Tells where two lists of what `show` shows begin to differ.
void SameList(const std::string& done, const std::vector<std::string>& expected,
              const std::vector<std::string>& came, std::string (*show)(const std::string&));

// ---- The declaration

/// What the questions of one process work with.
struct Context {
  Declaration declaration;
  std::string scratch;  // a directory of the run's own
  Milliseconds patience;
  std::string reply = {};  // the file for what this process replies
};
void SetContext(Context context);
const Context& TheContext();

/// The declared value; else the question ends as undeclared.
const std::string& Declared(const char* key);
bool IsDeclared(const char* key);
std::string Filled(const std::string& text, Placeholders others = {});
/// Carries out a declared action; else the question is blocked by SET-08.
void Apply(const char* key, const Placeholders& placeholders = {});

// ---- Time, threads, processes

/// Lets the port deliver, on whatever thread it does, until `done` or until patience ends.
bool WaitFor(const std::function<bool()>& done);
/// Lets the port deliver what should not come.
void Settle();
/// Calls it many times on each of several threads at once.
void OnManyThreads(const std::function<void()>& call);
/// Repeats what should leave nothing behind, up to a million times, as often as there is time.
void LeavesNothing(const std::string& done, const std::function<void()>& once);

/// What a command for the shell prints; fails the question if it does not end well.
std::string RunShell(const std::string& command);
bool DoesSucceed(const std::string& command);

/// Another process of the kit that gives some help.
class Helper : public Process {
 public:
  explicit Helper(const std::string& help, const Arguments& arguments = {}, Start start = {});

  /// Waits until it is ready, where it says so.
  bool IsReady() const;
  bool HasReplied() const;
  Outcome Finish() { return End(TheContext().patience * 3); }
  /// Waits for its end; the question fails if that is no good one.
  std::string Reply(const std::string& done);

  /// Within the helper.
  static void SayReady();
  /// The command line of one whose reply is found in the file.
  static Arguments Command(const std::string& help, const Arguments& arguments,
                           const std::string& reply);

 private:
  Helper(const std::string& help, const Arguments& arguments, Start start,
         const std::string& reply);
  const std::string m_reply;
};

std::string Ask(const std::string& help, const Arguments& arguments = {});

}  // namespace conformance

#endif
