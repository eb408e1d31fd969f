// Any text as a recording that 'ondaro-ctl send --replay' reads: events in order of time, or
// refused.

#include "Fuzz.h"
#include "ToolOutput.h"
#include "messages/Recording.h"

using namespace ondaro::fuzz;

void ondaro::fuzz::Run(Input input) {
  SetToolInput(input.Rest());
  try {
    std::int64_t last = 0;
    for (const ondaro::ctl::RecordedEvent& event : ondaro::ctl::ReadRecording("-")) {
      Expect(event.microseconds >= last, "the times never fall");
      last = event.microseconds;
    }
  } catch (const ondaro::ctl::Failure&) {
  }
}
