#ifndef ONDARO_BENCH_BUSLOG_H
#define ONDARO_BENCH_BUSLOG_H

namespace ondaro::bench {

/// The platform log of the bus benchmark: discards, or writes every line to a file, a write each.
void LogToFile(const char* path);
void LogNowhere();

/// Calls of the library's client that were answered, which only the log tells.
long AnsweredCalls();

}  // namespace ondaro::bench

#endif
