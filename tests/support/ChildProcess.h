#ifndef ONDARO_TESTS_SUPPORT_CHILDPROCESS_H
#define ONDARO_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ondaro::test {

constexpr std::chrono::seconds PATIENCE{30};

/// A program with its standard input and output on pipes. It dies with the thread that started it,
/// and with this object.
class ChildProcess {
 public:
  /// Standard error goes into the file, if one is named.
  explicit ChildProcess(const std::vector<std::string>& arguments,
                        const std::string& errorFile = "");
  ~ChildProcess();

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return m_pid; }

  void Write(const std::string& text) const;
  void CloseInput();

  /// The next line of the output that contains `part`, without its line feed; nothing at its end or
  /// after `limit`.
  std::optional<std::string> ReadLine(std::chrono::milliseconds limit = PATIENCE,
                                      const std::string& part = "");

  void Signal(int number) const;
  /// Sends SIGSTOP and returns when the process stands still.
  void Freeze() const;
  /// Takes the rest of the output. The exit code, or minus the number of the signal that ended it.
  int Wait();
  /// Ends it at once, whatever it does.
  void Kill();

 private:
  bool Fill(std::chrono::milliseconds limit);

  pid_t m_pid = -1;
  int m_input = -1;
  int m_output = -1;
  bool m_ended = false;
  std::string m_buffer;
};

}  // namespace ondaro::test

#endif
