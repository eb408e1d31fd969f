#include "properties/Catalogue.h"

#include <cctype>
#include <numeric>

#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

std::string UpperCase(std::string_view text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return upper;
}

/// How many characters must be put in, left out or exchanged to turn one text into the other.
std::size_t Distance(std::string_view from, std::string_view to) {
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

bool IsNear(const std::string& wanted, const std::string& known) {
  constexpr std::size_t SHORTEST_PART = 3;
  if (wanted.size() >= SHORTEST_PART && known.find(wanted) != std::string::npos) {
    return true;
  }
  return Distance(wanted, known) <= std::max<std::size_t>(1, known.size() / 4);
}

}  // namespace

std::string Suggest(std::string_view wanted, const std::vector<std::string>& known) {
  std::string offer;
  for (const std::string& candidate : known) {
    if (IsNear(UpperCase(wanted), UpperCase(candidate))) {
      offer += offer.empty() ? ", did you mean " : " or ";
      offer += candidate;
    }
  }
  return offer.empty() ? offer : offer + "?";
}

const Property& FindProperty(std::string_view name) {
  const auto* const found = std::find_if(CATALOGUE.begin(), CATALOGUE.end(),
                                         [&](const Property& p) { return p.name == name; });
  if (found != CATALOGUE.end()) {
    return *found;
  }
  std::vector<std::string> names;
  names.reserve(CATALOGUE.size());
  for (const Property& property : CATALOGUE) {
    names.emplace_back(property.name);
  }
  const std::string offer = Suggest(name, names);
  throw Failure(ExitCode::NoSuchProperty,
                "there is no property '" + std::string(name) + "'" +
                    (offer.empty() ? "; 'ondaro-ctl list' shows them all" : offer));
}

std::vector<std::string_view> WordsOf(const Property& property) {
  switch (property.kind) {
    case Kind::Flag:
      return {"true", "false"};
    case Kind::Usage:
      return {"false", "default", "true", "set"};
    default:
      return {};
  }
}

bool Takes(const Property& property, std::string_view value) {
  const auto words = WordsOf(property);
  return words.empty() || std::find(words.begin(), words.end(), value) != words.end();
}

void RequireTaken(const Property& property, std::string_view value, const std::string& advice) {
  if (Takes(property, value)) {
    return;
  }
  std::string known;
  for (const std::string_view word : WordsOf(property)) {
    known += " " + std::string(word);
  }
  throw Failure(ExitCode::Usage, std::string(property.name) + " has no word '" +
                                     std::string(value) + "'; it has:" + known + advice);
}

}  // namespace ondaro::ctl
