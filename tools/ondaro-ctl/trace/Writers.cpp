#include <glib.h>

#include <algorithm>
#include <array>
#include <set>

#include "support/ExitCode.h"
#include "support/GLibOwner.h"
#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

using Kind = TraceEvent::Kind;

/// A count as it is, or microseconds as milliseconds with decimals.
std::string Decimal(std::int64_t number, int width, int decimals) {
  const double value = static_cast<double>(number) / (decimals == 0 ? 1 : 1000);
  return GLibText(g_strdup_printf("%*.*f", width, decimals, value)).get();
}

// ---- A table of the functions -------------------------------------------------------------------

// A damaged log may name ever new functions.
constexpr std::size_t MOST_FUNCTIONS = 4096;

enum Figure { CALLS, INCOMPLETE, ERRORS, TOTAL, SELF, LONGEST, FIGURES };
using Figures = std::array<std::int64_t, FIGURES>;

constexpr std::array<const char*, FIGURES> MEMBERS = {"calls",    "incomplete", "errors",
                                                      "total_us", "self_us",    "longest_us"};
constexpr std::array<int, FIGURES> WIDTHS = {9, 11, 9, 13, 13, 13};
constexpr char HEADING[] =
    "    calls incomplete   errors     total ms      self ms   longest ms  function";

class Summary : public TraceWriter {
 public:
  using TraceWriter::TraceWriter;

  void Write(const TraceEvent& event, const std::optional<TraceEvent>& /*sent*/) override {
    if (event.isError) {
      // The innermost call open is to blame; without one, the function that wrote the message.
      const std::string& writer = event.function.empty() ? event.tag : event.function;
      ++FiguresOf(event.signature.empty() ? writer : event.signature)[ERRORS];
    } else if (event.kind == Kind::Left) {
      Figures& figures = FiguresOf(event.signature);
      ++figures[CALLS];
      if (event.isWhole) {
        figures[TOTAL] += event.duration;
        figures[SELF] += event.duration - event.inside;
        figures[LONGEST] = std::max(figures[LONGEST], event.duration);
      } else {
        ++figures[INCOMPLETE];
      }
    }
  }

  void Finish() override {
    std::vector<std::pair<std::string, Figures>> rows(m_functions.begin(), m_functions.end());
    std::stable_sort(rows.begin(), rows.end(), [](const auto& one, const auto& other) {
      return one.second[TOTAL] > other.second[TOTAL];
    });
    if (!m_output.IsJson() && !rows.empty()) {
      m_output.Line({{}, HEADING, {}});
    }
    for (const auto& [signature, figures] : rows) {
      Json::Value object = JsonObject(
          {{"function", JsonText(FunctionName(signature))}, {"signature", JsonText(signature)}});
      std::string row;
      for (std::size_t i = 0; i < FIGURES; ++i) {
        object[MEMBERS[i]] = figures[i];
        row += Decimal(figures[i], WIDTHS[i], i < TOTAL ? 0 : 3);
      }
      m_output.Result(object, {row + "  ", {}, FunctionName(signature)});
    }
  }

 private:
  Figures& FiguresOf(const std::string& signature) {
    const bool isKept = m_functions.size() < MOST_FUNCTIONS || m_functions.count(signature) != 0;
    return m_functions[isKept ? signature : "(others)"];
  }

  std::map<std::string, Figures> m_functions;
};

// ---- Events for trace viewers -------------------------------------------------------------------

constexpr char BETWEEN[] = ",";

// Names of processes and threads may be given again.
constexpr std::size_t MOST_NAMES = 4096;

/// Trace events: an object that holds their list; with --json the events alone, one a line.
class Chrome : public TraceWriter {
 public:
  using TraceWriter::TraceWriter;

  void Write(const TraceEvent& event, const std::optional<TraceEvent>& sent) override {
    if (m_named.size() >= MOST_NAMES) {
      m_named.clear();
    }
    const bool isMain = event.process == event.thread;
    Name(event, -1, "process_name", m_deliveries.ProcessName(event.process));
    Name(event, event.thread, "thread_name",
         isMain ? "main thread" : "thread " + std::to_string(event.thread));
    const bool isMessage = event.kind == Kind::Message;
    const char* const phase = isMessage ? "i" : event.kind == Kind::Entered ? "B" : "E";
    Json::Value object;
    if (isMessage) {
      object["cat"] = JsonText(event.tag);
      object["s"] = "t";
      object["args"] = JsonObject({{"priority", event.priority},
                                   {"function", JsonText(event.function)},
                                   {"error", event.isError}});
    } else if (event.kind == Kind::Entered) {
      object["cat"] = JsonText(event.tag);
      object["args"]["signature"] = JsonText(event.signature);
    } else if (!event.isWhole) {
      object["args"]["incomplete"] = true;
    }
    Print(phase, event, isMessage ? event.text : FunctionName(event.signature), object);
    if (sent && sent->id != 0) {
      // An arrow, from the call that sent an event to the one that it arrived in.
      const std::string name = "event " + (sent->name.empty() ? "(no name)" : sent->name);
      const Json::Value arrow = JsonObject({{"cat", "event"}, {"id", sent->id}, {"bp", "e"}});
      Print("s", *sent, name, arrow);
      Print("f", event, name, arrow);
    }
  }

  void Finish() override {
    if (!m_output.IsJson() && m_before == BETWEEN) {
      m_output.Line("]}");
    }
  }

 private:
  /// Names process or thread when it is new, or more is known of it.
  void Name(const TraceEvent& event, int thread, const char* what, const std::string& name) {
    std::string& known = m_named[{event.process, thread}];
    if (known != name) {
      known = name;
      Print("M", event, what, JsonObject({{"args", JsonObject({{"name", name}})}}));
    }
  }

  void Print(const char* phase, const TraceEvent& event, std::string_view name,
             Json::Value object) {
    object["ph"] = phase;
    object["name"] = JsonText(name);
    object["pid"] = event.process;
    object["tid"] = event.thread;
    object["ts"] = event.time;
    m_output.Line({m_output.IsJson() ? "" : m_before, {}, CompactJson(object)});
    m_before = BETWEEN;
  }

  std::map<std::pair<int, int>, std::string> m_named;
  std::string_view m_before = R"({"displayTimeUnit":"ms","traceEvents":[)";
};

// ---- A sequence diagram -------------------------------------------------------------------------

constexpr long LONGEST_TEXT = 100;             // of a message, in characters
constexpr std::size_t MERMAID_LIMIT = 50'000;  // in characters, by default
constexpr std::size_t LARGEST_DIAGRAM = 1'000'000;

/// As a text of the diagram, shortened: what Mermaid, or the page around it, could take for its own
/// is written as a character's number. A colon behind "wrap", "style" or "classDef" would be such.
std::string Escape(const std::string& text) {
  constexpr std::string_view PLAIN = " _.,/()[]*-=+~?!'|@^";
  const long length = g_utf8_strlen(text.c_str(), -1);
  const GLibText shown(g_utf8_substring(text.c_str(), 0, std::min(length, LONGEST_TEXT)));
  const bool keepsColon = g_regex_match_simple("wrap|style|classDef", shown.get(), {}, {}) == FALSE;
  std::string escaped;
  for (const char c : std::string_view(shown.get())) {
    const bool isPlain = static_cast<signed char>(c) < 0 || g_ascii_isalnum(c) != FALSE ||
                         PLAIN.find(c) != std::string_view::npos || (c == ':' && keepsColon);
    escaped += isPlain ? std::string(1, c) : '#' + std::to_string(c) + ';';
  }
  return escaped + (length > LONGEST_TEXT ? "…" : "");
}

std::string Lifeline(int process) { return "p" + std::to_string(process); }

/// A sequence diagram for Mermaid: a lifeline for each process, what enters the library, and the
/// events between processes.
class Diagram : public TraceWriter {
 public:
  using TraceWriter::TraceWriter;

  void Write(const TraceEvent& event, const std::optional<TraceEvent>& sent) override {
    if (sent) {
      Show("message", event, sent->process, "->>",
           sent->name.empty() ? "event, its name is not in the log" : "event " + sent->name);
    }
    const std::string name(FunctionName(event.signature));
    const bool entersLibrary = event.depth == 0 || name.rfind("OndaroApi_", 0) == 0;
    if (event.isError) {
      Show("note", event, event.process, "", event.text);
    } else if (event.kind == Kind::Entered && entersLibrary) {
      Show("call", event, event.process, "->>+", name);
    } else if (event.kind == Kind::Left && entersLibrary) {
      const std::string time = Decimal(event.duration, 0, 3) + " ms";
      Show("return", event, event.process, "-->>-",
           name + ", " + (event.isWhole ? time : "incomplete"));
    }
  }

  void Finish() override {
    if (m_output.IsJson() || m_lines.empty()) {
      return;
    }
    m_output.Line("sequenceDiagram");
    for (const int process : m_shown) {
      m_output.Line("  participant " + Lifeline(process) + " as " +
                    m_deliveries.ProcessName(process));
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
  void Show(const char* kind, const TraceEvent& event, int from, const std::string& arrow,
            const std::string& bytes) {
    const Json::Value text = JsonText(bytes);
    if (m_output.IsJson()) {
      m_output.Result(JsonObject({{"time_us", event.time},
                                  {"from", m_deliveries.ProcessName(from)},
                                  {"to", m_deliveries.ProcessName(event.process)},
                                  {"kind", kind},
                                  {"text", text}}),
                      {});
    } else if (m_size <= LARGEST_DIAGRAM) {
      m_shown.insert({from, event.process});
      m_lines.push_back("  " + (arrow.empty() ? "Note over " : Lifeline(from) + arrow) +
                        Lifeline(event.process) + ": " + Escape(text.asString()));
      m_size += m_lines.back().size() + 1;
    }
  }

  std::set<int> m_shown;
  std::vector<std::string> m_lines;  // printed at the end, when the processes have their names
  std::size_t m_size = 0;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeWriter(const std::string& format, const Output& output) {
  if (format == "summary") {
    return std::make_unique<Summary>(output);
  }
  if (format == "chrome") {
    return std::make_unique<Chrome>(output);
  }
  Require(format == "mermaid", "--format: '" + format + "' is none of summary, chrome, mermaid",
          ExitCode::Usage);
  return std::make_unique<Diagram>(output);
}

}  // namespace ondaro::ctl
