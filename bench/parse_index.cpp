// Reads the index of an MP4 file with the parser and nothing else: the file
// is mapped, every top-level box but mdat is sent whole in one piece, an
// mdat's payload is skipped, and the header records are taken. With
// --queries every table is then taken through the queries as well (what a
// player needs before it can seek). compare.sh times this against a program
// whose only work is avformat_open_input. Prints the boxes, the table entries
// taken and the milliseconds from opening the file to the end; with
// --queries, then each track's sample count.
//
// usage: boxlane_parse_index FILE [--queries]
#include "bench/parse_driver.hpp"

#include <boxlane/boxlane.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace {

constexpr char kClient[] = "parse-index";

uint32_t be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// Sends the file's boxes straight from the mapping, so no byte of the index
// is copied before the parser sees it; false when the framing is broken or
// the parser refused a box.
bool send_file(const uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  while (size - at >= 8) {
    const uint8_t* header = data + at;
    const bool mdat = std::memcmp(header + 4, "mdat", 4) == 0;
    uint64_t box = be32(header);
    // Size 1 (64-bit size) and 0 (to the end) only frame an mdat in the
    // files this reads; the index is in the other boxes.
    if (box == 0) return true;
    if (box == 1) {
      if (!mdat || size - at < 16) return false;
      box = uint64_t{be32(header + 8)} << 32 | be32(header + 12);
      if (box < 16 || box > size - at) return false;
      at += box;
      continue;
    }
    if (box < 8 || box > size - at || box > INT32_MAX) return false;
    // An mdat's payload never reaches the parser: its header is enough.
    if (!Boxlane_Parse_Send(kClient, header, mdat ? 8 : static_cast<int32_t>(box))) return false;
    at += box;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || (argc == 3 && std::strcmp(argv[2], "--queries") != 0)) {
    std::fprintf(stderr, "usage: %s FILE [--queries]\n", argv[0]);
    return 2;
  }
  const bool queries = argc == 3;
  const auto start = std::chrono::steady_clock::now();
  const int fd = open(argv[1], O_RDONLY);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < 8) {
    std::fprintf(stderr, "%s: cannot read\n", argv[1]);
    return 1;
  }
  const auto size = static_cast<std::size_t>(st.st_size);
  void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  if (map == MAP_FAILED) {
    std::perror(argv[1]);
    return 1;
  }
  Boxlane_Parse_Insert(kClient);
  const bool sent = send_file(static_cast<const uint8_t*>(map), size);
  munmap(map, size);
  if (!sent) {
    std::fprintf(stderr, "%s: not read to the end (error 0x%llx)\n", argv[1],
                 static_cast<unsigned long long>(Boxlane_GetLastError(nullptr)));
    return 1;
  }
  const int headers = boxlane::bench::drain_headers(kClient);
  const uint64_t entries = queries ? boxlane::bench::take_everything(kClient) : 0;
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  std::printf("%d boxes, %llu table entries, %.3f ms\n", headers, static_cast<unsigned long long>(entries),
              took.count());
  // Untimed: the sample count of each track, so a run can be checked
  // against another reader of the same file.
  int32_t tracks[10];
  std::fill(std::begin(tracks), std::end(tracks), -1);
  if (queries && Boxlane_Parse_GetTrack(kClient, tracks)) {
    for (int32_t id : tracks) {
      if (id >= 0) std::printf("track %d: %u samples\n", id, boxlane::bench::take_track_tables(kClient, id).stsz);
    }
  }
  Boxlane_Parse_Delete(kClient);
  return 0;
}
