#ifndef ONDARO_CTL_TRACE_H
#define ONDARO_CTL_TRACE_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "text/Output.h"

namespace ondaro::ctl {

/// What a line of the log tells, as the host backend writes it (docs/host-backend.md); escapes stay
/// as they are.
struct TraceEvent {
  enum class Kind { Entered, Left, Message };

  Kind kind = Kind::Message;
  std::int64_t time = 0;  // in microseconds
  int process = 0;        // 0 for one that the log does not have
  int thread = 0;         // the process, when the line names no thread
  std::string tag;
  std::string signature;  // of the call; for a message of the innermost one open, or empty

  // Of a message.
  std::string priority;
  std::string function;  // that the message names as its own; may be empty
  std::string text;
  std::string name;      // of an event that goes from process to process, where it tells one
  bool isError = false;  // a failure is reported; some ordinary messages have error priority too

  // Found by Calls.
  std::size_t depth = 0;  // calls that are open around it
  bool isWhole = true;    // of Left: the log has both lines; else the times say nothing
  std::int64_t duration = 0;
  std::int64_t inside = 0;  // of which in calls inside

  std::uint64_t id = 0;  // of an event sent, found by Deliveries
};

/// The name in a signature, with its namespaces and class.
std::string_view FunctionName(std::string_view signature);

/// Finds which delivery belongs to which send, by what was entered: the bus keeps the order.
class Deliveries {
 public:
  /// To be called with every event. When that is the arrival of another, the call that sent it,
  /// with its id, and its name where the log has it; without id and process when the log does not
  /// have it.
  std::optional<TraceEvent> Add(const TraceEvent& event);

  /// "daemon 42" or "application 42", by the end of the messaging that the process has entered;
  /// "process 42" before that; 0 is not in the log.
  std::string ProcessName(int process) const;

 private:
  struct Process {
    const char* role = "process";
    bool isServing = false;       // inside a call from an application, which is not matched yet
    std::uint64_t nextHeard = 0;  // the first event of the daemon that it may hear next
  };

  std::map<int, Process> m_processes;
  std::array<std::deque<TraceEvent>, 2> m_sent;  // by the daemon, by applications
  std::uint64_t m_nextId = 1;
};

/// Shows the events of a log in one format.
class TraceWriter {
 public:
  explicit TraceWriter(const Output& output) : m_output(output) {}
  virtual ~TraceWriter() = default;

  void Show(const TraceEvent& event) { Write(event, m_deliveries.Add(event)); }
  virtual void Finish() = 0;

 protected:
  virtual void Write(const TraceEvent& event, const std::optional<TraceEvent>& sent) = 0;

  const Output& m_output;
  Deliveries m_deliveries;
};

/// The writer of a format; a Failure when there is none of that name.
std::unique_ptr<TraceWriter> MakeWriter(const std::string& format, const Output& output);

/// Pairs "Entered" with "Left" in each thread. Whatever lines are lost, every Entered that it shows
/// has its Left, the calls of a thread are nested, and its times never fall.
class Calls {
 public:
  explicit Calls(TraceWriter& writer) : m_writer(writer) {}

  /// False for a line that is none of a log, or of which something is missing.
  bool Add(std::string_view line);

  /// Leaves all calls that are open.
  void Finish();

  std::uint64_t Total() const { return m_total; }
  std::uint64_t Incomplete() const { return m_incomplete; }  // of which one line was lost

 private:
  struct Thread {
    std::vector<TraceEvent> calls;                                 // those open
    std::int64_t time = 0;                                         // of the last event
    std::int64_t offset = 0;                                       // added to the times of the log
    std::tuple<TraceEvent::Kind, std::int64_t, std::string> last;  // the tracer's line before
  };

  void Enter(Thread& thread, TraceEvent event);
  void Leave(Thread& thread, bool isWhole);
  void LeaveDownTo(Thread& thread, std::size_t depth);

  TraceWriter& m_writer;
  std::map<std::pair<int, int>, Thread> m_threads;
  std::uint64_t m_total = 0;
  std::uint64_t m_incomplete = 0;
};

}  // namespace ondaro::ctl

#endif
