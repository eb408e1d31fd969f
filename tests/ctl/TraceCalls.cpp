#include "TraceCalls.h"

#include <json/reader.h>

#include <map>
#include <sstream>
#include <stdexcept>

namespace ondaro::test {
namespace {

void Expect(bool holds, const std::string& what) {
  if (!holds) {
    throw std::runtime_error("not so: " + what);
  }
}

}  // namespace

std::vector<Json::Value> ParseObjects(const std::string& lines) {
  std::vector<Json::Value> objects;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    std::istringstream(line) >> objects.emplace_back();
    Expect(objects.back().isObject(), "an object: " + line);
  }
  return objects;
}

std::string CallsOf(const std::string& events) {
  struct Thread {
    std::vector<std::string> open;
    Json::Int64 time = 0;
  };
  std::map<std::string, Thread> threads;
  std::string calls;
  for (const Json::Value& event : ParseObjects(events)) {
    const std::string name = event["name"].asString(), phase = event["ph"].asString();
    Thread& thread = threads[event["pid"].asString() + "/" + event["tid"].asString()];
    Expect(event["ts"].asInt64() >= thread.time, "the times of a thread never fall");
    thread.time = event["ts"].asInt64();
    if (phase != "B" && phase != "E") {
      continue;
    }
    if (phase == "B") {
      const bool isWhole = event["args"]["signature"].asString().find(" > [") == std::string::npos;
      Expect(isWhole, "a signature is not of two lines");
      thread.open.push_back(name);
    } else {
      Expect(!thread.open.empty() && thread.open.back() == name, "the innermost is left first");
      thread.open.pop_back();
    }
    calls += " " + phase + name.substr(name.rfind(':') + 1);
    calls += event["args"]["incomplete"] == true ? "?" : "";
  }
  for (const auto& [ids, thread] : threads) {
    Expect(thread.open.empty(), "every call is left in " + ids);
  }
  return calls;
}

}  // namespace ondaro::test
