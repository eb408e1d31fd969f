#include "ToolOutput.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

#include "Fuzz.h"

namespace {

std::string g_output;

}  // namespace

/// In place of the system's: the tool's output is taken, its remarks are dropped.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): nor are the system's allowed
extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size) {
  if (descriptor == STDOUT_FILENO) {
    g_output.append(static_cast<const char*>(bytes), size);
  }
  const bool isOfTool = descriptor == STDOUT_FILENO || descriptor == STDERR_FILENO;
  return isOfTool ? static_cast<ssize_t>(size) : syscall(SYS_write, descriptor, bytes, size);
}

namespace ondaro::fuzz {

std::string TakeToolOutput() { return std::exchange(g_output, {}); }

void SetToolInput(const std::string& text) {
  static const int MEMORY = memfd_create("input", MFD_CLOEXEC);
  static const int INPUT = dup2(MEMORY, STDIN_FILENO);
  const bool isSet =
      INPUT == STDIN_FILENO && ftruncate(MEMORY, 0) == 0 &&
      pwrite(MEMORY, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
      lseek(MEMORY, 0, SEEK_SET) == 0;
  Expect(isSet, "the input is in place");
}

bool RunTool(void (*addVerbs)(CLI::App&, ctl::Session&), const std::string& line, bool asJson) {
  ctl::Session session;
  CLI::App app;
  addVerbs(app, session);
  app.parse(line);
  if (asJson) {
    session.output.UseJson();
  }
  try {
    session.verb();
    return true;
  } catch (const ctl::Failure&) {
    return false;
  }
}

}  // namespace ondaro::fuzz
