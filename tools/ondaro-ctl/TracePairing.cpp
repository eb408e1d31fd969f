#include "TracePairing.h"

#include <algorithm>

namespace ondaro::ctl {
namespace {

// What is kept stays within bounds however long and damaged the log is.
constexpr std::size_t MOST_THREADS = 1024;
constexpr std::size_t MOST_CALLS = 256;  // open in a thread
constexpr std::int64_t LARGEST_OFFSET = INT64_MAX / 2;

}  // namespace

TracePairing::Thread& TracePairing::ThreadOf(const TraceLine& line) {
  const Ids ids(line.process, line.thread);
  if (m_threads.size() >= MOST_THREADS && m_threads.count(ids) == 0) {
    for (auto entry = m_threads.begin(); entry != m_threads.end();) {
      entry = entry->second.calls.empty() ? m_threads.erase(entry) : std::next(entry);
    }
    if (m_threads.size() >= MOST_THREADS) {
      Finish();
    }
  }
  const auto [entry, isNew] = m_threads.try_emplace(ids);
  Thread& thread = entry->second;
  if (isNew) {
    thread.time = line.time;
  }
  // Times that go back are of another run of the machine, or wrong: the thread goes on from here.
  const std::int64_t back = thread.time - (line.time + thread.offset);
  thread.offset = std::min(thread.offset + std::max<std::int64_t>(back, 0), LARGEST_OFFSET);
  thread.time = std::max(thread.time, line.time + thread.offset);
  return thread;
}

void TracePairing::Add(const TraceLine& line) {
  const Ids ids(line.process, line.thread);
  Thread& thread = ThreadOf(line);
  if (line.kind == TraceLine::Kind::Message) {
    std::string_view around;
    if (!thread.calls.empty()) {
      around = thread.calls.back().signature;
    }
    m_handler({TraceEvent::Kind::Message, line.process, line.thread, thread.time, around,
               thread.calls.size(), &line});
    return;
  }
  // A line of a tracer that stands there twice was doubled on its way.
  const std::size_t hash = std::hash<std::string_view>()(line.text);
  if (line.kind == thread.lastKind && line.time == thread.lastTime && hash == thread.lastHash) {
    return;
  }
  thread.lastKind = line.kind;
  thread.lastTime = line.time;
  thread.lastHash = hash;
  if (line.kind == TraceLine::Kind::Entered) {
    Enter(ids, thread, line);
  } else {
    Leave(ids, thread, line);
  }
}

void TracePairing::Enter(const Ids& ids, Thread& thread, const TraceLine& line) {
  if (thread.calls.size() >= MOST_CALLS) {
    LeaveDownTo(0, ids, thread);
  }
  m_handler({TraceEvent::Kind::Enter, ids.first, ids.second, thread.time, line.text,
             thread.calls.size(), &line});
  thread.calls.push_back({std::string(line.text), thread.time});
}

void TracePairing::Leave(const Ids& ids, Thread& thread, const TraceLine& line) {
  const auto entered = std::find_if(thread.calls.rbegin(), thread.calls.rend(),
                                    [&](const Call& call) { return call.signature == line.text; });
  if (entered == thread.calls.rend()) {
    Enter(ids, thread, line);
    LeaveInnermost(ids, thread, &line, false);
    return;
  }
  LeaveDownTo(static_cast<std::size_t>(thread.calls.rend() - entered), ids, thread);
  LeaveInnermost(ids, thread, &line, true);
}

void TracePairing::LeaveInnermost(const Ids& ids, Thread& thread, const TraceLine* line,
                                  bool isWhole) {
  const Call call = std::move(thread.calls.back());
  thread.calls.pop_back();
  const std::int64_t duration = thread.time - call.begin;
  if (!thread.calls.empty()) {
    thread.calls.back().inside += isWhole ? duration : call.inside;
  }
  m_incomplete += isWhole ? 0 : 1;
  m_handler({TraceEvent::Kind::Leave, ids.first, ids.second, thread.time, call.signature,
             thread.calls.size(), line, isWhole, duration, duration - call.inside});
}

void TracePairing::LeaveDownTo(std::size_t depth, const Ids& ids, Thread& thread) {
  while (thread.calls.size() > depth) {
    LeaveInnermost(ids, thread, nullptr, false);
  }
}

void TracePairing::Finish() {
  for (auto& [ids, thread] : m_threads) {
    LeaveDownTo(0, ids, thread);
  }
  m_threads.clear();
}

}  // namespace ondaro::ctl
