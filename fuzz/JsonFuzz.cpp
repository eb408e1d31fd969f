// Any text as JSON: a value, or an exception of JsonCpp's.

#include <stdexcept>

#include "Fuzz.h"
#include "library/FakePlatform.h"
#include "ondaro/pal/CPALUtils.h"

void ondaro::fuzz::Run(Input input) {
  const std::string member = input.Text();
  try {
    NOndaroPAL::CPALUtils::ParseJsonVal(input.Rest(), member);
  } catch (const std::exception&) {
  }
  ondaro::fuzz::Expect(FakePlatform::Get().TakeLog().size() == 1, "one line tells how it went");
}
