#ifndef ONDARO_CTL_JSON_H
#define ONDARO_CTL_JSON_H

#include <json/value.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace ondaro::ctl {

/// An object of these members.
Json::Value JsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members);

/// The object as one line, safe for every terminal.
std::string CompactJson(const Json::Value& object);

/// `bytes` as a JSON string, in which what is not UTF-8 is replaced.
Json::Value JsonText(std::string_view bytes);

/// The same, or null.
Json::Value JsonOrNull(const std::optional<std::string>& bytes);

/// Nothing when the text is anything but one object.
std::optional<Json::Value> ParseJsonObject(std::string_view text);

}  // namespace ondaro::ctl

#endif
