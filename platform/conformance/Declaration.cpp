#include "Declaration.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace conformance {
namespace {

constexpr char TEXT[] = ".+";
constexpr char YES_NO[] = "yes|no";
constexpr char INTEGER[] = "-?[0-9]+";
constexpr char ACTION[] = "(set-int|set-text) +[^ ]+ +.+|run +.+";

/// Every key that there is, and the form of its value; docs/porting.md says what each is for.
const std::map<std::string, const char*>& Known() {
  static const std::map<std::string, const char*> known = {
      {"port", TEXT},
      {"log.environment", "[^=]+=.*"},
      {"log.read", TEXT},
      {"log.debug", TEXT},
      {"log.info", TEXT},
      {"log.error", TEXT},
      {"log.newline", TEXT},
      {"settings.roots", TEXT},
      {"settings.shared", YES_NO},
      {"settings.restart", TEXT},
      {"settings.callbacks", "main-context|any-thread"},
      {"settings.remove", TEXT},
      {"feature.key", TEXT},
      {"feature.value", INTEGER},
      {"feature.set", ACTION},
      {"power.state", INTEGER},
      {"power.set", ACTION},
      {"power.unknown", ACTION},
      {"application.id", TEXT},
      {"application.pid", TEXT},
      {"application.announce", ACTION},
      {"application.withdraw", ACTION},
      {"decryption-module", YES_NO},
      {"device-keys", YES_NO},
      {"signature.verify", TEXT}};
  return known;
}

}  // namespace

Declaration::Declaration(std::string path) : m_path(std::move(path)) {
  static const std::regex comment(R"(\s*(#.*)?)");
  static const std::regex assignment(R"(\s*([^=]*[^=\s])\s*=\s*(.*\S)\s*)");
  std::ifstream file(m_path);
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    const std::string where = m_path + ":" + std::to_string(number) + ": ";
    std::smatch parts;
    if (std::regex_match(line, comment)) {
      continue;
    }
    if (!std::regex_match(line, parts, assignment)) {
      throw std::runtime_error(where + "not of the form 'key = value'");
    }
    const auto known = Known().find(parts[1]);
    if (known == Known().end()) {
      throw std::runtime_error(where + "unknown key '" + parts[1].str() + "'");
    }
    if (!std::regex_match(parts[2].str(), std::regex(known->second))) {
      throw std::runtime_error(where + "'" + known->first + "' is not of the form " +
                               known->second);
    }
    if (!m_values.emplace(parts[1], parts[2]).second) {
      throw std::runtime_error(where + "'" + known->first + "' is declared twice");
    }
  }
  if (Find("port") == nullptr) {
    throw std::runtime_error(m_path + ": cannot be read, or gives the port no name ('port')");
  }
  if (Find("power.unknown") != nullptr && Find("power.set") == nullptr) {
    throw std::runtime_error(m_path + ": no way back from 'power.unknown' ('power.set')");
  }
}

const std::string* Declaration::Find(const std::string& key) const {
  if (Known().count(key) == 0) {
    throw std::logic_error("no declaration has a key '" + key + "'");
  }
  const auto found = m_values.find(key);
  return found == m_values.end() ? nullptr : &found->second;
}

bool Declaration::Is(const std::string& key, const std::string& value) const {
  const std::string* const declared = Find(key);
  return declared != nullptr && *declared == value;
}

std::vector<std::string> Declaration::SettingsRoots() const {
  const std::string* const declared = Find("settings.roots");
  std::istringstream stream(declared != nullptr ? *declared : "db/conformance memory/conformance");
  return {std::istream_iterator<std::string>(stream), {}};
}

bool Declaration::HasSink() const {
  return std::any_of(m_values.begin(), m_values.end(), [](const auto& entry) {
    return entry.first.rfind("log.", 0) == 0 && entry.second.find("{sink}") != std::string::npos;
  });
}

std::string Fill(std::string text, const Placeholders& placeholders) {
  for (const auto& [name, value] : placeholders) {
    const std::string mark = "{" + name + "}";
    for (std::size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + value.size())) {
      text.replace(at, mark.size(), value);
    }
  }
  return text;
}

}  // namespace conformance
