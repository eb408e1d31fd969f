#include "messages/Recording.h"

#include <glib.h>

#include <algorithm>

#include "support/ExitCode.h"
#include "support/GLibOwner.h"
#include "text/Json.h"
#include "text/LineReader.h"

namespace ondaro::ctl {
namespace {

using Time = GLibOwner<GDateTime, g_date_time_unref>;

/// Nothing when the text is no time.
std::optional<std::int64_t> MicrosecondsOf(const Json::Value& text) {
  const Time time(g_date_time_new_from_iso8601(text.asCString(), nullptr));
  return time == nullptr ? std::nullopt
                         : std::optional(g_date_time_to_unix(time.get()) * 1'000'000 +
                                         g_date_time_get_microsecond(time.get()));
}

}  // namespace

std::vector<RecordedEvent> ReadRecording(const std::string& path) {
  std::vector<RecordedEvent> events;
  std::optional<std::int64_t> begin;
  LineReader reader(path);
  reader.ReadAll([&](std::string_view text) {
    Json::Value object = ParseJsonObject(text).value_or(Json::objectValue);
    const bool isRecord =
        object["time"].isString() && object["event"].isString() && object["data"].isString();
    const auto time = isRecord ? MicrosecondsOf(object["time"]) : std::nullopt;
    Require(time.has_value(),
            reader.Place() +
                ": not an object with time, event and data, as 'ondaro-ctl listen --json' "
                "prints it; nothing was sent");
    begin = begin.value_or(*time);
    // A clock that was put back meanwhile makes no pause.
    const std::int64_t earliest = events.empty() ? 0 : events.back().microseconds;
    events.push_back({std::max(earliest, *time - *begin), object["event"].asString(),
                      object["data"].asString()});
  });
  return events;
}

}  // namespace ondaro::ctl
