#ifndef ONDARO_BENCH_COMPARE_H
#define ONDARO_BENCH_COMPARE_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

/// Times an operation against its plain counterpart in one run: blocks of both alternate, so that
/// what else the machine does falls on both, and medians are compared.
namespace Compare {

constexpr int BLOCKS = 40;

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

template <typename TOperation>
double NanosecondsEach(const TOperation& operation, int repetitions) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repetitions; ++i) {
    operation();
  }
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count() / repetitions;
}

/// To be run with Iterations(BLOCKS); one iteration is one block of each.
template <typename TSubject, typename TPlain>
void Run(benchmark::State& state, int repetitions, const TSubject& subject, const TPlain& plain) {
  std::vector<double> subjectTimes;
  std::vector<double> plainTimes;
  for (auto _ : state) {
    subjectTimes.push_back(NanosecondsEach(subject, repetitions));
    plainTimes.push_back(NanosecondsEach(plain, repetitions));
  }
  const double subjectTime = Median(subjectTimes);
  const double plainTime = Median(plainTimes);
  state.counters["subject_ns"] = subjectTime;
  state.counters["plain_ns"] = plainTime;
  state.counters["share_ns"] = subjectTime - plainTime;
  state.counters["ratio"] = subjectTime / plainTime;
}

}  // namespace Compare

#endif
