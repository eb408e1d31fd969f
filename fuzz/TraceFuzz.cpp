// Any text as a log that 'ondaro-ctl trace' reads: the calls of each thread are nested, and in
// order of time, whatever lines are damaged or lost.

#include <unistd.h>

#include <map>
#include <sstream>
#include <vector>

#include "Fuzz.h"
#include "ToolOutput.h"

using namespace ondaro::fuzz;

namespace {

void ExpectNested(const std::string& events) {
  struct Thread {
    std::vector<std::string> open;
    Json::Int64 time = 0;
  };
  std::map<std::string, Thread> threads;
  std::istringstream lines(events);
  for (std::string line; std::getline(lines, line);) {
    const auto event = ondaro::ctl::ParseJsonObject(line);
    Expect(event.has_value(), "every line is an object");
    const std::string name = (*event)["name"].asString();
    const std::string phase = (*event)["ph"].asString();
    if (phase != "B" && phase != "E") {
      continue;
    }
    Thread& thread = threads[(*event)["pid"].asString() + "/" + (*event)["tid"].asString()];
    Expect((*event)["ts"].asInt64() >= thread.time, "the times of a thread never fall");
    thread.time = (*event)["ts"].asInt64();
    if (phase == "B") {
      thread.open.push_back(name);
    } else {
      Expect(!thread.open.empty() && thread.open.back() == name, "the innermost is left first");
      thread.open.pop_back();
    }
  }
  for (const auto& [ids, thread] : threads) {
    Expect(thread.open.empty(), "every call is left");
  }
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  SetToolInput(input.Rest());
  for (const char* line : {"trace", "trace --format mermaid", "trace --format chrome"}) {
    Expect(lseek(STDIN_FILENO, 0, SEEK_SET) == 0, "the input begins again");
    TakeToolOutput();
    RunTool(ctl::AddTraceVerbs, line, true);
  }
  ExpectNested(TakeToolOutput());
}
