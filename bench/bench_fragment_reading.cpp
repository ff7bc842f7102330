// Movie fragments and the per-sample index beside memcpy. One hour of a
// fragmented stream is sent moof by moof to a client in the extended mode,
// and each moof's track fragments are taken as a worker takes them: into
// one array the caller keeps (the form Boxlane_Parse_GetFragment has), and,
// to compare, into a pointer array from Fundrel_Memory_Malloc per answer
// (the form the table queries have). The hour comes as six moofs of ten
// minutes, where reading the truns is the work (the target, as the table
// readers' is over a large moov), and as 1800 moofs of two seconds, a live
// packager's, where each moof's boxes and records cost as much as its
// samples. Bandwidth is over the moof bytes, against memcpy of the same
// bytes. Then the moov's per-sample index of the one-hour movie header of
// boxlane_bench_parse, window by window.
#include "bench/synthetic_fragments.hpp"
#include "bench/synthetic_movie.hpp"
#include "bench/parse_driver.hpp"
#include "bench/target_report.hpp"

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using boxlane::bench::FragmentedStream;

constexpr char kClient[] = "bench-fragments";

const FragmentedStream& long_moofs() {
  static const FragmentedStream s = boxlane::bench::build_fragments(6, 600);
  return s;
}
const FragmentedStream& short_moofs() {
  static const FragmentedStream s = boxlane::bench::build_fragments(1800, 2);
  return s;
}

// Every moof's bytes back to back: what memcpy copies.
std::vector<uint8_t> moof_bytes(const FragmentedStream& stream) {
  std::vector<uint8_t> all;
  for (const auto& f : stream.fragments) all.insert(all.end(), f.begin(), f.end() - 8);
  return all;
}

void set_rates(benchmark::State& state, const FragmentedStream& stream) {
  const auto n = static_cast<int64_t>(state.iterations());
  state.SetBytesProcessed(n * static_cast<int64_t>(stream.moof_bytes));
  state.counters["samples_per_second"] =
      benchmark::Counter(static_cast<double>(n) * static_cast<double>(stream.samples), benchmark::Counter::kIsRate);
}

// Takes an answer into a Fundrel_Memory_Malloc pointer array and releases it,
// as a query of that form would hand it out.
uint64_t through_pointer_array(const BOXLANE_SAMPLEINFO* samples, int32_t count) {
  BOXLANE_SAMPLEINFO** rows = nullptr;
  if (!Fundrel_Memory_Malloc(reinterpret_cast<void***>(&rows), count, sizeof(BOXLANE_SAMPLEINFO))) return 0;
  for (int32_t i = 0; i < count; ++i) *rows[i] = samples[i];
  const uint64_t last = count ? rows[count - 1]->nOffset : 0;
  Fundrel_Memory_Free(reinterpret_cast<void***>(&rows), count);
  return last;
}

// Sends the stream to a fresh client the way a receiver does, skipping
// every mdat payload, and takes each moof's answers right after its records.
// Returns the samples taken and their sizes summed.
enum class Take { caller_array, pointer_arrays };

// A client that has read the init segment: what a receiver keeps for the
// whole stream.
struct Receiver {
  Receiver() {
    Boxlane_Parse_InsertEx(kClient, BOXLANE_PARSE_EXTENDED);
    const FragmentedStream& s = long_moofs();
    boxlane::bench::send_in_pieces(kClient, s.init.data(), s.init.size(), 0);
    boxlane::bench::drain_headers(kClient);
  }
  ~Receiver() { Boxlane_Parse_Delete(kClient); }
};

// Sends the stream to the client the way a receiver does, skipping every
// mdat payload, and takes each moof's answers right after its records.
// Returns the samples taken and their sizes summed.
std::pair<uint64_t, uint64_t> receive(const FragmentedStream& s, Take take) {
  static std::vector<BOXLANE_SAMPLEINFO> buffer(1 << 16);
  uint64_t samples = 0, bytes = 0;
  for (const auto& f : s.fragments) {
    Boxlane_Parse_Send(kClient, f.data(), static_cast<int32_t>(f.size()));
    boxlane::bench::drain_headers(kClient);
    BOXLANE_FRAGMENTINFO info;
    int32_t count = 0;
    while (Boxlane_Parse_GetFragment(kClient, &info, buffer.data(), static_cast<int32_t>(buffer.size()), &count)) {
      samples += static_cast<uint64_t>(count);
      for (int32_t i = 0; i < count; ++i) bytes += buffer[static_cast<std::size_t>(i)].nSize;
      if (take == Take::pointer_arrays) benchmark::DoNotOptimize(through_pointer_array(buffer.data(), count));
    }
  }
  return {samples, bytes};
}

void BM_memcpy(benchmark::State& state, const FragmentedStream* stream) {
  const std::vector<uint8_t> src = moof_bytes(*stream);
  std::vector<uint8_t> dst(src.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  set_rates(state, *stream);
}

// The moof reader alone, on a record that knows the tracks and their trex:
// each moof read into its answers, which a worker then takes (here they are
// let go, as a taker leaves the queue).
void BM_moof_reader(benchmark::State& state, const FragmentedStream* stream) {
  QORVANE_MP4PARSE record;
  BOXLANE_MSGBUFFER entry;
  for (const int32_t id : {1, 2}) {
    (*record.stl_MapTrack)[id];
    record.stl_MapTrex[id] = {1, id == 1 ? 3000u : 1024u, 0, id == 1 ? 0x01010000u : 0x02000000u};
  }
  const auto read_all = [&] {
    uint64_t samples = 0;
    for (const auto& f : stream->fragments) {
      m_MP4Parse.Boxlane_Parse_MOof(&record, &entry, f.data() + 8, f.size() - 16);
      for (const auto& answer : record.stFragments.stl_ListFragment) samples += answer.stInfo.nSampleCount;
      record.stFragments.stl_ListFragment.clear();
      record.stFragments.nSamples = 0;
    }
    return samples;
  };
  if (read_all() != stream->samples) {
    state.SkipWithError("the reader did not read every sample");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(read_all());
  set_rates(state, *stream);
}

void BM_receive(benchmark::State& state, const FragmentedStream* stream, Take take) {
  const Receiver receiver;
  // One untimed pass: every sample must come back.
  const auto [samples, bytes] = receive(*stream, take);
  if (samples != stream->samples || bytes == 0) {
    state.SkipWithError(("took " + std::to_string(samples) + " of " + std::to_string(stream->samples) + " samples").c_str());
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(receive(*stream, take));
  set_rates(state, *stream);
}

// The moov's samples of the one-hour movie header, 64 Ki at a time into one
// array, or each track whole into a pointer array.
void BM_index(benchmark::State& state, bool pointer_array) {
  const auto& movie = []() -> const boxlane::bench::SyntheticMovie& {
    static const auto m = boxlane::bench::build_movie();
    return m;
  }();
  Boxlane_Parse_Insert(kClient);
  boxlane::bench::send_in_pieces(kClient, movie.bytes.data(), movie.bytes.size(), 0);
  boxlane::bench::drain_headers(kClient);
  std::vector<BOXLANE_SAMPLEINFO> window(std::size_t{1} << 16);
  uint64_t total = 0;
  for (auto _ : state) {
    total = 0;
    for (int32_t track = 1; track <= 2; ++track) {
      BOXLANE_TRACKINDEX index{};
      Boxlane_Parse_GetTrackIndex(kClient, track, &index);
      std::vector<BOXLANE_SAMPLEINFO> whole;
      if (pointer_array) whole.resize(index.nTableSamples);
      for (uint32_t first = 0; first < index.nTableSamples;) {
        BOXLANE_SAMPLEINFO* into = pointer_array ? whole.data() + first : window.data();
        const auto room = static_cast<int32_t>(pointer_array ? index.nTableSamples - first : window.size());
        int32_t got = 0;
        if (!Boxlane_Parse_GetTrackSamples(kClient, track, first, into, room, &got) || got == 0) break;
        first += static_cast<uint32_t>(got);
        total += static_cast<uint64_t>(got);
      }
      if (pointer_array) benchmark::DoNotOptimize(through_pointer_array(whole.data(), static_cast<int32_t>(whole.size())));
    }
  }
  Boxlane_Parse_Delete(kClient);
  if (total != uint64_t{movie.video.stsz} + movie.audio.stsz) {
    state.SkipWithError(("indexed " + std::to_string(total) + " samples").c_str());
    return;
  }
  state.counters["samples_per_second"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(total), benchmark::Counter::kIsRate);
}

void register_all() {
  for (const auto& [name, stream] : {std::pair{"10_minute", &long_moofs()}, std::pair{"2_second", &short_moofs()}}) {
    const std::string moofs = std::string("/") + name + "_moofs";
    benchmark::RegisterBenchmark(("memcpy" + moofs).c_str(), BM_memcpy, stream)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("read" + moofs).c_str(), BM_moof_reader, stream)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("caller_array" + moofs).c_str(), BM_receive, stream, Take::caller_array)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("pointer_arrays" + moofs).c_str(), BM_receive, stream, Take::pointer_arrays)->Unit(benchmark::kMillisecond);
  }
  benchmark::RegisterBenchmark("index/caller_window", BM_index, false)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("index/pointer_arrays", BM_index, true)->Unit(benchmark::kMillisecond);
}

void summary(const boxlane::bench::Results& results) {
  for (const auto& [name, stream] : {std::pair{"10_minute", &long_moofs()}, std::pair{"2_second", &short_moofs()}}) {
    const std::string moofs = std::string("/") + name + "_moofs";
    const double base = results.counter("memcpy" + moofs, "bytes_per_second");
    const double read = results.counter("read" + moofs, "bytes_per_second");
    const double caller = results.counter("caller_array" + moofs, "bytes_per_second");
    std::printf("one hour in %zu moofs: %llu moof bytes, %llu samples\n", stream->fragments.size(),
                static_cast<unsigned long long>(stream->moof_bytes), static_cast<unsigned long long>(stream->samples));
    const std::string what = "moofs of " + std::string(name) + " read (trun) / memcpy";
    if (stream == &long_moofs()) boxlane::bench::print_target(what, read / base, 0.25, true, "x");
    else std::printf("INFO   %s: %.3f x\n", what.c_str(), read / base);
    std::printf("INFO   %s, sent as a receiver sends and every answer taken: %.3f x memcpy, %.1f M samples/s into the "
                "caller's array; through pointer arrays %.3f x that bandwidth\n",
                name, caller / base, results.counter("caller_array" + moofs, "samples_per_second") / 1e6,
                results.counter("pointer_arrays" + moofs, "bytes_per_second") / caller);
  }
  const double window = results.counter("index/caller_window", "samples_per_second");
  std::printf("INFO   moov index: %.1f M samples/s in 64 Ki windows; through pointer arrays %.3f x that\n", window / 1e6,
              results.counter("index/pointer_arrays", "samples_per_second") / window);
}

}  // namespace

int main(int argc, char** argv) {
  Boxlane_Parse_Init(1);
  register_all();
  const int status = boxlane::bench::run_benchmarks(argc, argv, summary);
  Boxlane_Parse_Destory();
  return status;
}
