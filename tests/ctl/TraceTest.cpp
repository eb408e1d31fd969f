#include <gmock/gmock.h>
#include <signal.h>

#include <array>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <sstream>

#include "Tool.h"
#include "TraceCalls.h"

namespace ondaro::test {
namespace {

using Figures = std::map<std::string, std::array<Json::Int64, 3>>;  // calls, errors, time

/// A line as the host backend writes it: "+f" enters f, "-f" leaves it, all else is a failure.
std::string LogLine(int time, const std::string& ids, const std::string& what) {
  const std::string call = "[void A::" + what.substr(1) + "(int)]";
  const std::string text = what[0] == '+'   ? "I T: D.h: ONDAROCALLTRACE(2) > " + call + "Entered "
                           : what[0] == '-' ? "I T: D.h: ~ONDAROCALLTRACE(3) > " + call + "Left"
                                            : "E T: A.cpp: g(4) > Failed to get key " + what;
  return "    1." + std::to_string(time) + " " + ids + " " + text + "\n";
}

/// Calls in several threads, one of them of a process whose lines name no thread.
std::vector<std::string> Generate(std::mt19937& random, Figures& figures) {
  constexpr int LAST = 102000;
  const std::string ids[] = {"   10    10", "   10    11", "   20    20", "   30"};
  std::vector<std::pair<std::string, int>> threads[4];
  std::vector<std::string> lines;
  for (int time = 100000; time < LAST + 40; ++time) {
    auto& open = threads[time % 4];
    const auto choice = time < LAST ? random() % 6 : 5;
    if (choice < 2 && open.size() < 9) {
      open.emplace_back(std::string(1, static_cast<char>('a' + random() % 4)), time);
      lines.push_back(LogLine(time, ids[time % 4], "+" + open.back().first));
    } else if (choice == 2 && !open.empty()) {
      lines.push_back(LogLine(time, ids[time % 4], "%%;#\"<b>\\n$$\xff"));
      ++figures["A::" + open.back().first][1];
    } else if (choice > 3 && !open.empty()) {
      const auto [name, begin] = open.back();
      open.pop_back();
      lines.push_back(LogLine(time, ids[time % 4], "-" + name));
      auto& [calls, errors, total] = figures["A::" + name];
      ++calls;
      total += time - begin;
    }
  }
  return lines;
}

std::string Damaged(const std::vector<std::string>& lines, std::mt19937& random) {
  std::string text;
  for (const std::string& line : lines) {
    const auto fate = random() % 25;  // lost, cut, doubled, late, changed; else it stays
    text += fate == 0 ? "" : line.substr(0, fate == 1 ? random() % line.size() : line.size());
    text += fate == 2 ? line : fate == 3 ? lines[random() % lines.size()] : "";
    if (fate == 4) {
      text[text.size() - 1 - random() % line.size()] = static_cast<char>(random());
    }
  }
  return text;
}

class TraceTest : public ToolTest {};

TEST_F(TraceTest, WholeLogsAddUpAndDamagedOnesStayNested) {
  for (unsigned seed = 1; seed <= 15; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Figures expected;
    const std::vector<std::string> lines = Generate(random, expected);
    std::ofstream(Path("log")) << std::accumulate(lines.begin(), lines.end(), std::string());
    const Outcome whole = Run({"trace", "--json", Path("log")});
    EXPECT_EQ(whole.err, "");
    Figures figures;
    for (const Json::Value& row : ParseObjects(whole.out)) {
      figures[row["function"].asString()] = {row["calls"].asInt64(), row["errors"].asInt64(),
                                             row["total_us"].asInt64()};
    }
    EXPECT_EQ(figures, expected);

    std::ofstream(Path("log")) << Damaged(lines, random);
    EXPECT_NE(CallsOf(Run({"trace", "--format", "chrome", "--json", Path("log")}).out), "");
    int active = 0;
    std::istringstream diagram(Run({"trace", "--format", "mermaid", Path("log")}).out);
    for (std::string line; std::getline(diagram, line);) {
      active += line.find("->>+") == std::string::npos ? 0 : 1;
      active -= line.find("-->>-") == std::string::npos ? 0 : 1;
      EXPECT_GE(active, 0);
      const std::string text = line.substr(std::min(line.find(": "), line.size()));
      EXPECT_EQ(text.find_first_of("%\"<>\\$"), std::string::npos) << line;
    }
    EXPECT_EQ(active, 0);
  }
  const Outcome checked =
      RunShell("cd '" + Path("") + "'; $CTL trace --format chrome log >events; " +
               ONDARO_JSONSCHEMA " -i events " ONDARO_TRACE_SCHEMA);
  EXPECT_EQ(checked.code, 0) << checked.out << checked.err;
}

TEST_F(TraceTest, LostLinesAreHealed) {
  const struct {
    std::vector<std::pair<int, std::string>> lines;
    std::string calls;
  } cases[] = {
      {{{1, "+a"}, {2, "+b"}, {3, "+c"}, {4, "-a"}}, " Ba Bb Bc Ec? Eb? Ea"},
      {{{1, "-a"}, {2, "+b"}}, " Ba Ea? Bb Eb?"},
      {{{1, "+a"}, {1, "+a"}, {2, "-a"}, {2, "-a"}}, " Ba Ea"},
      {{{1, "+a"}, {2, "+a"}, {3, "-a"}, {4, "-a"}}, " Ba Ba Ea Ea"},
      {{{9, "+a"}, {3, "+b"}, {4, "-b"}, {2, "-a"}}, " Ba Bb Eb Ea"},
  };
  for (const auto& [lines, calls] : cases) {
    std::string log;
    for (const auto& [time, what] : lines) {
      log += LogLine(100000 + time, "    7", what);
    }
    EXPECT_EQ(CallsOf(Run({"trace", "--format", "chrome", "--json"}, log).out), calls);
  }
}

TEST_F(TraceTest, ItsOwnLogIsShownUntilCtrlC) {
  EXPECT_EQ(Run({"--log", "verbose:" + Path("own"), "set", "ONDARO_STATUS", "a;b"}).code, 0);
  const auto trace = Start({"trace", "--format", "mermaid"});
  trace->Write(ReadWholeFile(Path("own")));
  EXPECT_TRUE(trace->ReadLineWith("Application->>+Library: OndaroApi_SystemConfig_SetProperty"));
  EXPECT_TRUE(
      trace->ReadLineWith("Library->>Store: set memory/menu/network/ondaro_status as a#59;b"));
  EXPECT_TRUE(trace->ReadLineWith("Library-->>-Application: OndaroApi_SystemConfig_SetProperty, "));
  trace->Signal(SIGINT);
  EXPECT_EQ(trace->Wait(), 0);
}

}  // namespace
}  // namespace ondaro::test
