// Bookkeeping memory, counted by replacing the global operator new and delete
// in this program only (the library is linked statically, so its vectors and
// records come through here): what a writer client keeps per video and per
// audio frame over a million frames, what a parse client keeps per table
// entry after a movie header of about a million samples, and what a parse
// client in the extended mode keeps while a million moofs stream through
// it, with a worker taking each moof's answers, and with nobody taking them.
#include "bench/parse_driver.hpp"
#include "bench/synthetic_fragments.hpp"
#include "bench/synthetic_movie.hpp"
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace {

std::atomic<int64_t> g_live{0};
std::atomic<int64_t> g_peak{0};
std::atomic<int64_t> g_allocations{0};

// Each block carries its requested size in front, so the count is of bytes
// asked for, not of the allocator's rounding.
constexpr std::size_t kHeader = alignof(std::max_align_t);

void* counted_new(std::size_t size) {
  void* base = std::malloc(size + kHeader);
  if (!base) throw std::bad_alloc();
  *static_cast<std::size_t*>(base) = size;
  const int64_t live = g_live.fetch_add(static_cast<int64_t>(size)) + static_cast<int64_t>(size);
  int64_t peak = g_peak.load();
  while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
  }
  g_allocations.fetch_add(1);
  return static_cast<char*>(base) + kHeader;
}

void counted_delete(void* p) noexcept {
  if (!p) return;
  void* base = static_cast<char*>(p) - kHeader;
  g_live.fetch_sub(static_cast<int64_t>(*static_cast<std::size_t*>(base)));
  std::free(base);
}

// A window over the calls being measured.
struct Window {
  Window() : live(g_live.load()), allocations(g_allocations.load()) { g_peak.store(live); }
  int64_t kept() const { return g_live.load() - live; }
  int64_t peak() const { return g_peak.load() - live; }
  int64_t allocated() const { return g_allocations.load() - allocations; }
  int64_t live;
  int64_t allocations;
};

void report(benchmark::State& state, const Window& w, double units) {
  state.counters["kept_bytes_per_unit"] = static_cast<double>(w.kept()) / units;
  state.counters["peak_bytes_per_unit"] = static_cast<double>(w.peak()) / units;
  state.counters["allocations"] = static_cast<double>(w.allocated());
  state.counters["units"] = units;
}

constexpr uint32_t kFrames = 1'000'000;

// Video as a recorder with B-frames hands it in: every frame has a
// composition offset, a key frame every 60. `ms_clock` gives the durations of
// a millisecond clock at 30 fps (33, 33, 34), which costs an stts run for two
// frames of every three; otherwise every duration is 3000 at 90 kHz.
// A million frames into a fresh client: `write(pos, n)` hands in frame n to
// be placed at pos and returns the bytes written.
template <typename Write>
void measure_frames(benchmark::State& state, const char* client, Write write) {
  for (auto _ : state) {
    Boxlane_Packet_Insert(client);
    const Window w;
    int64_t pos = 48;
    for (uint32_t n = 0; n < kFrames; ++n) pos += write(pos, n);
    report(state, w, kFrames);
    Boxlane_Packet_Delete(client);
  }
}

void BM_writer_video(benchmark::State& state, bool ms_clock) {
  constexpr char kClient[] = "memory-video";
  uint8_t frame[64] = {0, 0, 0, 1, 0x41};
  uint8_t out[sizeof frame];
  int32_t written = 0;
  measure_frames(state, kClient, [&](int64_t pos, uint32_t n) {
    const auto duration =
        ms_clock ? static_cast<int32_t>((uint64_t{n} + 1) * 1000 / 30 - uint64_t{n} * 1000 / 30) : 3000;
    Boxlane_Packet_FrameVideo(kClient, out, &written, frame, sizeof frame, pos, n % 60 == 0 ? 1 : 0, duration,
                              static_cast<int32_t>(n % 3 + 1) * duration);
    return written;
  });
}

void BM_writer_audio(benchmark::State& state) {
  constexpr char kClient[] = "memory-audio";
  uint8_t frame[64] = {0x21};
  uint8_t out[sizeof frame];
  int32_t written = 0;
  measure_frames(state, kClient, [&](int64_t pos, uint32_t) {
    Boxlane_Packet_FrameAudio(kClient, out, &written, frame, sizeof frame, pos, 1024);
    return written;
  });
}

// 13,000 seconds: 390,000 video and 609,375 audio samples, about a million.
const boxlane::bench::SyntheticMovie& million_sample_movie() {
  static const auto movie = boxlane::bench::build_movie({13000, 30, 48000});
  return movie;
}

void BM_parser(benchmark::State& state) {
  constexpr char kClient[] = "memory-parse";
  const auto& movie = million_sample_movie();
  for (auto _ : state) {
    Boxlane_Parse_Insert(kClient);
    const Window w;
    const struct mallinfo2 before = mallinfo2();
    if (!boxlane::bench::send_in_pieces(kClient, movie.bytes.data(), movie.bytes.size(), 0)) {
      state.SkipWithError("the parser refused the movie header");
      Boxlane_Parse_Delete(kClient);
      return;
    }
    boxlane::bench::drain_headers(kClient);
    const struct mallinfo2 after = mallinfo2();
    report(state, w, static_cast<double>(movie.table_entries()));
    // Everything the C heap holds as well, reassembly buffers included.
    state.counters["heap_bytes_per_unit"] =
        (static_cast<double>(after.uordblks + after.hblkhd) - static_cast<double>(before.uordblks + before.hblkhd)) /
        static_cast<double>(movie.table_entries());
    const std::string error = boxlane::bench::check_tables(kClient, movie);
    Boxlane_Parse_Delete(kClient);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
  }
}

// One moof of a second (30 video and 46 audio samples), sent a million
// times after the init segment, each followed by its mdat header. The
// bytes the client keeps are read after 1,000, 10,000, 100,000 and
// 1,000,000 moofs: a stream that never ends must not grow it.
void BM_fragments(benchmark::State& state, bool take) {
  constexpr char kClient[] = "memory-fragments";
  static const auto stream = boxlane::bench::build_fragments(1, 1);
  const std::vector<uint8_t>& moof = stream.fragments.front();
  std::vector<BOXLANE_SAMPLEINFO> buffer(256);
  for (auto _ : state) {
    Boxlane_Parse_InsertEx(kClient, BOXLANE_PARSE_EXTENDED);
    const Window w;
    boxlane::bench::send_in_pieces(kClient, stream.init.data(), stream.init.size(), 0);
    boxlane::bench::drain_headers(kClient);
    uint64_t taken = 0;
    // Read into plain variables: a counter added now would count itself.
    int64_t kept[4] = {};
    for (uint32_t n = 1; n <= 1'000'000; ++n) {
      Boxlane_Parse_Send(kClient, moof.data(), static_cast<int32_t>(moof.size()));
      boxlane::bench::drain_headers(kClient);
      BOXLANE_FRAGMENTINFO info;
      int32_t count = 0;
      while (take && Boxlane_Parse_GetFragment(kClient, &info, buffer.data(), 256, &count)) taken += uint64_t(count);
      if (n == 1'000 || n == 10'000 || n == 100'000 || n == 1'000'000)
        kept[n == 1'000 ? 0 : n == 10'000 ? 1 : n == 100'000 ? 2 : 3] = w.kept();
    }
    state.counters["kept_bytes_after_1000"] = static_cast<double>(kept[0]);
    state.counters["kept_bytes_after_10000"] = static_cast<double>(kept[1]);
    state.counters["kept_bytes_after_100000"] = static_cast<double>(kept[2]);
    state.counters["kept_bytes_after_1000000"] = static_cast<double>(kept[3]);
    state.counters["peak_bytes"] = static_cast<double>(w.peak());
    state.counters["samples_taken"] = static_cast<double>(taken);
    if (take && taken != 1'000'000 * (uint64_t{stream.video_per_fragment} + stream.audio_per_fragment))
      state.SkipWithError("a worker did not get every sample");
    Boxlane_Parse_Delete(kClient);
  }
}

void register_all() {
  benchmark::RegisterBenchmark("writer/video_frame", BM_writer_video, false)->Iterations(1);
  benchmark::RegisterBenchmark("writer/video_frame_ms_clock", BM_writer_video, true)->Iterations(1);
  benchmark::RegisterBenchmark("writer/audio_frame", BM_writer_audio)->Iterations(1);
  benchmark::RegisterBenchmark("parser/table_entry", BM_parser)->Iterations(1);
  benchmark::RegisterBenchmark("parser/million_fragments_taken", BM_fragments, true)->Iterations(1);
  benchmark::RegisterBenchmark("parser/million_fragments_untaken", BM_fragments, false)->Iterations(1);
}

void summary(const boxlane::bench::Results& results) {
  using boxlane::bench::print_target;
  print_target("writer bytes kept per video frame (B-frames, 1M frames)",
               results.counter("writer/video_frame/iterations:1", "kept_bytes_per_unit"), 32, false, "B");
  print_target("writer bytes kept per audio frame (1M frames)",
               results.counter("writer/audio_frame/iterations:1", "kept_bytes_per_unit"), 16, false, "B");
  print_target("parser bytes kept per table entry (~1M samples)",
               results.counter("parser/table_entry/iterations:1", "kept_bytes_per_unit"), 16, false, "B");
  for (const char* how : {"taken", "untaken"}) {
    const std::string name = std::string("parser/million_fragments_") + how + "/iterations:1";
    // Untaken answers fill the waiting limit within the first 10,000.
    const bool taken = std::string(how) == "taken";
    const double early = results.counter(name, taken ? "kept_bytes_after_1000" : "kept_bytes_after_10000");
    const double late = results.counter(name, "kept_bytes_after_1000000");
    print_target(std::string("parser bytes kept after 1M moofs / after ") + (taken ? "1k" : "10k") + ", answers " + how,
                 late / early, 1.0, false, "x");
    std::printf("INFO   answers %s: %.0f B kept after 1k moofs, %.0f after 10k, %.0f after 100k, %.0f after 1M; peak %.0f B\n",
                how, results.counter(name, "kept_bytes_after_1000"), results.counter(name, "kept_bytes_after_10000"),
                results.counter(name, "kept_bytes_after_100000"), late, results.counter(name, "peak_bytes"));
  }
  std::printf("INFO   video frame with millisecond durations: %.1f B kept; peaks while growing: video %.1f, audio %.1f,"
              " parser %.1f B\n",
              results.counter("writer/video_frame_ms_clock/iterations:1", "kept_bytes_per_unit"),
              results.counter("writer/video_frame/iterations:1", "peak_bytes_per_unit"),
              results.counter("writer/audio_frame/iterations:1", "peak_bytes_per_unit"),
              results.counter("parser/table_entry/iterations:1", "peak_bytes_per_unit"));
}

}  // namespace

void* operator new(std::size_t size) { return counted_new(size); }
void* operator new[](std::size_t size) { return counted_new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return counted_new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return counted_new(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p) noexcept { counted_delete(p); }
void operator delete[](void* p) noexcept { counted_delete(p); }
void operator delete(void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { counted_delete(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { counted_delete(p); }

int main(int argc, char** argv) {
  register_all();
  return boxlane::bench::run_benchmarks(argc, argv, summary, 1);
}
