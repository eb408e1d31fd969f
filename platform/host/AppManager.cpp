#include "platform/AppManager.h"

#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "HostKeys.h"
#include "Seam.h"

namespace {

namespace fs = std::filesystem;
using ondaro::host::AtSeam;
using ondaro::host::keys::APPLICATION_PREFIX;

constexpr int NO_PROCESS = -1;
const char* const PROCESSES = "/proc";

// What the kernel keeps of a process's name in `comm`.
constexpr std::size_t COMM_LENGTH = 15;

/// Up to the first NUL. Empty for a process that ended, which on Linux can also fail the read; the
/// stream's own functions keep that failure, an iterator over its buffer would throw it.
std::string ReadProcessFile(int pid, const char* file) {
  std::ifstream stream(fs::path(PROCESSES) / std::to_string(pid) / file, std::ios::binary);
  std::string text;
  std::getline(stream, text, '\0');
  return text;
}

/// A process that ended but was not yet waited for no longer runs.
bool IsRunning(int pid) {
  if (pid <= 0) {
    return false;
  }
  // "pid (comm) state ...", where comm may hold anything.
  const std::string status = ReadProcessFile(pid, "stat");
  const std::size_t state = status.rfind(')') + 2;
  return state < status.size() && status[state] != 'Z' && status[state] != 'X';
}

std::string_view FileName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

bool IsNamed(int pid, std::string_view name) {
  const std::string firstArgument = ReadProcessFile(pid, "cmdline");
  if (FileName(firstArgument) == name) {
    return true;
  }
  const std::string comm = ReadProcessFile(pid, "comm");
  if (name.size() <= COMM_LENGTH && comm == std::string(name) + '\n') {
    return true;
  }
  std::error_code ignored;  // another user's
  const fs::path program =
      fs::read_symlink(fs::path(PROCESSES) / std::to_string(pid) / "exe", ignored);
  return program.filename() == name;
}

std::optional<int> ProcessId(const std::string& text) {
  int pid = 0;
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, pid);
  return error == std::errc() && parsed == end ? std::optional(pid) : std::nullopt;
}

/// The lowest process id, where more than one process has the name.
int FindProcess(std::string_view name) {
  int found = NO_PROCESS;
  std::error_code error;
  for (fs::directory_iterator entry(PROCESSES, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::optional<int> pid = ProcessId(entry->path().filename());
    if (pid && (found == NO_PROCESS || *pid < found) && IsNamed(*pid, name) && IsRunning(*pid)) {
      found = *pid;
    }
  }
  return found;
}

}  // namespace

int platform_app_get_pid(const char* app_id) {
  if (app_id == nullptr || *app_id == '\0') {
    return NO_PROCESS;
  }
  return AtSeam(__func__, NO_PROCESS, [&] {
    const std::string key = std::string(APPLICATION_PREFIX) + app_id;
    int pid = NO_PROCESS;
    if (platform_settings_get_int(key.c_str(), &pid) == 0) {
      return IsRunning(pid) ? pid : NO_PROCESS;
    }
    const std::string name = ondaro::host::ReadSettingsText(key).value_or(app_id);
    return name.empty() ? NO_PROCESS : FindProcess(name);
  });
}

int platform_app_set_process_group(int app_pid, int caller_pid) {
  // To the kernel, 0 is whoever asks: the application that was not found is not the caller.
  if (app_pid <= 0 || caller_pid <= 0) {
    return -1;
  }
  const pid_t group = getpgid(app_pid);
  if (group <= 0) {
    return -1;
  }
  // A session's leader may not be moved, not even to where it is.
  return getpgid(caller_pid) == group ? 0 : setpgid(caller_pid, group);
}
