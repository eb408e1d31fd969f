// Any text as input of 'ondaro-ctl load': loaded, or refused with nothing written.

#include "ExitCode.h"
#include "Fuzz.h"
#include "Text.h"
#include "ToolOutput.h"
#include "Verbs.h"
#include "library/FakePlatform.h"

using namespace ondaro::fuzz;

namespace {

/// False when the tool refuses.
bool RunTool(const char* verb, const std::string& text) {
  SetToolInput(text);
  ondaro::ctl::Session session;
  CLI::App app;
  ondaro::ctl::AddDumpVerbs(app, session);
  app.parse(verb);
  try {
    session.verb();
    return true;
  } catch (const ondaro::ctl::Failure&) {
    return false;
  }
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  FakePlatform& fake = FakePlatform::Get();
  const std::string text = input.Rest();
  fake.m_values.clear();
  if (RunTool("load -", text)) {
    const auto loaded = fake.m_values;
    TakeToolOutput();
    RunTool("dump", "");
    Expect(RunTool("load -", TakeToolOutput()), "what was dumped is loaded");
    Expect(fake.m_values == loaded, "and is the same");
  } else {
    Expect(fake.m_values.empty(), "refused, nothing is written");
  }

  const auto decoded = ondaro::ctl::Decode(ondaro::ctl::Encode(text));
  Expect(text.find('\0') != std::string::npos || decoded == text, "an encoded text is restored");
  fake.TakeLog();
  fake.m_storeCalls.clear();
}
