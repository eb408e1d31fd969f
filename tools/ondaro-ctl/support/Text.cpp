#include "support/Text.h"

#include <glib.h>

#include <algorithm>

#include "support/GLibOwner.h"

namespace ondaro::ctl {
namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdef";
constexpr std::string_view LETTERS = "ntr\\";
constexpr std::string_view MEANINGS = "\n\t\r\\";

void AppendHex(std::string& text, unsigned byte) {
  text += HEX_DIGITS[byte >> 4U & 0xfU];
  text += HEX_DIGITS[byte & 0xfU];
}

void AppendEscape(std::string& text, char c) {
  const std::size_t known = MEANINGS.find(c);
  text += '\\';
  if (known != std::string_view::npos) {
    text += LETTERS[known];
  } else {
    text += 'x';
    AppendHex(text, static_cast<unsigned char>(c));
  }
}

/// What stands at the beginning of a text that is not empty.
struct Character {
  gunichar code;
  std::size_t length;  // in bytes
  bool isSafe;
};

Character FirstOf(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) {
    return {first, 1, first >= 0x20 && first != 0x7f};
  }
  constexpr std::size_t LONGEST = 4;
  const gunichar code =
      g_utf8_get_char_validated(text.data(), static_cast<gssize>(std::min(text.size(), LONGEST)));
  if (code > 0x10ffff) {
    return {first, 1, false};
  }
  return {code, static_cast<std::size_t>(g_unichar_to_utf8(code, nullptr)), code >= 0xa0};
}

/// The one place that says what is safe; `escape` appends what stands for the rest.
template <class Escape>
std::string MakeSafe(std::string_view text, Escape escape) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const Character character = FirstOf(text);
    const std::string_view bytes = text.substr(0, character.length);
    if (character.isSafe) {
      safe += bytes;
    } else {
      escape(safe, bytes, character.code);
    }
    text.remove_prefix(character.length);
  }
  return safe;
}

void EscapeBytes(std::string& text, std::string_view bytes, gunichar /*code*/) {
  for (const char c : bytes) {
    AppendEscape(text, c);
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

std::string OneLine(std::string_view text) { return MakeSafe(text, EscapeBytes); }

std::string SafeJson(std::string_view json) {
  return MakeSafe(json, [](std::string& text, std::string_view /*bytes*/, gunichar code) {
    text += "\\u00";
    AppendHex(text, code);
  });
}

std::string Encode(std::string_view value) {
  std::string text;
  const bool endsInSpace = !value.empty() && value.back() == ' ';
  value.remove_suffix(endsInSpace ? 1 : 0);
  for (std::size_t end; (end = value.find('\\')) != std::string_view::npos;) {
    text += OneLine(value.substr(0, end)) + "\\\\";
    value.remove_prefix(end + 1);
  }
  return text + OneLine(value) + (endsInSpace ? "\\x20" : "");
}

std::optional<std::string> Decode(std::string_view text) {
  std::string value;
  while (!text.empty()) {
    std::size_t used = 1;
    const auto first = static_cast<unsigned char>(text[0]);
    std::optional<char> c = first < 0x20 || first == 0x7f ? std::nullopt : std::optional(text[0]);
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

std::string ToHex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    AppendHex(text, static_cast<unsigned char>(c));
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

std::string Count(std::uint64_t number, const std::string& noun) {
  const bool isY = noun.back() == 'y';
  const std::string stem = noun.substr(0, noun.size() - (isY ? 1 : 0));
  return std::to_string(number) + " " + (number == 1 ? noun : stem + (isY ? "ies" : "s"));
}

std::string Now() {
  const GLibOwner<GDateTime, g_date_time_unref> now(g_date_time_new_now_utc());
  const GLibText text(g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%S.%fZ"));
  return text.get();
}

}  // namespace ondaro::ctl
