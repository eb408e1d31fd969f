#include "TraceInput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "ExitCode.h"

namespace ondaro::ctl {
namespace {

constexpr std::size_t LONGEST_LINE = 4096;

class Descriptor {
 public:
  explicit Descriptor(int number) : m_number(number) {}
  ~Descriptor() {
    if (m_number > STDERR_FILENO) {
      close(m_number);
    }
  }

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const { return m_number; }

 private:
  int m_number;
};

/// SIGINT and SIGTERM as a descriptor: what was read so far is still to be printed.
int OpenInterrupts() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

[[noreturn]] void FailToRead(const std::string& path) {
  const std::string name = path == "-" ? "standard input" : path;
  throw Failure(ExitCode::Failed, name + " cannot be read: " + std::strerror(errno));
}

/// Puts lines together from what is read.
class LineSplitter {
 public:
  using Handler = std::function<void(std::string_view line)>;

  explicit LineSplitter(const Handler& handler) : m_handler(handler) {}

  void Add(std::string_view text) {
    for (std::size_t end; (end = text.find('\n')) != std::string_view::npos;) {
      Append(text.substr(0, end));
      Flush();
      text.remove_prefix(end + 1);
    }
    Append(text);
  }

  void Finish() {
    if (!m_line.empty()) {
      Flush();
    }
  }

 private:
  void Append(std::string_view text) { m_line += text.substr(0, LONGEST_LINE - m_line.size()); }

  void Flush() {
    m_handler(m_line);
    m_line.clear();
  }

  const Handler& m_handler;
  std::string m_line;
};

}  // namespace

void ForEachLine(const std::string& path, const std::function<void(std::string_view)>& handler) {
  const Descriptor input(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (input.Number() < 0) {
    FailToRead(path);
  }
  const Descriptor interrupts(OpenInterrupts());
  LineSplitter lines(handler);
  std::array<char, 65536> buffer;
  std::array<pollfd, 2> ready = {{{input.Number(), POLLIN, 0}, {interrupts.Number(), POLLIN, 0}}};
  while (poll(ready.data(), ready.size(), -1) >= 0 || errno == EINTR) {
    if (ready[1].revents != 0) {
      break;
    }
    const ssize_t received = read(input.Number(), buffer.data(), buffer.size());
    if (received == 0) {
      break;
    }
    if (received > 0) {
      lines.Add({buffer.data(), static_cast<std::size_t>(received)});
    } else if (errno != EINTR && errno != EAGAIN) {
      FailToRead(path);
    }
  }
  lines.Finish();
}

}  // namespace ondaro::ctl
