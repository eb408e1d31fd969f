#ifndef ONDARO_CTL_TRACE_H
#define ONDARO_CTL_TRACE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Output.h"

namespace ondaro::ctl {

/// A line of the log as the host backend writes it (docs/host-backend.md). The texts point into the
/// line; escapes stay as they are.
struct LogLine {
  enum class Kind { Entered, Left, Message };

  Kind kind = Kind::Message;
  std::int64_t time = 0;  // in microseconds
  int process = 0;
  int thread = 0;  // the process, when the line names no thread
  char priority = 'V';
  std::string_view tag;
  std::string_view function;  // that the message names as its own; may be empty
  std::string_view text;      // the signature of the call, or the message

  /// A failure is reported. Some ordinary messages are written at error priority too.
  bool IsError() const;
};

/// Nothing for a line that is none, or of which something is missing.
std::optional<LogLine> ParseLogLine(std::string_view line);

/// The name in a signature, with its namespaces and class.
std::string_view FunctionName(std::string_view signature);

bool Contains(std::string_view text, std::string_view part);

struct TraceEvent {
  LogLine::Kind kind;
  int process;
  int thread;
  std::int64_t time;           // in microseconds; never less than the thread's event before
  std::string_view signature;  // of the call; for a message of the innermost one open, or empty
  std::size_t depth;           // calls that are open around it
  const LogLine* line;         // that tells of it; null when it is lost

  // Of Left only.
  bool isWhole = true;  // the log has both lines; else the times say nothing
  std::int64_t duration = 0;
  std::int64_t self = 0;  // without the calls inside
};

/// Pairs "Entered" with "Left" in each thread. Whatever lines are lost, every Entered that it hands
/// out has its Left, and the calls of a thread are nested.
class Calls {
 public:
  using Handler = std::function<void(const TraceEvent& event)>;

  explicit Calls(Handler handler) : m_handler(std::move(handler)) {}

  void Add(const LogLine& line);

  /// Leaves all calls that are open.
  void Finish();

  std::uint64_t Total() const { return m_total; }
  std::uint64_t Incomplete() const { return m_incomplete; }  // of which one line was lost

 private:
  struct Call {
    std::string signature;
    std::int64_t begin;
    std::int64_t inside = 0;  // time of the calls inside
  };
  struct Thread {
    int process = 0;
    int thread = 0;
    std::vector<Call> calls;
    std::int64_t time = 0;    // of the last event
    std::int64_t offset = 0;  // added to the times of the log
    std::string last;         // the tracer's line before
  };

  Thread& ThreadOf(const LogLine& line);
  void Hand(const Thread& thread, LogLine::Kind kind, std::string_view signature,
            const LogLine* line) const;
  void Enter(Thread& thread, const LogLine& line);
  void Leave(Thread& thread, const LogLine& line);
  void LeaveInnermost(Thread& thread, const LogLine* line, bool isWhole);
  void LeaveDownTo(std::size_t depth, Thread& thread);

  Handler m_handler;
  std::map<std::pair<int, int>, Thread> m_threads;
  std::uint64_t m_total = 0;
  std::uint64_t m_incomplete = 0;
};

/// An event on its way: sent in one process, delivered in another.
struct Delivery {
  std::uint64_t id;
  TraceEvent sent;   // without texts; its process is 0 when the log does not have it
  std::string name;  // empty where the log does not have it
};

/// Finds which delivery belongs to which send, by what was entered: the bus keeps the order.
class Deliveries {
 public:
  /// To be called with every event; something when the event is the arrival of one that was sent.
  std::optional<Delivery> Add(const TraceEvent& event);

  /// "daemon 42" or "application 42", by the end of the messaging that the process has entered;
  /// "process 42" before that.
  std::string ProcessName(int process) const;

 private:
  struct Process {
    const char* role = "process";
    bool isServing = false;       // inside a call from an application, which is not matched yet
    std::uint64_t nextHeard = 0;  // the first event of the daemon that it may hear next
  };

  std::optional<Delivery> Take(const TraceEvent& event, bool fromDaemon, const std::string& name);

  std::map<int, Process> m_processes;
  std::vector<std::pair<bool, Delivery>> m_sent;  // by the daemon?
  std::uint64_t m_nextId = 1;
};

/// Shows the events of a log in one format.
class TraceWriter {
 public:
  TraceWriter() = default;
  virtual ~TraceWriter() = default;

  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;

  virtual void Write(const TraceEvent& event) = 0;
  virtual void Finish() = 0;
};

// `output` outlives the writer.
std::unique_ptr<TraceWriter> MakeSummary(const Output& output);
std::unique_ptr<TraceWriter> MakeChrome(const Output& output);
std::unique_ptr<TraceWriter> MakeDiagram(const Output& output);

}  // namespace ondaro::ctl

#endif
