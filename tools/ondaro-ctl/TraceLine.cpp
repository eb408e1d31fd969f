#include "TraceLine.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace ondaro::ctl {
namespace {

constexpr std::int64_t MICROSECONDS = 1'000'000;
constexpr std::size_t FRACTION_DIGITS = 6;
constexpr std::int64_t LATEST_SECOND = 9'999'999'999;
constexpr std::string_view PRIORITIES = "VDIWEF";

constexpr std::array<std::string_view, 3> TRACERS = {"ONDARO_API_CALL_TRACER", "ONDAROCALLTRACE",
                                                     "ONDAROCALLTRACE_ERROR"};

constexpr std::array<std::string_view, 4> ORDINARY_ERRORS = {
    "key : ", "Start sender_name:", "Finish sender_name:", "registered appEvt : "};

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// Takes the fields of a line one after the other.
class Fields {
 public:
  explicit Fields(std::string_view line) : m_rest(line) {}

  bool Skip(std::string_view expected) {
    const bool isThere = BeginsWith(m_rest, expected);
    m_rest.remove_prefix(isThere ? expected.size() : 0);
    return isThere;
  }

  void SkipSpaces() {
    m_rest.remove_prefix(std::min(m_rest.find_first_not_of(' '), m_rest.size()));
  }

  /// `digits` of them, when that is not 0.
  template <class Number>
  bool Take(Number& number, std::size_t digits = 0) {
    const char* const begin = m_rest.data();
    const auto [end, error] = std::from_chars(begin, begin + m_rest.size(), number);
    const auto used = static_cast<std::size_t>(end - begin);
    if (error != std::errc() || number < 0 || (digits != 0 && used != digits)) {
      return false;
    }
    m_rest.remove_prefix(used);
    return true;
  }

  /// What stands before `end`, which is taken along.
  bool TakeUntil(std::string_view end, std::string_view& text) {
    const std::size_t length = m_rest.find(end);
    if (length == std::string_view::npos) {
      return false;
    }
    text = m_rest.substr(0, length);
    m_rest.remove_prefix(length + end.size());
    return true;
  }

  std::string_view Rest() const { return m_rest; }

 private:
  std::string_view m_rest;
};

bool TakeTime(Fields& fields, std::int64_t& time) {
  std::int64_t seconds = 0;
  std::int64_t fraction = 0;
  if (!fields.Take(seconds) || seconds > LATEST_SECOND || !fields.Skip(".") ||
      !fields.Take(fraction, FRACTION_DIGITS)) {
    return false;
  }
  time = seconds * MICROSECONDS + fraction;
  return true;
}

bool TakeIds(Fields& fields, TraceLine& line) {
  fields.SkipSpaces();
  if (!fields.Take(line.process) || !fields.Skip(" ")) {
    return false;
  }
  fields.SkipSpaces();
  if (!fields.Take(line.thread)) {
    line.thread = line.process;
    return true;
  }
  const bool isEnded = fields.Skip(" ");
  fields.SkipSpaces();
  return isEnded;
}

bool TakePriority(Fields& fields, char& priority) {
  const std::string_view rest = fields.Rest();
  if (rest.empty() || PRIORITIES.find(rest.front()) == std::string_view::npos) {
    return false;
  }
  priority = rest.front();
  return fields.Skip(rest.substr(0, 1)) && fields.Skip(" ");
}

/// "FILE: FUNCTION(LINE) > " before the text; messages of the backend itself have none.
void TakePlace(Fields& fields, std::string_view& function) {
  Fields ahead = fields;
  std::string_view place;
  std::string_view file;
  if (!ahead.TakeUntil(") > ", place)) {
    return;
  }
  Fields parts(place);
  const std::size_t parenthesis = place.rfind('(');
  if (parenthesis == std::string_view::npos || !parts.TakeUntil(": ", file) ||
      file.find(' ') != std::string_view::npos) {
    return;
  }
  const std::size_t begin = file.size() + 2;
  function = place.substr(begin, parenthesis - std::min(begin, parenthesis));
  fields = ahead;
}

/// Tells the two messages of a tracer; false when it is one of them and damaged.
bool RecogniseTracer(TraceLine& line) {
  const bool isLeft = BeginsWith(line.function, "~");
  const std::string_view writer = line.function.substr(isLeft ? 1 : 0);
  if (std::find(TRACERS.begin(), TRACERS.end(), writer) == TRACERS.end()) {
    return true;
  }
  constexpr std::string_view ENTERED = "]Entered";
  constexpr std::string_view LEFT = "]Left";
  constexpr std::string_view BEFORE_SIGNATURE = " > [";
  std::string_view text = line.text;
  text.remove_suffix(EndsWith(text, " ") ? 1 : 0);
  const std::string_view end = isLeft ? LEFT : ENTERED;
  if (!BeginsWith(text, "[") || !EndsWith(text, end)) {
    return false;
  }
  text = text.substr(1, text.size() - 1 - end.size());
  // Two lines of which the middle was lost look like one.
  for (const std::string_view inner : {ENTERED, LEFT, BEFORE_SIGNATURE}) {
    if (text.find(inner) != std::string_view::npos) {
      return false;
    }
  }
  line.kind = isLeft ? TraceLine::Kind::Left : TraceLine::Kind::Entered;
  line.text = text;
  return true;
}

}  // namespace

bool BeginsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

bool TraceLine::IsError() const {
  const auto begins = [this](std::string_view ordinary) { return BeginsWith(text, ordinary); };
  return kind == Kind::Message && (priority == 'E' || priority == 'F') &&
         std::none_of(ORDINARY_ERRORS.begin(), ORDINARY_ERRORS.end(), begins);
}

std::optional<TraceLine> ParseTraceLine(std::string_view line) {
  line.remove_suffix(EndsWith(line, "\r") ? 1 : 0);
  TraceLine parsed;
  Fields fields(line);
  fields.SkipSpaces();
  if (!TakeTime(fields, parsed.time) || !fields.Skip(" ") || !TakeIds(fields, parsed) ||
      !TakePriority(fields, parsed.priority) || !fields.TakeUntil(": ", parsed.tag) ||
      parsed.tag.find(' ') != std::string_view::npos) {
    return std::nullopt;
  }
  TakePlace(fields, parsed.function);
  parsed.text = fields.Rest();
  return RecogniseTracer(parsed) ? std::optional(parsed) : std::nullopt;
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
