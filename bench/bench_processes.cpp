// Two threads of one process against two processes doing the same work on
// the same cores, in the same run: what the clients of one process cost each
// other. Each workload runs a fixed number of iterations per worker; a worker
// is a thread, or a forked process with its own copy of the library. The
// figure is the processes' wall time over the threads' (1.0: the threads
// lose nothing to sharing one library), the median of alternating runs.
//
//   boxlane_bench_processes [runs] [scale]   (defaults 7 and 1.0)
#include "bench/parse_driver.hpp"
#include "bench/synthetic_movie.hpp"
#include "bench/target_report.hpp"

#include <boxlane/boxlane.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWorkers = 2;
constexpr std::size_t kPiece = 16 << 10;

const boxlane::bench::SyntheticMovie& movie() {
  static const auto m = boxlane::bench::build_movie({600, 30, 48000});
  return m;
}

std::string name_of(const char* kind, int worker) { return std::string("bench-") + kind + "-" + std::to_string(worker); }

// Parse clients with churn, as a server serving one peer after another:
// insert, the movie header in 16 KiB pieces, every header record and every
// query, delete.
bool parser_churn(int worker, long iterations) {
  const std::string client = name_of("churn", worker);
  const auto& m = movie();
  for (long i = 0; i < iterations; ++i) {
    Boxlane_Parse_Insert(client.c_str());
    if (!boxlane::bench::send_in_pieces(client.c_str(), m.bytes.data(), m.bytes.size(), kPiece)) return false;
    if (boxlane::bench::drain_headers(client.c_str()) == 0) return false;
    if (boxlane::bench::take_everything(client.c_str()) == 0) return false;
    Boxlane_Parse_Delete(client.c_str());
  }
  return true;
}

// A long-lived parse client whose movie header has been read: per
// iteration a piece with two small boxes and an mdat header, its three
// records taken, and the short queries a worker makes. Short calls, where
// what every call shares weighs most.
bool parser_long_lived(int worker, long iterations) {
  const std::string client = name_of("long", worker);
  const auto& m = movie();
  Boxlane_Parse_Insert(client.c_str());
  if (!boxlane::bench::send_in_pieces(client.c_str(), m.bytes.data(), m.bytes.size(), 0)) return false;
  boxlane::bench::drain_headers(client.c_str());
  const uint8_t piece[] = {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 12, 's', 'k', 'i', 'p',
                           1, 2, 3, 4, 0, 0, 0, 8, 'm', 'd', 'a', 't'};
  QORVANE_MP4HDR hdr;
  QORVANE_HDRFTYP ftyp;
  QORVANE_HDRTKHD tkhd;
  QORVANE_HDRMDHD mdhd;
  QORVANE_HDRHDLR hdlr;
  QORVANE_HDRVMSMHD vmsmhd;
  BOXLANE_STREAMINFO stream;
  for (long i = 0; i < iterations; ++i) {
    if (!Boxlane_Parse_Send(client.c_str(), piece, sizeof piece)) return false;
    for (int r = 0; r < 3; ++r)
      if (!Boxlane_Parse_Recv(client.c_str(), &hdr, nullptr)) return false;
    if (!Boxlane_Parse_GetFTyp(client.c_str(), &ftyp) || !Boxlane_Parse_GetStream(client.c_str(), &stream) ||
        !Boxlane_Parse_GetTrackInfo(client.c_str(), 1, &tkhd, &mdhd, &hdlr, &vmsmhd))
      return false;
  }
  Boxlane_Parse_Delete(client.c_str());
  return true;
}

// A writer client per worker recording frames of `size` bytes, deleted and
// inserted again every 65,536 frames.
bool writer(int worker, long iterations, std::size_t size) {
  const std::string client = name_of("writer", worker);
  std::vector<uint8_t> frame(size, 0x5A), out(size);
  const uint8_t start[] = {0, 0, 0, 1, 0x41};
  std::memcpy(frame.data(), start, sizeof start);
  Boxlane_Packet_Insert(client.c_str());
  int32_t written = 0;
  int64_t pos = 48;
  for (long i = 1; i <= iterations; ++i) {
    if (i % 65536 == 0) {
      Boxlane_Packet_Delete(client.c_str());
      Boxlane_Packet_Insert(client.c_str());
    }
    if (!Boxlane_Packet_FrameVideo(client.c_str(), out.data(), &written, frame.data(), int32_t(size), pos,
                                   i % 30 == 0, 3000, 6000))
      return false;
    pos += written;
  }
  Boxlane_Packet_Delete(client.c_str());
  return true;
}

struct Workload {
  const char* name;
  bool (*run)(int worker, long iterations);
  long iterations;
};

const Workload kWorkloads[] = {
    {"parser, clients with churn", parser_churn, 200},
    {"parser, long-lived clients", parser_long_lived, 150000},
    {"writer, 1 KiB frames", [](int w, long n) { return writer(w, n, 1 << 10); }, 1500000},
    {"writer, 16 KiB frames", [](int w, long n) { return writer(w, n, 16 << 10); }, 100000},
};

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Every worker first runs a tenth of its work untimed, so that neither side
// counts its first touch of the heap (a forked process's copy-on-write pages).
long warm_up(long iterations) { return std::max(1L, iterations / 10); }

// Wall time of kWorkers threads, from a common start to the last one's end.
double in_threads(const Workload& w, long iterations) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false}, failed{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kWorkers; ++t)
    threads.emplace_back([&, t] {
      if (!w.run(t, warm_up(iterations))) failed = true;
      ++ready;
      while (!go.load()) std::this_thread::yield();
      if (!w.run(t, iterations)) failed = true;
    });
  while (ready.load() != kWorkers) std::this_thread::yield();
  const auto start = Clock::now();
  go = true;
  for (auto& t : threads) t.join();
  const double took = seconds(Clock::now() - start);
  return failed ? -1 : took;
}

// The same in kWorkers forked processes, started together through a pipe.
double in_processes(const Workload& w, long iterations) {
  int go[2], done[2];
  if (pipe(go) != 0 || pipe(done) != 0) return -1;
  std::vector<pid_t> children;
  for (int p = 0; p < kWorkers; ++p) {
    const pid_t pid = fork();
    if (pid == 0) {
      char byte = w.run(p, warm_up(iterations)) ? 1 : 0;
      if (write(done[1], &byte, 1) != 1 || byte == 0) _exit(2);
      if (read(go[0], &byte, 1) != 1) _exit(2);
      const bool ok = w.run(p, iterations);
      byte = ok ? 1 : 0;
      _exit(write(done[1], &byte, 1) == 1 && ok ? 0 : 1);
    }
    children.push_back(pid);
  }
  bool ok = true;
  for (int p = 0; p < kWorkers; ++p) {
    char byte = 0;
    ok = read(done[0], &byte, 1) == 1 && byte == 1 && ok;
  }
  const auto start = Clock::now();
  const char bytes[kWorkers] = {};
  ok = write(go[1], bytes, kWorkers) == kWorkers && ok;
  for (int p = 0; p < kWorkers; ++p) {
    char byte = 0;
    ok = read(done[0], &byte, 1) == 1 && byte == 1 && ok;
  }
  const double took = seconds(Clock::now() - start);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);
  for (int fd : {go[0], go[1], done[0], done[1]}) close(fd);
  return ok ? took : -1;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  const double scale = argc > 2 ? std::max(0.01, std::atof(argv[2])) : 1.0;
  Boxlane_Parse_Init(1);
  movie();  // built once, before any worker starts or is forked
  std::printf("%d workers on %u hardware threads, %d alternating runs; wall time in seconds\n", kWorkers,
              std::thread::hardware_concurrency(), runs);
  bool all_ran = true;
  std::vector<std::pair<std::string, double>> ratios;
  for (const Workload& w : kWorkloads) {
    const long iterations = std::max(1L, long(double(w.iterations) * scale));
    std::vector<double> threads, processes, each;
    for (int r = 0; r < runs; ++r) {
      const double t = in_threads(w, iterations);
      const double p = in_processes(w, iterations);
      if (t <= 0 || p <= 0) {
        std::printf("%s: a worker failed\n", w.name);
        all_ran = false;
        break;
      }
      threads.push_back(t);
      processes.push_back(p);
      each.push_back(p / t);
    }
    if (threads.size() != std::size_t(runs)) continue;
    std::printf("%-28s threads %.3f  processes %.3f  ratio of each pair: min %.2f median %.2f max %.2f\n", w.name,
                median(threads), median(processes), *std::min_element(each.begin(), each.end()), median(each),
                *std::max_element(each.begin(), each.end()));
    ratios.emplace_back(w.name, median(each));
  }
  std::printf("\n");
  for (const auto& [name, ratio] : ratios)
    boxlane::bench::print_target(name + ": 2 threads / 2 processes", ratio, 0.9, true, "x");
  Boxlane_Parse_Destory();
  return all_ran ? 0 : 1;
}
