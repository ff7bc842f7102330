// Runs the registered benchmarks with a console reporter that also keeps
// every result, so that each program can end with its targets: the measured
// value, the limit, and whether it holds. Speed is reported, never asserted.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace boxlane::bench {

using Run = benchmark::BenchmarkReporter::Run;

struct Results {
  // The run of that name: its median when it was repeated, else its last
  // repetition; null when it was filtered out or failed.
  const Run* find(const std::string& name) const;
  // A counter of that run (rates are already per second); NaN when absent.
  double counter(const std::string& name, const std::string& counter) const;

  std::vector<Run> runs;
};

// Prints one line of the summary and returns whether the target holds. A
// value that was not measured (NaN) is reported as such and does not hold.
bool print_target(const std::string& what, double value, double limit, bool at_least, const char* unit);

// Runs what is registered with the command-line options of Google Benchmark,
// then hands the results to `summary`. Unless the command line says
// otherwise, each benchmark is repeated `repetitions` times with the
// repetitions of all benchmarks shuffled together, so that a baseline and
// what is measured against it see the same machine, and the summary uses the
// medians. Exit status 1 when a benchmark reported an error (its self-check
// failed), 2 for bad options, else 0.
int run_benchmarks(int argc, char** argv, const std::function<void(const Results&)>& summary,
                   int repetitions = 5);

}  // namespace boxlane::bench
