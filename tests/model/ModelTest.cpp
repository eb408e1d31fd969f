// Random sequences, done to the library and to the model side by side, each in a process of its
// own; one that fails, also by crashing, shrinks itself and is kept.

#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>

#include "Tier.h"
#include "bus/ChildProcess.h"
#include "model/Step.h"

namespace ondaro::model {

namespace {

using Steps = std::vector<Step>;

constexpr unsigned STEPS_PER_RUN = 1000;

/// A model that does not expect these lines is wrong; one that misses nothing is right.
const std::string MISSED[] = {"of no line", "EVENT", "unexpected arguments",
                              "g_dbus_proxy_call result", "apicallback is null"};

// ---- In a process of its own --------------------------------------------------------------------

void Print(const char* title, const Lines& lines, std::size_t from) {
  std::cout << title << '\n';
  for (std::size_t index = from; index < std::min(lines.size(), from + 3); ++index) {
    std::cout << "    " << lines[index] << '\n';
  }
}

/// The exit code: 0 without a difference, 1 with one.
int Compare(unsigned wrong, const char* fileName) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));
  std::ifstream file(fileName);
  const Steps steps(std::istream_iterator<Step>(file), {});
  if (!file.eof() || steps.empty()) {
    return 2;
  }
  Faults faults;
  const Performer library = MakeLibrary(faults), model = MakeModel(faults);
  for (std::size_t done = 0; done < steps.size(); ++done) {
    Lines expected = model(steps[done]);
    const Lines observed = library(steps[done]);
    expected.erase(std::remove_if(expected.begin(), expected.end(),
                                  [&](const std::string& line) {
                                    return line.find(MISSED[wrong]) != std::string::npos;
                                  }),
                   expected.end());
    if (observed != expected) {
      const auto difference =
          std::mismatch(observed.begin(), observed.end(), expected.begin(), expected.end());
      const auto same = static_cast<std::size_t>(difference.first - observed.begin());
      std::cout << "Different at step " << done << ", " << steps[done] << ", after " << same
                << " lines alike\n";
      Print("expected:", expected, same);
      Print("observed:", observed, same);
      std::cout << std::flush;
      return 1;
    }
  }
  return 0;
}

// ---- The test's process -------------------------------------------------------------------------

/// What went wrong, if anything did.
using Failure = std::optional<std::string>;

Failure Replay(unsigned wrong, const std::string& file) {
  test::ChildProcess child({"/proc/self/exe", "--compare", std::to_string(wrong), file},
                           {true, ""});
  const std::string report = child.ReadAll();
  const int exit = child.Wait();
  return exit == 0 ? Failure() : "exit " + std::to_string(exit) + "\n" + report;
}

std::string ToText(const Steps& steps) {
  std::ostringstream text;
  std::copy(steps.begin(), steps.end(), std::ostream_iterator<Step>(text, "\n"));
  return text.str();
}

Failure Replay(unsigned wrong, const Steps& steps) {
  const std::string file = testing::TempDir() + "model-" + std::to_string(getpid()) + ".steps";
  std::ofstream(file) << ToText(steps);
  auto failure = Replay(wrong, file);
  std::filesystem::remove(file);
  return failure;
}

/// Leaves out ever smaller parts, and then makes numbers zero, as long as it still fails.
Steps Shrink(unsigned wrong, Steps steps) {
  const auto keepIfFailing = [&](const Steps& candidate) {
    const bool isFailing = !candidate.empty() && Replay(wrong, candidate).has_value();
    if (isFailing) {
      steps = candidate;
    }
    return isFailing;
  };
  for (std::size_t part = steps.size() / 2; part > 0;) {
    bool hasShrunk = false;
    for (std::size_t end = steps.size(); end > 0; end -= std::min(end, part)) {
      Steps candidate = steps;
      const auto last = candidate.begin() + static_cast<std::ptrdiff_t>(end);
      candidate.erase(last - static_cast<std::ptrdiff_t>(std::min(end, part)), last);
      hasShrunk = keepIfFailing(candidate) || hasShrunk;
    }
    if (part > 1 || !hasShrunk) {
      part /= 2;
    }
  }
  for (std::size_t index = 0; index < steps.size(); ++index) {
    for (unsigned Step::*number : {&Step::a, &Step::b, &Step::c}) {
      Steps candidate = steps;
      candidate[index].*number = 0;
      keepIfFailing(candidate);
    }
  }
  return steps;
}

TEST(Model, TheCorpusHolds) {
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ONDARO_MODEL_CORPUS)) {
    const auto failure = Replay(0, entry.path().string());
    EXPECT_FALSE(failure) << entry.path() << '\n' << *failure;
    ++files;
  }
  EXPECT_GT(files, 0);
}

TEST(Model, RandomSequencesHold) {
  const unsigned runs = test::ByTier(8U, 30U, 100U);
  for (unsigned seed = 1; seed <= runs; ++seed) {
    const Steps sequence = RandomSteps(seed, STEPS_PER_RUN);
    const auto failure = Replay(0, sequence);
    if (!failure) {
      continue;
    }
    const Steps steps = Shrink(0, sequence);
    const std::string name = "seed-" + std::to_string(seed) + ".steps";
    std::ofstream(std::string(ONDARO_MODEL_CORPUS) + "/" + name) << ToText(steps);
    FAIL() << *failure << "kept in the corpus as " << name << ":\n" << ToText(steps);
  }
}

// A model that is wrong in one place is found out, and a few steps are left of the sequence.
TEST(Model, AWrongModelIsFoundAndTheSequenceShrinks) {
  for (unsigned wrong = 1; wrong < std::size(MISSED); ++wrong) {
    SCOPED_TRACE(MISSED[wrong]);
    const Steps sequence = RandomSteps(1, STEPS_PER_RUN);
    const auto failure = Replay(wrong, sequence);
    ASSERT_TRUE(failure);
    if (wrong > test::ByTier(1U, 2U, wrong)) {
      continue;
    }
    const Steps steps = Shrink(wrong, sequence);
    EXPECT_LE(steps.size(), 8U) << ToText(steps);
    const auto without = Replay(0, steps);
    EXPECT_FALSE(without) << *without << ToText(steps);
  }
}

}  // namespace

}  // namespace ondaro::model

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--compare") {
    return ondaro::model::Compare(static_cast<unsigned>(std::atoi(argv[2])), argv[3]);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
