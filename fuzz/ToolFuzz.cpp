// Any text as what a reader of the tool gets, which fuzz/CMakeLists.txt names in FUZZ_READER:
//  - load: loaded, or refused with nothing written; what is dumped then loads as the same;
//  - recording: events in order of time, or refused;
//  - trace: the calls of each thread are nested, and in order of time, whatever lines are damaged.

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <vector>

#include "Fuzz.h"
#include "Verbs.h"
#include "messages/Recording.h"
#include "support/ExitCode.h"
#include "support/FakePlatform.h"
#include "text/Text.h"

using namespace ondaro::fuzz;

namespace {

std::string g_output;

}  // namespace

/// In place of the system's: the tool's output is taken, its remarks are dropped.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): nor are the system's allowed
extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size) {
  if (descriptor == STDOUT_FILENO) {
    g_output.append(static_cast<const char*>(bytes), size);
  }
  const bool isOfTool = descriptor == STDOUT_FILENO || descriptor == STDERR_FILENO;
  return isOfTool ? static_cast<ssize_t>(size) : syscall(SYS_write, descriptor, bytes, size);
}

namespace {

/// A file with the text, under the same name each time.
std::string FileOf(const std::string& text) {
  static const int MEMORY = memfd_create("input", MFD_CLOEXEC);
  Expect(ftruncate(MEMORY, 0) == 0 &&
             pwrite(MEMORY, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
         "the input is in place");
  return "/proc/self/fd/" + std::to_string(MEMORY);
}

/// What the command line prints; nothing when the tool refuses.
std::optional<std::string> RunTool(const std::string& line, bool asJson = false) {
  ondaro::ctl::Session session;
  CLI::App app;
  ondaro::ctl::AddDumpVerbs(app, session);
  ondaro::ctl::AddTraceVerbs(app, session);
  app.parse(line);
  if (asJson) {
    session.output.UseJson();
  }
  g_output.clear();
  try {
    session.verb();
    return g_output;
  } catch (const ondaro::ctl::Failure&) {
    return std::nullopt;
  }
}

bool IsLoaded(const std::string& text) {
  return RunTool("load --force " + FileOf(text)).has_value();
}

void Load(const std::string& text) {
  FakePlatform& fake = FakePlatform::Get();
  fake.Reset();
  if (IsLoaded(text)) {
    const auto loaded = fake.m_values;
    const std::string dump = RunTool("dump").value_or("");
    Expect(g_utf8_validate(dump.data(), static_cast<gssize>(dump.size()), nullptr) != FALSE,
           "a dump is text");
    Expect(IsLoaded(dump), "what was dumped is loaded");
    Expect(fake.m_values == loaded, "and is the same");
  } else {
    Expect(fake.m_values.empty(), "refused, nothing is written");
  }
  const auto decoded = ondaro::ctl::Decode(ondaro::ctl::Encode(text));
  Expect(text.find('\0') != std::string::npos || decoded == text, "an encoded text is restored");
}

void ReadRecording(const std::string& text) {
  try {
    std::int64_t last = 0;
    for (const auto& event : ondaro::ctl::ReadRecording(FileOf(text))) {
      Expect(event.microseconds >= last, "the times never fall");
      last = event.microseconds;
    }
  } catch (const ondaro::ctl::Failure&) {
  }
}

void ExpectNested(const std::string& events) {
  struct Thread {
    std::vector<std::string> open;
    Json::Int64 time = 0;
  };
  std::map<std::string, Thread> threads;
  std::istringstream lines(events);
  for (std::string line; std::getline(lines, line);) {
    const auto event = ondaro::ctl::ParseJsonObject(line);
    Expect(event.has_value(), "every line is an object");
    const std::string name = (*event)["name"].asString();
    const std::string phase = (*event)["ph"].asString();
    if (phase != "B" && phase != "E") {
      continue;
    }
    Thread& thread = threads[(*event)["pid"].asString() + "/" + (*event)["tid"].asString()];
    Expect((*event)["ts"].asInt64() >= thread.time, "the times of a thread never fall");
    thread.time = (*event)["ts"].asInt64();
    if (phase == "B") {
      thread.open.push_back(name);
    } else {
      Expect(!thread.open.empty() && thread.open.back() == name, "the innermost is left first");
      thread.open.pop_back();
    }
  }
  for (const auto& [ids, thread] : threads) {
    Expect(thread.open.empty(), "every call is left");
  }
}

void Trace(const std::string& text) {
  const std::string file = " " + FileOf(text);
  RunTool("trace" + file, true);
  RunTool("trace --format mermaid" + file, true);
  RunTool("trace --format chrome" + file, true);
  ExpectNested(g_output);
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  static const std::map<std::string, void (*)(const std::string&)> READERS = {
      {"load", Load}, {"recording", ReadRecording}, {"trace", Trace}};
  READERS.at(FUZZ_READER)(input.Rest());
}
