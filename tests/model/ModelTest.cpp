// Random sequences, done to the library and to the model side by side, each in a process of its
// own; one that fails, also by crashing, shrinks itself.

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>

#include "model/Step.h"
#include "support/Tier.h"

namespace ondaro::model {

namespace {

constexpr unsigned STEPS_PER_RUN = 1000;

/// Sequences that once failed, or would if a rule were forgotten.
const Steps KNOWN[] = {
    {{SERVER_WATCH, 0, 22}, {CLIENT_SEND, 0, 0}},  // exits with a call under way
    {{WATCH, 0, 1}, {CHANGE, 0, 80}, {CHANGE, 0, 80}, {CHANGE, 0, 81}},
    {{SET, 1, 0}, {WATCH, 271, 841}, {SETTLE, 0, 0}},
    {{CLIENT_WATCH, 0, 1}, {SERVER_WATCH, 0, 1}, {CLIENT_SEND, 0, 0}, {SETTLE, 0, 0}},
    {{CLIENT_WATCH, 0, 1},
     {SERVER_SEND, 0, 0},
     {CLIENT_UNWATCH, 0, 0},
     {CLIENT_WATCH, 0, 1},
     {SETTLE, 0, 0}},
    {{SET, 5, 8}, {GET, 5, 1}}};

std::string ToText(const Steps& steps) {
  std::ostringstream text;
  for (const Step& step : steps) {
    text << "{Op(" << step.op << "), " << step.a << ", " << step.b << "}, ";
  }
  return text.str();
}

/// Empty without a difference. The model does not expect lines that contain `missed`.
std::string Compare(const Steps& steps, const std::string& missed) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));
  const Performer library = MakeLibrary(), model = MakeModel();
  for (std::size_t done = 0; done <= steps.size(); ++done) {
    const Step* step = done == 0 ? nullptr : &steps[done - 1];
    Lines expected = model(step);
    const Lines observed = library(step);
    const auto isMissed = [&](const std::string& line) {
      return line.find(missed) != std::string::npos;
    };
    expected.erase(std::remove_if(expected.begin(), expected.end(), isMissed), expected.end());
    const auto [seen, known] =
        std::mismatch(observed.begin(), observed.end(), expected.begin(), expected.end());
    if (seen != observed.end() || known != expected.end()) {
      return "after step " + std::to_string(done) + ", " + std::to_string(seen - observed.begin()) +
             " lines alike\n  expected: " + (known != expected.end() ? *known : "(nothing)") +
             "\n  observed: " + (seen != observed.end() ? *seen : "(nothing)") + "\n";
    }
  }
  return "";
}

/// What went wrong, if anything did.
std::optional<std::string> Replay(const Steps& steps, const std::string& missed = "of no line") {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::fflush(nullptr);  // or the child would write it once more
  const pid_t child = fork();
  if (child == 0) {
    const std::string report = Compare(steps, missed);
    std::exit(write(ends[1], report.data(), report.size()) > 0 ? 1 : 0);
  }
  close(ends[1]);
  std::string report(4096, '\0');
  report.resize(
      static_cast<std::size_t>(std::max<ssize_t>(0, read(ends[0], report.data(), report.size()))));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0 ? std::nullopt
                     : std::optional("status " + std::to_string(status) + " " + report);
}

/// Leaves out ever smaller parts as long as it still fails.
Steps Shrink(Steps steps, const std::string& missed = "of no line") {
  for (std::size_t part = steps.size() / 2; part > 0;) {
    bool hasShrunk = false;
    for (std::size_t end = steps.size(); end > 0; end -= std::min(end, part)) {
      Steps candidate = steps;
      const auto last = candidate.begin() + static_cast<std::ptrdiff_t>(end);
      candidate.erase(last - static_cast<std::ptrdiff_t>(std::min(end, part)), last);
      if (Replay(candidate, missed)) {
        steps = candidate;
        hasShrunk = true;
      }
    }
    part = part > 1 || !hasShrunk ? part / 2 : part;
  }
  return steps;
}

Steps RandomSteps(unsigned seed) {
  Dice dice(seed);
  Steps steps;
  std::generate_n(std::back_inserter(steps), STEPS_PER_RUN, [&] { return dice.Throw(OPS); });
  return steps;
}

TEST(Model, KnownAndRandomSequencesHold) {
  std::vector<Steps> sequences(std::begin(KNOWN), std::end(KNOWN));
  for (unsigned seed = 1; seed <= test::ByTier(8U, 30U, 100U); ++seed) {
    sequences.push_back(RandomSteps(seed));
  }
  for (const Steps& steps : sequences) {
    if (const auto failure = Replay(steps)) {
      const Steps few = Shrink(steps);
      FAIL() << *failure << ToText(few) << '\n' << Replay(few).value_or("");
    }
  }
}

// A model that is wrong in one place is found out, and a few steps are left of the sequence.
TEST(Model, AWrongModelIsFoundAndTheSequenceShrinks) {
  const std::string missed[] = {"EVENT", "g_dbus_proxy_call result", "is undefined"};
  for (const std::string& line : missed) {
    EXPECT_TRUE(Replay(RandomSteps(1), line)) << line;
  }
  const Steps steps = Shrink(RandomSteps(1), missed[0]);
  EXPECT_LE(steps.size(), 8U) << ToText(steps);
  EXPECT_FALSE(Replay(steps)) << ToText(steps);
}

}  // namespace

}  // namespace ondaro::model
