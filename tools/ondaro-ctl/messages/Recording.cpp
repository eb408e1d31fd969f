#include "messages/Recording.h"

#include <glib.h>

#include <algorithm>

#include "support/ExitCode.h"
#include "support/GLibOwner.h"
#include "support/Json.h"
#include "support/LineReader.h"

namespace ondaro::ctl {
namespace {

using Time = GLibOwner<GDateTime, g_date_time_unref>;

struct Line {
  Time time;
  Json::Value object;
};

/// Without a time when the line is no record.
Line Parse(std::string_view text) {
  Line line{nullptr, ParseJsonObject(text).value_or(Json::objectValue)};
  if (line.object["time"].isString() && line.object["event"].isString() &&
      line.object["data"].isString()) {
    line.time.reset(g_date_time_new_from_iso8601(line.object["time"].asCString(), nullptr));
  }
  return line;
}

}  // namespace

std::vector<RecordedEvent> ReadRecording(const std::string& path) {
  std::vector<RecordedEvent> events;
  Time begin;
  LineReader reader(path);
  reader.ReadAll([&](std::string_view text) {
    Line line = Parse(text);
    if (line.time == nullptr) {
      throw Failure(ExitCode::Failed,
                    reader.Place() +
                        ": not an object with time, event and data, as 'ondaro-ctl listen --json' "
                        "prints it; nothing was sent");
    }
    if (begin == nullptr) {
      begin = std::move(line.time);
      line.time.reset(g_date_time_ref(begin.get()));
    }
    // A clock that was put back meanwhile makes no pause.
    const std::int64_t earliest = events.empty() ? 0 : events.back().microseconds;
    const std::int64_t since = g_date_time_difference(line.time.get(), begin.get());
    events.push_back({std::max(earliest, since), line.object["event"].asString(),
                      line.object["data"].asString()});
  });
  return events;
}

}  // namespace ondaro::ctl
