#ifndef ONDARO_FUZZ_TOOLOUTPUT_H
#define ONDARO_FUZZ_TOOLOUTPUT_H

#include <string>

#include "support/ExitCode.h"
#include "support/Verbs.h"

namespace ondaro::fuzz {

/// What the tool has written to standard output since the last call.
std::string TakeToolOutput();

/// What the tool reads next from standard input.
void SetToolInput(const std::string& text);

/// Runs a command line with the verbs that `addVerbs` knows; false when the tool refuses.
bool RunTool(void (*addVerbs)(CLI::App&, ctl::Session&), const std::string& line,
             bool asJson = false);

}  // namespace ondaro::fuzz

#endif
