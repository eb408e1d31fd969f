#include <fnmatch.h>

#include "Verbs.h"
#include "properties/Properties.h"

namespace ondaro::ctl {
namespace {

struct SetOptions {
  std::string name;
  std::string value;
  bool force = false;
};

void Get(const Output& output, const std::vector<std::string>& names) {
  std::vector<const Property*> properties;
  for (const std::string& name : names) {
    properties.push_back(&FindProperty(name));
    Require(properties.back()->IsReadable(), name + " can only be written");
  }
  for (const Property* property : properties) {
    const std::optional<std::string> value = Read(*property);
    if (!value) {
      throw Failure(property->name + (IsUnset(*property) ? " is not set; 'ondaro-ctl set' sets it"
                                                         : " could not be read" + SeeLog()));
    }
    output.Value(JsonObject({{"name", property->name}, {"value", JsonText(*value)}}), *value);
  }
}

void Set(const Output& /*output*/, const SetOptions& options) {
  const Property& property = FindProperty(options.name);
  Require(property.IsWritable(), options.name + " can only be read");
  if (!options.force) {
    RequireTaken(property, options.value, "; --force stores false for it");
  }
  RequireOfSet(Write(property, options.value), options.name + " could not be written");
}

struct State {
  const char* name;
  std::string text;
  Json::Value value;  // null unless readable
};

State StateOf(const Property& property) {
  if (!property.IsReadable()) {
    return {"write-only", "(write-only)", {}};
  }
  const std::optional<std::string> value = Read(property);
  if (value) {
    return {"ok", *value, JsonText(*value)};
  }
  return IsUnset(property) ? State{"unset", "(not set)", {}}
                           : State{"unreadable", "(cannot be read)", {}};
}

bool Matches(const Property& property, const std::string& pattern) {
  const bool isPart = pattern.find_first_of("*?[") == std::string::npos;
  return fnmatch((isPart ? "*" + pattern + "*" : pattern).c_str(), property.name.c_str(),
                 FNM_CASEFOLD) == 0;
}

void List(const Output& output, const std::string& pattern) {
  const std::optional<std::string> directory = StateDirectory();
  std::size_t width = 0;
  for (const Property& property : CATALOGUE) {
    width = std::max(width, property.name.size());
  }
  bool isAny = false;
  for (const Property& property : CATALOGUE) {
    if (!Matches(property, pattern)) {
      continue;
    }
    isAny = true;
    const State state = StateOf(property);
    Json::Value object = JsonObject({{"name", property.name},
                                     {"value", state.value},
                                     {"state", state.name},
                                     {"writable", property.IsWritable()},
                                     {"events", property.HasEvents()},
                                     {"words", Json::arrayValue}});
    for (const std::string& word : property.words) {
      object["words"].append(word);
    }
    if (directory) {
      object["state_directory"] = JsonText(*directory);
    }
    const std::string gap(width + 2 - property.name.size(), ' ');
    output.Result(object, {{}, property.name, gap + state.text});
  }
  Require(isAny, "no property matches '" + pattern + "'; 'ondaro-ctl list' shows them all",
          ExitCode::NoSuchProperty);
}

}  // namespace

void AddPropertyVerbs(CLI::App& app, Session& session) {
  auto [get, names] = AddVerb(app, session, "get", "Print values of properties, a line each", Get);
  get.add_option("NAME", names, "The properties")->required();

  auto [set, options] = AddVerb(app, session, "set", "Write a property", Set);
  set.add_option("NAME", options.name, "The property")->required();
  set.add_option("VALUE", options.value, "Its new value")->required();
  set.add_flag("--force", options.force, "Write a word that it does not have: stored as false");

  auto [list, pattern] = AddVerb(app, session, "list", "Print properties with their values", List);
  list.add_option("PATTERN", pattern, "A part of their names, or a pattern as the shell's");
}

}  // namespace ondaro::ctl
