#include <algorithm>
#include <numeric>

#include "properties/Properties.h"
#include "support/ExitCode.h"
#include "support/GLibOwner.h"

namespace ondaro::ctl {
namespace {

/// How many characters must be put in, left out or exchanged to turn one text into the other.
std::size_t Distance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t exchanged = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string UpperCase(const std::string& text) {
  return GLibText(g_ascii_strup(text.data(), static_cast<gssize>(text.size()))).get();
}

bool IsNear(const std::string& wanted, const std::string& known) {
  constexpr std::size_t SHORTEST_PART = 3;
  const bool isPart = wanted.size() >= SHORTEST_PART && known.find(wanted) != std::string::npos;
  return isPart || Distance(wanted, known) <= std::max<std::size_t>(1, known.size() / 4);
}

const std::vector<std::string> FLAG = {"true", "false"};
const std::vector<std::string> USAGE = {"false", "default", "true", "set"};

}  // namespace

const std::vector<Property> CATALOGUE = {
    {"ONDARO_CLEAR_DATA", "rwe", "db/menu/network/ondaro_clear_data", FLAG},
    {"ONDARO_ENABLE_USAGE_RPT", "rwe", "db/menu/network/ondaro_enable_usage_rpt", USAGE},
    {"ONDARO_ENROLLMENT", "rwe", "db/ondaro/property/enterprise_enrollment", {}},
    {"ONDARO_INIT", "rw", "db/menu/network/ondaro_init", FLAG},
    {"ONDARO_SET_PROCESS_GRP", "w", "", {}},
    {"ONDARO_STATUS", "rwe", "memory/menu/network/ondaro_status", {}},
    {"ONDARO_SUPPORT", "rwe", "db/menu/network/ondaro_support", FLAG},
    {"ONDARO_TOS_STATUS", "rwe", "db/menu/network/ondaro_tos_status", {}},
    {"SDR", "r", "", {}},
    {"SYSTEM_ID", "r", "", {}},
    {"TARGET_REPOSITORY", "r", "", {}},
    {"WIDEVINE_ONDARO_SUPPORT", "rwe", "db/ondaro/property/widevine_ondaro_support", {}},
    {"WIDEVINE_ONDARO_VERSION", "rwe", "db/ondaro/property/widevine_ondaro_version", {}},
};

bool Property::Takes(const std::string& value) const {
  return words.empty() || std::find(words.begin(), words.end(), value) != words.end();
}

std::string Suggest(const std::string& wanted, const std::vector<std::string>& known) {
  std::string offer;
  for (const std::string& candidate : known) {
    if (IsNear(UpperCase(wanted), UpperCase(candidate))) {
      offer += offer.empty() ? ", did you mean " : " or ";
      offer += candidate;
    }
  }
  return offer.empty() ? offer : offer + "?";
}

const Property& FindProperty(const std::string& name) {
  std::vector<std::string> names;
  for (const Property& property : CATALOGUE) {
    if (property.name == name) {
      return property;
    }
    names.push_back(property.name);
  }
  const std::string offer = Suggest(name, names);
  throw Failure(ExitCode::NoSuchProperty,
                "there is no property '" + name + "'" +
                    (offer.empty() ? "; 'ondaro-ctl list' shows them all" : offer));
}

void RequireTaken(const Property& property, const std::string& value, const std::string& advice) {
  if (property.Takes(value)) {
    return;
  }
  std::string known;
  for (const std::string& word : property.words) {
    known += " " + word;
  }
  throw Failure(ExitCode::Usage,
                property.name + " has no word '" + value + "'; it has:" + known + advice);
}

}  // namespace ondaro::ctl
