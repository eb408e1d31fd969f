#ifndef ONDARO_PLATFORM_HOST_LOGSINK_H
#define ONDARO_PLATFORM_HOST_LOGSINK_H

#include <cstddef>

namespace ondaro::host {

/// Opens a log file for appending; the descriptor, or -1 with errno set.
int OpenLogFile(const char* path);

/// One attempt to write a line in one piece. Neither waits for a sink that takes nothing nor
/// leaves a signal behind. `descriptor` is from OpenLogFile() or the process's standard error.
/// False, with errno set, when the line was dropped.
bool WriteLine(int descriptor, const char* line, std::size_t size);

}  // namespace ondaro::host

#endif
