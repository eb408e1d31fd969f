#include "StateDirectory.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace ondaro::host {
namespace {

namespace fs = std::filesystem;

constexpr char STATE_VARIABLE[] = "ONDARO_HOST_STATE";
constexpr char NAME[] = "ondaro";
constexpr char RUN[] = "run";

/// Empty when the variable is unset, empty or, for the base directories, not absolute.
fs::path FromEnvironment(const char* variable, bool mustBeAbsolute) {
  const char* text = std::getenv(variable);
  fs::path path = text != nullptr ? text : "";
  return mustBeAbsolute && !path.is_absolute() ? fs::path() : path;
}

fs::path ResolveState() {
  if (fs::path own = FromEnvironment(STATE_VARIABLE, false); !own.empty()) {
    return fs::absolute(own);
  }
  if (fs::path base = FromEnvironment("XDG_STATE_HOME", true); !base.empty()) {
    return base / NAME;
  }
  if (fs::path home = FromEnvironment("HOME", true); !home.empty()) {
    return home / ".local/state" / NAME;
  }
  return geteuid() == 0 ? fs::path("/var/lib") / NAME
                        : fs::path(g_get_home_dir()) / ".local/state" / NAME;
}

fs::path ResolveRun() {
  if (!FromEnvironment(STATE_VARIABLE, false).empty()) {
    return ResolveState() / RUN;
  }
  fs::path base = FromEnvironment("XDG_RUNTIME_DIR", true);
  return (base.empty() ? fs::path("/run") : base) / NAME;
}

std::string BootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  return std::getline(file, id) && !id.empty() ? id : "boot";
}

/// Like `mkdir -p`, with the mode for each part that is made.
bool Make(const fs::path& path) {
  if (mkdir(path.c_str(), S_IRWXU) == 0) {
    return true;
  }
  if (errno == ENOENT && path.has_parent_path() && path != path.parent_path()) {
    return Make(path.parent_path()) && (mkdir(path.c_str(), S_IRWXU) == 0 || errno == EEXIST);
  }
  // A directory that is there serves, also when its parent could not be written.
  const int error = errno;
  std::error_code ignored;
  const bool there = fs::is_directory(path, ignored);
  errno = error == EEXIST ? ENOTDIR : error;
  return there;
}

void RemoveSiblings(const fs::path& kept) {
  std::error_code error;
  for (fs::directory_iterator entry(kept.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path() != kept) {
      std::error_code ignored;
      fs::remove_all(entry->path(), ignored);
    }
  }
}

}  // namespace

std::string StateDirectory() {
  const fs::path path = ResolveState();
  return Make(path) ? path.string() : std::string();
}

std::string RuntimeDirectory() {
  const fs::path path = ResolveRun() / BootId();
  std::error_code ignored;
  const bool firstOfBoot = !fs::exists(path, ignored);
  if (!Make(path)) {
    return {};
  }
  if (firstOfBoot) {
    RemoveSiblings(path);
  }
  return path.string();
}

}  // namespace ondaro::host
