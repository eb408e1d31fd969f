#ifndef ONDARO_PLATFORM_CONFORMANCE_JUDGING_H
#define ONDARO_PLATFORM_CONFORMANCE_JUDGING_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Declaration.h"
#include "Process.h"
#include "Result.h"

namespace conformance {

/// What the tests of one process work with.
struct Context {
  Declaration declaration;
  std::string scratch;  // a directory of the run's own
  std::chrono::milliseconds patience;

  Placeholders WithScratch(Placeholders others = {}) const;
};

void SetContext(Context context);
const Context& TheContext();

/// How the test that runs ended without being judged; none when it was.
struct Unjudged {
  Status status = Status::PASSED;
  std::string reason;
};
std::optional<Unjudged>& CurrentUnjudged();

// Each ends the test.

/// The port says that it has no such thing, and what it has agrees with it.
[[noreturn]] void Absent(const std::string& reason);
/// The declaration lacks what the test needs.
[[noreturn]] void Undeclared(const std::string& reason);
/// Nothing can be said: another clause, on which the test relies, does not hold.
[[noreturn]] void Blocked(const std::string& clause, const std::string& reason);

void Needs(const std::string& clause, bool holds, const std::string& reason);
/// The declared value; else the test ends as undeclared.
const std::string& Declared(const char* key);
/// Brings about what a declared action is for; the test is blocked by `clause` if that fails.
void Apply(const char* key, const Placeholders& placeholders, const std::string& clause);

/// Lets the port deliver, on whatever thread it does, until `done` or until patience ends.
bool WaitFor(const std::function<bool()>& done);

/// The value of a text key, released as SET-02 has it if that holds.
std::optional<std::string> ReadText(const std::string& key);

/// Another process of the kit, for what only another process can show.
Start Probe(std::vector<std::string> arguments);

/// Calls `call` on several threads at once; all answers.
template <typename Call>
auto FromManyThreads(Call call) {
  constexpr int THREADS = 4;
  constexpr int CALLS = 25;
  using Answer = decltype(call());
  std::vector<std::vector<Answer>> answers(THREADS);
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (std::vector<Answer>& own : answers) {
    threads.emplace_back([&own, &call] {
      for (int i = 0; i < CALLS; ++i) {
        own.push_back(call());
      }
    });
  }
  std::vector<Answer> all;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i].join();
    all.insert(all.end(), answers[i].begin(), answers[i].end());
  }
  return all;
}

}  // namespace conformance

#endif
