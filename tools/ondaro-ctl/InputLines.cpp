#include "InputLines.h"

#include <glib-unix.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace ondaro::ctl {

InputLines::InputLines(MainLoop& loop, Handler handler)
    : m_loop(loop),
      m_handler(std::move(handler)),
      m_nSource(g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                              OnReadable, this)) {}

InputLines::~InputLines() {
  if (m_nSource != 0) {
    g_source_remove(m_nSource);
  }
}

gboolean InputLines::OnReadable(gint descriptor, GIOCondition /*condition*/, gpointer userData) {
  auto* const pThis = static_cast<InputLines*>(userData);
  bool goesOn = false;
  pThis->m_loop.Protect([&] { goesOn = pThis->Read(descriptor); });
  if (!goesOn) {
    pThis->m_nSource = 0;
  }
  return goesOn ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

bool InputLines::Read(int descriptor) {
  // One read for each time there is something: it does not block, and the descriptor, which other
  // processes share, stays as it is.
  std::array<char, 65536> buffer;
  const ssize_t received = read(descriptor, buffer.data(), buffer.size());
  if (received < 0) {
    return errno == EINTR || errno == EAGAIN;
  }
  m_pending.append(buffer.data(), static_cast<std::size_t>(received));
  if (received == 0 && !m_pending.empty()) {
    m_pending += '\n';
  }
  HandleLines();
  return received > 0;
}

void InputLines::HandleLines() {
  std::size_t handled = 0;
  for (std::size_t end; (end = m_pending.find('\n', handled)) != std::string::npos;) {
    m_handler(std::string_view(m_pending).substr(handled, end - handled));
    handled = end + 1;
  }
  m_pending.erase(0, handled);
}

}  // namespace ondaro::ctl
