// Reads the index of an MP4 file with the parser and nothing else: every
// top-level box but mdat is read whole and sent in one piece, an mdat's
// payload is skipped, then every table is taken through the queries (what a
// player needs before it can seek). compare.sh times this against a program
// whose only work is avformat_open_input.
//
// usage: boxlane_parse_index FILE [--no-queries]
#include "bench/parse_driver.hpp"

#include <boxlane/boxlane.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr char kClient[] = "parse-index";

uint32_t be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

bool is_mdat(const uint8_t* header) { return std::memcmp(header + 4, "mdat", 4) == 0; }

// Sends the file's boxes; false on a read error or a refused piece.
bool send_file(std::FILE* file) {
  std::vector<uint8_t> box;
  uint8_t header[8];
  while (std::fread(header, 1, sizeof header, file) == sizeof header) {
    const uint32_t size = be32(header);
    // Size 1 (64-bit size) and 0 (to the end) only ever frame an mdat in
    // the files this reads; the index is in the other boxes.
    if (size == 0) return true;
    if (size == 1) {
      uint8_t large[8];
      if (std::fread(large, 1, sizeof large, file) != sizeof large) return false;
      const uint64_t size64 = uint64_t{be32(large)} << 32 | be32(large + 4);
      if (!is_mdat(header) || size64 < 16) return false;
      if (fseeko(file, static_cast<off_t>(size64 - 16), SEEK_CUR) != 0) return false;
      continue;
    }
    if (size < 8) return false;
    if (is_mdat(header)) {
      if (!Boxlane_Parse_Send(kClient, header, sizeof header)) return false;
      if (fseeko(file, static_cast<off_t>(size - 8), SEEK_CUR) != 0) return false;
      continue;
    }
    box.resize(size);
    std::memcpy(box.data(), header, sizeof header);
    if (std::fread(box.data() + 8, 1, size - 8, file) != size - 8) return false;
    if (!Boxlane_Parse_Send(kClient, box.data(), static_cast<int32_t>(size))) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || (argc == 3 && std::strcmp(argv[2], "--no-queries") != 0)) {
    std::fprintf(stderr, "usage: %s FILE [--no-queries]\n", argv[0]);
    return 2;
  }
  const bool queries = argc == 2;
  std::FILE* file = std::fopen(argv[1], "rb");
  if (!file) {
    std::perror(argv[1]);
    return 1;
  }
  Boxlane_Parse_Insert(kClient);
  const bool sent = send_file(file);
  std::fclose(file);
  if (!sent) {
    std::fprintf(stderr, "%s: not read to the end (error 0x%llx)\n", argv[1],
                 static_cast<unsigned long long>(Boxlane_GetLastError(nullptr)));
    return 1;
  }
  const int headers = boxlane::bench::drain_headers(kClient);
  const uint64_t entries = queries ? boxlane::bench::take_everything(kClient) : 0;
  Boxlane_Parse_Delete(kClient);
  std::printf("%d boxes, %llu table entries\n", headers, static_cast<unsigned long long>(entries));
  return 0;
}
