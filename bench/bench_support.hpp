// What the benchmark programs share: per-iteration samples reported as
// median and 99th percentile, the run plan (full or smoke), unique names,
// and a main() that registers the benchmarks for the plan.
//
// Every figure is timed per iteration with the steady clock around the
// operation alone (set-up and checks are outside), handed to Google
// Benchmark as manual time, and reported as the counters median_ns and
// p99_ns, which scripts/bench turns into its table.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace erbench {

using Clock = std::chrono::steady_clock;

// Durations of the timed part of each iteration of one figure.
class Samples {
 public:
  // Times one call of `operation`, records it and hands it to `state`.
  template <class Operation>
  void time(benchmark::State& state, Operation&& operation) {
    const auto start = Clock::now();
    operation();
    const auto elapsed = Clock::now() - start;
    add(state, elapsed);
  }

  void add(benchmark::State& state, Clock::duration elapsed) {
    const double ns = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    values.push_back(ns);
    state.SetIterationTime(ns * 1e-9);
  }

  // Records a duration measured elsewhere, without handing it to Google
  // Benchmark (a second figure timed within the same iterations).
  void addSide(Clock::duration elapsed) {
    values.push_back(static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
  }

  // Nearest-rank percentile, `fraction` in (0, 1]; 0 when empty.
  double percentile(double fraction) const {
    if (values.empty()) return 0;
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
  }
  double median() const { return percentile(0.5); }
  double p99() const { return percentile(0.99); }
  std::size_t size() const { return values.size(); }

  // Sets the counters median_ns and p99_ns (with `prefix` before each name),
  // and `items`: how many records or names one iteration handles.
  void report(benchmark::State& state, double items = 1, const std::string& prefix = "") const {
    state.counters[prefix + "median_ns"] = median();
    state.counters[prefix + "p99_ns"] = p99();
    if (prefix.empty()) state.counters["items"] = items;
  }

 private:
  std::vector<double> values;
};

// Sizes of one run. A smoke run (--smoke) only checks that every figure can
// be measured: tiny N and few iterations.
struct Plan {
  bool smoke = false;

  // The numbers of live endpoints (or owned names) for the N-sweeps.
  std::vector<long> sizes() const { return smoke ? std::vector<long>{10} : std::vector<long>{10, 100, 1000, 10000}; }
  // Iterations for a figure whose full run uses `full` of them.
  long iterations(long full) const { return smoke ? std::min<long>(full, 5) : full; }
  // Iterations of a sweep figure at size n: fewer for the large sizes, so
  // that a full run stays within its time budget.
  long sweepIterations(long n, long full) const {
    if (smoke) return std::min<long>(full, 3);
    if (n >= 10000) return std::max<long>(full / 20, 10);
    if (n >= 1000) return std::max<long>(full / 4, 20);
    return full;
  }
};

inline Plan& plan() {
  static Plan thePlan;
  return thePlan;
}

// A name of its own for this process: prefix, process id, serial number.
inline std::string uniqueName(const std::string& prefix) {
  static long serial = 0;
  return prefix + std::to_string(getpid()) + "n" + std::to_string(serial++);
}

// Registers one figure timed with manual time for a fixed number of
// iterations, reported in microseconds.
inline benchmark::internal::Benchmark* figure(const std::string& name, std::function<void(benchmark::State&)> body,
                                              long iterations) {
  return benchmark::RegisterBenchmark(name.c_str(), [body](benchmark::State& state) { body(state); })
      ->UseManualTime()
      ->Iterations(iterations)
      ->Unit(benchmark::kMicrosecond);
}

// The main() of a benchmark program: takes --smoke off the arguments,
// registers the figures for the plan, then runs Google Benchmark.
inline int runBenchmarks(int argc, char** argv, const std::function<void(const Plan&)>& registerFigures) {
  std::vector<char*> arguments;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--smoke") == 0) {
      plan().smoke = true;
    } else {
      arguments.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  registerFigures(plan());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace erbench
