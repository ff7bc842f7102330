// Every sample table writer for one million video and one million audio
// samples, beside memcpy of a box of the same size. The video durations come
// from a millisecond clock at 30 fps (33, 33, 34, ...), as a live recorder
// hands them in, so stts has two runs for every three frames.
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char kClient[] = "bench-tables";
constexpr uint32_t kSamples = 1'000'000;

using Writer = bool (*)(const char*, uint8_t*, int32_t*);

// Fills the client once; false when a frame was refused.
bool recorded() {
  static const bool ok = [] {
    Boxlane_Packet_Insert(kClient);
    uint8_t frame[16] = {0, 0, 0, 1, 0x41};
    uint8_t out[sizeof frame];
    int32_t written = 0;
    int64_t pos = 48;
    for (uint32_t n = 0; n < kSamples; ++n) {
      const auto duration = static_cast<int32_t>((uint64_t{n} + 1) * 1000 / 30 - uint64_t{n} * 1000 / 30);
      if (!Boxlane_Packet_FrameVideo(kClient, out, &written, frame, sizeof frame, pos, n % 60 == 0 ? 1 : 0, duration,
                                     static_cast<int32_t>(n % 3 + 1) * 33))
        return false;
      pos += written;
      if (!Boxlane_Packet_FrameAudio(kClient, out, &written, frame, sizeof frame, pos, 1024)) return false;
      pos += written;
    }
    return true;
  }();
  return ok;
}

void BM_table(benchmark::State& state, Writer writer, std::size_t entries) {
  if (!recorded()) {
    state.SkipWithError("the frame writers refused a frame");
    return;
  }
  // ctts is the largest box: 16 + 8 bytes per sample.
  std::vector<uint8_t> out(16 + 8 * std::size_t{kSamples});
  int32_t size = 0;
  if (!writer(kClient, out.data(), &size) || size <= 0) {
    state.SkipWithError("the table writer failed");
    return;
  }
  for (auto _ : state) {
    writer(kClient, out.data(), &size);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * entries));
  state.counters["box_bytes"] = size;
}

void BM_memcpy(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  std::vector<uint8_t> src(size, 0x5A), dst(size);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), size);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

struct Table {
  const char* name;
  Writer writer;
  std::size_t entries;
};

const Table kTables[] = {
    {"STts/video", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STts(c, b, n, true); },
     kSamples * 2 / 3},
    {"STts/audio", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STts(c, b, n, false); }, 1},
    {"CTts", Boxlane_Packet_CTts, kSamples},
    {"STss", Boxlane_Packet_STss, kSamples / 60},
    {"STsc", Boxlane_Packet_STsc, 1},
    {"STsz/video", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STsz(c, b, n, true); }, kSamples},
    {"STsz/audio", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STsz(c, b, n, false); }, kSamples},
    {"STco/video", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STco(c, b, n, true); }, kSamples},
    {"STco/audio", [](const char* c, uint8_t* b, int32_t* n) { return Boxlane_Packet_STco(c, b, n, false); }, kSamples},
};

constexpr int64_t kFourBytes = 20 + 4 * int64_t{kSamples};
constexpr int64_t kEightBytes = 16 + 8 * int64_t{kSamples};

void register_all() {
  benchmark::RegisterBenchmark("memcpy", BM_memcpy)->Arg(kFourBytes)->Arg(kEightBytes)->Unit(benchmark::kMicrosecond);
  for (const Table& t : kTables) {
    benchmark::RegisterBenchmark(t.name, BM_table, t.writer, t.entries)->Unit(benchmark::kMicrosecond);
  }
}

void summary(const boxlane::bench::Results& results) {
  const double four = results.counter("memcpy/" + std::to_string(kFourBytes), "bytes_per_second");
  const double eight = results.counter("memcpy/" + std::to_string(kEightBytes), "bytes_per_second");
  for (const char* name : {"STts/video", "CTts", "STsz/video", "STsz/audio", "STco/video", "STco/audio"}) {
    const double bytes = results.counter(name, "box_bytes");
    const double base = bytes > 6.0 * kSamples ? eight : four;
    std::printf("INFO   %-11s %8.0f KiB box: %6.1f M entries/s, %.3f x memcpy of a box that size\n", name,
                bytes / 1024, results.counter(name, "items_per_second") / 1e6,
                results.counter(name, "bytes_per_second") / base);
  }
}

}  // namespace

int main(int argc, char** argv) {
  register_all();
  return boxlane::bench::run_benchmarks(argc, argv, summary);
}
