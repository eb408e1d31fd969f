#include "Judge.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace conformance {
namespace {

namespace fs = std::filesystem;

constexpr int LONGEST_IN_PATIENCES = 10;
constexpr int MOST_LINES = 9;  // below the sentence
constexpr struct {
  const char* word;
  const char* shown;
} STATUSES[] = {{"passed", "passed      "},
                {"failed", "FAILED      "},
                {"absent", "absent      "},
                {"undeclared", "UNDECLARED  "},
                {"blocked", "BLOCKED     "}};

std::map<std::string, std::function<void()>>& Questions() {
  static std::map<std::string, std::function<void()>> questions;
  return questions;
}

std::map<std::string, Help::Give>& Helps() {
  static std::map<std::string, Help::Give> helps;
  return helps;
}

bool IsWanted(const std::string& clause, const std::vector<std::string>& only) {
  return only.empty() || std::any_of(only.begin(), only.end(), [&](const std::string& one) {
           return one == clause || one + "-" == clause.substr(0, one.size() + 1);
         });
}

bool IsFulfilled(Status status) { return status == Status::PASSED || status == Status::ABSENT; }

void Print(const Result& result) {
  std::cout << result.clause << "  " << STATUSES[static_cast<int>(result.answer.status)].shown
            << result.sentence << '\n';
  std::istringstream lines(result.answer.text);
  int count = 0;
  for (std::string line; std::getline(lines, line) && count < MOST_LINES; ++count) {
    std::cout << "        " << line << '\n';
  }
  std::cout << std::flush;
}

/// Its last line, to be shown.
std::string SaidLast(const std::string& file) {
  const std::string text = ReadFile(file);
  const std::string whole = text.substr(0, text.find_last_not_of('\n') + 1);
  return whole.empty() ? "" : "\nit said:  " + Show(whole.substr(whole.rfind('\n') + 1));
}

}  // namespace

Question::Question(const std::string& clause, const std::function<void()>& ask) {
  Questions().emplace(clause, ask);
}

Help::Help(const std::string& name, const Give& give) { Helps().emplace(name, give); }

const char* Word(Status status) { return STATUSES[static_cast<int>(status)].word; }

Judge::Judge(const std::string& declaration, Milliseconds patience) {
  for (const Clause& clause : Clauses()) {
    if (Questions().count(clause.id) == 0 || Questions().size() != Clauses().size()) {
      throw std::logic_error("not every clause has its question, or one has no clause: " +
                             clause.id);
    }
  }
  std::string scratch = fs::temp_directory_path() / "ondaro-platform-check-XXXXXX";
  if (mkdtemp(scratch.data()) == nullptr) {
    throw std::runtime_error(scratch + " cannot be made");
  }
  SetContext({Declaration(fs::absolute(declaration)), scratch, patience});
}

Judge::~Judge() {
  std::error_code ignored;
  fs::remove_all(TheContext().scratch, ignored);
}

void Judge::Run(const std::vector<std::string>& only) {
  for (const std::string& one : only) {
    if (std::none_of(Clauses().begin(), Clauses().end(),
                     [&](const Clause& clause) { return IsWanted(clause.id, {one}); })) {
      throw std::runtime_error("there is no clause " + one);
    }
  }
  CatchSignals();
  // What actions change is asked of the port before the run, and brought about after it.
  const std::string saved = TheContext().scratch + "/saved";
  Start saving;
  saving.command = Helper::Command("save", {}, saved);
  Process(saving).End(TheContext().patience);
  for (const Clause& clause : Clauses()) {
    if (m_signal == 0 && IsWanted(clause.id, only)) {
      StatusOf(clause.id);
    }
  }
  const Outcome restored = Helper("restore", {ReadFile(saved)}).Finish();
  if (!restored.isGood) {
    m_notes.push_back("what the kit changed could not be put back: " + restored.inWords);
  }
  if (TheContext().declaration.Is("settings.callbacks", "any-thread")) {
    m_notes.emplace_back(
        "change callbacks come on any thread ('settings.callbacks'): a host program registers all "
        "its handlers before the first change, never again after it, and its handlers pass each "
        "event on to its main loop");
  }
}

/// A clause is blocked only by one that is not fulfilled either: that one is judged first, and if
/// it holds, the clause itself has failed.
Status Judge::StatusOf(const std::string& clause) {
  for (const Result& known : m_results) {
    if (known.clause == clause) {
      return known.answer.status;
    }
  }
  m_underWay.insert(clause);
  const auto begin = std::chrono::steady_clock::now();
  const auto known = std::find_if(Clauses().begin(), Clauses().end(),
                                  [&](const Clause& one) { return one.id == clause; });
  Result result{clause, known->sentence, AskInProcess(clause)};
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  m_signal = TakeSignal();
  if (m_signal == 0 && result.answer.status == Status::BLOCKED) {
    const bool isCircle = m_underWay.count(result.answer.needs) != 0;
    if (isCircle || IsFulfilled(StatusOf(result.answer.needs))) {
      result.answer.status = Status::FAILED;
      result.answer.text +=
          "\n(asked alone, " + result.answer.needs + (isCircle ? " needs this)" : " holds)");
    }
  }
  m_underWay.erase(clause);
  if (m_signal == 0) {
    Print(result);
    m_results.push_back(result);
  }
  return result.answer.status;
}

Answer Judge::AskInProcess(const std::string& clause) const {
  const Context& context = TheContext();
  const std::string file = context.scratch + "/answer";
  const std::string said = context.scratch + "/said";
  fs::remove(file);
  fs::remove(said);
  Start start;
  start.command = Helper::Command(clause, {}, file);
  start.command[1] = "--ask";
  start.error = said;
  const Outcome outcome = Process(start).End(context.patience * LONGEST_IN_PATIENCES);
  std::istringstream written(ReadFile(file));
  int status = 0;
  Answer answer;
  if (outcome.isGood && written >> status >> answer.needs >> std::ws) {
    answer.status = static_cast<Status>(status);
    answer.text = std::string(std::istreambuf_iterator<char>(written), {});
    return answer;
  }
  return {Status::FAILED,
          "done:     asked in a process of its own\nexpected: its good end\ncame:     " +
              outcome.inWords + SaidLast(said)};
}

bool Judge::IsConformant() const {
  return m_signal == 0 && std::all_of(m_results.begin(), m_results.end(), [](const Result& result) {
           return IsFulfilled(result.answer.status);
         });
}

std::string Judge::Verdict() const {
  std::map<Status, int> counts;
  for (const Result& result : m_results) {
    ++counts[result.answer.status];
  }
  std::string verdict = IsConformant() ? "conformant (" : "not conformant (";
  verdict += std::to_string(m_results.size()) + " clauses";
  for (const auto& [status, count] : counts) {
    verdict += ", " + std::to_string(count) + " " + Word(status);
  }
  return verdict + (m_signal != 0 ? ", ended by signal " + std::to_string(m_signal) : "") + ")";
}

bool Serve(const Arguments& arguments) {
  if (arguments.size() < 6 || (arguments[0] != "--ask" && arguments[0] != "--help-with")) {
    return false;
  }
  SetContext({Declaration(arguments[1]), arguments[2], Milliseconds(std::stoi(arguments[3])),
              arguments[5]});
  if (arguments[0] == "--help-with") {
    try {
      WriteFile(arguments[5], Helps().at(arguments[4])({arguments.begin() + 6, arguments.end()}));
    } catch (const Answer& answer) {
      throw std::runtime_error(answer.text);
    }
    return true;
  }
  Answer answer;
  try {
    Questions().at(arguments[4])();
  } catch (const Answer& ended) {
    answer = ended;
  }
  WriteFile(arguments[5], Show(static_cast<int>(answer.status)) + " " +
                              (answer.needs.empty() ? "-" : answer.needs) + "\n" + answer.text);
  return true;
}

}  // namespace conformance
