#ifndef ONDARO_CTL_EXIT_CODE_H
#define ONDARO_CTL_EXIT_CODE_H

#include <stdexcept>
#include <string>

namespace ondaro::ctl {

/// What scripts rely on; docs/ondaro-ctl.md documents each.
enum class ExitCode {
  Done = 0,            // also what has no end of its own, ended by Ctrl-C or by a reader gone
  Failed = 1,          // also what the policy of the bus refuses
  Usage = 2,           // also a word that the property does not have
  NoSuchProperty = 3,  // of that name, or matching the pattern
  BusAbsent = 4,       // or daemon
  TimedOut = 5,
};

/// Ends a verb. The message says what happened and what to do about it.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& message) : Failure(ExitCode::Failed, message) {}
  Failure(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}

  ExitCode Code() const noexcept { return m_code; }

 private:
  ExitCode m_code;
};

/// A Failure of that message unless all is fine.
inline void Require(bool isFine, const std::string& message, ExitCode code = ExitCode::Failed) {
  if (!isFine) {
    throw Failure(code, message);
  }
}

}  // namespace ondaro::ctl

#endif
