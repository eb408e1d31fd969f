// Random sequences, done to the library and to the model side by side, each in a process of its
// own; one that fails, also by crashing, shrinks itself.

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "model/Subject.h"
#include "support/Tier.h"

namespace ondaro::model {

namespace {

constexpr unsigned STEPS_PER_RUN = 1000;
const std::string NO_LINE = "of no line";

Steps RandomSteps(unsigned seed) {
  Dice dice(seed);
  Steps steps;
  std::generate_n(std::back_inserter(steps), STEPS_PER_RUN, [&] { return dice.Throw(OPS); });
  return steps;
}

/// Empty without a difference. The model does not expect lines that contain `missed`.
std::string Compare(const Steps& steps, const std::string& missed) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));
  const auto isMissed = [&](const std::string& line) {
    return line.find(missed) != std::string::npos;
  };
  for (std::size_t done = 0; done <= steps.size(); ++done) {
    const Step* step = done == 0 ? nullptr : &steps[done - 1];
    Lines expected = TheModel().Perform(step);
    const Lines observed = TheLibrary().Perform(step);
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

bool Fails(const Steps& steps, const std::string& missed = NO_LINE, bool isTold = false) {
  std::fflush(nullptr);  // or the child would write it once more
  const pid_t child = fork();
  if (child == 0) {
    const std::string difference = Compare(steps, missed);
    std::fputs(isTold ? difference.c_str() : "", stderr);
    std::exit(difference.empty() ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status != 0;
}

/// Leaves out ever smaller parts as long as it still fails.
Steps Shrink(Steps steps, const std::string& missed = NO_LINE) {
  for (std::size_t part = steps.size() / 2; part > 0;) {
    bool hasShrunk = false;
    for (std::size_t end = steps.size(); end > 0; end -= std::min(end, part)) {
      Steps candidate = steps;
      const auto last = candidate.begin() + static_cast<std::ptrdiff_t>(end);
      candidate.erase(last - static_cast<std::ptrdiff_t>(std::min(end, part)), last);
      if (Fails(candidate, missed)) {
        steps = candidate;
        hasShrunk = true;
      }
    }
    part = part > 1 || !hasShrunk ? part / 2 : part;
  }
  return steps;
}

std::string ToText(const Steps& steps) {
  std::ostringstream text;
  for (const Step& step : steps) {
    text << "{Op(" << step.op << "), " << step.a << ", " << step.b << "}, ";
  }
  return text.str();
}

TEST(Model, RandomSequencesHold) {
  for (unsigned seed = 1; seed <= test::ByTier(8U, 30U, 100U); ++seed) {
    if (Fails(RandomSteps(seed), NO_LINE, true)) {
      const Steps few = Shrink(RandomSteps(seed));
      FAIL() << ToText(few) << Fails(few, NO_LINE, true);
    }
  }
}

// A model that is wrong in one place is found out, and a few steps are left of the sequence.
TEST(Model, AWrongModelIsFoundAndTheSequenceShrinks) {
  const std::string missed[] = {"EVENT", "g_dbus_proxy_call result", "is undefined"};
  for (const std::string& line : missed) {
    EXPECT_TRUE(Fails(RandomSteps(1), line)) << line;
  }
  const Steps steps = Shrink(RandomSteps(1), missed[0]);
  EXPECT_LE(steps.size(), 8U) << ToText(steps);
  EXPECT_FALSE(Fails(steps)) << ToText(steps);
}

}  // namespace

}  // namespace ondaro::model
