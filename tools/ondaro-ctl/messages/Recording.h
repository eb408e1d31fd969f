#ifndef ONDARO_CTL_RECORDING_H
#define ONDARO_CTL_RECORDING_H

#include <cstdint>
#include <string>
#include <vector>

namespace ondaro::ctl {

struct RecordedEvent {
  std::int64_t microseconds;  // since the first one of the recording; never falls
  std::string event;
  std::string data;
};

/// What 'listen --json' or 'serve --json' printed into the file, or into standard input for "-". A
/// Failure that names the line when one is anything else.
std::vector<RecordedEvent> ReadRecording(const std::string& path);

}  // namespace ondaro::ctl

#endif
