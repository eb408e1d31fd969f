#ifndef ONDARO_CTL_CATALOGUE_H
#define ONDARO_CTL_CATALOGUE_H

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace ondaro::ctl {

enum class Kind {
  Text,          // any text
  Flag,          // true or false
  Usage,         // false, default, true or set
  Constant,      // the same on every set
  SystemId,      // from the content decryption module
  ProcessGroup,  // acts on the writing process; nothing is kept
};

struct Property {
  std::string_view name;
  Kind kind;
  bool hasEvents;
  const char* key;  // where the settings store keeps it; null when it does not

  constexpr bool IsReadable() const { return kind != Kind::ProcessGroup; }
  constexpr bool IsWritable() const { return kind != Kind::Constant && kind != Kind::SystemId; }
};

/// Every property there is, sorted by name.
inline constexpr std::array<Property, 13> CATALOGUE = {{
    {"ONDARO_CLEAR_DATA", Kind::Flag, true, "db/menu/network/ondaro_clear_data"},
    {"ONDARO_ENABLE_USAGE_RPT", Kind::Usage, true, "db/menu/network/ondaro_enable_usage_rpt"},
    {"ONDARO_ENROLLMENT", Kind::Text, true, "db/ondaro/property/enterprise_enrollment"},
    {"ONDARO_INIT", Kind::Flag, false, "db/menu/network/ondaro_init"},
    {"ONDARO_SET_PROCESS_GRP", Kind::ProcessGroup, false, nullptr},
    {"ONDARO_STATUS", Kind::Text, true, "memory/menu/network/ondaro_status"},
    {"ONDARO_SUPPORT", Kind::Flag, true, "db/menu/network/ondaro_support"},
    {"ONDARO_TOS_STATUS", Kind::Text, true, "db/menu/network/ondaro_tos_status"},
    {"SDR", Kind::Constant, false, nullptr},
    {"SYSTEM_ID", Kind::SystemId, false, nullptr},
    {"TARGET_REPOSITORY", Kind::Constant, false, nullptr},
    {"WIDEVINE_ONDARO_SUPPORT", Kind::Text, true, "db/ondaro/property/widevine_ondaro_support"},
    {"WIDEVINE_ONDARO_VERSION", Kind::Text, true, "db/ondaro/property/widevine_ondaro_version"},
}};

/// Where a backend that keeps its state in a directory tells which; others have no such key.
inline constexpr char STATE_DIRECTORY_KEY[] = "host/state-directory";

/// Of the doctor, below each of the roots that stores keep differently: for good, and until the set
/// is restarted.
inline constexpr const char* PROBE_KEYS[] = {"db/ondaro-ctl/doctor", "memory/ondaro-ctl/doctor"};

/// The property of that name; a Failure that offers the nearest names when there is none.
const Property& FindProperty(std::string_view name);

/// The words that a flag or the usage report takes; empty for a property that takes any text.
std::vector<std::string_view> WordsOf(const Property& property);

/// True for a value that the property stores as it is.
bool Takes(const Property& property, std::string_view value);

/// A Failure that lists the words there are unless the property takes the value.
void RequireTaken(const Property& property, std::string_view value, const std::string& advice);

/// ", did you mean a or b?", or nothing when none of `known` is near.
std::string Suggest(std::string_view wanted, const std::vector<std::string>& known);

}  // namespace ondaro::ctl

#endif
