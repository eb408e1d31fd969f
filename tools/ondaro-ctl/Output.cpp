#include "Output.h"

#include <glib.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "ExitCode.h"
#include "GLibOwner.h"

namespace ondaro::ctl {
namespace {

constexpr std::string_view BOLD = "\033[1m";
constexpr std::string_view RED = "\033[31m";
constexpr std::string_view PLAIN = "\033[0m";

bool ShowsColour(int descriptor) {
  const char* const noColour = std::getenv("NO_COLOR");
  return (noColour == nullptr || *noColour == '\0') && isatty(descriptor) == 1;
}

/// 0, or the error number.
int WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

/// Making it takes longer than writing an object.
std::unique_ptr<Json::StreamWriter> MakeCompactWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

}  // namespace

Output::Output()
    : m_colourOut(ShowsColour(STDOUT_FILENO)), m_colourErr(ShowsColour(STDERR_FILENO)) {}

void Output::Line(std::string_view text) const {
  const int error = WriteAll(STDOUT_FILENO, std::string(text) + "\n");
  if (error == EPIPE) {
    throw OutputClosed();
  }
  if (error != 0) {
    throw Failure(ExitCode::Failed,
                  std::string("cannot write to standard output: ") + std::strerror(error));
  }
}

void Output::Result(std::string_view text, const Json::Value& object) const {
  Line(m_json ? CompactJson(object) : text);
}

void Output::Ready() const {
  if (m_json) {
    WriteAll(STDERR_FILENO, "ready\n");
  } else {
    Line("ready");
  }
}

void Output::Note(std::string_view text) const {
  WriteAll(STDERR_FILENO, "ondaro-ctl: " + std::string(text) + "\n");
}

void Output::Error(std::string_view text) const {
  std::string label = "ondaro-ctl:";
  if (m_colourErr) {
    label = std::string(RED) + label + std::string(PLAIN);
  }
  WriteAll(STDERR_FILENO, label + " " + std::string(text) + "\n");
}

std::string Output::Emphasis(std::string_view text) const {
  if (!m_colourOut) {
    return std::string(text);
  }
  return std::string(BOLD) + std::string(text) + std::string(PLAIN);
}

std::string CompactJson(const Json::Value& object) {
  static const std::unique_ptr<Json::StreamWriter> WRITER = MakeCompactWriter();
  std::ostringstream text;
  WRITER->write(object, &text);
  return text.str();
}

Json::Value JsonText(std::string_view bytes) {
  if (bytes.empty()) {
    return "";
  }
  const GLibText valid(g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())));
  return valid.get();
}

}  // namespace ondaro::ctl
