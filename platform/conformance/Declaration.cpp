#include "Declaration.h"

#include <fstream>
#include <regex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace conformance {
namespace {

/// Every key that there is, by the form of its value; docs/porting.md says what each is for.
const std::pair<const char*, std::vector<const char*>> KEYS[] = {
    {".+",
     {"port", "log.read", "log.debug", "log.info", "log.error", "log.newline", "settings.roots",
      "settings.restart", "settings.remove", "feature.key", "application.id", "application.pid",
      "signature.verify"}},
    {"[^=]+=.*", {"log.environment"}},
    {"yes|no", {"settings.shared", "decryption-module", "device-keys"}},
    {"main-context|any-thread", {"settings.callbacks"}},
    {"-?[0-9]+", {"feature.value", "power.state"}},
    {"(set-int|set-text) +[^ ]+ +.+|run +.+",
     {"feature.set", "power.set", "power.unknown", "application.announce",
      "application.withdraw"}}};

}  // namespace

Declaration ReadDeclaration(const std::string& path) {
  static const std::regex comment(R"(\s*(#.*)?)");
  static const std::regex assignment(R"(\s*([^=]*[^=\s])\s*=\s*(.*\S)\s*)");
  Declaration declaration;
  std::map<std::string, const char*> forms;
  for (const auto& [form, keys] : KEYS) {
    for (const char* const key : keys) {
      forms[key] = form;
      declaration[key];
    }
  }
  std::string where = path;
  const auto require = [&](bool isSo, const std::string& complaint) {
    if (!isSo) {
      throw std::runtime_error(where + ": " + complaint);
    }
  };
  std::ifstream file(path);
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    where = path + ":" + std::to_string(number);
    std::smatch parts;
    if (std::regex_match(line, comment)) {
      continue;
    }
    require(std::regex_match(line, parts, assignment), "not of the form 'key = value'");
    const std::string key = parts[1];
    require(forms.count(key) != 0, "unknown key '" + key + "'");
    require(std::regex_match(parts[2].str(), std::regex(forms[key])),
            "'" + key + "' is not of the form " + forms[key]);
    require(!std::exchange(declaration[key], parts[2]), "'" + key + "' is declared twice");
  }
  where = path;
  require(declaration["port"].has_value(), "cannot be read, or gives the port no name ('port')");
  require(!declaration["power.unknown"] || declaration["power.set"],
          "no way back from 'power.unknown' ('power.set')");
  return declaration;
}

}  // namespace conformance
