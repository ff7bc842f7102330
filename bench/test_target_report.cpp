// The summary lines decide whether a target HOLDS, so they must read the
// right run: the median of repeated runs, never one repetition, and a run
// that did not happen must show as not measured rather than as a pass.
#include "bench/target_report.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using boxlane::bench::print_target;
using boxlane::bench::Results;
using boxlane::bench::Run;

Run run(const char* name, double rate, const char* aggregate = nullptr) {
  Run r;
  r.run_name.function_name = name;
  if (aggregate) {
    r.run_type = Run::RT_Aggregate;
    r.aggregate_name = aggregate;
  }
  r.counters["bytes_per_second"] = benchmark::Counter(rate);
  return r;
}

TEST(TargetReport, ReadsTheMedianOfRepeatedRunsAndNothingElse) {
  Results results;
  results.runs = {run("parse", 1.0), run("parse", 9.0), run("parse", 5.0, "mean"), run("parse", 4.0, "median"),
                  run("parse", 3.0, "stddev"), run("parse/64KiB_pieces", 7.0)};
  EXPECT_EQ(results.counter("parse", "bytes_per_second"), 4.0);
  // A single run (no repetitions) is read as it is; a longer name that starts
  // with the same words is another benchmark.
  EXPECT_EQ(results.counter("parse/64KiB_pieces", "bytes_per_second"), 7.0);
  EXPECT_TRUE(std::isnan(results.counter("parse", "items_per_second")));
  EXPECT_TRUE(std::isnan(results.counter("memcpy", "bytes_per_second")));
}

TEST(TargetReport, LimitsHoldInclusivelyAndUnmeasuredNeverHolds) {
  EXPECT_TRUE(print_target("at least, on the limit", 0.25, 0.25, true, "x"));
  EXPECT_FALSE(print_target("at least, below", 0.2499, 0.25, true, "x"));
  EXPECT_TRUE(print_target("at most, on the limit", 16, 16, false, "B"));
  EXPECT_FALSE(print_target("at most, above", 16.01, 16, false, "B"));
  EXPECT_FALSE(print_target("not measured", std::nan(""), 16, false, "B"));
}

}  // namespace
