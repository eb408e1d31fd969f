#include <algorithm>

#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

constexpr std::size_t MOST_KEPT = 4096;           // of processes, and of events not delivered
constexpr std::int64_t LONGEST_WAY = 25'000'000;  // as long as a call waits for its answer

}  // namespace

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
  const bool isEntered = event.kind == TraceEvent::Kind::Entered;
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
  const bool tells = event.kind != TraceEvent::Kind::Message || !event.name.empty();
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
