// A movie header built in memory for the parser benchmarks: ftyp, then a moov
// with an H.264 track with B-frames and an AAC track, every sample table
// present, laid out the way a recorder that writes one sample per chunk lays
// it out. One hour at 30 fps and 48 kHz gives 108,000 video and 168,750 audio
// samples, a little over 3 MB of boxes.
#pragma once

#include <cstdint>
#include <vector>

namespace boxlane::bench {

struct MovieShape {
  uint32_t seconds = 3600;
  uint32_t fps = 30;
  uint32_t sample_rate = 48000;
};

// Entries per table as the parser keeps them: stts and ctts runs, stsc rows,
// stsz sizes, stco offsets, stss numbers, sdtp bytes.
struct TableCounts {
  uint32_t stts = 0;
  uint32_t ctts = 0;
  uint32_t stsc = 0;
  uint32_t stsz = 0;
  uint32_t stco = 0;
  uint32_t stss = 0;
  uint32_t sdtp = 0;

  uint64_t total() const { return uint64_t{stts} + ctts + stsc + stsz + stco + stss + sdtp; }
};

struct SyntheticMovie {
  std::vector<uint8_t> bytes;  // ftyp, then moov
  uint32_t moov_offset = 0;
  // Where the chunk offsets put the first sample, and the bytes of all
  // samples from there: an mdat payload would start at media_start.
  uint64_t media_start = 0;
  uint64_t media_bytes = 0;
  TableCounts video;  // track 1
  TableCounts audio;  // track 2

  uint64_t table_entries() const { return video.total() + audio.total(); }
};

SyntheticMovie build_movie(const MovieShape& shape = {});

}  // namespace boxlane::bench
