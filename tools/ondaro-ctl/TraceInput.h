#ifndef ONDARO_CTL_TRACE_INPUT_H
#define ONDARO_CTL_TRACE_INPUT_H

#include <functional>
#include <string>
#include <string_view>

namespace ondaro::ctl {

/// Calls `handler` with every line of the file, or of standard input for "-", until its end, SIGINT
/// or SIGTERM. Of a line longer than any of the log only the beginning is kept.
void ForEachLine(const std::string& path,
                 const std::function<void(std::string_view line)>& handler);

}  // namespace ondaro::ctl

#endif
