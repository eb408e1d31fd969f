// Any text as input of 'ondaro-ctl load': loaded, or refused with nothing written.

#include <iostream>
#include <sstream>

#include "ExitCode.h"
#include "Fuzz.h"
#include "Text.h"
#include "Verbs.h"
#include "library/FakePlatform.h"

using namespace ondaro::fuzz;

namespace {

std::string g_output;

/// False when the tool refuses.
bool RunTool(const char* verb, const std::string& text) {
  std::istringstream input(text);
  std::cin.rdbuf(input.rdbuf());
  std::cin.clear();
  g_output.clear();
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

// The tool's output, taken instead of written.
ondaro::ctl::Output::Output() : m_colourOut(false), m_colourErr(false) {}
void ondaro::ctl::Output::Line(std::string_view text) const { g_output.append(text) += '\n'; }
void ondaro::ctl::Output::Result(std::string_view text, const Json::Value&) const { Line(text); }
void ondaro::ctl::Output::Note(std::string_view) const {}
void ondaro::ctl::Output::Error(std::string_view) const {}
Json::Value ondaro::ctl::JsonText(std::string_view) { return {}; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FakePlatform& fake = FakePlatform::Get();
  const std::string text = Input(data, size).Rest();
  fake.m_values.clear();
  if (RunTool("load -", text)) {
    const auto loaded = fake.m_values;
    RunTool("dump", "");
    Expect(RunTool("load -", std::string(g_output)), "what was dumped is loaded");
    Expect(fake.m_values == loaded, "and is the same");
  } else {
    Expect(fake.m_values.empty(), "refused, nothing is written");
  }

  const auto decoded = ondaro::ctl::Decode(ondaro::ctl::Encode(text));
  Expect(text.find('\0') != std::string::npos || decoded == text, "an encoded text is restored");
  fake.TakeLog();
  fake.m_storeCalls.clear();
  return 0;
}
