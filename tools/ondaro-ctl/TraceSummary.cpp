#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Text.h"
#include "TraceWriter.h"

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

constexpr char HEADING[] = "    calls incomplete   errors     total ms      self ms   longest ms  ";
constexpr char ROW[] = "%9llu %10llu %8llu %12.3f %12.3f %12.3f  ";

double Milliseconds(std::int64_t microseconds) { return static_cast<double>(microseconds) / 1000; }

std::string Row(const Figures& figures) {
  using Count = unsigned long long;
  char text[160];
  std::snprintf(text, sizeof text, ROW, static_cast<Count>(figures.calls),
                static_cast<Count>(figures.incomplete), static_cast<Count>(figures.errors),
                Milliseconds(figures.total), Milliseconds(figures.self),
                Milliseconds(figures.longest));
  return text;
}

Json::Value Object(const std::string& signature, const Figures& figures) {
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
    if (event.kind == TraceEvent::Kind::Message && event.line->IsError()) {
      ++FiguresOf(FunctionToBlame(event)).errors;
    } else if (event.kind == TraceEvent::Kind::Leave) {
      Count(event, FiguresOf(event.signature));
    }
  }

  void Finish() override {
    using Entry = decltype(m_functions)::value_type;
    std::vector<const Entry*> entries;
    for (const Entry& entry : m_functions) {
      entries.push_back(&entry);
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry* one, const Entry* other) {
      return one->second.total > other->second.total;
    });
    if (!m_output.IsJson()) {
      m_output.Line(m_output.Emphasis(std::string(HEADING) + "function"));
    }
    for (const Entry* entry : entries) {
      const auto& [signature, figures] = *entry;
      m_output.Result(Row(figures) + OneLine(FunctionName(signature)), Object(signature, figures));
    }
  }

 private:
  /// The innermost call open; without one, the function that wrote the message.
  static std::string_view FunctionToBlame(const TraceEvent& event) {
    if (!event.signature.empty()) {
      return event.signature;
    }
    return event.line->function.empty() ? event.line->tag : event.line->function;
  }

  static void Count(const TraceEvent& event, Figures& figures) {
    ++figures.calls;
    if (!event.isWhole) {
      ++figures.incomplete;
      return;
    }
    figures.total += event.duration;
    figures.self += event.self;
    figures.longest = std::max(figures.longest, event.duration);
  }

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

std::unique_ptr<TraceWriter> MakeTraceSummary(const Output& output) {
  return std::make_unique<Summary>(output);
}

}  // namespace ondaro::ctl
