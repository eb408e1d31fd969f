#ifndef ONDARO_PLATFORM_CONFORMANCE_PROCESS_H
#define ONDARO_PLATFORM_CONFORMANCE_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace conformance {

/// The descriptor on which a process of the kit answers the one that started it. Standard output
/// and error are the port's, which may write there what it likes.
constexpr int CHANNEL = 3;

/// A descriptor that is closed at the end; -1 for none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept { std::swap(m_descriptor, other.m_descriptor); }
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return m_descriptor; }
  void Close();

 private:
  int m_descriptor = -1;
};

struct Pipe {
  Descriptor reader;
  Descriptor writer;
};

/// Throws std::system_error. Both ends are closed on exec.
Pipe MakePipe();

struct Outcome {
  bool ended = false;  // in time; else it was killed
  int status = 0;      // as of waitpid()
  std::string output;

  bool Succeeded() const;
  /// "exit status 1", "signal 11 (Segmentation fault)", "no end".
  std::string Describe() const;
};

/// What a process of the kit that is not stuck never takes, not even on a slow set.
constexpr std::chrono::seconds LONGEST_RUN{20};

constexpr int KEEP_ERROR = -1;
constexpr int CLOSE_ERROR = -2;

struct Start {
  std::vector<std::string> command;           // the program first
  std::vector<std::string> environment = {};  // NAME=VALUE, besides what is there
  int standardError = KEEP_ERROR;             // or CLOSE_ERROR, or a descriptor
  int answersOn = CHANNEL;
  bool isInterruptible = true;
};

/// A process and the pipes to and from it. Killed, when it still runs, at the end.
class Child {
 public:
  /// Throws std::system_error.
  explicit Child(const Start& start);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t Id() const { return m_id; }
  int Output() const { return m_output.Get(); }
  /// Waits for the first line of its answer; empty when there is none in time.
  std::string ReadLine(std::chrono::milliseconds patience);
  /// Ends its standard input and waits for its end.
  Outcome Finish(std::chrono::milliseconds patience);
  void Kill() const;

 private:
  bool ReadSome(std::chrono::steady_clock::time_point deadline);
  void Wait();

  pid_t m_id = -1;
  bool m_isWaitedFor = false;
  int m_status = 0;
  std::string m_received;
  Descriptor m_input;
  Descriptor m_output;
};

/// This very program, told to do one thing.
std::vector<std::string> Self(std::vector<std::string> arguments);

Outcome RunProcess(const Start& start);
Outcome RunShell(const std::string& command);

}  // namespace conformance

#endif
