#include "Text.h"

#include <glib.h>

#include "GLibOwner.h"

namespace ondaro::ctl {
namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdef";
constexpr std::string_view LETTERS = "ntr\\";
constexpr std::string_view MEANINGS = "\n\t\r\\";

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

void AppendHex(std::string& text, char c) {
  const auto byte = static_cast<unsigned char>(c);
  text += HEX_DIGITS[byte >> 4U];
  text += HEX_DIGITS[byte & 0xfU];
}

void AppendEscape(std::string& text, char c) {
  const std::size_t known = MEANINGS.find(c);
  text += '\\';
  if (known != std::string_view::npos) {
    text += LETTERS[known];
  } else {
    text += 'x';
    AppendHex(text, c);
  }
}

std::optional<char> FromHexPair(std::string_view pair) {
  if (pair.size() != 2) {
    return std::nullopt;
  }
  const int high = g_ascii_xdigit_value(pair[0]);
  const int low = g_ascii_xdigit_value(pair[1]);
  return high < 0 || low < 0 ? std::nullopt : std::optional(static_cast<char>(high * 16 + low));
}

}  // namespace

std::string Encode(std::string_view value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool endsInSpace = value[i] == ' ' && i + 1 == value.size();
    if (IsControl(value[i]) || value[i] == '\\' || endsInSpace) {
      AppendEscape(text, value[i]);
    } else {
      text += value[i];
    }
  }
  return text;
}

std::optional<std::string> Decode(std::string_view text) {
  std::string value;
  while (!text.empty()) {
    std::size_t used = 1;
    std::optional<char> c = IsControl(text[0]) ? std::nullopt : std::optional(text[0]);
    if (text[0] == '\\') {
      const std::size_t known = text.size() > 1 ? LETTERS.find(text[1]) : std::string_view::npos;
      if (known != std::string_view::npos) {
        c = MEANINGS[known];
        used = 2;
      } else {
        c = text.substr(0, 2) == "\\x" ? FromHexPair(text.substr(2, 2)) : std::nullopt;
        used = 4;
      }
    }
    if (c.value_or('\0') == '\0') {
      return std::nullopt;
    }
    value += *c;
    text.remove_prefix(used);
  }
  return value;
}

std::string OneLine(std::string_view value) {
  std::string text;
  for (const char c : value) {
    if (IsControl(c)) {
      AppendEscape(text, c);
    } else {
      text += c;
    }
  }
  return text;
}

std::string ToHex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    AppendHex(text, c);
  }
  return text;
}

std::optional<std::string> FromHex(std::string_view text) {
  std::string bytes;
  for (; !text.empty(); text.remove_prefix(2)) {
    const std::optional<char> byte = FromHexPair(text.substr(0, 2));
    if (!byte) {
      return std::nullopt;
    }
    bytes += *byte;
  }
  return bytes;
}

std::string Now() {
  const GLibOwner<GDateTime, g_date_time_unref> now(g_date_time_new_now_utc());
  const GLibText text(g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%S.%fZ"));
  return text.get();
}

}  // namespace ondaro::ctl
