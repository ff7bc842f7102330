// The parser on a one-hour movie header (ftyp and moov, about 108,000 video
// and 169,000 audio samples), in one piece and in 64 KiB pieces, with and
// without taking every table back through the queries, beside memcpy of the
// same bytes. --movie_out=FILE writes the movie header and exits, so an
// independent reader can check it.
#include "bench/parse_driver.hpp"
#include "bench/synthetic_movie.hpp"
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using boxlane::bench::SyntheticMovie;

constexpr char kClient[] = "bench-parse";
constexpr std::size_t kPiece = 64 << 10;

const SyntheticMovie& movie() {
  static const SyntheticMovie m = boxlane::bench::build_movie();
  return m;
}

void set_rates(benchmark::State& state) {
  const auto n = static_cast<int64_t>(state.iterations());
  state.SetBytesProcessed(n * static_cast<int64_t>(movie().bytes.size()));
  state.counters["entries_per_second"] =
      benchmark::Counter(static_cast<double>(n) * static_cast<double>(movie().table_entries()),
                         benchmark::Counter::kIsRate);
}

// One untimed pass first: a parser that hands back other tables than the
// movie holds must not be timed at all.
bool parses_correctly(benchmark::State& state, std::size_t piece) {
  Boxlane_Parse_Insert(kClient);
  std::string error;
  if (!boxlane::bench::send_in_pieces(kClient, movie().bytes.data(), movie().bytes.size(), piece)) {
    error = "Send failed with " + std::to_string(Boxlane_GetLastError(nullptr));
  } else if (boxlane::bench::drain_headers(kClient) == 0) {
    error = "no header records were queued";
  } else {
    error = boxlane::bench::check_tables(kClient, movie());
  }
  Boxlane_Parse_Delete(kClient);
  if (!error.empty()) state.SkipWithError(error.c_str());
  return error.empty();
}

void BM_memcpy(benchmark::State& state) {
  const std::vector<uint8_t>& src = movie().bytes;
  std::vector<uint8_t> dst(src.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  set_rates(state);
}

void BM_parse(benchmark::State& state, std::size_t piece, bool queries) {
  if (!parses_correctly(state, piece)) return;
  const SyntheticMovie& m = movie();
  for (auto _ : state) {
    Boxlane_Parse_Insert(kClient);
    boxlane::bench::send_in_pieces(kClient, m.bytes.data(), m.bytes.size(), piece);
    benchmark::DoNotOptimize(boxlane::bench::drain_headers(kClient));
    if (queries) benchmark::DoNotOptimize(boxlane::bench::take_everything(kClient));
    Boxlane_Parse_Delete(kClient);
  }
  set_rates(state);
}

void BM_queries(benchmark::State& state) {
  if (!parses_correctly(state, 0)) return;
  const SyntheticMovie& m = movie();
  Boxlane_Parse_Insert(kClient);
  boxlane::bench::send_in_pieces(kClient, m.bytes.data(), m.bytes.size(), 0);
  boxlane::bench::drain_headers(kClient);
  for (auto _ : state) benchmark::DoNotOptimize(boxlane::bench::take_everything(kClient));
  Boxlane_Parse_Delete(kClient);
  set_rates(state);
}

void register_all() {
  benchmark::RegisterBenchmark("memcpy/moov", BM_memcpy)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("parse/one_piece", BM_parse, 0, false)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("parse/64KiB_pieces", BM_parse, kPiece, false)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("parse+queries/one_piece", BM_parse, 0, true)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("parse+queries/64KiB_pieces", BM_parse, kPiece, true)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("queries/every_table", BM_queries)->Unit(benchmark::kMillisecond);
}

void summary(const boxlane::bench::Results& results) {
  const double base = results.counter("memcpy/moov", "bytes_per_second");
  std::printf("movie header: %zu bytes, %llu table entries\n", movie().bytes.size(),
              static_cast<unsigned long long>(movie().table_entries()));
  boxlane::bench::print_target("parse, one piece / memcpy (bandwidth over the moov)",
                               results.counter("parse/one_piece", "bytes_per_second") / base, 0.25, true, "x");
  boxlane::bench::print_target("parse, 64 KiB pieces / memcpy",
                               results.counter("parse/64KiB_pieces", "bytes_per_second") / base, 0.25, true, "x");
  std::printf("INFO   parse+queries, one piece / memcpy: %.3f x; queries alone: %.1f M entries/s\n",
              results.counter("parse+queries/one_piece", "bytes_per_second") / base,
              results.counter("queries/every_table", "entries_per_second") / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  const char* kMovieOut = "--movie_out=";
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], kMovieOut, std::strlen(kMovieOut)) != 0) continue;
    std::FILE* out = std::fopen(argv[i] + std::strlen(kMovieOut), "wb");
    const bool ok = out && std::fwrite(movie().bytes.data(), 1, movie().bytes.size(), out) == movie().bytes.size();
    if (out) std::fclose(out);
    return ok ? 0 : 1;
  }
  Boxlane_Parse_Init(1);
  register_all();
  const int status = boxlane::bench::run_benchmarks(argc, argv, summary);
  Boxlane_Parse_Destory();
  return status;
}
