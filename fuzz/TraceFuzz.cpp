// Any text as a log that 'ondaro-ctl trace' reads: the calls of each thread are nested, and in
// order of time, whatever lines are damaged or lost.

#include <json/reader.h>

#include <sstream>

#include "Fuzz.h"
#include "ToolOutput.h"
#include "TraceWriter.h"

using namespace ondaro::ctl;
using namespace ondaro::fuzz;

namespace {

class NestingCheck {
 public:
  void Look(const TraceEvent& event) {
    Thread& thread = m_threads[{event.process, event.thread}];
    Expect(event.time >= thread.time, "the times of a thread never fall");
    thread.time = event.time;
    if (event.kind == TraceEvent::Kind::Enter) {
      thread.calls.emplace_back(event.signature);
    } else if (event.kind == TraceEvent::Kind::Leave) {
      Expect(!thread.calls.empty() && thread.calls.back() == event.signature,
             "the innermost call is left first");
      thread.calls.pop_back();
    }
  }

  void Finish() const {
    for (const auto& [ids, thread] : m_threads) {
      Expect(thread.calls.empty(), "every call is left");
    }
  }

 private:
  struct Thread {
    std::vector<std::string> calls;
    std::int64_t time = 0;
  };
  std::map<std::pair<int, int>, Thread> m_threads;
};

void Show(const std::string& text, TraceWriter& writer) {
  NestingCheck check;
  TracePairing pairing([&](const TraceEvent& event) {
    check.Look(event);
    writer.Write(event);
  });
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (const auto parsed = ParseTraceLine(line)) {
      pairing.Add(*parsed);
    }
  }
  pairing.Finish();
  writer.Finish();
  check.Finish();
}

bool IsJson(const std::string& text) {
  Json::Value root;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Input(data, size).Rest();
  const Output output;
  Show(text, *MakeTraceSummary(output));
  Show(text, *MakeTraceMermaid(output));
  TakeToolOutput();
  Show(text, *MakeTraceChrome(output));
  Expect(IsJson(TakeToolOutput()), "the events are JSON");
  return 0;
}
