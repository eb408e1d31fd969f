#ifndef ONDARO_FUZZ_TOOLOUTPUT_H
#define ONDARO_FUZZ_TOOLOUTPUT_H

#include <string>

namespace ondaro::fuzz {

/// What the tool has written to standard output since the last call.
std::string TakeToolOutput();

/// What the tool reads next from standard input; lives as long as it reads.
void SetToolInput(const std::string& text);

}  // namespace ondaro::fuzz

#endif
