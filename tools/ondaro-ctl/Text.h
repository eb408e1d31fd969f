#ifndef ONDARO_CTL_TEXT_H
#define ONDARO_CTL_TEXT_H

#include <optional>
#include <string>
#include <string_view>

namespace ondaro::ctl {

/// The value on one line, with all that is lost in lines written as an escape: \\ \n \r \t, and
/// \xHH for the other control characters and for a space at the end. Decode() restores it.
std::string Encode(std::string_view value);

/// Nothing when `text` holds a control character, an escape that is none, or the escape of byte 0.
std::optional<std::string> Decode(std::string_view text);

/// The value on one line for reading: as Encode(), but backslashes and spaces stay as they are.
std::string OneLine(std::string_view value);

std::string ToHex(std::string_view bytes);

/// Nothing when `text` is not pairs of hexadecimal digits.
std::optional<std::string> FromHex(std::string_view text);

/// The time of day now: UTC, ISO 8601, microseconds.
std::string Now();

}  // namespace ondaro::ctl

#endif
