#ifndef ONDARO_CTL_TRACE_LINE_H
#define ONDARO_CTL_TRACE_LINE_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace ondaro::ctl {

/// A line of the log as the host backend writes it (docs/host-backend.md). The texts point into the
/// line; escapes stay as they are.
struct TraceLine {
  enum class Kind { Entered, Left, Message };

  Kind kind = Kind::Message;
  std::int64_t time = 0;  // in microseconds
  int process = 0;
  int thread = 0;  // the process, when the line names no thread
  char priority = 'V';
  std::string_view tag;
  std::string_view function;  // that the message names as its own; may be empty
  std::string_view text;      // the signature of the call, or the message

  /// A failure is reported. Some ordinary messages are written at error priority too.
  bool IsError() const;
};

/// Nothing for a line that is none, or of which something is missing.
std::optional<TraceLine> ParseTraceLine(std::string_view line);

/// The name in a signature, with its namespaces and class.
std::string_view FunctionName(std::string_view signature);

bool BeginsWith(std::string_view text, std::string_view beginning);

}  // namespace ondaro::ctl

#endif
