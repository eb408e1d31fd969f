#include <glib.h>

#include <algorithm>

#include "support/GLibOwner.h"
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

// Seconds, microseconds, process, perhaps thread, priority, tag. Then the line of a tracer, which
// is nothing else if it is damaged: two lines of which the middle was lost look like one. Or a
// message, behind "FILE: FUNCTION(LINE) > " unless it is the backend's own; it may be an ordinary
// one whatever its priority, and name the event at either end of a call.
constexpr char LINE[] =
    R"(^ *(?<s>\d{1,10})\.(?<us>\d{6}) +(?<process>\d{1,9}) +(?:(?<thread>\d{1,9}) +)?)"
    R"((?<priority>[VDIWEF]) (?<tag>[^ ]+?): )"
    R"((?:[^ ]+?: (?<left>~)?(?:ONDARO_API_CALL_TRACER|ONDAROCALLTRACE|ONDAROCALLTRACE_ERROR))"
    R"(\(\d+\) > (*COMMIT)\[(?<signature>(?:(?!\]Entered|\]Left| > \[).)+)\])"
    R"((?(<left>)Left|Entered) ?|)"
    R"((?:[^ ]+?: (?<function>.*?)\(\d+\) > )?(?<text>)"
    R"((?<ordinary>key : |Start sender_name:|Finish sender_name:|registered appEvt : )?)"
    R"((?:.*?appEvt : (?<event>.*?), (?:data|surfaceId) : )?.*?))\r?$)";

/// False for a line that is none, or of which something is missing.
bool Parse(std::string_view line, TraceEvent& event) {
  static const GLibOwner<GRegex, g_regex_unref> FORM(g_regex_new(
      LINE, static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_OPTIMIZE), {}, nullptr));
  GMatchInfo* found = nullptr;
  const bool matches = g_regex_match_full(FORM.get(), line.data(), static_cast<gssize>(line.size()),
                                          0, {}, &found, nullptr) != FALSE;
  const GLibOwner<GMatchInfo, g_match_info_free> info(found);
  if (!matches) {
    return false;
  }
  const auto part = [&](const char* group) {
    return std::string(GLibText(g_match_info_fetch_named(found, group)).get());
  };
  event.time = std::stoll(part("s")) * 1'000'000 + std::stoll(part("us"));
  event.process = std::stoi(part("process"));
  event.thread = std::stoi(part(part("thread").empty() ? "process" : "thread"));
  event.priority = part("priority");
  event.tag = part("tag");
  event.signature = part("signature");
  event.function = part("function");
  event.text = part("text");
  event.name = part("event");
  if (!event.signature.empty()) {
    event.kind = part("left").empty() ? Kind::Entered : Kind::Left;
  } else {
    event.isError = (event.priority == "E" || event.priority == "F") && part("ordinary").empty();
  }
  return true;
}

}  // namespace

std::string_view FunctionName(std::string_view signature) {
  std::size_t begin = 0;
  int depth = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    const char c = signature[i];
    depth += c == '<' ? 1 : c == '>' ? -1 : 0;
    if (depth == 0 && c == ' ') {
      begin = i + 1;
    } else if (depth == 0 && c == '(' && i > begin) {
      return signature.substr(begin, i - begin);
    }
  }
  return signature;
}

bool Calls::Add(std::string_view line) {
  TraceEvent event;
  if (!Parse(line, event)) {
    return false;
  }
  const std::pair ids(event.process, event.thread);
  if (m_threads.size() >= MOST_THREADS && m_threads.count(ids) == 0) {
    Finish();
  }
  Thread& thread = m_threads[ids];
  if (event.kind != Kind::Message) {
    std::tuple tracer(event.kind, event.time, event.signature);
    if (thread.last == tracer) {
      return true;  // doubled on its way
    }
    thread.last = std::move(tracer);
  }
  // Times that go back are of another run of the machine, or wrong: the thread goes on from here.
  thread.offset = std::min(std::max(thread.offset, thread.time - event.time), LARGEST_OFFSET);
  thread.time = std::max(thread.time, event.time + thread.offset);
  event.time = thread.time;
  if (event.kind == Kind::Message) {
    event.signature = thread.calls.empty() ? "" : thread.calls.back().signature;
    event.depth = thread.calls.size();
    m_writer.Show(event);
  } else if (event.kind == Kind::Entered) {
    Enter(thread, std::move(event));
  } else {
    const auto entered =
        std::find_if(thread.calls.rbegin(), thread.calls.rend(),
                     [&](const TraceEvent& call) { return call.signature == event.signature; });
    const bool isWhole = entered != thread.calls.rend();
    if (isWhole) {
      LeaveDownTo(thread, static_cast<std::size_t>(thread.calls.rend() - entered));
    } else {
      Enter(thread, std::move(event));
    }
    Leave(thread, isWhole);
  }
  return true;
}

void Calls::Enter(Thread& thread, TraceEvent event) {
  if (thread.calls.size() >= MOST_CALLS) {
    LeaveDownTo(thread, 0);
  }
  ++m_total;
  event.kind = Kind::Entered;
  event.depth = thread.calls.size();
  m_writer.Show(event);
  thread.calls.push_back(std::move(event));
}

void Calls::Leave(Thread& thread, bool isWhole) {
  TraceEvent call = std::move(thread.calls.back());
  thread.calls.pop_back();
  call.kind = Kind::Left;
  call.isWhole = isWhole;
  call.duration = thread.time - call.time;
  call.time = thread.time;
  if (!thread.calls.empty()) {
    thread.calls.back().inside += isWhole ? call.duration : call.inside;
  }
  m_incomplete += isWhole ? 0 : 1;
  m_writer.Show(call);
}

void Calls::LeaveDownTo(Thread& thread, std::size_t depth) {
  while (thread.calls.size() > depth) {
    Leave(thread, false);
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
  const std::string role = known == m_processes.end() ? "process" : known->second.role;
  return process == 0 ? "not in the log" : role + " " + std::to_string(process);
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
