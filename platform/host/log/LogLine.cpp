#include "LogLine.h"

#include <glib.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

namespace ondaro::host {
namespace {

constexpr std::size_t LONGEST_LINE = std::size_t{8} * 1024;
constexpr std::size_t TAG_ROOM = 128;
// Between a line and the message that it is made from, so that the one can be written over the
// other: for the header, and for escapes.
constexpr std::size_t SMALL_GAP = 768;
constexpr std::size_t OMISSION_ROOM = 2 + 10 + 1;  // "\+", the digits of a positive int, line feed

// What the C library formats beyond its buffer costs it some fifty times as much, and 64 KiB is a
// payload to be expected.
char g_large[LONGEST_LINE + std::size_t{72} * 1024];
std::atomic_flag g_isLargeTaken = ATOMIC_FLAG_INIT;

struct ThreadIds {
  pid_t process = 0;
  pid_t thread = 0;
};

thread_local ThreadIds t_ids;

// A forked child has the one thread that forked, under new ids.
[[maybe_unused]] const int g_atFork = pthread_atfork(nullptr, nullptr, [] { t_ids = ThreadIds(); });

/// The bytes of the character at the beginning of `text`; one where it begins none.
std::size_t CharacterSize(const char* text, std::size_t size) {
  if (static_cast<unsigned char>(*text) < 0x80) {
    return 1;
  }
  const gunichar character = g_utf8_get_char_validated(text, static_cast<gssize>(size));
  return character > 0x10ffff ? 1 : static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
}

bool IsPlain(char character) { return character >= 0x20 && character < 0x7f && character != '\\'; }

/// Whether a terminal may take it as a command: of either range of control characters.
bool IsControl(const char* character, std::size_t size) {
  const auto first = static_cast<unsigned char>(*character);
  const auto last = static_cast<unsigned char>(character[size - 1]);
  return first < 0x20 || (first >= 0x7f && first < 0xa0) ||
         (size == 2 && first == 0xc2 && last < 0xa0);
}

}  // namespace

LogLine::LogLine(int priority, const char* tag, const char* format, va_list arguments)
    : m_isLarge(!g_isLargeTaken.test_and_set(std::memory_order_acquire)),
      m_text(m_isLarge ? g_large : m_small),
      m_end(m_text) {
  AppendHeader(priority, tag);
  const std::size_t capacity = m_isLarge ? sizeof g_large : sizeof m_small;
  const std::size_t gap = m_isLarge ? LONGEST_LINE : SMALL_GAP;
  char* const message = m_text + gap;
  int size = std::vsnprintf(message, capacity - gap, format, arguments);
  if (size < 0) {  // then the format says more than nothing
    size = std::snprintf(message, capacity - gap, "%s", format);
  }
  const auto whole = static_cast<std::size_t>(size);
  AppendText(message, std::min(whole, capacity - gap - 1), whole,
             std::min(LONGEST_LINE, capacity) - Size() - OMISSION_ROOM, false);
  *m_end++ = '\n';
}

LogLine::~LogLine() {
  if (m_isLarge) {
    g_isLargeTaken.clear(std::memory_order_release);
  }
}

void LogLine::AppendHeader(int priority, const char* tag) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (t_ids.process == 0) {
    t_ids = {getpid(), gettid()};
  }
  m_end += std::snprintf(m_end, SMALL_GAP, "%5lld.%06ld %5d %5d %c ",
                         static_cast<long long>(now.tv_sec), now.tv_nsec / 1000, t_ids.process,
                         t_ids.thread, "VDIWEF"[std::clamp(priority, 2, 7) - 2]);
  const std::size_t size = tag == nullptr ? 0 : std::strlen(tag);
  AppendText(tag, size, size, TAG_ROOM, true);
  *m_end++ = ':';
  *m_end++ = ' ';
}

/// Appends a text of `size` bytes, of which `have` are at hand. What does not fit is left out by
/// whole characters, and its bytes are counted in its place. A message lies behind the line in the
/// same room: the line never overtakes what is still to be read.
void LogLine::AppendText(const char* text, std::size_t have, std::size_t size, std::size_t room,
                         bool isTag) {
  const char* const limit = m_end + room;
  std::size_t shown = 0;
  while (shown < have) {
    const char* const at = text + shown;
    if (!isTag && IsPlain(*at)) {
      const char* const end = at + std::min<std::ptrdiff_t>(text + have - at, limit - m_end);
      const char* const run = std::find_if_not(at, end, IsPlain);
      m_end = std::copy(at, run, m_end);
      shown += static_cast<std::size_t>(run - at);
      if (run == at) {
        break;
      }
      continue;
    }
    const std::size_t length = CharacterSize(at, have - shown);
    const char* const worst = m_end + 4 * length;
    if (worst > limit || (!isTag && worst >= at + length)) {
      break;
    }
    AppendCharacter(at, length, isTag);
    shown += length;
  }
  if (shown < size) {
    m_end += std::snprintf(m_end, OMISSION_ROOM, "\\+%zu", size - shown);
  }
}

void LogLine::AppendCharacter(const char* text, std::size_t size, bool isTag) {
  const bool isControl = IsControl(text, size);
  for (; size > 0; --size) {
    const char character = *text++;
    if (character == '\\' || character == '\n' || character == '\t') {
      *m_end++ = '\\';
      *m_end++ = character == '\n' ? 'n' : character == '\t' ? 't' : '\\';
    } else if (isControl || (isTag && (character == ' ' || character == ':'))) {
      m_end += std::snprintf(m_end, 5, "\\x%02x", static_cast<unsigned char>(character));
    } else {
      *m_end++ = character;
    }
  }
}

}  // namespace ondaro::host
