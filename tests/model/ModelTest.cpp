// Random sequences, done to the library and to the model side by side, each in a process of its
// own; one that fails, also by crashing, shrinks itself.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "model/Subject.h"
#include "support/Child.h"
#include "support/Files.h"
#include "support/Tier.h"

namespace ondaro::model {

void PrintTo(const Step& step, std::ostream* out) {
  *out << step.op << " " << step.family << " " << step.a << " " << step.b;
}

namespace {

const std::string NO_LINE = "of no line";

Steps RandomSteps(unsigned seed) {
  Dice dice(seed);
  Steps steps(1000);
  std::generate(steps.begin(), steps.end(), [&] { return Throw(dice, std::size(WEIGHTS)); });
  return steps;
}

/// Empty without a difference. The model does not expect lines that contain `missed`.
std::string Compare(const Steps& steps, const std::string& missed) {
  const auto isMissed = [&](const std::string& line) {
    return line.find(missed) != std::string::npos;
  };
  for (const Step& step : steps) {
    Lines expected = TheModel().Perform(step);
    const Lines observed = TheLibrary().Perform(step);
    expected.erase(std::remove_if(expected.begin(), expected.end(), isMissed), expected.end());
    const auto [seen, known] =
        std::mismatch(observed.begin(), observed.end(), expected.begin(), expected.end());
    if (seen != observed.end() || known != expected.end()) {
      return "at step " + testing::PrintToString(step) +
             "\n  expected: " + (known != expected.end() ? *known : "(nothing)") +
             "\n  observed: " + (seen != observed.end() ? *seen : "(nothing)") + "\n";
    }
  }
  return "";
}

/// The same in a process of its own, whose end is part of it.
std::string Difference(const Steps& steps, const std::string& missed = NO_LINE) {
  const test::TemporaryDirectory directory;
  std::fflush(nullptr);  // or the child would write it once more
  const int status = test::RunInChild([&] {
    test::WriteFile(directory / "text", Compare(steps, missed));
    std::exit(EXIT_SUCCESS);
  });
  return status == 0 ? test::ReadFile(directory / "text") : "ended by " + std::to_string(status);
}

/// Leaves out ever smaller parts as long as it still fails.
Steps Shrink(Steps steps, const std::string& missed = NO_LINE) {
  for (std::size_t part = steps.size() / 2; part > 0; part /= 2) {
    for (std::size_t begin = 0; begin < steps.size();) {
      Steps fewer = steps;
      const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(begin);
      fewer.erase(first, first + std::min(fewer.end() - first, static_cast<std::ptrdiff_t>(part)));
      if (Difference(fewer, missed).empty()) {
        begin += part;
      } else {
        steps = fewer;
      }
    }
  }
  return steps;
}

TEST(Model, RandomSequencesHold) {
  for (unsigned seed = 1; seed <= test::ByTier(8U, 30U, 100U); ++seed) {
    if (!Difference(RandomSteps(seed)).empty()) {
      const Steps few = Shrink(RandomSteps(seed));
      FAIL() << testing::PrintToString(few) << Difference(few);
    }
  }
}

TEST(Model, WrongModelsAreFoundAndTheirSequencesShrink) {
  for (const std::string missed : {"EVENT", "g_dbus_proxy_call result", "is undefined"}) {
    const Steps few = Shrink(RandomSteps(1), missed);
    EXPECT_LE(few.size(), 8U) << testing::PrintToString(few);
    EXPECT_NE(Difference(few, missed), "");
    EXPECT_EQ(Difference(few), "");
  }
}

}  // namespace

}  // namespace ondaro::model
