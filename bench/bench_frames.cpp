// The frame writers with frames of 1 KiB, 16 KiB and 256 KiB, beside memcpy
// of the same sizes: the writer's floor is the one copy of the frame into the
// caller's buffer, so memcpy is the limit it is measured against.
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char kClient[] = "bench-frames";
// The client is replaced after this many frames so its lists stay the size
// of a recording of a few minutes whatever the iteration count.
constexpr uint32_t kFramesPerClient = 1u << 16;

std::vector<uint8_t> make_frame(std::size_t size, bool video) {
  std::vector<uint8_t> frame(size);
  uint32_t x = 0x12345678;
  for (auto& b : frame) {
    x = x * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(x >> 24);
  }
  if (video) {
    const uint8_t head[] = {0, 0, 0, 1, 0x41};  // start code, non-IDR slice
    std::memcpy(frame.data(), head, sizeof head);
  } else {
    frame[0] = 0x21;  // a raw AAC frame: no ADTS sync word
  }
  return frame;
}

// An ADTS header (ISO/IEC 14496-3 §1.A.2.2) for an AAC-LC 48 kHz stereo frame
// of `size` bytes in all, without CRC.
std::vector<uint8_t> make_adts_frame(std::size_t size) {
  std::vector<uint8_t> frame = make_frame(size, false);
  const auto len = static_cast<uint32_t>(size);
  const uint8_t head[7] = {0xFF, 0xF1, 0x4C, static_cast<uint8_t>(0x80 | (len >> 11)),
                           static_cast<uint8_t>(len >> 3), static_cast<uint8_t>((len & 7) << 5 | 0x1F), 0xFC};
  std::memcpy(frame.data(), head, sizeof head);
  return frame;
}

// Every benchmark copies between the same two page-aligned buffers: where a
// 16 KiB source and destination fall relative to each other changes the
// speed of a copy by up to half, and vectors made per benchmark would land
// anywhere, making baseline and writer incomparable.
constexpr std::size_t kMaxFrame = 256 << 10;

struct Buffers {
  uint8_t* src;
  uint8_t* dst;
};

const Buffers& buffers() {
  static const Buffers b{static_cast<uint8_t*>(std::aligned_alloc(4096, kMaxFrame)),
                         static_cast<uint8_t*>(std::aligned_alloc(4096, kMaxFrame))};
  return b;
}

const uint8_t* place(const std::vector<uint8_t>& frame) {
  std::memcpy(buffers().src, frame.data(), frame.size());
  return buffers().src;
}

void fresh_client(benchmark::State& state) {
  state.PauseTiming();
  Boxlane_Packet_Delete(kClient);
  Boxlane_Packet_Insert(kClient);
  state.ResumeTiming();
}

void set_rate(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// The timed loop of both frame writers: `write(pos, n)` hands in frame n to
// be placed at pos and returns the bytes written.
template <typename Write>
void time_frames(benchmark::State& state, uint8_t* out, std::size_t size, Write write) {
  int64_t pos = 48;
  uint32_t n = 0;
  for (auto _ : state) {
    if (++n % kFramesPerClient == 0) fresh_client(state);
    pos += write(pos, n);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  Boxlane_Packet_Delete(kClient);
  set_rate(state, size);
}

// `skip` 4 copies what FrameVideo must: the bytes after the start code, to
// the bytes after the length, 4 bytes off the buffers' alignment.
void BM_memcpy(benchmark::State& state, std::size_t skip) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const uint8_t* src = place(make_frame(size, true));
  uint8_t* dst = buffers().dst;
  for (auto _ : state) {
    std::memcpy(dst + skip, src + skip, size - skip);
    benchmark::DoNotOptimize(dst);
    benchmark::ClobberMemory();
  }
  set_rate(state, size);
}

void BM_video(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const uint8_t* frame = place(make_frame(size, true));
  uint8_t* out = buffers().dst;
  Boxlane_Packet_Insert(kClient);
  int32_t written = 0;
  if (!Boxlane_Packet_FrameVideo(kClient, out, &written, frame, static_cast<int32_t>(size), 0, 1, 3000,
                                 6000) ||
      written != static_cast<int32_t>(size) || out[3] != static_cast<uint8_t>(size - 4)) {
    state.SkipWithError("FrameVideo did not return the frame with its length in place of the start code");
    Boxlane_Packet_Delete(kClient);
    return;
  }
  // A key frame every 30 and the offsets of a stream with B-frames.
  time_frames(state, out, size, [&](int64_t pos, uint32_t n) {
    Boxlane_Packet_FrameVideo(kClient, out, &written, frame, static_cast<int32_t>(size), pos,
                              n % 30 == 0 ? 1 : 0, 3000, static_cast<int32_t>(n % 3 + 1) * 3000);
    return written;
  });
}

void BM_audio(benchmark::State& state, bool adts) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const uint8_t* frame = place(adts ? make_adts_frame(size) : make_frame(size, false));
  const std::size_t payload = adts ? size - 7 : size;
  uint8_t* out = buffers().dst;
  Boxlane_Packet_Insert(kClient);
  int32_t written = 0;
  if (!Boxlane_Packet_FrameAudio(kClient, out, &written, frame, static_cast<int32_t>(size), 0, 1024) ||
      written != static_cast<int32_t>(payload)) {
    state.SkipWithError(adts ? "FrameAudio did not drop the ADTS header" : "FrameAudio changed a raw frame's length");
    Boxlane_Packet_Delete(kClient);
    return;
  }
  time_frames(state, out, size, [&](int64_t pos, uint32_t) {
    Boxlane_Packet_FrameAudio(kClient, out, &written, frame, static_cast<int32_t>(size), pos, 1024);
    return written;
  });
}

constexpr int64_t kSizes[] = {1 << 10, 16 << 10, 256 << 10};

void register_all() {
  for (int64_t size : kSizes) {
    benchmark::RegisterBenchmark("memcpy", BM_memcpy, 0)->Arg(size);
    benchmark::RegisterBenchmark("memcpy_after_start_code", BM_memcpy, 4)->Arg(size);
    benchmark::RegisterBenchmark("FrameVideo", BM_video)->Arg(size);
    benchmark::RegisterBenchmark("FrameAudio/raw", BM_audio, false)->Arg(size);
  }
  // An ADTS frame_length has 13 bits: only the small size can carry a header.
  benchmark::RegisterBenchmark("FrameAudio/adts", BM_audio, true)->Arg(1 << 10);
}

double ratio(const boxlane::bench::Results& results, const std::string& name, int64_t size) {
  std::string arg = "/";  // appended: GCC 12 at -O3 misreads "/" + string (-Wrestrict)
  arg += std::to_string(size);
  return results.counter(name + arg, "bytes_per_second") / results.counter("memcpy" + arg, "bytes_per_second");
}

void summary(const boxlane::bench::Results& results) {
  boxlane::bench::print_target("FrameVideo 16 KiB / memcpy 16 KiB (throughput)", ratio(results, "FrameVideo", 16 << 10),
                               0.80, true, "x");
  for (int64_t size : kSizes) {
    std::printf("INFO   %3lld KiB: FrameVideo / memcpy %.3f x, FrameAudio / memcpy %.3f x;"
                " memcpy 4 bytes off alignment / memcpy %.3f x\n",
                static_cast<long long>(size >> 10), ratio(results, "FrameVideo", size),
                ratio(results, "FrameAudio/raw", size), ratio(results, "memcpy_after_start_code", size));
  }
}

}  // namespace

int main(int argc, char** argv) {
  register_all();
  return boxlane::bench::run_benchmarks(argc, argv, summary);
}
