// Any text through the library into the host backend's log: one line, from which it can be
// restored. A '%' is text like any other.

#include <sys/mman.h>
#include <unistd.h>

#include "Fuzz.h"
#include "ondaro/pal/CPALUtils.h"

using namespace ondaro::fuzz;

namespace {

int OpenSink() {
  const int file = memfd_create("log", 0);
  const std::string sink = "verbose:/proc/self/fd/" + std::to_string(file);
  setenv("ONDARO_HOST_LOG", sink.c_str(), 1);
  return file;
}

std::string Restore(const std::string& line) {
  std::string text;
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (line[at] != '\\') {
      text += line[at];
      continue;
    }
    const char escape = line[++at];
    if (escape == 'x') {
      text += static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16));
      at += 2;
    } else {
      text += escape == 'n' ? '\n' : escape == 't' ? '\t' : escape;
    }
  }
  return text;
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  static const int file = OpenSink();
  const std::string label = Input::ToC(input.Rest());
  NOndaroPAL::CPALUtils::PrintDataToHex(label.c_str(), "", 0);

  char buffer[8192] = {};
  const ssize_t length = pread(file, buffer, sizeof buffer, 0);
  Expect(ftruncate(file, 0) == 0 && length > 0, "a line");
  const std::string line(buffer, static_cast<std::size_t>(length) - 1);
  Expect(line.find('\n') == std::string::npos && buffer[length - 1] == '\n', "one line");
  const std::string text = line.substr(line.find(" > ") + 3), whole = label + "[  0]:[]";
  if (Restore(text) != whole) {
    const std::size_t mark = text.rfind("\\+");
    const std::string shown = Restore(text.substr(0, mark));
    Expect(line.size() > 4000 && whole.rfind(shown, 0) == 0, "as much as a line takes");
    const std::string left = std::to_string(whole.size() - shown.size());
    Expect(mark < text.size() && text.substr(mark + 2) == left, "the number of bytes left out");
  }
}
