#include <algorithm>
#include <cstdio>

#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

// A damaged log may name ever new functions.
constexpr std::size_t MOST_FUNCTIONS = 4096;
constexpr std::string_view OTHERS = "(others)";

struct Figures {
  std::uint64_t calls = 0;
  std::uint64_t incomplete = 0;
  std::uint64_t errors = 0;
  std::int64_t total = 0;
  std::int64_t self = 0;
  std::int64_t longest = 0;
};

constexpr char HEADING[] =
    "    calls incomplete   errors     total ms      self ms   longest ms  function";
constexpr char ROW[] = "%9llu %10llu %8llu %12.3f %12.3f %12.3f  ";

std::string RowOf(const Figures& figures) {
  using Number = unsigned long long;
  const auto milliseconds = [](std::int64_t time) { return static_cast<double>(time) / 1000; };
  char text[160];
  std::snprintf(text, sizeof text, ROW, static_cast<Number>(figures.calls),
                static_cast<Number>(figures.incomplete), static_cast<Number>(figures.errors),
                milliseconds(figures.total), milliseconds(figures.self),
                milliseconds(figures.longest));
  return text;
}

Json::Value ObjectOf(const std::string& signature, const Figures& figures) {
  Json::Value object;
  object["function"] = JsonText(FunctionName(signature));
  object["signature"] = JsonText(signature);
  object["calls"] = static_cast<Json::UInt64>(figures.calls);
  object["incomplete"] = static_cast<Json::UInt64>(figures.incomplete);
  object["errors"] = static_cast<Json::UInt64>(figures.errors);
  object["total_us"] = static_cast<Json::Int64>(figures.total);
  object["self_us"] = static_cast<Json::Int64>(figures.self);
  object["longest_us"] = static_cast<Json::Int64>(figures.longest);
  return object;
}

class Summary : public TraceWriter {
 public:
  explicit Summary(const Output& output) : m_output(output) {}

  void Write(const TraceEvent& event) override {
    if (event.kind == LogLine::Kind::Message && event.line->IsError()) {
      // The innermost call open is to blame; without one, the function that wrote the message.
      const std::string_view writer =
          event.line->function.empty() ? event.line->tag : event.line->function;
      ++FiguresOf(event.signature.empty() ? writer : event.signature).errors;
    } else if (event.kind == LogLine::Kind::Left) {
      Figures& figures = FiguresOf(event.signature);
      ++figures.calls;
      figures.incomplete += event.isWhole ? 0 : 1;
      if (event.isWhole) {
        figures.total += event.duration;
        figures.self += event.self;
        figures.longest = std::max(figures.longest, event.duration);
      }
    }
  }

  void Finish() override {
    std::vector<std::pair<std::string, Figures>> rows(m_functions.begin(), m_functions.end());
    std::stable_sort(rows.begin(), rows.end(), [](const auto& one, const auto& other) {
      return one.second.total > other.second.total;
    });
    if (!m_output.IsJson() && !rows.empty()) {
      m_output.Line({{}, HEADING, {}});
    }
    for (const auto& [signature, figures] : rows) {
      m_output.Result(ObjectOf(signature, figures), {RowOf(figures), {}, FunctionName(signature)});
    }
  }

 private:
  Figures& FiguresOf(std::string_view signature) {
    const auto entry = m_functions.find(signature);
    if (entry != m_functions.end()) {
      return entry->second;
    }
    return m_functions[std::string(m_functions.size() < MOST_FUNCTIONS ? signature : OTHERS)];
  }

  const Output& m_output;
  std::map<std::string, Figures, std::less<>> m_functions;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeSummary(const Output& output) {
  return std::make_unique<Summary>(output);
}

}  // namespace ondaro::ctl
