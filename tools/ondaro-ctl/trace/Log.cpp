#include <glib.h>

#include <algorithm>

#include "support/GLibOwner.h"
#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

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

}  // namespace

std::optional<TraceEvent> ParseLogLine(std::string_view line) {
  static const GLibOwner<GRegex, g_regex_unref> FORM(
      g_regex_new(LINE, static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_OPTIMIZE),
                  static_cast<GRegexMatchFlags>(0), nullptr));
  GMatchInfo* found = nullptr;
  const bool matches =
      g_regex_match_full(FORM.get(), line.data(), static_cast<gssize>(line.size()), 0,
                         static_cast<GRegexMatchFlags>(0), &found, nullptr) != FALSE;
  const GLibOwner<GMatchInfo, g_match_info_free> info(found);
  if (!matches) {
    return std::nullopt;
  }
  const auto part = [&](const char* group) {
    int begin = 0;
    int end = 0;
    g_match_info_fetch_named_pos(found, group, &begin, &end);
    return std::string(line, static_cast<std::size_t>(std::max(begin, 0)),
                       static_cast<std::size_t>(end - begin));
  };
  TraceEvent event;
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
    event.kind = part("left").empty() ? TraceEvent::Kind::Entered : TraceEvent::Kind::Left;
  } else {
    event.isError = (event.priority == "E" || event.priority == "F") && part("ordinary").empty();
  }
  return event;
}

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

}  // namespace ondaro::ctl
