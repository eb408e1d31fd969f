#include "Properties.h"
#include "Text.h"
#include "TextFile.h"
#include "Verbs.h"

/*
 * A dump is one line a property, sorted by name: the name, a space, the value as Encode() writes
 * it; the name alone when the value is empty. Lines that are empty or begin with '#' say nothing.
 */
namespace ondaro::ctl {
namespace {

/// The value, unless writing it back would not give it again: a number that has no word.
std::optional<std::string> ReadForDump(const Property& property) {
  std::optional<std::string> value = Read(property);
  return value && Takes(property, *value) ? value : std::nullopt;
}

void Dump(const Output& output) {
  Json::Value object(Json::objectValue);
  for (const Property& property : CATALOGUE) {
    if (!property.IsReadable()) {
      continue;
    }
    const std::string name(property.name);
    const std::optional<std::string> value = ReadForDump(property);
    if (!value) {
      output.Note(name + " has no value that can be read; left out");
    } else if (output.IsJson()) {
      object[name] = JsonText(*value);
    } else {
      output.Line(value->empty() ? name : name + " " + Encode(*value));
    }
  }
  if (output.IsJson()) {
    output.Result("", object);
  }
}

struct Assignment {
  const Property* property;
  std::string value;
};

/// Nothing for a line that says nothing.
std::optional<Assignment> ParseLine(const std::string& line, const std::string& place) {
  if (line.empty() || line.front() == '#') {
    return std::nullopt;
  }
  const std::size_t space = line.find(' ');
  const std::string_view encoded =
      space == std::string::npos ? "" : std::string_view(line).substr(space + 1);
  const std::optional<std::string> value = Decode(encoded);
  if (!value) {
    throw Failure(ExitCode::Failed,
                  place +
                      ": control characters and backslashes are written as \\n, \\r, \\t, \\xHH "
                      "and \\\\; nothing was written");
  }
  try {
    return Assignment{&FindProperty(line.substr(0, space)), *value};
  } catch (const Failure& failure) {
    throw Failure(failure.Code(), place + ": " + failure.what() + "; nothing was written");
  }
}

/// The whole input, before anything is written.
std::vector<Assignment> ReadDump(const std::string& path) {
  std::vector<Assignment> assignments;
  ReadLines(path, [&](const std::string& line, const std::string& place) {
    auto assignment = ParseLine(line, place);
    if (assignment) {
      assignments.push_back(std::move(*assignment));
    }
  });
  return assignments;
}

/// A dump holds what can only be read as well; and a process group is nothing to be restored.
bool IsLoadable(const Property& property) {
  return property.IsWritable() && property.kind != Kind::ProcessGroup;
}

void Load(const Output& output, const std::string& path) {
  std::size_t written = 0;
  std::size_t failed = 0;
  for (const Assignment& assignment : ReadDump(path)) {
    const std::string name(assignment.property->name);
    if (!IsLoadable(*assignment.property)) {
      output.Note(name + " cannot be loaded; skipped");
    } else if (Write(*assignment.property, assignment.value)) {
      ++written;
    } else {
      ++failed;
      output.Error(name + " could not be written");
    }
  }
  output.Note(std::to_string(written) + " properties loaded");
  if (failed != 0) {
    throw Failure(ExitCode::Failed, "not all properties were written; '--log error' shows why");
  }
}

}  // namespace

void AddDumpVerbs(CLI::App& app, Session& session) {
  auto path = std::make_shared<std::string>("-");
  CLI::App& dump = *app.add_subcommand("dump", "Print every property for 'load'");
  OnVerb(dump, session, path, [](const Output& output, const std::string&) { Dump(output); });

  CLI::App& load = *app.add_subcommand("load", "Write what 'dump' printed");
  load.add_option("FILE", *path, "The dump; standard input when left out or '-'");
  OnVerb(load, session, path, Load);
}

}  // namespace ondaro::ctl
