#include "text/Text.h"

#include <glib.h>

#include "support/GLibOwner.h"

namespace ondaro::ctl {
namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdef";
constexpr std::string_view LETTERS = "ntr\\";
constexpr std::string_view MEANINGS = "\n\t\r\\";

std::string EscapeOf(char c) {
  const std::size_t known = MEANINGS.find(c);
  return known == std::string_view::npos ? "\\x" + ToHex({&c, 1})
                                         : std::string{'\\', LETTERS[known]};
}

enum class Form { Line, Dump, Json };

/// The one place that says what is safe.
std::string MakeSafe(std::string_view text, Form form) {
  std::string safe;
  while (!text.empty()) {
    const gunichar code = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool isText = code <= 0x10ffff;
    const auto length = isText ? static_cast<std::size_t>(g_unichar_to_utf8(code, nullptr)) : 1;
    const bool isControl = code < 0x20 || (code >= 0x7f && code < 0xa0);
    if (isText && !isControl && (form != Form::Dump || code != '\\')) {
      safe += text.substr(0, length);
    } else if (form == Form::Json) {
      const char byte = static_cast<char>(code);
      safe += "\\u00" + ToHex({&byte, 1});
    } else {
      for (const char c : text.substr(0, length)) {
        safe += EscapeOf(c);
      }
    }
    text.remove_prefix(length);
  }
  return safe;
}

}  // namespace

std::string OneLine(std::string_view text) { return MakeSafe(text, Form::Line); }

std::string SafeJson(std::string_view json) { return MakeSafe(json, Form::Json); }

std::string Encode(std::string_view value) {
  const bool endsInSpace = !value.empty() && value.back() == ' ';
  value.remove_suffix(endsInSpace ? 1 : 0);
  return MakeSafe(value, Form::Dump) + (endsInSpace ? "\\x20" : "");
}

std::optional<std::string> Decode(std::string_view text) {
  std::string value;
  std::size_t length = 1;
  for (; !text.empty(); text.remove_prefix(length)) {
    std::optional<std::string> byte(text.substr(0, 1));
    length = 1;
    if (text[0] == '\\') {
      const std::size_t known = text.size() > 1 ? LETTERS.find(text[1]) : std::string_view::npos;
      const bool isKnown = known != std::string_view::npos;
      length = isKnown ? 2 : 4;
      byte = isKnown                      ? std::string(1, MEANINGS[known])
             : text.substr(0, 2) == "\\x" ? FromHex(text.substr(2, 2))
                                          : std::nullopt;
    } else if (g_ascii_iscntrl(text[0]) != FALSE) {
      return std::nullopt;
    }
    if (!byte || byte->empty() || byte->front() == '\0') {
      return std::nullopt;
    }
    value += *byte;
  }
  return value;
}

std::string ToHex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {HEX_DIGITS[byte >> 4U], HEX_DIGITS[byte & 0xfU]};
  }
  return text;
}

std::optional<std::string> FromHex(std::string_view text) {
  std::string bytes;
  for (; !text.empty(); text.remove_prefix(2)) {
    const int high = g_ascii_xdigit_value(text[0]);
    const int low = text.size() < 2 ? -1 : g_ascii_xdigit_value(text[1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes += static_cast<char>(high * 16 + low);
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
