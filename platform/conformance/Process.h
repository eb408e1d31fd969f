#ifndef ONDARO_PLATFORM_CONFORMANCE_PROCESS_H
#define ONDARO_PLATFORM_CONFORMANCE_PROCESS_H

#include <gio/gio.h>

#include <chrono>
#include <string>
#include <vector>

namespace conformance {

using Arguments = std::vector<std::string>;
using Milliseconds = std::chrono::milliseconds;

/// How a process ended: "exit status 1", "signal 11 (Segmentation fault)", "no end in 5000 ms".
struct Outcome {
  bool isGood = false;
  std::string inWords;
};

struct Start {
  int group = -1;                // process group to join, 0 for one of its own
  std::string environment = {};  // one NAME=VALUE more
  std::string output = {};       // file for standard output; else that is dropped
  std::string error = {};        // file to append standard error to; else that is dropped
  bool isErrorClosed = false;    // no standard error at all
};

/// A process that ends with this object, and with the process that started it, if not before.
class Process {
 public:
  /// The program comes first. Throws std::runtime_error.
  explicit Process(const Arguments& command, const Start& start = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  int Id() const { return m_id; }
  /// Waits for its end, and kills it when patience ends or a signal wants this process to end.
  /// Delivers nothing on any main context.
  Outcome End(Milliseconds patience);

 private:
  GSubprocess* m_process = nullptr;
  int m_id = -1;
};

/// From now on SIGINT, SIGTERM and SIGHUP end what is waited for instead of this process.
void CatchSignals();
/// The signal that was caught, or 0. Forgets it: what follows can be waited for.
int TakeSignal();

std::string ReadFile(const std::string& path);
/// Throws std::runtime_error.
void WriteFile(const std::string& path, const std::string& text);

}  // namespace conformance

#endif
