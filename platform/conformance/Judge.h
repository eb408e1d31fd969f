#ifndef ONDARO_PLATFORM_CONFORMANCE_JUDGE_H
#define ONDARO_PLATFORM_CONFORMANCE_JUDGE_H

#include <map>
#include <set>

#include "Question.h"

namespace conformance {

struct Result {
  std::string clause;
  std::string sentence;
  Answer answer;
  double seconds = 0;
};

/// Has a port judged, each clause by a process of its own: a broken port can end the one it is in
/// or never let it go on. This process calls nothing of the port. One object a process.
class Judge {
 public:
  /// Throws std::logic_error when clauses and questions do not match.
  Judge(const std::string& declaration, Milliseconds patience);
  ~Judge();
  Judge(const Judge&) = delete;
  Judge& operator=(const Judge&) = delete;

  /// The clauses of these ids and families, or all; shows each result. Throws std::runtime_error
  /// for one that there is none of.
  void Run(const std::vector<std::string>& only);

  const std::vector<Result>& Results() const { return m_results; }
  /// What holds, but must be known.
  const std::vector<std::string>& Notes() const { return m_notes; }
  int Signal() const { return m_signal; }
  bool IsConformant() const;
  /// One line.
  std::string Verdict() const;

 private:
  Status StatusOf(const std::string& clause);
  Answer AskInProcess(const std::string& clause) const;

  std::vector<Result> m_results;
  std::vector<std::string> m_notes;
  std::set<std::string> m_underWay;
  int m_signal = 0;  // that ended the run early
};

const char* Word(Status status);

/// A process that the judge or a question started: WHAT DECLARATION SCRATCH PATIENCE NAME FILE...
/// False for any other.
bool Serve(const Arguments& arguments);

}  // namespace conformance

#endif
