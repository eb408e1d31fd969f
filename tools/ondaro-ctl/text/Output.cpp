#include "text/Output.h"

#include <cstdlib>
#include <cstring>

#include "support/Descriptor.h"
#include "support/ExitCode.h"
#include "text/Text.h"

namespace ondaro::ctl {
namespace {

constexpr char BOLD[] = "\033[1m";
constexpr char RED[] = "\033[31m";

std::string Marked(const std::string& text, const std::string& colour) {
  return colour.empty() || text.empty() ? text : colour + text + "\033[0m";
}

bool ShowsColour(int descriptor) {
  const char* const noColour = std::getenv("NO_COLOR");
  return (noColour == nullptr || *noColour == '\0') && isatty(descriptor) == 1;
}

}  // namespace

Output::Output()
    : m_terminal(isatty(STDOUT_FILENO) == 1),
      m_colourOut(ShowsColour(STDOUT_FILENO)),
      m_colourErr(ShowsColour(STDERR_FILENO)) {}

void Output::Print(std::string_view line) const {
  if (WriteAll(STDOUT_FILENO, std::string(line) + "\n")) {
    return;
  }
  if (errno == EPIPE) {
    throw OutputClosed();
  }
  throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
}

void Output::Line(const Row& row) const {
  Print(OneLine(row.before) + Marked(OneLine(row.marked), m_colourOut ? BOLD : "") +
        OneLine(row.after));
}

void Output::Result(const Json::Value& object, const Row& row) const {
  if (m_json) {
    Print(CompactJson(object));
  } else {
    Line(row);
  }
}

void Output::Value(const Json::Value& object, std::string_view bytes) const {
  if (m_json || m_terminal) {
    Result(object, {bytes, {}, {}});
  } else {
    Print(bytes);
  }
}

void Output::Ready() const {
  if (m_json) {
    WriteAll(STDERR_FILENO, "ready\n");
  } else {
    Line("ready");
  }
}

void Output::Note(std::string_view text) const { Hint("ondaro-ctl: " + std::string(text)); }

void Output::Hint(std::string_view text) const { WriteAll(STDERR_FILENO, OneLine(text) + "\n"); }

void Output::Error(std::string_view text) const {
  const std::string label = Marked("ondaro-ctl:", m_colourErr ? RED : "");
  WriteAll(STDERR_FILENO, label + " " + OneLine(text) + "\n");
}

}  // namespace ondaro::ctl
