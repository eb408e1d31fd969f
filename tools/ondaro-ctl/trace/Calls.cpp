#include <algorithm>

#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

// What is kept stays within bounds however long and damaged the log is.
constexpr std::size_t MOST_THREADS = 1024;
constexpr std::size_t MOST_CALLS = 256;  // open in a thread
constexpr std::size_t MOST_SENT = 4096;  // and not delivered
constexpr std::int64_t LARGEST_OFFSET = INT64_MAX / 2;
constexpr std::int64_t LONGEST_WAY = 25'000'000;  // as long as a call waits for its answer

/// Of "... appEvt : NAME, data : ..." at either end of a call; nothing for another message.
std::optional<std::string> EventNameIn(std::string_view text) {
  constexpr std::string_view BEFORE = "appEvt : ";
  const std::size_t begin = text.find(BEFORE);
  if (begin == std::string_view::npos) {
    return std::nullopt;
  }
  text.remove_prefix(begin + BEFORE.size());
  const std::size_t end = std::min(text.find(", data : "), text.find(", surfaceId : "));
  return end == std::string_view::npos ? std::nullopt
                                       : std::optional(std::string(text.substr(0, end)));
}

}  // namespace

Calls::Thread& Calls::ThreadOf(const LogLine& line) {
  const std::pair ids(line.process, line.thread);
  if (m_threads.size() >= MOST_THREADS && m_threads.count(ids) == 0) {
    Finish();
  }
  const auto [entry, isNew] = m_threads.try_emplace(ids);
  Thread& thread = entry->second;
  if (isNew) {
    thread.process = line.process;
    thread.thread = line.thread;
    thread.time = line.time;
  }
  // Times that go back are of another run of the machine, or wrong: the thread goes on from here.
  const std::int64_t back = thread.time - (line.time + thread.offset);
  thread.offset = std::min(thread.offset + std::max<std::int64_t>(back, 0), LARGEST_OFFSET);
  thread.time = std::max(thread.time, line.time + thread.offset);
  return thread;
}

void Calls::Hand(const Thread& thread, LogLine::Kind kind, std::string_view signature,
                 const LogLine* line) const {
  m_handler(
      {kind, thread.process, thread.thread, thread.time, signature, thread.calls.size(), line});
}

void Calls::Add(const LogLine& line) {
  Thread& thread = ThreadOf(line);
  if (line.kind == LogLine::Kind::Message) {
    const std::string around = thread.calls.empty() ? "" : thread.calls.back().signature;
    Hand(thread, line.kind, around, &line);
    return;
  }
  // A line of a tracer that stands there twice was doubled on its way.
  const bool isEntered = line.kind == LogLine::Kind::Entered;
  const std::string whole =
      (isEntered ? "+" : "-") + std::to_string(line.time) + std::string(line.text);
  if (whole == thread.last) {
    return;
  }
  thread.last = whole;
  if (isEntered) {
    Enter(thread, line);
  } else {
    Leave(thread, line);
  }
}

void Calls::Enter(Thread& thread, const LogLine& line) {
  if (thread.calls.size() >= MOST_CALLS) {
    LeaveDownTo(0, thread);
  }
  ++m_total;
  Hand(thread, LogLine::Kind::Entered, line.text, &line);
  thread.calls.push_back({std::string(line.text), thread.time});
}

void Calls::Leave(Thread& thread, const LogLine& line) {
  const auto entered = std::find_if(thread.calls.rbegin(), thread.calls.rend(),
                                    [&](const Call& call) { return call.signature == line.text; });
  const bool isWhole = entered != thread.calls.rend();
  if (isWhole) {
    LeaveDownTo(static_cast<std::size_t>(thread.calls.rend() - entered), thread);
  } else {
    Enter(thread, line);
  }
  LeaveInnermost(thread, &line, isWhole);
}

void Calls::LeaveInnermost(Thread& thread, const LogLine* line, bool isWhole) {
  const Call call = std::move(thread.calls.back());
  thread.calls.pop_back();
  const std::int64_t duration = thread.time - call.begin;
  if (!thread.calls.empty()) {
    thread.calls.back().inside += isWhole ? duration : call.inside;
  }
  m_incomplete += isWhole ? 0 : 1;
  m_handler({LogLine::Kind::Left, thread.process, thread.thread, thread.time, call.signature,
             thread.calls.size(), line, isWhole, duration, duration - call.inside});
}

void Calls::LeaveDownTo(std::size_t depth, Thread& thread) {
  while (thread.calls.size() > depth) {
    LeaveInnermost(thread, nullptr, false);
  }
}

void Calls::Finish() {
  for (auto& [ids, thread] : m_threads) {
    LeaveDownTo(0, thread);
  }
  m_threads.clear();
}

// ---- Events between processes -------------------------------------------------------------------

std::string Deliveries::ProcessName(int process) const {
  const auto known = m_processes.find(process);
  return std::string(known == m_processes.end() ? "process" : known->second.role) + " " +
         std::to_string(process);
}

std::optional<Delivery> Deliveries::Add(const TraceEvent& event) {
  if (m_processes.size() >= MOST_SENT) {
    m_processes.clear();
  }
  Process& process = m_processes[event.process];
  const bool isEntered = event.kind == LogLine::Kind::Entered;
  const auto is = [name = FunctionName(event.signature)](std::string_view part) {
    return Contains(name, part);
  };
  if (is("CIpcServerImpl::")) {
    process.role = "daemon";
  } else if (is("CIpcClientImpl::")) {
    process.role = "application";
  }
  const bool isToDaemon = is("CIpcClientImpl::SendDataToServer");
  if (isEntered && (isToDaemon || is("CIpcServerImpl::SendDataToClient"))) {
    if (m_sent.size() >= MOST_SENT) {
      m_sent.erase(m_sent.begin());
    }
    m_sent.push_back({!isToDaemon, {m_nextId++, event, {}}});
  } else if (isEntered && is("CIpcClientImpl::CIpcClientImpl")) {
    process.nextHeard = m_nextId;
  } else if (isEntered && is("CIpcClientImpl::_DbusSignalCallback")) {
    return Take(event, true, {});
  } else if (is("CIpcServerImpl::HandleAppData")) {
    const bool isMessage = event.kind == LogLine::Kind::Message;
    const auto name = isMessage ? EventNameIn(event.line->text) : std::nullopt;
    // Its first message names the event; where that is lost, the end comes without a name.
    const bool isDue = process.isServing && (name || event.kind == LogLine::Kind::Left);
    process.isServing = isEntered || (process.isServing && !isDue);
    return isDue ? Take(event, false, name.value_or("")) : std::nullopt;
  } else if (isToDaemon && event.kind == LogLine::Kind::Message && !m_sent.empty()) {
    const auto name = EventNameIn(event.line->text);
    Delivery& latest = m_sent.back().second;
    if (name && latest.sent.process == event.process) {
      latest.name = *name;
    }
  }
  return std::nullopt;
}

std::optional<Delivery> Deliveries::Take(const TraceEvent& event, bool fromDaemon,
                                         const std::string& name) {
  Process& process = m_processes[event.process];
  const auto found = std::find_if(m_sent.begin(), m_sent.end(), [&](const auto& entry) {
    const auto& [isOfDaemon, sent] = entry;
    const bool isNamed = name.empty() || sent.name.empty() || sent.name == name;
    return isOfDaemon == fromDaemon && isNamed && event.time - sent.sent.time <= LONGEST_WAY &&
           (!fromDaemon || sent.id >= process.nextHeard);
  });
  if (found == m_sent.end()) {
    return Delivery{0, TraceEvent{}, name};
  }
  Delivery delivery = found->second;
  if (fromDaemon) {
    process.nextHeard = delivery.id + 1;
  } else {
    m_sent.erase(found);
    delivery.name = delivery.name.empty() ? name : delivery.name;
  }
  return delivery;
}

}  // namespace ondaro::ctl
