#ifndef ONDARO_PLATFORM_CONFORMANCE_QUESTION_H
#define ONDARO_PLATFORM_CONFORMANCE_QUESTION_H

#include <functional>
#include <set>
#include <vector>

#include "Declaration.h"
#include "Process.h"

// What the questions are asked with. Each runs in a process of its own, which it ends by throwing
// an Answer, or by returning: passed.

namespace conformance {

enum class Status { PASSED, FAILED, ABSENT, UNDECLARED, BLOCKED };

struct Answer {
  Status status = Status::PASSED;
  std::string text = {};   // why, unless passed; the reply of a help
  std::string needs = {};  // the clause that blocks it
  double seconds = 0;      // until then, as the judge measures
};

/// What another process of the kit does for questions; it ends as they do.
struct Help {
  using Give = std::function<void(const Arguments& arguments)>;
  Help(const std::string& name, const Give& give);
};
/// Asks of a clause; one at namespace scope for each.
struct Question {
  Question(const std::string& clause, const std::function<void()>& ask);
};
/// The clauses that are asked of.
std::set<std::string>& Questions();

// ---- The contract, taken from the headers and the guide when the kit is built (contract.sh)

/// The sentence of each, as the header has it, by its id: SET-07.
const std::map<std::string, std::string>& Clauses();

/// A row of the guide's table of what the library asks of any set.
struct Asked {
  std::string kind;  // feature, key, key system, log tag, log priority
  std::string name;
  std::string value;  // what it holds: integer, text
};
/// The rows of a kind.
std::vector<Asked> AskedOfSets(const std::string& kind);

// ---- Ends of a question, and of a help

[[noreturn]] void Reply(const std::string& reply);
/// The port says that it has no such thing, and what it has agrees with it.
[[noreturn]] void Absent(const std::string& reason);
[[noreturn]] void Undeclared(const std::string& reason);
/// Nothing can be said unless another clause holds.
void Needs(const std::string& clause, bool holds, const std::string& reason);
/// Fails otherwise.
void Holds(bool holds, const std::string& done, const std::string& expected,
           const std::string& came);

/// Holds unless the status is 0.
void Refuses(const std::string& done, int status);

std::string Show(int value);
/// In quotes, what cannot be printed as \xNN, the middle of a long one left out.
std::string Show(const std::string& text);
std::string Show(const char* textOrNull);

template <typename Expected>
void Same(const std::string& done, const Expected& expected, const Expected& came) {
  Holds(expected == came, done, Show(expected), Show(came));
}
// ---- The declaration

/// What the questions of one process work with.
struct Context {
  std::string declarationPath;
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
/// Whether the one key is declared; else the other must be.
bool IsDeclared(const char* key, const char* orElse);
bool Declares(const char* key, const std::string& value);
using Placeholders = std::map<std::string, std::string>;
/// `text` with each {name} replaced.
std::string Filled(std::string text, Placeholders placeholders = {});
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

/// A path in the scratch directory where nothing is.
std::string NewFile();
/// What a command for the shell prints; fails the question if it does not end well.
std::string RunShell(const std::string& command);
bool DoesSucceed(const std::string& command);

/// Another process of the kit that gives some help, or asks of a clause.
class Helper : public Process {
 public:
  explicit Helper(const std::string& help, const Arguments& arguments = {}, const Start& start = {},
                  const std::string& reply = NewFile());

  /// Waits until it is ready, where it says so.
  bool IsReady() const;
  bool HasReplied() const;
  /// Waits for its end. An end that is no good one is a failure; what it then said last, in the
  /// file `said`, is shown.
  Answer Ended(const std::string& done, Milliseconds patience, const std::string& said = "");
  /// Waits for its end; the question ends as it did, unless that was well.
  std::string Reply(const std::string& done);

  /// Within the helper.
  static void SayReady();
  /// The command line of one whose reply is found in the file.
  static Arguments Command(const std::string& help, const Arguments& arguments,
                           const std::string& reply);
  /// What was replied to that file.
  static std::optional<Answer> Replied(const std::string& reply);

 private:
  const std::string m_reply;
};

std::string Ask(const std::string& help, const Arguments& arguments = {});

/// Does what a helper's command line says; false for any other.
bool Serve(const Arguments& arguments);

}  // namespace conformance

#endif
