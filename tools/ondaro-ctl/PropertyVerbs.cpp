#include "Properties.h"
#include "Text.h"
#include "Verbs.h"

namespace ondaro::ctl {
namespace {

struct Named {
  std::string name;
  std::string value;
};

void Get(const Output& output, const Named& named) {
  const Property& property = FindProperty(named.name);
  if (!property.IsReadable()) {
    throw Failure(ExitCode::Failed, named.name + " can only be written");
  }
  const std::optional<std::string> value = Read(property);
  if (!value) {
    throw Failure(ExitCode::Failed,
                  named.name +
                      " could not be read: it was never set on this set, or what keeps it "
                      "is out of order; '--log error' shows more");
  }
  Json::Value object;
  object["name"] = named.name;
  object["value"] = JsonText(*value);
  output.Result(*value, object);
}

void Set(const Output& output, const Named& named) {
  const Property& property = FindProperty(named.name);
  if (!property.IsWritable()) {
    throw Failure(ExitCode::Failed, named.name + " can only be read");
  }
  if (!Takes(property, named.value)) {
    output.Note(named.name + " has no word '" + OneLine(named.value) + "' and stores false for it");
  }
  if (!Write(property, named.value)) {
    throw Failure(ExitCode::Failed, named.name + " could not be written; '--log error' shows why");
  }
}

struct Row {
  std::string text;
  Json::Value value;  // null unless readable
  const char* state;
};

Row Describe(const Property& property) {
  if (!property.IsReadable()) {
    return {"(write-only)", {}, "write-only"};
  }
  const std::optional<std::string> value = Read(property);
  return value ? Row{OneLine(*value), JsonText(*value), "ok"}
               : Row{"(cannot be read)", {}, "unreadable"};
}

void List(const Output& output) {
  std::size_t width = 0;
  for (const Property& property : CATALOGUE) {
    width = std::max(width, property.name.size());
  }
  for (const Property& property : CATALOGUE) {
    const Row row = Describe(property);
    Json::Value object;
    object["name"] = std::string(property.name);
    object["value"] = row.value;
    object["state"] = row.state;
    object["writable"] = property.IsWritable();
    object["events"] = property.hasEvents;
    const std::string gap(width + 2 - property.name.size(), ' ');
    output.Result(output.Emphasis(property.name) + gap + row.text, object);
  }
}

}  // namespace

void AddPropertyVerbs(CLI::App& app, Session& session) {
  auto named = std::make_shared<Named>();
  CLI::App& get = *app.add_subcommand("get", "Print a property's value");
  get.add_option("NAME", named->name, "The property")->required();
  OnVerb(get, session, named, Get);

  CLI::App& set = *app.add_subcommand("set", "Write a property");
  set.add_option("NAME", named->name, "The property")->required();
  set.add_option("VALUE", named->value, "Its new value")->required();
  OnVerb(set, session, named, Set);

  CLI::App& list = *app.add_subcommand("list", "Print every property with its value");
  OnVerb(list, session, named, [](const Output& output, const Named&) { List(output); });
}

}  // namespace ondaro::ctl
