#ifndef ONDARO_CTL_TEXT_H
#define ONDARO_CTL_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ondaro::ctl {

/// The text on one line, safe for every terminal: control characters (C0, DEL and C1) and bytes
/// that are not UTF-8 become \n, \r, \t or \xHH. All else stays.
std::string OneLine(std::string_view text);

/// The same for JSON: of what its writer leaves as it is, DEL and C1 become \u00HH.
std::string SafeJson(std::string_view json);

/// As OneLine(), with a backslash as \\ and a space at the end as \x20, so that Decode() restores
/// the value byte for byte.
std::string Encode(std::string_view value);

/// Nothing when `text` holds a control character, an escape that is none, or the escape of byte 0.
std::optional<std::string> Decode(std::string_view text);

std::string ToHex(std::string_view bytes);

/// Nothing when `text` is not pairs of hexadecimal digits.
std::optional<std::string> FromHex(std::string_view text);

/// "1 event", "2 events".
std::string Count(std::uint64_t number, const std::string& noun);

/// The time of day now: UTC, ISO 8601, microseconds.
std::string Now();

}  // namespace ondaro::ctl

#endif
