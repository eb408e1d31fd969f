#include "text/LineReader.h"

#include <fcntl.h>
#include <glib-unix.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

constexpr std::size_t LONGEST_LINE = 16UL << 20U;
constexpr std::size_t LONGEST_INPUT = 64UL << 20U;

int Open(const std::string& path) {
  return path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                     : open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

LineReader::LineReader(const std::string& path)
    : m_name(path == "-" ? "standard input" : path), m_input(Open(path)) {
  if (m_input.Number() < 0) {
    Fail(std::strerror(errno));
  }
}

LineReader::~LineReader() {
  if (m_nSource != 0) {
    g_source_remove(m_nSource);
  }
}

void LineReader::Fail(const std::string& reason) const {
  throw Failure(m_name + " cannot be read: " + reason);
}

/// Appends what there is; false at the end.
bool LineReader::Receive(std::string& text) const {
  std::array<char, 65536> buffer;
  const ssize_t received = read(m_input.Number(), buffer.data(), buffer.size());
  if (received >= 0) {
    text.append(buffer.data(), static_cast<std::size_t>(received));
  } else if (errno != EINTR && errno != EAGAIN) {
    Fail(std::strerror(errno));
  }
  return received != 0;
}

void LineReader::RequireShort(const std::string& what) const {
  if (m_pending.size() > LONGEST_LINE) {
    Fail(what + " is longer than 16 MiB");
  }
}

/// Waits for input once, and hands out the lines that it completes; false at the end.
bool LineReader::Read(const Handler& handler) {
  std::string text;
  const bool goesOn = Receive(text);
  if (!goesOn && !m_pending.empty()) {
    text = "\n";  // which the last line may lack
  }
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    m_pending.append(text, begin, end - begin);
    ++m_lines;
    handler(std::exchange(m_pending, {}));
  }
  m_pending.append(text, begin);
  RequireShort("line " + std::to_string(m_lines + 1));
  return goesOn;
}

void LineReader::ReadAll(const Handler& handler) {
  std::size_t bytes = 0;
  const auto count = [&](std::string_view line) {
    bytes += line.size() + 1;
    if (bytes > LONGEST_INPUT) {
      Fail("it is longer than 64 MiB");
    }
    handler(line);
  };
  while (Read(count)) {
  }
}

std::string LineReader::ReadWhole() {
  while (Receive(m_pending)) {
    RequireShort("it");
  }
  return std::move(m_pending);
}

void LineReader::Follow(MainLoop& loop, Handler handler, std::function<void()> atEnd) {
  m_onReadable = [this, &loop, handler = std::move(handler), atEnd = std::move(atEnd)] {
    bool goesOn = false;
    loop.Protect([&] { goesOn = Read(handler); });
    if (!goesOn) {
      m_nSource = 0;
      loop.Protect(atEnd);
    }
    return goesOn;
  };
  const auto onReadable = [](gint, GIOCondition, gpointer reader) -> gboolean {
    return static_cast<LineReader*>(reader)->m_onReadable() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  };
  m_nSource = g_unix_fd_add(m_input.Number(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                            onReadable, this);
}

}  // namespace ondaro::ctl
