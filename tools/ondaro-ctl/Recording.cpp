#include "Recording.h"

#include <glib.h>
#include <json/reader.h>

#include <algorithm>
#include <memory>

#include "ExitCode.h"
#include "GLibOwner.h"
#include "TextFile.h"

namespace ondaro::ctl {
namespace {

using Time = GLibOwner<GDateTime, g_date_time_unref>;

struct Line {
  Time time;
  Json::Value object;
};

bool ParseObject(const std::string& text, Json::Value& object) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &object, nullptr) &&
           object.isObject();
  } catch (const Json::Exception&) {  // nested too deeply
    return false;
  }
}

/// Without a time when the line is no record.
Line Parse(const std::string& text) {
  Line line;
  if (ParseObject(text, line.object) && line.object["time"].isString() &&
      line.object["event"].isString() && line.object["data"].isString()) {
    line.time.reset(g_date_time_new_from_iso8601(line.object["time"].asCString(), nullptr));
  }
  return line;
}

}  // namespace

std::vector<RecordedEvent> ReadRecording(const std::string& path) {
  std::vector<RecordedEvent> events;
  Time begin;
  ReadLines(path, [&](const std::string& text, const std::string& place) {
    Line line = Parse(text);
    if (line.time == nullptr) {
      throw Failure(ExitCode::Failed,
                    place +
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
