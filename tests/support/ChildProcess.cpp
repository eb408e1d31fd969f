#include "support/ChildProcess.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ondaro::test {

namespace {

using Clock = std::chrono::steady_clock;

int Checked(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::string& errorFile) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  const auto setUp = [](gpointer file) {
    const char* const name = static_cast<const char*>(file);
    if (*name != '\0') {
      dup2(open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDERR_FILENO);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
  };
  constexpr auto FLAGS = static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH);
  if (g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, FLAGS, setUp,
                               const_cast<char*>(errorFile.c_str()), &m_pid, &m_input, &m_output,
                               nullptr, nullptr) == FALSE) {
    throw std::runtime_error("not started: " + arguments.front());
  }
}

ChildProcess::~ChildProcess() {
  Kill();
  CloseInput();
  close(m_output);
}

void ChildProcess::Write(const std::string& text) const {
  Checked(static_cast<int>(write(m_input, text.data(), text.size())), "write");
}

void ChildProcess::CloseInput() {
  if (m_input >= 0) {
    close(m_input);
  }
  m_input = -1;
}

bool ChildProcess::Fill(std::chrono::milliseconds limit) {
  pollfd ready{m_output, POLLIN, 0};
  if (m_ended || poll(&ready, 1, static_cast<int>(limit.count())) <= 0) {
    return false;
  }
  std::array<char, 4096> chunk{};
  const ssize_t size = read(m_output, chunk.data(), chunk.size());
  m_ended = size <= 0;
  if (!m_ended) {
    m_buffer.append(chunk.data(), static_cast<std::size_t>(size));
  }
  return !m_ended;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds limit,
                                                  const std::string& part) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    if (const std::size_t end = m_buffer.find('\n'); end != std::string::npos) {
      std::string line = m_buffer.substr(0, end);
      m_buffer.erase(0, end + 1);
      if (line.find(part) != std::string::npos) {
        return line;
      }
      continue;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Fill(left)) {
      return std::nullopt;
    }
  }
}

void ChildProcess::Signal(int number) const {
  if (m_pid > 0) {
    kill(m_pid, number);
  }
}

void ChildProcess::Freeze() const {
  Signal(SIGSTOP);
  Checked(waitpid(m_pid, nullptr, WUNTRACED), "waitpid");
}

int ChildProcess::Wait() {
  while (Fill(PATIENCE)) {
  }
  int status = 0;
  Checked(waitpid(m_pid, &status, 0), "waitpid");
  m_pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ChildProcess::Kill() {
  if (m_pid > 0) {
    kill(m_pid, SIGKILL);
    waitpid(std::exchange(m_pid, -1), nullptr, 0);
  }
}

}  // namespace ondaro::test
