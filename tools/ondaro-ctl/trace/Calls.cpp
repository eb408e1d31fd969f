#include <algorithm>

#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

using Kind = TraceEvent::Kind;

// What is kept stays within bounds however long and damaged the log is.
constexpr std::size_t MOST_THREADS = 1024;
constexpr std::size_t MOST_CALLS = 256;  // open in a thread
constexpr std::size_t MOST_KEPT = 4096;  // of processes, and of events not delivered
constexpr std::int64_t LARGEST_OFFSET = INT64_MAX / 2;
constexpr std::int64_t LONGEST_WAY = 25'000'000;  // as long as a call waits for its answer

}  // namespace

void Calls::Add(TraceEvent event) {
  const std::pair ids(event.process, event.thread);
  if (m_threads.size() >= MOST_THREADS && m_threads.count(ids) == 0) {
    Finish();
  }
  Thread& thread = m_threads[ids];
  const bool isTracer = event.kind != Kind::Message;
  // A line of a tracer that stands there twice was doubled on its way.
  if (isTracer && event.kind == thread.last.kind && event.time == thread.last.time &&
      event.signature == thread.last.signature) {
    return;
  }
  if (isTracer) {
    thread.last = event;
  }
  // Times that go back are of another run of the machine, or wrong: the thread goes on from here.
  thread.offset = std::min(std::max(thread.offset, thread.time - event.time), LARGEST_OFFSET);
  thread.time = std::max(thread.time, event.time + thread.offset);
  event.time = thread.time;
  if (!isTracer) {
    event.signature = thread.calls.empty() ? "" : thread.calls.back().signature;
    event.depth = thread.calls.size();
    m_handler(event);
    return;
  }
  if (event.kind == Kind::Entered) {
    Enter(thread, std::move(event));
    return;
  }
  const auto entered =
      std::find_if(thread.calls.rbegin(), thread.calls.rend(),
                   [&](const Call& call) { return call.signature == event.signature; });
  const bool isWhole = entered != thread.calls.rend();
  if (isWhole) {
    LeaveDownTo(thread, static_cast<std::size_t>(thread.calls.rend() - entered));
  } else {
    Enter(thread, event);
  }
  Leave(thread, std::move(event), isWhole);
}

void Calls::Enter(Thread& thread, TraceEvent event) {
  if (thread.calls.size() >= MOST_CALLS) {
    LeaveDownTo(thread, 0);
  }
  ++m_total;
  event.kind = Kind::Entered;
  event.depth = thread.calls.size();
  m_handler(event);
  thread.calls.push_back({std::move(event.signature), thread.time});
}

void Calls::Leave(Thread& thread, TraceEvent event, bool isWhole) {
  Call call = std::move(thread.calls.back());
  thread.calls.pop_back();
  event.kind = Kind::Left;
  event.time = thread.time;
  event.signature = std::move(call.signature);
  event.depth = thread.calls.size();
  event.isWhole = isWhole;
  event.duration = thread.time - call.begin;
  event.self = event.duration - call.inside;
  if (!thread.calls.empty()) {
    thread.calls.back().inside += isWhole ? event.duration : call.inside;
  }
  m_incomplete += isWhole ? 0 : 1;
  m_handler(event);
}

void Calls::LeaveDownTo(Thread& thread, std::size_t depth) {
  while (thread.calls.size() > depth) {
    Leave(thread, thread.last, false);
  }
}

void Calls::Finish() {
  for (auto& [ids, thread] : m_threads) {
    LeaveDownTo(thread, 0);
  }
  m_threads.clear();
}

// ---- Events between processes -------------------------------------------------------------------

std::string Deliveries::ProcessName(int process) const {
  const auto known = m_processes.find(process);
  return std::string(known == m_processes.end() ? "process" : known->second.role) + " " +
         std::to_string(process);
}

std::optional<TraceEvent> Deliveries::Add(const TraceEvent& event) {
  if (m_processes.size() >= MOST_KEPT) {
    m_processes.clear();
  }
  Process& process = m_processes[event.process];
  const bool isEntered = event.kind == Kind::Entered;
  const auto isIn = [name = FunctionName(event.signature)](std::string_view function) {
    return name.find(function) != std::string_view::npos;
  };
  process.role = isIn("CIpcServerImpl::")   ? "daemon"
                 : isIn("CIpcClientImpl::") ? "application"
                                            : process.role;
  const bool byApplication = isIn("CIpcClientImpl::SendDataToServer");
  std::deque<TraceEvent>& way = m_sent[byApplication ? 1 : 0];
  if (isEntered && (byApplication || isIn("CIpcServerImpl::SendDataToClient"))) {
    way.push_back(event);
    way.back().id = m_nextId++;
    if (way.size() > MOST_KEPT) {
      way.pop_front();
    }
  } else if (isEntered && isIn("CIpcClientImpl::CIpcClientImpl")) {
    process.nextHeard = m_nextId;
  } else if (byApplication && !event.name.empty() && !way.empty() &&
             way.back().process == event.process) {
    way.back().name = event.name;
  }

  // A message names the event of a call; where that is lost, the call's end comes without a name.
  const bool tells = event.kind != Kind::Message || !event.name.empty();
  const bool isServed = tells && isIn("CIpcServerImpl::HandleAppData") &&
                        std::exchange(process.isServing, isEntered) && !isEntered;
  if (!isServed && !(isEntered && isIn("CIpcClientImpl::_DbusSignalCallback"))) {
    return std::nullopt;
  }
  std::deque<TraceEvent>& candidates = m_sent[isServed ? 1 : 0];
  const auto found =
      std::find_if(candidates.begin(), candidates.end(), [&](const TraceEvent& sent) {
        const bool isNamed = event.name.empty() || sent.name.empty() || sent.name == event.name;
        return isNamed && event.time - sent.time <= LONGEST_WAY &&
               (isServed || sent.id >= process.nextHeard);
      });
  TraceEvent sent = found == candidates.end() ? TraceEvent() : *found;
  sent.name = sent.name.empty() ? event.name : sent.name;
  if (!isServed) {
    process.nextHeard = std::max(process.nextHeard, sent.id + 1);
  } else if (found != candidates.end()) {
    candidates.erase(found);
  }
  return sent;
}

}  // namespace ondaro::ctl
