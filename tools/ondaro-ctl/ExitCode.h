#ifndef ONDARO_CTL_EXIT_CODE_H
#define ONDARO_CTL_EXIT_CODE_H

#include <stdexcept>
#include <string>

namespace ondaro::ctl {

/// What scripts rely on; docs/ondaro-ctl.md documents each.
enum class ExitCode {
  Done = 0,
  Failed = 1,
  Usage = 2,
  NoSuchProperty = 3,
  BusAbsent = 4,
  TimedOut = 5,
};

/// Ends a verb. The message says what happened and what to do about it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}

  ExitCode Code() const noexcept { return m_code; }

 private:
  ExitCode m_code;
};

}  // namespace ondaro::ctl

#endif
