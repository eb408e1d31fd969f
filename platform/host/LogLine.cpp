#include "LogLine.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ondaro::host {
namespace {

constexpr std::size_t TAG_ROOM = 128;
// More than a line keeps: what the C library formats beyond its buffer costs it some fifty times
// as much, and 64 KiB is a payload to be expected.
constexpr std::size_t FORMAT_ROOM = std::size_t{72} * 1024;
constexpr int MOST_CONTINUATIONS = 3;          // of one character
constexpr std::size_t OMISSION_ROOM = 2 + 10;  // "\+" and the digits of a positive int

struct ThreadIds {
  pid_t process = 0;
  pid_t thread = 0;
};

thread_local ThreadIds t_ids;

// A forked child has the one thread that forked, under new ids.
[[maybe_unused]] const int g_atFork = pthread_atfork(nullptr, nullptr, [] { t_ids = ThreadIds(); });

const ThreadIds& Ids() {
  if (t_ids.process == 0) {
    t_ids = {getpid(), gettid()};
  }
  return t_ids;
}

char Letter(int priority) {
  constexpr char LETTERS[] = {'V', 'D', 'I', 'W', 'E', 'F'};
  return LETTERS[std::clamp(priority, 2, 7) - 2];
}

char* AppendNumber(char* out, std::int64_t number, std::ptrdiff_t width, char fill) {
  char digits[24];
  const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  for (std::ptrdiff_t length = end - digits; length < width; ++length) {
    *out++ = fill;
  }
  return std::copy(static_cast<const char*>(digits), end, out);
}

enum class Field { TAG, MESSAGE };

bool IsControl(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

bool NeedsEscape(char character, Field field) {
  return IsControl(character) || character == '\\' ||
         (field == Field::TAG && (character == ' ' || character == ':'));
}

bool NeedsEscape(const char* text, std::size_t length) {
  bool found = false;
  for (std::size_t i = 0; i < length; ++i) {
    found |= NeedsEscape(text[i], Field::MESSAGE);
  }
  return found;
}

std::size_t EscapedSize(char character, Field field) {
  if (!NeedsEscape(character, field)) {
    return 1;
  }
  return character == '\\' || character == '\n' || character == '\t' ? 2 : 4;
}

char* AppendEscaped(char* out, char character, Field field) {
  constexpr char HEX[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(character);
  switch (EscapedSize(character, field)) {
    case 1:
      *out++ = character;
      break;
    case 2:
      *out++ = '\\';
      *out++ = character == '\n' ? 'n' : character == '\t' ? 't' : '\\';
      break;
    default:
      *out++ = '\\';
      *out++ = 'x';
      *out++ = HEX[byte >> 4];
      *out++ = HEX[byte & 0xf];
      break;
  }
  return out;
}

bool IsContinuation(char character) {
  return (static_cast<unsigned char>(character) & 0xc0) == 0x80;
}

/// Appends a text of `length` bytes, of which `have` are at hand. What does not fit into `room` is
/// left out, never half a character or half an escape, and its bytes are counted in its place.
char* AppendText(char* out, std::size_t room, const char* text, std::size_t have,
                 std::size_t length, Field field) {
  std::size_t size = 0;
  std::size_t shown = 0;
  std::size_t seen = 0;
  for (; seen < have; ++seen) {
    size += EscapedSize(text[seen], field);
    if (size > room) {
      break;
    }
    if (size + OMISSION_ROOM <= room) {
      shown = seen + 1;
    }
  }
  const bool whole = seen == length;
  if (whole) {
    shown = length;
  }
  // Bytes that are no character's are not followed back to where they begin.
  for (int step = 0; !whole && step < MOST_CONTINUATIONS && shown > 0; ++step) {
    shown -= IsContinuation(text[shown]) ? 1 : 0;
  }
  for (std::size_t i = 0; i < shown; ++i) {
    out = AppendEscaped(out, text[i], field);
  }
  if (!whole) {
    *out++ = '\\';
    *out++ = '+';
    out = AppendNumber(out, static_cast<std::int64_t>(length - shown), 1, ' ');
  }
  return out;
}

}  // namespace

LogLine::LogLine(int priority, const char* tag, const char* format, va_list arguments) {
  AppendHeader(priority, tag);
  AppendMessage(format, arguments);
  *m_end++ = '\n';
}

void LogLine::AppendHeader(int priority, const char* tag) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const ThreadIds& ids = Ids();
  const std::size_t length = tag == nullptr ? 0 : std::strlen(tag);

  m_end = AppendNumber(m_end, now.tv_sec, 5, ' ');
  *m_end++ = '.';
  m_end = AppendNumber(m_end, now.tv_nsec / 1000, 6, '0');
  *m_end++ = ' ';
  m_end = AppendNumber(m_end, ids.process, 5, ' ');
  *m_end++ = ' ';
  m_end = AppendNumber(m_end, ids.thread, 5, ' ');
  *m_end++ = ' ';
  *m_end++ = Letter(priority);
  *m_end++ = ' ';
  m_end = AppendText(m_end, TAG_ROOM, tag, length, length, Field::TAG);
  *m_end++ = ':';
  *m_end++ = ' ';
}

void LogLine::AppendMessage(const char* format, va_list arguments) {
  char message[FORMAT_ROOM];
  const int formatted = std::vsnprintf(message, sizeof message, format, arguments);
  if (formatted < 0) {
    EscapeMessage(format, std::strlen(format));
    return;
  }
  const auto length = static_cast<std::size_t>(formatted);
  const std::size_t room = CAPACITY - Size() - 1;
  if (length > room || NeedsEscape(message, length)) {
    EscapeMessage(message, length);
    return;
  }
  m_end = std::copy(message, message + length, m_end);
}

void LogLine::EscapeMessage(const char* message, std::size_t length) {
  const std::size_t room = CAPACITY - Size() - 1;
  m_end = AppendText(m_end, room, message, std::min(length, room), length, Field::MESSAGE);
}

}  // namespace ondaro::host
