#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace conformance {
namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
}

[[noreturn]] void Throw(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> EnvironmentWith(const std::vector<std::string>& additions) {
  std::vector<std::string> all = additions;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string inherited = *entry;
    const std::string name = inherited.substr(0, inherited.find('=') + 1);
    const bool isReplaced = std::any_of(
        additions.begin(), additions.end(),
        [&](const std::string& addition) { return addition.compare(0, name.size(), name) == 0; });
    if (!isReplaced) {
      all.push_back(inherited);
    }
  }
  return all;
}

class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&m_files);
    posix_spawnattr_init(&m_attributes);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&m_files);
    posix_spawnattr_destroy(&m_attributes);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  void Redirect(int from, int to) { posix_spawn_file_actions_adddup2(&m_files, from, to); }
  void Close(int descriptor) { posix_spawn_file_actions_addclose(&m_files, descriptor); }

  /// What the kit has blocked or ignored for itself must not be how a port finds the world.
  void SetSignals(bool isInterruptible) {
    sigset_t blocked;
    sigset_t defaults;
    sigemptyset(&blocked);
    sigemptyset(&defaults);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(isInterruptible ? &defaults : &blocked, signal);
    }
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&m_attributes, &blocked);
    posix_spawnattr_setsigdefault(&m_attributes, &defaults);
    posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }

  pid_t Spawn(std::vector<std::string> command, std::vector<std::string> environment) {
    pid_t id = -1;
    const int error = posix_spawn(&id, command[0].c_str(), &m_files, &m_attributes,
                                  Pointers(command).data(), Pointers(environment).data());
    if (error != 0) {
      Throw(error, command[0].c_str());
    }
    return id;
  }

 private:
  posix_spawn_file_actions_t m_files;
  posix_spawnattr_t m_attributes;
};

}  // namespace

void Descriptor::Close() {
  if (m_descriptor >= 0) {
    close(m_descriptor);
    m_descriptor = -1;
  }
}

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    Throw(errno, "pipe");
  }
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

bool Outcome::Succeeded() const { return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0; }

std::string Outcome::Describe() const {
  if (!ended) {
    return "no end";
  }
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  }
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

Child::Child(const Start& start) {
  Pipe input = MakePipe();
  Pipe output = MakePipe();
  SpawnSettings settings;
  settings.Redirect(input.reader.Get(), STDIN_FILENO);
  if (start.standardError == CLOSE_ERROR) {
    settings.Close(STDERR_FILENO);
  } else if (start.standardError != KEEP_ERROR) {
    settings.Redirect(start.standardError, STDERR_FILENO);
  }
  settings.Redirect(output.writer.Get(), start.answersOn);
  settings.SetSignals(start.isInterruptible);
  m_id = settings.Spawn(start.command, EnvironmentWith(start.environment));
  m_input = std::move(input.writer);
  m_output = std::move(output.reader);
}

Child::~Child() {
  if (!m_isWaitedFor) {
    Kill();
    Wait();
  }
}

void Child::Kill() const { kill(m_id, SIGKILL); }

void Child::Wait() {
  while (waitpid(m_id, &m_status, 0) < 0 && errno == EINTR) {
  }
  m_isWaitedFor = true;
}

/// False at the end of the answer and at the deadline.
bool Child::ReadSome(Clock::time_point deadline) {
  pollfd readable{m_output.Get(), POLLIN, 0};
  if (poll(&readable, 1, MillisecondsLeft(deadline)) != 1) {
    return false;
  }
  std::array<char, 4096> buffer;
  const ssize_t count = read(m_output.Get(), buffer.data(), buffer.size());
  if (count <= 0) {
    m_output.Close();
    return false;
  }
  m_received.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

std::string Child::ReadLine(std::chrono::milliseconds patience) {
  const Clock::time_point deadline = Clock::now() + patience;
  while (m_received.find('\n') == std::string::npos) {
    if (!ReadSome(deadline)) {
      return "";
    }
  }
  return m_received.substr(0, m_received.find('\n'));
}

Outcome Child::Finish(std::chrono::milliseconds patience) {
  m_input.Close();
  const Clock::time_point deadline = Clock::now() + patience;
  while (m_output.Get() >= 0 && ReadSome(deadline)) {
  }
  const bool inTime = m_output.Get() < 0;
  if (!inTime) {
    Kill();
  }
  Wait();
  return {inTime, m_status, m_received};
}

std::vector<std::string> Self(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "/proc/self/exe");
  return arguments;
}

Outcome RunProcess(const Start& start) { return Child(start).Finish(LONGEST_RUN); }

Outcome RunShell(const std::string& command) {
  return RunProcess({{"/bin/sh", "-c", command}, {}, KEEP_ERROR, STDOUT_FILENO});
}

}  // namespace conformance
