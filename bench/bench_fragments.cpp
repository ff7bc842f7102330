// The fragment writer beside memcpy. One fragment is a second of a 720p30
// recording: 30 video frames of 16 KiB (the first a key frame, the others
// with the composition offsets of B-frames) and 47 AAC frames of 512 bytes.
// Writing it costs at least copying its media once into the caller's
// buffer, so memcpy of those bytes is the limit; on top come each frame's
// bookkeeping and the moof. Also timed alone: the moof of one fragment, and
// a frame's bookkeeping with frames too small for the copy to count.
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr char kClient[] = "bench-fragments";
constexpr int kVideoFrames = 30;
constexpr int kAudioFrames = 47;
constexpr std::size_t kVideoSize = 16 << 10;
constexpr std::size_t kAudioSize = 512;
constexpr std::size_t kMedia = kVideoFrames * kVideoSize + kAudioFrames * kAudioSize;

struct Buffers {
  std::vector<uint8_t> video, audio, payload, header;
  Buffers() : video(kVideoSize, 0x5A), audio(kAudioSize, 0x21), payload(kMedia), header(64 << 10) {
    const uint8_t start[] = {0, 0, 0, 1, 0x41};
    std::memcpy(video.data(), start, sizeof start);
  }
};

Buffers& buffers() {
  static Buffers b;
  return b;
}

bool fragment_client() {
  Boxlane_Packet_Delete(kClient);
  return Boxlane_Packet_Insert(kClient) && Boxlane_Packet_FragmentMode(kClient, 1, 2, 0, 0);
}

bool movie_client() {
  Boxlane_Packet_Delete(kClient);
  return Boxlane_Packet_Insert(kClient);
}

// Hands in one fragment's frames, the bytes into the payload buffer, in the
// order a recorder interleaves them; returns the payload size.
std::size_t hand_in(std::size_t video_size, std::size_t audio_size) {
  Buffers& b = buffers();
  std::size_t at = 0;
  int32_t len = 0;
  for (int v = 0, a = 0; v < kVideoFrames || a < kAudioFrames;) {
    if (v < kVideoFrames && (a >= kAudioFrames || v * kAudioFrames <= a * kVideoFrames)) {
      Boxlane_Packet_FrameVideo(kClient, b.payload.data() + at, &len, b.video.data(), static_cast<int32_t>(video_size), 0,
                                v == 0 ? 1 : 0, 1600, (v % 3) * 1600);
      ++v;
    } else {
      Boxlane_Packet_FrameAudio(kClient, b.payload.data() + at, &len, b.audio.data(), static_cast<int32_t>(audio_size),
                                0, 1024);
      ++a;
    }
    at += static_cast<std::size_t>(len);
  }
  return at;
}

int32_t write_moof() {
  int32_t header = 0;
  int64_t media = 0;
  Boxlane_Packet_FragmentSize(kClient, &header, &media, nullptr);
  int32_t len = 0;
  Boxlane_Packet_Fragment(kClient, buffers().header.data(), &len, 0);
  return len == header ? len : -1;
}

void BM_memcpy_fragment(benchmark::State& state) {
  Buffers& b = buffers();
  for (auto _ : state) {
    std::size_t at = 0;
    for (int v = 0; v < kVideoFrames; ++v, at += kVideoSize) std::memcpy(b.payload.data() + at, b.video.data(), kVideoSize);
    for (int a = 0; a < kAudioFrames; ++a, at += kAudioSize) std::memcpy(b.payload.data() + at, b.audio.data(), kAudioSize);
    benchmark::DoNotOptimize(b.payload.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMedia));
}

void BM_fragment(benchmark::State& state) {
  if (!fragment_client() || hand_in(kVideoSize, kAudioSize) != kMedia || write_moof() <= 0) {
    state.SkipWithError("the fragment writer did not take a fragment");
    return;
  }
  for (auto _ : state) {
    hand_in(kVideoSize, kAudioSize);
    benchmark::DoNotOptimize(write_moof());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMedia));
  Boxlane_Packet_Delete(kClient);
}

// The moof alone: the frames are handed in outside the timed section.
void BM_moof(benchmark::State& state) {
  if (!fragment_client()) {
    state.SkipWithError("no fragment client");
    return;
  }
  for (auto _ : state) {
    hand_in(8, 8);
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(write_moof());
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  Boxlane_Packet_Delete(kClient);
}

// Bookkeeping per sample: frames of 8 bytes, a moof every 77, against the
// same frames copied with memcpy.
void BM_small_samples(benchmark::State& state) {
  if (!fragment_client()) {
    state.SkipWithError("no fragment client");
    return;
  }
  for (auto _ : state) {
    hand_in(8, 8);
    benchmark::DoNotOptimize(write_moof());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (kVideoFrames + kAudioFrames));
  Boxlane_Packet_Delete(kClient);
}

// The same frames for a client writing one movie, which keeps every
// sample's numbers instead (replaced now and then so its lists stay the
// size of a recording of minutes).
void BM_small_samples_movie(benchmark::State& state) {
  if (!movie_client()) {
    state.SkipWithError("no client");
    return;
  }
  uint32_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(hand_in(8, 8));
    if (++n % 1024 == 0) {
      state.PauseTiming();
      movie_client();
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (kVideoFrames + kAudioFrames));
  Boxlane_Packet_Delete(kClient);
}

void BM_memcpy_small_samples(benchmark::State& state) {
  Buffers& b = buffers();
  for (auto _ : state) {
    for (int i = 0; i < kVideoFrames + kAudioFrames; ++i) {
      std::memcpy(b.payload.data() + 8 * i, b.video.data(), 8);
      benchmark::DoNotOptimize(b.payload.data());
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (kVideoFrames + kAudioFrames));
}

void summary(const boxlane::bench::Results& results) {
  const double writer = results.counter("fragment", "bytes_per_second");
  const double copy = results.counter("memcpy_fragment", "bytes_per_second");
  const boxlane::bench::Run* moof = results.find("moof/manual_time");
  const double per_sample = 1e9 / results.counter("small_samples", "items_per_second");
  const double movie_per_sample = 1e9 / results.counter("small_samples_movie", "items_per_second");
  const double copy_per_sample = 1e9 / results.counter("memcpy_small_samples", "items_per_second");
  // A sample costs a fragment-mode client what it costs a movie client
  // (the lookup, the lock and the bookkeeping), the moof included.
  boxlane::bench::print_target("cost of an 8-byte sample, fragments (moof included) / one movie",
                               per_sample / movie_per_sample, 1.25, false, "x");
  std::printf("INFO   one fragment (77 samples): frames and moof %.1f us, memcpy of its media %.1f us (%.3f x)\n",
              kMedia / writer * 1e6, kMedia / copy * 1e6, writer / copy);
  if (moof) std::printf("INFO   the moof of 77 samples alone: %.0f ns\n", moof->GetAdjustedRealTime());
  std::printf("INFO   8-byte samples: %.1f ns a sample in fragments (a moof every 77), %.1f ns in one movie, "
              "memcpy %.1f ns\n", per_sample, movie_per_sample, copy_per_sample);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("memcpy_fragment", BM_memcpy_fragment);
  benchmark::RegisterBenchmark("fragment", BM_fragment);
  benchmark::RegisterBenchmark("moof", BM_moof)->UseManualTime();
  benchmark::RegisterBenchmark("small_samples", BM_small_samples);
  benchmark::RegisterBenchmark("small_samples_movie", BM_small_samples_movie);
  benchmark::RegisterBenchmark("memcpy_small_samples", BM_memcpy_small_samples);
  return boxlane::bench::run_benchmarks(argc, argv, summary);
}
