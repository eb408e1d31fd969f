#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Options& options) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);

  std::array<int, 2> input{}, output{};
  Checked(pipe2(input.data(), O_CLOEXEC), "pipe");
  Checked(pipe2(output.data(), O_CLOEXEC), "pipe");
  m_pid = Checked(fork(), "fork");
  if (m_pid == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    if (options.mergeError) {
      dup2(output[1], STDERR_FILENO);
    }
    if (!options.errorFile.empty()) {
      dup2(open(options.errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644),
           STDERR_FILENO);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(input[0]);
  close(output[1]);
  m_input = input[1];
  m_output = output[0];
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

bool ChildProcess::HasLine() {
  while (Fill(std::chrono::milliseconds(0))) {
  }
  return m_ended || m_buffer.find('\n') != std::string::npos;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  std::size_t end = m_buffer.find('\n');
  while (end == std::string::npos) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Fill(left)) {
      return std::nullopt;
    }
    end = m_buffer.find('\n');
  }
  std::string line = m_buffer.substr(0, end);
  m_buffer.erase(0, end + 1);
  return line;
}

std::optional<std::string> ChildProcess::ReadLineWith(const std::string& part) {
  std::optional<std::string> line = ReadLine();
  while (line && line->find(part) == std::string::npos) {
    line = ReadLine();
  }
  return line;
}

std::string ChildProcess::ReadAll() {
  while (Fill(PATIENCE)) {
  }
  return std::exchange(m_buffer, {});
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
