// Peak memory of `boxlane probe` on the shapes of file that make a parser
// hold far more than it reads: one 64 MiB ftyp, 64 MiB of 8-byte free boxes,
// and 16 MiB of tkhd boxes each making a new track. Each shape ends with (or
// is) a movie box, so probe prints a report. probe runs as a child; its
// maximum resident set comes from wait4. The figure is that peak over the
// largest table the report shows (the bytes of the report taken by its
// brand list, its track list or its box list), and over the file's size.
//
//   boxlane_bench_probe_memory [BOXLANE [DIR]]   (defaults: the boxlane of
//   this build tree, and the system's temporary directory)
#include "bench/target_report.hpp"

#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

class Bytes {
 public:
  Bytes& u32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) data_.push_back(static_cast<char>(v >> shift));
    return *this;
  }
  Bytes& str(const char* s) {
    data_.append(s);
    return *this;
  }
  Bytes& zeros(std::size_t n) {
    data_.append(n, '\0');
    return *this;
  }
  Bytes& add(const std::string& s) {
    data_ += s;
    return *this;
  }
  const std::string& data() const { return data_; }

 private:
  std::string data_;
};

// ISO/IEC 14496-12 §8.2.2: version 0 mvhd, time scale 1000, rate 1.0, next
// track id 2.
std::string mvhd() {
  Bytes b;
  b.u32(108).str("mvhd").u32(0).u32(0).u32(0).u32(1000).u32(0).u32(0x10000).u32(0x01000000).zeros(8);
  b.u32(0x10000).zeros(12).u32(0x10000).zeros(12).u32(0x40000000).zeros(24).u32(2);
  return b.data();
}

std::string moov(const std::string& children) {
  return Bytes{}.u32(static_cast<uint32_t>(8 + children.size())).str("moov").add(children).data();
}

std::string small_ftyp() { return Bytes{}.u32(20).str("ftyp").str("isom").u32(0).str("isom").data(); }

// Every shape is about `bytes` long. They are written to the file a little
// at a time: a child inherits its parent's peak resident set, so this
// process must stay small.
void huge_ftyp(std::ostream& out, std::size_t bytes) {
  out << Bytes{}.u32(static_cast<uint32_t>(bytes)).str("ftyp").str("isom").u32(0).data();
  std::string brands;
  for (int i = 0; i < 4096; ++i) brands += "mp41";
  for (std::size_t at = 16; at < bytes; at += brands.size())
    out.write(brands.data(), static_cast<std::streamsize>(std::min(brands.size(), bytes - at)));
  out << moov(mvhd());
}

void free_boxes(std::ostream& out, std::size_t bytes) {
  out << small_ftyp();
  std::string boxes;
  for (int i = 0; i < 4096; ++i) boxes += Bytes{}.u32(8).str("free").data();
  for (std::size_t at = 0; at < bytes; at += boxes.size()) out << boxes;
  out << moov(mvhd());
}

// ISO/IEC 14496-12 §8.3.2: version 0 tkhd, flags 3, track id `id`.
void new_tracks(std::ostream& out, std::size_t bytes) {
  constexpr uint32_t kTkhd = 92;
  const auto count = static_cast<uint32_t>(bytes / kTkhd);
  const std::string header = mvhd();
  out << small_ftyp() << Bytes{}.u32(static_cast<uint32_t>(8 + header.size() + uint64_t{count} * kTkhd)).str("moov").data()
      << header;
  for (uint32_t id = 1; id <= count; ++id)
    out << Bytes{}.u32(kTkhd).str("tkhd").u32(3).u32(0).u32(0).u32(id).u32(0).u32(0).zeros(16 + 36).u32(0).u32(0).data();
}

void tiny(std::ostream& out, std::size_t) { out << small_ftyp() << moov(mvhd()); }

struct Run {
  bool ok = false;
  int status = -1;
  double peak_mib = 0;
  std::string out;
};

Run run_probe(const std::string& tool, const std::string& file, bool json, const std::string& out_path) {
  Run run;
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int null = open("/dev/null", O_WRONLY);
    if (fd < 0 || null < 0) _exit(127);
    dup2(fd, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (json) execl(tool.c_str(), tool.c_str(), "probe", "--json", file.c_str(), static_cast<char*>(nullptr));
    else execl(tool.c_str(), tool.c_str(), "probe", file.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return run;
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) != 127;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.peak_mib = static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
  std::ifstream in(out_path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  run.out = text.str();
  std::remove(out_path.c_str());
  return run;
}

// The bytes of the report between `from` and the first `to` after it (to
// the end when `to` is empty or absent); 0 when `from` is absent.
std::size_t span(const std::string& out, const std::string& from, const std::string& to) {
  const std::size_t start = out.find(from);
  if (start == std::string::npos) return 0;
  const std::size_t end = to.empty() ? std::string::npos : out.find(to, start + from.size());
  return (end == std::string::npos ? out.size() : end) - start;
}

// The largest of the brand list, the track list and the box list.
std::size_t largest_table(const std::string& out, bool json) {
  if (json)
    return std::max({span(out, "\"compatible_brands\"", "\n"), span(out, "\"tracks\":", "\"unlisted_tracks\""),
                     span(out, "\"boxes\":", "")});
  return std::max(span(out, "file type:", "\n"), span(out, "\ntrack ", "\nboxes,"));
}

uint64_t write_file(const std::string& path, void (*shape)(std::ostream&, std::size_t), std::size_t bytes) {
  std::ofstream out(path, std::ios::binary);
  shape(out, bytes);
  return static_cast<uint64_t>(out.tellp());
}

constexpr std::size_t kLargeTable = 1 << 20;

}  // namespace

int main(int argc, char** argv) {
  const std::string tool = argc > 1 ? argv[1] : BOXLANE_TOOL_PATH;
  const char* tmp = std::getenv("TMPDIR");
  const std::string dir = argc > 2 ? argv[2] : tmp ? tmp : "/tmp";
  const std::string base = dir + "/boxlane-probe-memory-" + std::to_string(getpid());

  struct Shape {
    const char* name;
    void (*write)(std::ostream&, std::size_t);
    std::size_t bytes;
  };
  const Shape shapes[] = {
      {"tiny file (ftyp, moov with mvhd)", tiny, 0},
      {"one 64 MiB ftyp", huge_ftyp, 64u << 20},
      {"64 MiB of 8-byte free boxes", free_boxes, 64u << 20},
      {"16 MiB of tkhd boxes, new track ids", new_tracks, 16u << 20},
  };

  std::printf("%-38s %-5s %6s %10s %12s %12s %10s\n", "shape", "form", "exit", "peak MiB", "table bytes",
              "peak/table", "peak/file");
  double baseline = 0;
  double worst_table = 0;
  double worst_file = 0;
  bool all_ran = true;
  for (const Shape& shape : shapes) {
    const std::string file = base + ".mp4";
    const uint64_t size = write_file(file, shape.write, shape.bytes);
    for (const bool json : {false, true}) {
      const Run run = run_probe(tool, file, json, base + ".out");
      all_ran = all_ran && run.ok;
      const std::size_t table = largest_table(run.out, json);
      const double per_table = table ? run.peak_mib * 1048576.0 / static_cast<double>(table) : 0;
      const double per_file = run.peak_mib * 1048576.0 / static_cast<double>(size);
      std::printf("%-38s %-5s %6d %10.1f %12zu %12.1f %10.2f\n", shape.name, json ? "json" : "text", run.status,
                  run.peak_mib, table, per_table, per_file);
      if (&shape == &shapes[0]) {
        baseline = std::max(baseline, run.peak_mib);
        continue;
      }
      worst_file = std::max(worst_file, per_file);
      // A table of a few lines says nothing of what the rest costs.
      if (table >= kLargeTable) worst_table = std::max(worst_table, per_table);
    }
    std::remove(file.c_str());
  }
  std::printf("\nINFO probe's peak on a tiny file: %.1f MiB (the program and its libraries)\n", baseline);
  if (!all_ran) std::printf("INFO a probe run could not be started\n");
  // Both lines are printed, whatever the first says.
  const bool per_table = boxlane::bench::print_target("probe peak / largest table shown (tables of 1 MiB or more)",
                                                 all_ran ? worst_table : NAN, 16, false, "x");
  const bool per_file = boxlane::bench::print_target("probe peak / file size, worst shape", all_ran ? worst_file : NAN,
                                                 16, false, "x");
  return per_table && per_file ? 0 : 1;
}
