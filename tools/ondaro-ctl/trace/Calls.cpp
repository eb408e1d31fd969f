#include <algorithm>

#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

using Kind = TraceEvent::Kind;

// What is kept stays within bounds however long and damaged the log is.
constexpr std::size_t MOST_THREADS = 1024;
constexpr std::size_t MOST_CALLS = 256;  // open in a thread
constexpr std::int64_t LARGEST_OFFSET = INT64_MAX / 2;

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

}  // namespace ondaro::ctl
