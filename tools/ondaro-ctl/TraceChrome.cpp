#include <set>
#include <string>
#include <utility>

#include "TraceWriter.h"

namespace ondaro::ctl {
namespace {

// Names of processes and threads may be given again.
constexpr std::size_t MOST_NAMES = 4096;

/// Trace events: an object that holds their list; with --json the events alone, one a line.
class Chrome : public TraceWriter {
 public:
  explicit Chrome(const Output& output) : m_output(output) {
    if (!m_output.IsJson()) {
      m_output.Line(R"({"displayTimeUnit":"ms","traceEvents":[)");
    }
  }

  void Write(const TraceEvent& event) override {
    Name(event);
    switch (event.kind) {
      case TraceEvent::Kind::Enter:
        Print(Enter(event));
        break;
      case TraceEvent::Kind::Leave:
        Print(Leave(event));
        break;
      case TraceEvent::Kind::Message:
        Print(Message(event));
        break;
    }
  }

  void Finish() override {
    if (!m_output.IsJson()) {
      m_output.Line("]}");
    }
  }

 private:
  static Json::Value Event(const char* phase, const TraceEvent& event) {
    Json::Value object;
    object["ph"] = phase;
    object["pid"] = event.process;
    object["tid"] = event.thread;
    object["ts"] = static_cast<Json::Int64>(event.time);
    return object;
  }

  static Json::Value Enter(const TraceEvent& event) {
    Json::Value object = Event("B", event);
    object["name"] = JsonText(FunctionName(event.signature));
    object["cat"] = JsonText(event.line->tag);
    object["args"]["signature"] = JsonText(event.signature);
    return object;
  }

  static Json::Value Leave(const TraceEvent& event) {
    Json::Value object = Event("E", event);
    object["name"] = JsonText(FunctionName(event.signature));
    if (!event.isWhole) {
      object["args"]["incomplete"] = true;
    }
    return object;
  }

  static Json::Value Message(const TraceEvent& event) {
    Json::Value object = Event("i", event);
    object["s"] = "t";
    object["name"] = JsonText(event.line->text);
    object["cat"] = JsonText(event.line->tag);
    object["args"]["priority"] = std::string(1, event.line->priority);
    object["args"]["function"] = JsonText(event.line->function);
    object["args"]["error"] = event.line->IsError();
    return object;
  }

  /// Names process and thread when they are new.
  void Name(const TraceEvent& event) {
    if (m_named.size() >= MOST_NAMES) {
      m_named.clear();
    }
    if (!m_named.insert({event.process, event.thread}).second) {
      return;
    }
    PrintName(event, "process_name", "process " + std::to_string(event.process));
    PrintName(
        event, "thread_name",
        event.process == event.thread ? "main thread" : "thread " + std::to_string(event.thread));
  }

  void PrintName(const TraceEvent& event, const char* what, const std::string& name) {
    Json::Value object = Event("M", event);
    object["name"] = what;
    object["args"]["name"] = name;
    Print(object);
  }

  void Print(const Json::Value& object) {
    if (m_output.IsJson()) {
      m_output.Result("", object);
    } else {
      m_output.Line((m_isFirst ? "" : ",") + CompactJson(object));
      m_isFirst = false;
    }
  }

  const Output& m_output;
  std::set<std::pair<int, int>> m_named;
  bool m_isFirst = true;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeTraceChrome(const Output& output) {
  return std::make_unique<Chrome>(output);
}

}  // namespace ondaro::ctl
