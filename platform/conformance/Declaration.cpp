#include "Declaration.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "Process.h"
#include "platform/SettingsStore.h"

namespace conformance {
namespace {

enum class Form { TEXT, YES_NO, INTEGER, ACTION };

constexpr struct {
  const char* key;
  Form form;
} KNOWN[] = {{keys::PORT, Form::TEXT},
             {keys::LOG_ENVIRONMENT, Form::TEXT},
             {keys::LOG_READ, Form::TEXT},
             {keys::LOG_DEBUG, Form::TEXT},
             {keys::LOG_INFO, Form::TEXT},
             {keys::LOG_ERROR, Form::TEXT},
             {keys::SETTINGS_ROOTS, Form::TEXT},
             {keys::SETTINGS_SHARED, Form::YES_NO},
             {keys::SETTINGS_REMOVE, Form::TEXT},
             {keys::FEATURE_KEY, Form::TEXT},
             {keys::FEATURE_VALUE, Form::INTEGER},
             {keys::FEATURE_SET, Form::ACTION},
             {keys::POWER_STATE, Form::INTEGER},
             {keys::POWER_SET, Form::ACTION},
             {keys::POWER_UNKNOWN, Form::ACTION},
             {keys::APPLICATION_ID, Form::TEXT},
             {keys::APPLICATION_PID, Form::TEXT},
             {keys::APPLICATION_ANNOUNCE, Form::ACTION},
             {keys::DECRYPTION_MODULE, Form::YES_NO},
             {keys::DEVICE_KEYS, Form::YES_NO},
             {keys::SIGNATURE_VERIFY, Form::TEXT}};

constexpr char DEFAULT_ROOTS[] = "db/conformance memory/conformance";
constexpr char YES[] = "yes";
constexpr char NO[] = "no";
constexpr char BLANKS[] = " \t\r";

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(BLANKS);
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool IsInteger(const std::string& text) {
  std::istringstream stream(text);
  int value = 0;
  return stream >> value && stream.eof();
}

/// Empty when the value has the form that its key asks for.
std::string Objection(const std::string& key, const std::string& value) {
  const auto* const known = std::find_if(std::begin(KNOWN), std::end(KNOWN),
                                         [&](const auto& entry) { return key == entry.key; });
  if (known == std::end(KNOWN)) {
    return "unknown key '" + key + "'";
  }
  if (value.empty()) {
    return "no value for '" + key + "'";
  }
  if (known->form == Form::YES_NO && value != YES && value != NO) {
    return "'" + key + "' is neither yes nor no";
  }
  if (known->form == Form::INTEGER && !IsInteger(value)) {
    return "'" + key + "' is no integer";
  }
  if (known->form == Form::ACTION) {
    try {
      const Action checked(value);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }
  return "";
}

}  // namespace

Declaration::Declaration(const std::string& path) : m_path(path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error(path + ": cannot be read");
  }
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    line = Trimmed(line);
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const std::string where = path + ":" + std::to_string(number) + ": ";
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
      throw std::runtime_error(where + "not of the form 'key = value'");
    }
    const std::string key = Trimmed(line.substr(0, equals));
    const std::string value = Trimmed(line.substr(equals + 1));
    if (const std::string objection = Objection(key, value); !objection.empty()) {
      throw std::runtime_error(where + objection);
    }
    if (!m_values.emplace(key, value).second) {
      throw std::runtime_error(
          std::string(where).append("'").append(key).append("' is declared twice"));
    }
  }
  if (Find(keys::PORT) == nullptr) {
    throw std::runtime_error(path + ": the port has no name ('port')");
  }
  if (Find(keys::POWER_UNKNOWN) != nullptr && Find(keys::POWER_SET) == nullptr) {
    throw std::runtime_error(path + ": no way back from 'power.unknown' ('power.set')");
  }
}

const std::string* Declaration::Find(const std::string& key) const {
  const auto found = m_values.find(key);
  return found == m_values.end() ? nullptr : &found->second;
}

bool Declaration::IsYes(const std::string& key) const {
  const std::string* const value = Find(key);
  return value != nullptr && *value == YES;
}

std::vector<std::string> Declaration::SettingsRoots() const {
  const std::string* const declared = Find(keys::SETTINGS_ROOTS);
  std::istringstream stream(declared != nullptr ? *declared : DEFAULT_ROOTS);
  return {std::istream_iterator<std::string>(stream), {}};
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

Action::Action(const std::string& text) {
  std::istringstream stream(text);
  std::string verb;
  stream >> verb;
  if (verb == "run") {
    m_kind = Kind::RUN;
  } else if (verb == "set-int" || verb == "set-text") {
    m_kind = verb == "set-int" ? Kind::SET_INT : Kind::SET_TEXT;
    stream >> m_key;
  } else {
    throw std::runtime_error("'" + text + "' begins with none of set-int, set-text and run");
  }
  std::getline(stream >> std::ws, m_value);
  if (m_value.empty()) {
    throw std::runtime_error("'" + text + "' is not complete");
  }
}

bool Action::Apply(const Placeholders& placeholders) const {
  const std::string value = Fill(m_value, placeholders);
  switch (m_kind) {
    case Kind::SET_INT:
      return IsInteger(value) &&
             platform_settings_set_int(m_key.c_str(), std::atoi(value.c_str())) == 0;
    case Kind::SET_TEXT:
      return platform_settings_set_string(m_key.c_str(), value.c_str()) == 0;
    case Kind::RUN:
      return RunShell(value).Succeeded();
  }
  return false;
}

}  // namespace conformance
