#include "Verbs.h"
#include "text/LineReader.h"
#include "text/Text.h"
#include "trace/Trace.h"

namespace ondaro::ctl {
namespace {

constexpr char HOW_TO_RECORD[] =
    "; 'ONDARO_HOST_LOG=info:FILE PROGRAM' records one of a program on an ordinary Linux machine";

struct TraceOptions {
  std::string path = "-";
  std::string format = "summary";
};

void Trace(const Output& output, const TraceOptions& options) {
  const auto writer = MakeWriter(options.format, output);
  Calls calls(*writer);
  std::uint64_t lines = 0;
  std::uint64_t unknown = 0;
  MainLoop loop;
  LineReader reader(options.path);
  const auto add = [&](std::string_view line) {
    ++lines;
    unknown += calls.Add(line) ? 0 : 1;
  };
  reader.Follow(loop, add, [&] { loop.Stop(); });
  loop.RunFor(std::nullopt);  // or until Ctrl-C
  calls.Finish();
  writer->Finish();
  if (calls.Total() == 0) {
    throw Failure(reader.Name() + (lines == unknown ? " is no log" : " has no traced calls") +
                  HOW_TO_RECORD);
  }
  if (unknown != 0) {
    output.Note("left out, damaged or of something else: " + std::to_string(unknown) + " of " +
                Count(lines, "line"));
  }
  if (calls.Incomplete() != 0) {
    output.Note(Count(calls.Incomplete(), "call") + R"( without "Entered" or "Left")");
  }
}

}  // namespace

void AddTraceVerbs(CLI::App& app, Session& session) {
  auto [trace, options] =
      AddVerb(app, session, "trace", "Show the calls of a host backend's log", Trace);
  trace
      .add_option("--format", options.format,
                  "summary: a table of the functions (default);\n"
                  "chrome: events for trace viewers;\n"
                  "mermaid: a sequence diagram")
      ->type_name("FORMAT");
  trace.add_option("FILE", options.path, "The log; standard input when left out or '-'");
}

}  // namespace ondaro::ctl
