// Any text as input of 'ondaro-ctl load': loaded, or refused with nothing written.

#include "Fuzz.h"
#include "ToolOutput.h"
#include "support/FakePlatform.h"
#include "support/Text.h"

using namespace ondaro::fuzz;

namespace {

bool Load(const std::string& text) {
  SetToolInput(text);
  return RunTool(ondaro::ctl::AddDumpVerbs, "load --force -");
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  FakePlatform& fake = FakePlatform::Get();
  const std::string text = input.Rest();
  fake.m_values.clear();
  if (Load(text)) {
    const auto loaded = fake.m_values;
    TakeToolOutput();
    RunTool(ctl::AddDumpVerbs, "dump");
    const std::string dump = TakeToolOutput();
    Expect(g_utf8_validate(dump.data(), static_cast<gssize>(dump.size()), nullptr) != FALSE,
           "a dump is text");
    Expect(Load(dump), "what was dumped is loaded");
    Expect(fake.m_values == loaded, "and is the same");
  } else {
    Expect(fake.m_values.empty(), "refused, nothing is written");
  }

  const auto decoded = ondaro::ctl::Decode(ondaro::ctl::Encode(text));
  Expect(text.find('\0') != std::string::npos || decoded == text, "an encoded text is restored");
  fake.TakeLog();
}
