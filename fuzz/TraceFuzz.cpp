// Any text as a log that 'ondaro-ctl trace' reads: the calls of each thread are nested, and in
// order of time, whatever lines are damaged or lost.

#include <sstream>

#include "Fuzz.h"
#include "ToolOutput.h"
#include "TraceWriter.h"
#include "ctl/TraceCalls.h"

using namespace ondaro::ctl;

namespace {

void Show(const std::string& text, TraceWriter& writer) {
  TracePairing pairing([&](const TraceEvent& event) { writer.Write(event); });
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (const auto parsed = ParseTraceLine(line)) {
      pairing.Add(*parsed);
    }
  }
  pairing.Finish();
  writer.Finish();
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  const std::string text = input.Rest();
  Output output;
  Show(text, *MakeTraceSummary(output));
  Show(text, *MakeTraceMermaid(output));
  TakeToolOutput();
  output.UseJson();
  Show(text, *MakeTraceChrome(output));
  test::CallsOf(TakeToolOutput());
}
