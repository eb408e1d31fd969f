#include <glib.h>

#include <cstdio>
#include <set>

#include "support/GLibOwner.h"
#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

constexpr long LONGEST_TEXT = 100;             // of a message, in characters
constexpr std::size_t MERMAID_LIMIT = 50'000;  // in characters, by default
constexpr std::size_t LARGEST_DIAGRAM = 1'000'000;

/// As a text of the diagram: what Mermaid, or the page around it, could take for its own is written
/// as a character's number. A colon behind "wrap", "style" or "classDef" would be such.
std::string Escape(std::string_view text) {
  const bool hasWord =
      Contains(text, "wrap") || Contains(text, "style") || Contains(text, "classDef");
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isPlain =
        byte >= 0x80 || g_ascii_isalnum(c) != FALSE ||
        Contains(hasWord ? " _.,/()[]*-=+~?!'|@^" : " _.,/()[]*-=+~?!'|@^:", {&c, 1});
    escaped += isPlain ? std::string(1, c) : '#' + std::to_string(byte) + ';';
  }
  return escaped;
}

std::string Shortened(const std::string& valid) {
  if (g_utf8_strlen(valid.c_str(), -1) <= LONGEST_TEXT) {
    return Escape(valid);
  }
  const GLibText beginning(g_utf8_substring(valid.c_str(), 0, LONGEST_TEXT));
  return Escape(beginning.get()) + "…";
}

/// A sequence diagram for Mermaid: a lifeline for each process, what enters the library, and the
/// events between processes.
class Diagram : public TraceWriter {
 public:
  explicit Diagram(const Output& output) : m_output(output) {}

  void Write(const TraceEvent& event) override {
    const std::optional<Delivery> delivery = m_deliveries.Add(event);
    if (delivery) {
      const std::string name =
          delivery->name.empty() ? "event, its name is not in the log" : "event " + delivery->name;
      Show(event, {delivery->sent.process, event.process, "message", "->>", name});
    }
    const std::string_view name = FunctionName(event.signature);
    if (event.kind == LogLine::Kind::Message) {
      if (event.line->IsError()) {
        Show(event, {event.process, event.process, "note", "", std::string(event.line->text)});
      }
    } else if (event.depth == 0 || name.substr(0, 10) == "OndaroApi_") {
      const bool isEntered = event.kind == LogLine::Kind::Entered;
      Show(event, {event.process, event.process, isEntered ? "call" : "return",
                   isEntered ? "->>+" : "-->>-",
                   std::string(name) + (isEntered ? "" : ", " + Time(event))});
    }
  }

  void Finish() override {
    if (m_output.IsJson() || m_lines.empty()) {
      return;
    }
    m_output.Line("sequenceDiagram");
    for (const int process : m_shown) {
      m_output.Line("  participant " + Lifeline(process) + " as " + NameOf(process));
    }
    for (const std::string& line : m_lines) {
      m_output.Line(line);
    }
    if (m_size > MERMAID_LIMIT) {
      m_output.Note("the diagram has " + std::to_string(m_size) + " characters" +
                    (m_size > LARGEST_DIAGRAM ? " and more, which are left out" : "") +
                    "; Mermaid takes 50000 unless its maxTextSize is raised: cut the log down to "
                    "what matters");
    }
  }

 private:
  struct Message {
    int from;  // 0 for a sender that the log does not have
    int to;
    const char* kind;
    const char* arrow;
    std::string text;
  };

  static std::string Time(const TraceEvent& event) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", static_cast<double>(event.duration) / 1000);
    return event.isWhole ? text : "incomplete";
  }

  static std::string Lifeline(int process) { return "p" + std::to_string(process); }

  std::string NameOf(int process) const {
    return process == 0 ? "not in the log" : m_deliveries.ProcessName(process);
  }

  void Show(const TraceEvent& event, const Message& message) {
    if (m_output.IsJson()) {
      Json::Value object;
      object["time_us"] = static_cast<Json::Int64>(event.time);
      object["from"] = NameOf(message.from);
      object["to"] = NameOf(message.to);
      object["kind"] = message.kind;
      object["text"] = JsonText(message.text);
      m_output.Result(object, {});
      return;
    }
    if (m_size > LARGEST_DIAGRAM) {
      return;
    }
    m_shown.insert({message.from, message.to});
    const std::string way = *message.arrow == '\0'
                                ? "Note over " + Lifeline(message.from)
                                : Lifeline(message.from) + message.arrow + Lifeline(message.to);
    m_lines.push_back("  " + way + ": " + Shortened(JsonText(message.text).asString()));
    m_size += m_lines.back().size() + 1;
  }

  const Output& m_output;
  Deliveries m_deliveries;
  std::set<int> m_shown;
  std::vector<std::string> m_lines;  // printed at the end, when the processes have their names
  std::size_t m_size = 0;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeDiagram(const Output& output) {
  return std::make_unique<Diagram>(output);
}

}  // namespace ondaro::ctl
