#ifndef ONDARO_CTL_TRACE_PAIRING_H
#define ONDARO_CTL_TRACE_PAIRING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TraceLine.h"

namespace ondaro::ctl {

struct TraceEvent {
  enum class Kind { Enter, Leave, Message };

  Kind kind;
  int process;
  int thread;
  std::int64_t time;           // in microseconds; never less than the thread's event before
  std::string_view signature;  // of the call; for a message of the innermost one open, or empty
  std::size_t depth;           // calls that are open around it
  const TraceLine* line;       // that tells of it; null when it is lost

  // Of Leave only.
  bool isWhole = true;  // the log has both lines; else the times say nothing
  std::int64_t duration = 0;
  std::int64_t self = 0;  // without the calls inside
};

/// Pairs "Entered" with "Left" in each thread. Whatever lines are lost, every Enter that it hands
/// out has its Leave, and the calls of a thread are nested.
class TracePairing {
 public:
  using Handler = std::function<void(const TraceEvent& event)>;

  explicit TracePairing(Handler handler) : m_handler(std::move(handler)) {}

  void Add(const TraceLine& line);

  /// Leaves all calls that are open.
  void Finish();

  /// Calls of which one line was lost.
  std::uint64_t Incomplete() const { return m_incomplete; }

 private:
  struct Call {
    std::string signature;
    std::int64_t begin;
    std::int64_t inside = 0;  // time of the calls inside
  };

  struct Thread {
    std::vector<Call> calls;
    std::int64_t time = 0;    // of the last event
    std::int64_t offset = 0;  // added to the times of the log
    TraceLine::Kind lastKind = TraceLine::Kind::Message;
    std::int64_t lastTime = 0;
    std::size_t lastHash = 0;
  };

  using Ids = std::pair<int, int>;

  Thread& ThreadOf(const TraceLine& line);
  void Enter(const Ids& ids, Thread& thread, const TraceLine& line);
  void Leave(const Ids& ids, Thread& thread, const TraceLine& line);
  void LeaveInnermost(const Ids& ids, Thread& thread, const TraceLine* line, bool isWhole);
  void LeaveDownTo(std::size_t depth, const Ids& ids, Thread& thread);

  Handler m_handler;
  std::map<Ids, Thread> m_threads;
  std::uint64_t m_incomplete = 0;
};

}  // namespace ondaro::ctl

#endif
