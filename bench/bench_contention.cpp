// 1, 2 and 4 threads, each with clients of its own, to show that clients do
// not slow each other: the writer with 1 KiB video frames (short calls, where
// the shared table lock weighs most), the parser with a ten-minute movie
// header per client, and memcpy of the same bytes as the machine's own limit.
// Scaling is judged against the hardware threads there are: on a 2-core
// machine 4 threads can only share 2 cores.
#include "bench/parse_driver.hpp"
#include "bench/synthetic_movie.hpp"
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kFrame = 1 << 10;
constexpr uint32_t kFramesPerClient = 1u << 16;

const boxlane::bench::SyntheticMovie& movie() {
  static const auto m = boxlane::bench::build_movie({600, 30, 48000});
  return m;
}

std::string client_name(const char* kind, const benchmark::State& state) {
  return std::string("contention-") + kind + "-" + std::to_string(state.thread_index());
}

void per_thread_rate(benchmark::State& state, double units) {
  state.counters["per_thread_rate"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * units, benchmark::Counter::kIsRate | benchmark::Counter::kAvgThreads);
}

void BM_writer(benchmark::State& state) {
  const std::string client = client_name("writer", state);
  std::vector<uint8_t> frame(kFrame, 0x5A), out(kFrame);
  const uint8_t start[] = {0, 0, 0, 1, 0x41};
  std::memcpy(frame.data(), start, sizeof start);
  Boxlane_Packet_Insert(client.c_str());
  int32_t written = 0;
  int64_t pos = 48;
  uint32_t n = 0;
  for (auto _ : state) {
    if (++n % kFramesPerClient == 0) {
      Boxlane_Packet_Delete(client.c_str());
      Boxlane_Packet_Insert(client.c_str());
    }
    Boxlane_Packet_FrameVideo(client.c_str(), out.data(), &written, frame.data(), kFrame, pos, n % 30 == 0 ? 1 : 0,
                              3000, 6000);
    benchmark::DoNotOptimize(out.data());
    pos += written;
  }
  Boxlane_Packet_Delete(client.c_str());
  per_thread_rate(state, 1);
}

void BM_memcpy_frame(benchmark::State& state) {
  std::vector<uint8_t> src(kFrame, 0x5A), dst(kFrame);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kFrame);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  per_thread_rate(state, 1);
}

void BM_parser(benchmark::State& state) {
  const std::string client = client_name("parser", state);
  const auto& m = movie();
  for (auto _ : state) {
    Boxlane_Parse_Insert(client.c_str());
    if (!boxlane::bench::send_in_pieces(client.c_str(), m.bytes.data(), m.bytes.size(), 0)) {
      state.SkipWithError("the parser refused the movie header");
      break;
    }
    benchmark::DoNotOptimize(boxlane::bench::drain_headers(client.c_str()));
    Boxlane_Parse_Delete(client.c_str());
  }
  per_thread_rate(state, static_cast<double>(m.bytes.size()));
}

void BM_memcpy_moov(benchmark::State& state) {
  const auto& src = movie().bytes;
  std::vector<uint8_t> dst(src.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  per_thread_rate(state, static_cast<double>(src.size()));
}

constexpr int kThreads[] = {1, 2, 4};

void register_all() {
  movie();  // built before any timing starts
  const struct {
    const char* name;
    void (*fn)(benchmark::State&);
  } all[] = {{"writer", BM_writer}, {"memcpy_frame", BM_memcpy_frame}, {"parser", BM_parser},
             {"memcpy_moov", BM_memcpy_moov}};
  for (const auto& one : all) {
    auto* b = benchmark::RegisterBenchmark(one.name, one.fn)->UseRealTime();
    for (int t : kThreads) b->Threads(t);
  }
}

double rate(const boxlane::bench::Results& results, const char* name, int threads) {
  return results.counter(std::string(name) + "/real_time/threads:" + std::to_string(threads), "per_thread_rate");
}

void summary(const boxlane::bench::Results& results) {
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  std::printf("INFO   %u hardware threads. Scaling = total rate at N threads / (min(N, cores) x rate at 1 thread);\n"
              "       1.0 means clients do not slow each other, read it beside memcpy's own scaling.\n",
              cores);
  for (const char* name : {"writer", "memcpy_frame", "parser", "memcpy_moov"}) {
    std::printf("INFO   %-13s", name);
    for (int t : kThreads) {
      const double scaling = rate(results, name, t) * t / (std::min<unsigned>(t, cores) * rate(results, name, 1));
      std::printf("  %d threads: %.2f", t, scaling);
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Boxlane_Parse_Init(1);
  register_all();
  const int status = boxlane::bench::run_benchmarks(argc, argv, summary);
  Boxlane_Parse_Destory();
  return status;
}
