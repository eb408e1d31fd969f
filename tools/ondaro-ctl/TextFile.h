#ifndef ONDARO_CTL_TEXT_FILE_H
#define ONDARO_CTL_TEXT_FILE_H

#include <functional>
#include <string>

namespace ondaro::ctl {

/// The whole contents. A Failure when the file cannot be read.
std::string ReadFile(const std::string& path);

/// Takes a line, and where it stands: "FILE, line 3".
using LineHandler = std::function<void(const std::string& line, const std::string& place)>;

/// Calls `handler` with each line of the file, or of standard input for "-". A Failure when it
/// cannot be read.
void ReadLines(const std::string& path, const LineHandler& handler);

}  // namespace ondaro::ctl

#endif
