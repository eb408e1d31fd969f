#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

// Names of processes and threads may be given again.
constexpr std::size_t MOST_NAMES = 4096;

/// Trace events: an object that holds their list; with --json the events alone, one a line.
class Chrome : public TraceWriter {
 public:
  explicit Chrome(const Output& output) : m_output(output) {}

  void Write(const TraceEvent& event) override {
    const std::optional<Delivery> delivery = m_deliveries.Add(event);
    Name(event);
    if (event.kind == LogLine::Kind::Entered) {
      Json::Value& args = Begin("B", event, FunctionName(event.signature))["args"];
      args["signature"] = JsonText(event.signature);
    } else if (event.kind == LogLine::Kind::Left) {
      Json::Value& object = Begin("E", event, FunctionName(event.signature));
      if (!event.isWhole) {
        object["args"]["incomplete"] = true;
      }
    } else {
      Json::Value& object = Begin("i", event, event.line->text);
      object["s"] = "t";
      object["args"]["priority"] = std::string(1, event.line->priority);
      object["args"]["function"] = JsonText(event.line->function);
      object["args"]["error"] = event.line->IsError();
    }
    if (event.kind != LogLine::Kind::Left) {
      m_object["cat"] = JsonText(event.line->tag);
    }
    Print();
    if (delivery && delivery->id != 0) {
      ShowFlow(event, *delivery);
    }
  }

  void Finish() override {
    if (!m_output.IsJson() && !m_isFirst) {
      m_output.Line("]}");
    }
  }

 private:
  Json::Value& Begin(const char* phase, const TraceEvent& event, std::string_view name) {
    m_object = Json::Value();
    m_object["ph"] = phase;
    m_object["name"] = JsonText(name);
    m_object["pid"] = event.process;
    m_object["tid"] = event.thread;
    m_object["ts"] = static_cast<Json::Int64>(event.time);
    return m_object;
  }

  /// An arrow, from the call that sent an event to the one that it arrived in.
  void ShowFlow(const TraceEvent& event, const Delivery& delivery) {
    for (const bool isStart : {true, false}) {
      const std::string name = "event " + (delivery.name.empty() ? "(no name)" : delivery.name);
      Begin(isStart ? "s" : "f", isStart ? delivery.sent : event, name);
      m_object["cat"] = "event";
      m_object["id"] = static_cast<Json::UInt64>(delivery.id);
      m_object["bp"] = "e";
      Print();
    }
  }

  /// Names process and thread when they are new, or more is known of them.
  void Name(const TraceEvent& event) {
    if (m_named.size() >= MOST_NAMES) {
      m_named.clear();
    }
    const std::string process = m_deliveries.ProcessName(event.process);
    const std::string thread =
        event.process == event.thread ? "main thread" : "thread " + std::to_string(event.thread);
    for (const auto& [what, name] : {std::pair("process_name", process), {"thread_name", thread}}) {
      std::string& known = m_named[{event.process, *what == 'p' ? 0 : event.thread}];
      if (known != name) {
        known = name;
        Begin("M", event, what)["args"]["name"] = name;
        Print();
      }
    }
  }

  void Print() {
    if (m_output.IsJson()) {
      m_output.Result(m_object, {});
      return;
    }
    if (m_isFirst) {
      m_output.Line(R"({"displayTimeUnit":"ms","traceEvents":[)");
    }
    m_output.Line((m_isFirst ? "" : ",") + CompactJson(m_object));
    m_isFirst = false;
  }

  const Output& m_output;
  Deliveries m_deliveries;
  std::map<std::pair<int, int>, std::string> m_named;
  Json::Value m_object;  // that is being made
  bool m_isFirst = true;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeChrome(const Output& output) {
  return std::make_unique<Chrome>(output);
}

}  // namespace ondaro::ctl
