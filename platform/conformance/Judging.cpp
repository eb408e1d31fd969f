#include "Judging.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "Probes.h"
#include "platform/SettingsStore.h"

namespace conformance {
namespace {

std::unique_ptr<const Context>& ContextHolder() {
  static std::unique_ptr<const Context> context;
  return context;
}

/// To Google Test, a failure already reported: the one exception that ends a test quietly.
class EndOfTest : public testing::AssertionException {
 public:
  EndOfTest()
      : AssertionException(
            testing::TestPartResult(testing::TestPartResult::kSkip, nullptr, 0, "")) {}
};

[[noreturn]] void EndTest(Status status, const std::string& reason) {
  CurrentUnjudged() = Unjudged{status, reason};
  throw EndOfTest();
}

gboolean GoOn(gpointer /*unused*/) { return G_SOURCE_CONTINUE; }

/// Wakes the main context now and then: not every port delivers on it.
class Ticker {
 public:
  Ticker() : m_id(g_timeout_add(INTERVAL_MS, GoOn, nullptr)) {}
  ~Ticker() { g_source_remove(m_id); }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  static constexpr guint INTERVAL_MS = 5;
  const guint m_id;
};

/// Found out in another process, which a text that is not from malloc may end.
bool CanTextsBeReleased(const std::string& key) {
  static const bool can = RunProcess(Probe({probes::RELEASE_TEXT, key})).Succeeded();
  return can;
}

}  // namespace

Placeholders Context::WithScratch(Placeholders others) const {
  others["scratch"] = scratch;
  return others;
}

void SetContext(Context context) {
  ContextHolder() = std::make_unique<const Context>(std::move(context));
}

const Context& TheContext() { return *ContextHolder(); }

std::optional<Unjudged>& CurrentUnjudged() {
  static std::optional<Unjudged> unjudged;
  return unjudged;
}

void Absent(const std::string& reason) { EndTest(Status::ABSENT, reason); }

void Undeclared(const std::string& reason) { EndTest(Status::UNDECLARED, reason); }

void Blocked(const std::string& clause, const std::string& reason) {
  EndTest(Status::BLOCKED, "needs " + clause + ": " + reason);
}

void Needs(const std::string& clause, bool holds, const std::string& reason) {
  if (!holds) {
    Blocked(clause, reason);
  }
}

const std::string& Declared(const char* key) {
  const std::string* const value = TheContext().declaration.Find(key);
  if (value == nullptr) {
    Undeclared(std::string("'") + key + "' is not declared");
  }
  return *value;
}

void Apply(const char* key, const Placeholders& placeholders, const std::string& clause) {
  Needs(clause, Action(Declared(key)).Apply(TheContext().WithScratch(placeholders)),
        std::string("'") + key + "' could not be carried out");
}

bool WaitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + TheContext().patience;
  const Ticker ticker;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  return true;
}

std::optional<std::string> ReadText(const std::string& key) {
  char* const text = platform_settings_get_string(key.c_str());
  if (text == nullptr) {
    return std::nullopt;
  }
  std::string copy = text;
  if (CanTextsBeReleased(key)) {
    std::free(text);
  }
  return copy;
}

Start Probe(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(),
                   {probes::OPTION, TheContext().declaration.Path(), TheContext().scratch,
                    std::to_string(TheContext().patience.count())});
  return {Self(std::move(arguments))};
}

}  // namespace conformance
