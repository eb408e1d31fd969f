#include "bus/ChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
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

/// The user's identity, looked up before the fork.
struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

std::optional<Identity> Lookup(const std::optional<std::string>& user) {
  if (!user) {
    return std::nullopt;
  }
  const passwd* entry = getpwnam(user->c_str());
  if (entry == nullptr) {
    throw std::runtime_error("no such user: " + *user);
  }
  Identity identity{entry->pw_uid, entry->pw_gid, std::vector<gid_t>(256)};
  int count = static_cast<int>(identity.groups.size());
  Checked(getgrouplist(user->c_str(), entry->pw_gid, identity.groups.data(), &count), "groups");
  identity.groups.resize(static_cast<std::size_t>(count));
  return identity;
}

bool Become(const Identity& identity) {
  return setgroups(identity.groups.size(), identity.groups.data()) == 0 &&
         setgid(identity.gid) == 0 && setuid(identity.uid) == 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Options& options) {
  const std::optional<Identity> identity = Lookup(options.user);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);

  std::array<int, 2> input{};
  std::array<int, 2> output{};
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
    if (identity && !Become(*identity)) {
      _exit(126);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // after the change of identity, which clears it
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
  std::size_t done = 0;
  while (done < text.size()) {
    done += static_cast<std::size_t>(
        Checked(static_cast<int>(write(m_input, text.data() + done, text.size() - done)), "write"));
  }
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
  if (m_pid <= 0) {
    return;
  }
  Signal(SIGKILL);
  waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

}  // namespace ondaro::test
