#include <array>

#include "TraceInput.h"
#include "TraceWriter.h"
#include "Verbs.h"

namespace ondaro::ctl {
namespace {

struct Format {
  std::string_view name;
  std::unique_ptr<TraceWriter> (*make)(const Output& output);
};

constexpr std::array<Format, 3> FORMATS = {
    {{"summary", MakeTraceSummary}, {"chrome", MakeTraceChrome}, {"mermaid", MakeTraceMermaid}}};

struct TraceOptions {
  std::string path = "-";
  std::string format = "summary";
};

const Format* FindFormat(const std::string& name) {
  for (const Format& format : FORMATS) {
    if (format.name == name) {
      return &format;
    }
  }
  return nullptr;
}

std::string CheckFormat(const std::string& name) {
  return FindFormat(name) != nullptr ? "" : "'" + name + "' is none of summary, chrome, mermaid";
}

void Remark(const Output& output, std::uint64_t lines, std::uint64_t unknown,
            std::uint64_t incomplete) {
  if (unknown != 0) {
    output.Note("lines left out, damaged or of something else: " + std::to_string(unknown) +
                " of " + std::to_string(lines));
  }
  if (incomplete != 0) {
    output.Note(R"(calls without "Entered" or "Left": )" + std::to_string(incomplete));
  }
}

void Trace(const Output& output, const TraceOptions& options) {
  const std::unique_ptr<TraceWriter> writer = FindFormat(options.format)->make(output);
  TracePairing pairing([&writer](const TraceEvent& event) { writer->Write(event); });
  std::uint64_t lines = 0;
  std::uint64_t unknown = 0;
  ForEachLine(options.path, [&](std::string_view text) {
    const std::optional<TraceLine> line = ParseTraceLine(text);
    ++lines;
    if (line) {
      pairing.Add(*line);
    } else {
      ++unknown;
    }
  });
  pairing.Finish();
  writer->Finish();
  Remark(output, lines, unknown, pairing.Incomplete());
}

}  // namespace

void AddTraceVerbs(CLI::App& app, Session& session) {
  CLI::App& trace = *app.add_subcommand("trace", "Show the calls of a host backend's log");
  auto options = std::make_shared<TraceOptions>();
  trace
      .add_option("--format", options->format,
                  "summary: a table of the functions (default);\n"
                  "chrome: events for trace viewers;\n"
                  "mermaid: a sequence diagram")
      ->type_name("FORMAT")
      ->check(CheckFormat);
  trace.add_option("FILE", options->path, "The log; standard input when left out or '-'");
  OnVerb(trace, session, options, Trace);
}

}  // namespace ondaro::ctl
