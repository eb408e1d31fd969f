#include "Verbs.h"
#include "properties/Properties.h"
#include "text/Json.h"
#include "text/LineReader.h"
#include "text/Text.h"

/*
 * A dump is one line a property, sorted by name: the name, a space, the value as Encode() writes
 * it; the name alone when the value is empty. Lines that are empty or begin with '#' say nothing.
 * With --json it is one object, a member for each property.
 */
namespace ondaro::ctl {
namespace {

struct LoadOptions {
  std::string path = "-";
  bool force = false;
};

void Dump(const Output& output, const NoOptions&) {
  Json::Value object(Json::objectValue);
  for (const Property& property : CATALOGUE) {
    if (!property.IsReadable()) {
      continue;
    }
    const std::string& name = property.name;
    const std::optional<std::string> value = Read(property);
    // Written back, a number that has no word would not give itself again.
    if (!value || !property.Takes(*value)) {
      output.Note(name + (!value && IsUnset(property) ? " is not set" : " cannot be read") +
                  "; left out");
    } else if (output.IsJson()) {
      object[name] = JsonText(*value);
    } else {
      output.Line(value->empty() ? name : name + " " + Encode(*value));
    }
  }
  if (output.IsJson()) {
    output.Result(object, {});
  }
}

using Assignments = std::vector<std::pair<const Property*, std::string>>;

void Add(Assignments& to, const std::string& name, const std::string& value, bool force) {
  const Property& property = FindProperty(name);
  if (!force) {
    RequireTaken(property, value, "; --force stores false for it");
  }
  to.emplace_back(&property, value);
}

void ParseObject(Assignments& to, std::string_view line, bool force) {
  const std::optional<Json::Value> object = ParseJsonObject(line);
  Require(object.has_value(), "no object as 'ondaro-ctl dump --json' prints it");
  for (const std::string& name : object->getMemberNames()) {
    const Json::Value& value = (*object)[name];
    Require(value.isString() && value.asString().find('\0') == std::string::npos,
            "the value of " + name + " is no text");
    Add(to, name, value.asString(), force);
  }
}

void Parse(Assignments& to, std::string_view line, bool force) {
  if (line.empty() || line.front() == '#') {
    return;
  }
  if (line.front() == '{') {
    ParseObject(to, line, force);
    return;
  }
  const std::size_t space = std::min(line.find(' '), line.size());
  const auto value = Decode(line.substr(std::min(space + 1, line.size())));
  Require(value.has_value(),
          R"(control characters and backslashes are written as \n, \r, \t, \xHH and \\)");
  Add(to, std::string(line.substr(0, space)), *value, force);
}

/// What the input says to write, all of it read before anything is written.
Assignments ReadDump(const LoadOptions& options) {
  Assignments assignments;
  LineReader reader(options.path);
  reader.ReadAll([&](std::string_view line) {
    try {
      Parse(assignments, line, options.force);
    } catch (const Failure& failure) {
      throw Failure(failure.Code(),
                    reader.Place() + ": " + failure.what() + "; nothing was written");
    }
  });
  return assignments;
}

void Load(const Output& output, const LoadOptions& options) {
  std::size_t written = 0;
  std::size_t failed = 0;
  for (const auto& [property, value] : ReadDump(options)) {
    // A dump holds what can only be read as well; and a process group is nothing to be restored.
    if (!property->IsReadable() || !property->IsWritable()) {
      output.Note(property->name + " cannot be loaded; skipped");
    } else if (Write(*property, value)) {
      ++written;
    } else {
      ++failed;
      output.Error(property->name + " could not be written");
    }
  }
  output.Note(Count(written, "property") + " loaded");
  RequireOfSet(failed == 0, Count(failed, "property") + " not written");
}

}  // namespace

void AddDumpVerbs(CLI::App& app, Session& session) {
  AddVerb(app, session, "dump", "Print every property for 'load'", Dump);

  auto [load, options] = AddVerb(app, session, "load", "Write what 'dump' printed", Load);
  load.add_option("FILE", options.path, "The dump; standard input when left out or '-'");
  load.add_flag("--force", options.force, "Write words that properties do not have as well");
}

}  // namespace ondaro::ctl
