#ifndef ONDARO_PLATFORM_CONFORMANCE_JUDGE_H
#define ONDARO_PLATFORM_CONFORMANCE_JUDGE_H

#include "Question.h"

namespace conformance {

/// What is known of a port.
struct Judgement {
  std::map<std::string, Answer> results;  // by the clauses
  std::vector<std::string> notes;         // what holds, but must be known
  int signal = 0;                         // that ended the run early

  bool IsConformant() const;
  /// One line.
  std::string Verdict() const;
};

/// Has a port judged by the clauses of these ids and families, or all; shows each result. Each is
/// asked of by a process of its own: a broken port can end the one it is in or never let it go on.
/// This process calls nothing of the port. Once a process. Throws std::runtime_error for a clause
/// that there is none of, std::logic_error when clauses and questions do not match.
Judgement Judge(const std::string& declaration, Milliseconds patience,
                const std::vector<std::string>& only);

const char* Word(Status status);

}  // namespace conformance

#endif
