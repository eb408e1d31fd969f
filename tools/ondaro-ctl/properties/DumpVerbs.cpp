#include "properties/Properties.h"
#include "support/Json.h"
#include "support/LineReader.h"
#include "support/Text.h"
#include "support/Verbs.h"

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

struct Assignment {
  const Property* property;
  std::string value;
};

/// What a dump's input says to write, all of it read before anything is written.
class Input {
 public:
  explicit Input(const LoadOptions& options) : m_force(options.force), m_reader(options.path) {
    m_reader.ReadAll([this](std::string_view line) { Parse(line); });
  }

  const std::vector<Assignment>& Assignments() const { return m_assignments; }

 private:
  [[noreturn]] void Fail(const std::string& reason, ExitCode code = ExitCode::Failed) const {
    throw Failure(code, m_reader.Place() + ": " + reason + "; nothing was written");
  }

  void Parse(std::string_view line) {
    if (line.empty() || line.front() == '#') {
      return;
    }
    if (line.front() == '{') {
      ParseObject(line);
      return;
    }
    const std::size_t space = std::min(line.find(' '), line.size());
    const auto value = Decode(line.substr(std::min(space + 1, line.size())));
    if (!value) {
      Fail(R"(control characters and backslashes are written as \n, \r, \t, \xHH and \\)");
    }
    Add(std::string(line.substr(0, space)), *value);
  }

  void ParseObject(std::string_view line) {
    const std::optional<Json::Value> object = ParseJsonObject(line);
    if (!object) {
      Fail("no object as 'ondaro-ctl dump --json' prints it");
    }
    for (const std::string& name : object->getMemberNames()) {
      const Json::Value& value = (*object)[name];
      if (!value.isString() || value.asString().find('\0') != std::string::npos) {
        Fail("the value of " + name + " is no text");
      }
      Add(name, value.asString());
    }
  }

  void Add(const std::string& name, const std::string& value) {
    try {
      const Property& property = FindProperty(name);
      if (!m_force) {
        RequireTaken(property, value, "; --force stores false for it");
      }
      m_assignments.push_back({&property, value});
    } catch (const Failure& failure) {
      Fail(failure.what(), failure.Code());
    }
  }

  bool m_force;
  LineReader m_reader;
  std::vector<Assignment> m_assignments;
};

void Load(const Output& output, const LoadOptions& options) {
  std::size_t written = 0;
  std::size_t failed = 0;
  const Input input(options);
  for (const auto& [property, value] : input.Assignments()) {
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
  if (failed != 0) {
    throw Failure(Count(failed, "property") + " not written" + SeeLog());
  }
}

}  // namespace

void AddDumpVerbs(CLI::App& app, Session& session) {
  AddVerb(app, session, "dump", "Print every property for 'load'", Dump);

  auto [load, options] = AddVerb(app, session, "load", "Write what 'dump' printed", Load);
  load.add_option("FILE", options.path, "The dump; standard input when left out or '-'");
  load.add_flag("--force", options.force, "Write words that properties do not have as well");
}

}  // namespace ondaro::ctl
