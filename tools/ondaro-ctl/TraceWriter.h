#ifndef ONDARO_CTL_TRACE_WRITER_H
#define ONDARO_CTL_TRACE_WRITER_H

#include <memory>

#include "Output.h"
#include "TracePairing.h"

namespace ondaro::ctl {

/// Shows the events of a log in one format.
class TraceWriter {
 public:
  TraceWriter() = default;
  virtual ~TraceWriter() = default;

  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;

  virtual void Write(const TraceEvent& event) = 0;
  virtual void Finish() = 0;
};

// `output` outlives the writer.
std::unique_ptr<TraceWriter> MakeTraceSummary(const Output& output);
std::unique_ptr<TraceWriter> MakeTraceChrome(const Output& output);
std::unique_ptr<TraceWriter> MakeTraceMermaid(const Output& output);

}  // namespace ondaro::ctl

#endif
