#ifndef ONDARO_PLATFORM_CONFORMANCE_SUPERVISOR_H
#define ONDARO_PLATFORM_CONFORMANCE_SUPERVISOR_H

#include <chrono>
#include <string>
#include <vector>

#include "Process.h"
#include "Result.h"
#include "Worker.h"

namespace conformance {

/// Has a port judged: by processes of their own, since a broken port can end the one it is in,
/// never let it go on, or be interrupted, and what was changed must be restored all the same.
/// This process calls nothing of the port.
class Supervisor {
 public:
  Supervisor(std::string declaration, std::chrono::milliseconds patience);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  /// Results and remarks are added to the report as they come in.
  void Judge(std::vector<Clause> clauses, Report& report);

  /// The signal that ended it early, or 0.
  int Interruption() const { return m_interruption; }

 private:
  struct Current;

  Start OwnProcess(const char* option, std::vector<std::string> arguments) const;
  Outcome RunProbe(const char* probe, bool isInterruptible) const;
  void RunWorker(std::vector<Clause>& left, Report& report);
  bool WaitForMessage(Child& child, std::string& received);
  void Take(const std::string& line, Current& current, std::vector<Clause>& left, Report& report);

  const std::string m_declaration;
  const std::chrono::milliseconds m_patience;
  const std::string m_scratch;
  const Descriptor m_signals;
  int m_interruption = 0;
  bool m_isStuck = false;
};

}  // namespace conformance

#endif
