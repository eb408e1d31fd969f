#include "ToolOutput.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <utility>

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
  static std::istringstream input;
  input.str(text);
  input.clear();
  std::cin.rdbuf(input.rdbuf());
  std::cin.clear();
}

}  // namespace ondaro::fuzz
