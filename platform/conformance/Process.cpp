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

constexpr guint TICK_MS = 10;

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

void OnEnd(GObject* /*process*/, GAsyncResult* /*result*/, gpointer hasEnded) {
  *static_cast<bool*>(hasEnded) = true;
}

gboolean GoOn(gpointer /*unused*/) { return G_SOURCE_CONTINUE; }

std::string InWords(int status) {
  if (!WIFSIGNALED(status)) {
    return "exit status " + std::to_string(WEXITSTATUS(status));
  }
  const int signal = WTERMSIG(status);
  return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

}  // namespace

Process::Process(const Start& start) {
  std::vector<const char*> command;
  for (const std::string& word : start.command) {
    command.push_back(word.c_str());
  }
  command.push_back(nullptr);
  GSubprocessLauncher* const launcher = g_subprocess_launcher_new(
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
  GError* failure = nullptr;
  m_process = g_subprocess_launcher_spawnv(launcher, command.data(), &failure);
  g_object_unref(launcher);
  if (m_process == nullptr) {
    const std::string message = failure->message;
    g_error_free(failure);
    throw std::runtime_error(message);
  }
  const char* const id = g_subprocess_get_identifier(m_process);
  m_id = id != nullptr ? std::stoi(id) : -1;
}

Process::~Process() {
  End(Milliseconds(0));
  g_object_unref(m_process);
}

Outcome Process::End(Milliseconds patience) {
  if (m_hasEnded) {
    return m_outcome;
  }
  // A main context of its own: what waits delivers nothing of the port's.
  GMainContext* const context = g_main_context_new();
  g_main_context_push_thread_default(context);
  GSource* const ticks = g_timeout_source_new(TICK_MS);
  g_source_set_callback(ticks, GoOn, nullptr, nullptr);
  g_source_attach(ticks, context);
  g_subprocess_wait_async(m_process, nullptr, OnEnd, &m_hasEnded);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool isInTime = true;
  while (!m_hasEnded) {
    if (isInTime && (g_signal != 0 || std::chrono::steady_clock::now() >= deadline)) {
      isInTime = false;
      g_subprocess_force_exit(m_process);
    }
    g_main_context_iteration(context, TRUE);
  }
  g_source_destroy(ticks);
  g_source_unref(ticks);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  const int status = g_subprocess_get_status(m_process);
  m_outcome = {
      isInTime && status == 0,
      isInTime ? InWords(status) : "no end in " + std::to_string(patience.count()) + " ms"};
  return m_outcome;
}

void CatchSignals() {
  struct sigaction action {};
  action.sa_handler = [](int signal) { g_signal = signal; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal, &action, nullptr);
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
