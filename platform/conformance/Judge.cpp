#include "Judge.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace conformance {
namespace {

namespace fs = std::filesystem;

constexpr int LONGEST_IN_PATIENCES = 10;
constexpr int MOST_LINES = 9;  // below the sentence
constexpr const char* WORDS[] = {"passed", "failed", "absent", "undeclared", "blocked"};
constexpr const char* SHOWN[] = {"passed", "FAILED", "absent", "UNDECLARED", "BLOCKED"};

bool IsOf(const std::string& clause, const std::string& idOrFamily) {
  return clause == idOrFamily || clause.rfind(idOrFamily + "-", 0) == 0;
}

bool IsFulfilled(Status status) { return status == Status::PASSED || status == Status::ABSENT; }

void Print(const std::string& clause, const Answer& answer) {
  std::cout << clause << "  " << std::left << std::setw(12)
            << SHOWN[static_cast<int>(answer.status)] << Clauses().at(clause) << '\n';
  std::istringstream lines(answer.text);
  int count = 0;
  for (std::string line; std::getline(lines, line) && count < MOST_LINES; ++count) {
    std::cout << "        " << line << '\n';
  }
  std::cout << std::flush;
}

/// Where the processes of a run leave what others read.
struct Scratch {
  Scratch() {
    if (mkdtemp(path.data()) == nullptr) {
      throw std::runtime_error(path + " cannot be made");
    }
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string path = fs::temp_directory_path() / "ondaro-platform-check-XXXXXX";
};

/// A clause is blocked only by one that is not fulfilled either: that one is judged first, and if
/// it holds, the clause itself has failed.
Status StatusOf(const std::string& clause, Judgement& known, std::set<std::string>& underWay) {
  if (const auto found = known.results.find(clause); found != known.results.end()) {
    return found->second.status;
  }
  underWay.insert(clause);
  const auto begin = std::chrono::steady_clock::now();
  Start start;
  start.error = NewFile();
  Answer answer = Helper(clause, {}, start)
                      .Ended("asked in a process of its own",
                             TheContext().patience * LONGEST_IN_PATIENCES, start.error);
  answer.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  known.signal = TakeSignal();
  if (known.signal == 0 && answer.status == Status::BLOCKED) {
    const bool isCircle = underWay.count(answer.needs) != 0;
    if (isCircle || IsFulfilled(StatusOf(answer.needs, known, underWay))) {
      answer.status = Status::FAILED;
      answer.text += "\n(asked alone, " + answer.needs + (isCircle ? " needs this)" : " holds)");
    }
  }
  underWay.erase(clause);
  if (known.signal == 0) {
    Print(clause, answer);
    known.results[clause] = answer;
  }
  return answer.status;
}

}  // namespace

const char* Word(Status status) { return WORDS[static_cast<int>(status)]; }

Judgement Judge(const std::string& declaration, Milliseconds patience,
                const std::vector<std::string>& only) {
  if (!std::equal(Clauses().begin(), Clauses().end(), Questions().begin(), Questions().end(),
                  [](const auto& clause, const auto& asked) { return clause.first == asked; })) {
    throw std::logic_error("not every clause has its question, or one has no clause");
  }
  for (const std::string& one : only) {
    if (std::none_of(Questions().begin(), Questions().end(),
                     [&](const std::string& clause) { return IsOf(clause, one); })) {
      throw std::runtime_error("there is no clause " + one);
    }
  }
  const Scratch scratch;
  SetContext({fs::absolute(declaration), ReadDeclaration(declaration), scratch.path, patience});
  CatchSignals();
  // What actions change is asked of the port before the run, and brought about after it.
  const Answer saved = Helper("save").Ended("saved", patience);
  Judgement judgement;
  std::set<std::string> underWay;
  for (const std::string& clause : Questions()) {
    const auto isOf = [&](const std::string& one) { return IsOf(clause, one); };
    if (judgement.signal == 0 && (only.empty() || std::any_of(only.begin(), only.end(), isOf))) {
      StatusOf(clause, judgement, underWay);
    }
  }
  const Answer restored = Helper("restore", {saved.text}).Ended("restored", patience * 3);
  if (restored.status != Status::PASSED) {
    judgement.notes.push_back("what the kit changed could not be put back:\n" + restored.text);
  }
  if (Declares("settings.callbacks", "any-thread")) {
    judgement.notes.emplace_back(
        "change callbacks come on any thread ('settings.callbacks'): a host program registers all "
        "its handlers before the first change, never again after it, and its handlers pass each "
        "event on to its main loop");
  }
  return judgement;
}

bool Judgement::IsConformant() const {
  return signal == 0 && std::all_of(results.begin(), results.end(),
                                    [](const auto& one) { return IsFulfilled(one.second.status); });
}

std::string Judgement::Verdict() const {
  std::map<Status, int> counts;
  for (const auto& [clause, answer] : results) {
    ++counts[answer.status];
  }
  std::string verdict = IsConformant() ? "conformant (" : "not conformant (";
  verdict += std::to_string(results.size()) + " clauses";
  for (const auto& [status, count] : counts) {
    verdict += ", " + std::to_string(count) + " " + Word(status);
  }
  return verdict + (signal != 0 ? ", ended by signal " + std::to_string(signal) : "") + ")";
}

}  // namespace conformance
