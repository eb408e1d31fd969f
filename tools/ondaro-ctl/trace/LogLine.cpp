#include <glib.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "support/GLibOwner.h"
#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

using Regex = GLibOwner<GRegex, g_regex_unref>;
using Match = GLibOwner<GMatchInfo, g_match_info_free>;

// Seconds, microseconds, process, perhaps thread, priority, tag; then, but for messages of the
// backend itself, "FILE: FUNCTION(LINE) > "; the text.
constexpr char LINE[] =
    "^ *(\\d{1,10})\\.(\\d{6}) +(\\d{1,9}) +(?:(\\d{1,9}) +)?([VDIWEF]) ([^ ]+?): "
    "(?:[^ ]+?: (.*?)\\(\\d+\\) > )?(.*?)\\r?$";
enum Group { SECONDS = 1, MICROSECONDS, PROCESS, THREAD, PRIORITY, TAG, FUNCTION, TEXT };

constexpr std::array<std::string_view, 3> TRACERS = {"ONDARO_API_CALL_TRACER", "ONDAROCALLTRACE",
                                                     "ONDAROCALLTRACE_ERROR"};
constexpr std::array<std::string_view, 4> ORDINARY_ERRORS = {
    "key : ", "Start sender_name:", "Finish sender_name:", "registered appEvt : "};

template <class Texts>
bool IsAnyOf(const Texts& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

template <class Number>
Number NumberOf(std::string_view digits) {
  Number number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

/// The signature between "[" and `end`; empty when the line is damaged. Two lines of which the
/// middle was lost look like one.
std::string_view SignatureOf(std::string_view text, std::string_view end) {
  text.remove_suffix(!text.empty() && text.back() == ' ' ? 1 : 0);
  const std::size_t around = 1 + end.size();
  if (text.size() <= around || text.front() != '[' ||
      text.substr(text.size() - end.size()) != end) {
    return {};
  }
  const std::string_view signature = text.substr(1, text.size() - around);
  const bool isOne = !Contains(signature, "]Entered") && !Contains(signature, "]Left") &&
                     !Contains(signature, " > [");
  return isOne ? signature : std::string_view();
}

}  // namespace

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool LogLine::IsError() const {
  const auto begins = [this](std::string_view ordinary) {
    return text.substr(0, ordinary.size()) == ordinary;
  };
  return kind == Kind::Message && (priority == 'E' || priority == 'F') &&
         std::none_of(ORDINARY_ERRORS.begin(), ORDINARY_ERRORS.end(), begins);
}

std::optional<LogLine> ParseLogLine(std::string_view line) {
  static const Regex FORM(
      g_regex_new(LINE, static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_OPTIMIZE),
                  static_cast<GRegexMatchFlags>(0), nullptr));
  GMatchInfo* info = nullptr;
  const bool matches = g_regex_match_full(FORM.get(), line.data(), static_cast<gssize>(line.size()),
                                          0, static_cast<GRegexMatchFlags>(0), &info, nullptr);
  const Match match(info);
  if (!matches) {
    return std::nullopt;
  }
  const auto group = [&](Group number) {
    int begin = -1;
    int end = -1;
    const bool isThere = g_match_info_fetch_pos(match.get(), number, &begin, &end) && begin >= 0;
    return isThere
               ? line.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin))
               : std::string_view();
  };
  LogLine parsed;
  parsed.time = NumberOf<std::int64_t>(group(SECONDS)) * 1'000'000 +
                NumberOf<std::int64_t>(group(MICROSECONDS));
  parsed.process = NumberOf<int>(group(PROCESS));
  parsed.thread = group(THREAD).empty() ? parsed.process : NumberOf<int>(group(THREAD));
  parsed.priority = group(PRIORITY).front();
  parsed.tag = group(TAG);
  parsed.function = group(FUNCTION);
  parsed.text = group(TEXT);

  const bool isLeft = parsed.function.substr(0, 1) == "~";
  if (IsAnyOf(TRACERS, parsed.function.substr(isLeft ? 1 : 0))) {
    parsed.kind = isLeft ? LogLine::Kind::Left : LogLine::Kind::Entered;
    parsed.text = SignatureOf(parsed.text, isLeft ? "]Left" : "]Entered");
    if (parsed.text.empty()) {
      return std::nullopt;
    }
  }
  return parsed;
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
