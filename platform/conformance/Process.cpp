#include "Process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace conformance {
namespace {

constexpr gulong TICK_US = 2000;

volatile std::sig_atomic_t g_signal = 0;

/// In the child, between fork and exec.
void SetUp(gpointer data) {
  const auto& start = *static_cast<const Start*>(data);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (start.group >= 0) {
    setpgid(0, start.group);
  }
  if (start.isErrorClosed) {
    close(STDERR_FILENO);
  }
}

std::string InWords(int status) {
  if (!WIFSIGNALED(status)) {
    return "exit status " + std::to_string(WEXITSTATUS(status));
  }
  const int signal = WTERMSIG(status);
  return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

}  // namespace

Process::Process(const Arguments& command, const Start& start) {
  std::vector<const char*> words;
  for (const std::string& word : command) {
    words.push_back(word.c_str());
  }
  words.push_back(nullptr);
  g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(
      static_cast<GSubprocessFlags>((start.output.empty() ? G_SUBPROCESS_FLAGS_STDOUT_SILENCE : 0) |
                                    (start.error.empty() ? G_SUBPROCESS_FLAGS_STDERR_SILENCE : 0)));
  if (!start.output.empty()) {
    g_subprocess_launcher_set_stdout_file_path(launcher, start.output.c_str());
  }
  if (!start.error.empty()) {
    g_subprocess_launcher_take_stderr_fd(
        launcher, open(start.error.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  }
  if (const std::size_t equals = start.environment.find('='); equals != std::string::npos) {
    g_subprocess_launcher_setenv(launcher, start.environment.substr(0, equals).c_str(),
                                 start.environment.substr(equals + 1).c_str(), TRUE);
  }
  Start forChild = start;
  g_subprocess_launcher_set_child_setup(launcher, SetUp, &forChild, nullptr);
  g_autoptr(GError) failure = nullptr;
  m_process = g_subprocess_launcher_spawnv(launcher, words.data(), &failure);
  if (m_process == nullptr) {
    throw std::runtime_error(failure->message);
  }
  const char* const id = g_subprocess_get_identifier(m_process);
  m_id = id != nullptr ? std::stoi(id) : -1;
}

Process::~Process() {
  End(Milliseconds(0));
  g_object_unref(m_process);
}

Outcome Process::End(Milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool isInTime = true;
  while (isInTime && g_subprocess_get_identifier(m_process) != nullptr) {
    isInTime = g_signal == 0 && std::chrono::steady_clock::now() < deadline;
    g_usleep(TICK_US);
  }
  if (!isInTime) {
    g_subprocess_force_exit(m_process);
  }
  g_subprocess_wait(m_process, nullptr, nullptr);
  const int status = g_subprocess_get_status(m_process);
  return {isInTime && status == 0,
          isInTime ? InWords(status) : "no end in " + std::to_string(patience.count()) + " ms"};
}

void CatchSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::signal(signal, [](int caught) { g_signal = caught; });
  }
}

int TakeSignal() {
  const int taken = g_signal;
  g_signal = 0;
  return taken;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) {
    throw std::runtime_error(path + ": cannot be written");
  }
}

}  // namespace conformance
