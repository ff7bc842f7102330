#include "bench/target_report.hpp"

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace boxlane::bench {

namespace {

class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  explicit KeepingReporter(Results& results) : results_(results) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) {
        failed = true;
        continue;
      }
      results_.runs.push_back(run);
    }
  }

  bool failed = false;

 private:
  Results& results_;
};

}  // namespace

const Run* Results::find(const std::string& name) const {
  const Run* last = nullptr;
  for (const Run& run : runs) {
    const std::string full = run.benchmark_name();
    if (full == name + "_median") return &run;
    if (full == name && run.run_type == Run::RT_Iteration) last = &run;
  }
  return last;
}

double Results::counter(const std::string& name, const std::string& counter) const {
  const Run* run = find(name);
  if (!run) return std::numeric_limits<double>::quiet_NaN();
  const auto it = run->counters.find(counter);
  return it == run->counters.end() ? std::numeric_limits<double>::quiet_NaN() : it->second.value;
}

bool print_target(const std::string& what, double value, double limit, bool at_least, const char* unit) {
  if (std::isnan(value)) {
    std::printf("TARGET %-58s %12s %s %-8g %-6s NOT MEASURED\n", what.c_str(), "-", at_least ? ">=" : "<=", limit,
                unit);
    return false;
  }
  const bool holds = at_least ? value >= limit : value <= limit;
  std::printf("TARGET %-58s %12.3f %s %-8g %-6s %s\n", what.c_str(), value, at_least ? ">=" : "<=", limit, unit,
              holds ? "HOLDS" : "DOES NOT HOLD");
  return holds;
}

int run_benchmarks(int argc, char** argv, const std::function<void(const Results&)>& summary, int repetitions) {
  // Defaults go first: a flag given on the command line comes later and wins.
  std::string repeat = "--benchmark_repetitions=" + std::to_string(repetitions);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_display_aggregates_only=true";
  std::vector<char*> args{argv[0]};
  if (repetitions > 1) {
    args.push_back(repeat.data());
    args.push_back(interleave.data());
    args.push_back(aggregates.data());
  }
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;
  Results results;
  KeepingReporter reporter(results);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::fflush(stdout);
  std::printf("\n");
  summary(results);
  return reporter.failed ? 1 : 0;
}

}  // namespace boxlane::bench
