// Writes a whole MP4 file through the flat writer API the way a recording
// application would: ftyp, mdat, every frame, then the moov assembled from
// the header boxes, sample descriptions and sample tables.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace boxlane::test {

struct Mp4VideoInput {
  std::vector<uint8_t> annexb;  // one slice per picture, in decode order; SPS and PPS go to the stsd
  int frame_rate = 30;
  int width = 0;
  int height = 0;
  std::vector<int> composition_frames;  // presentation minus decode time in frames; empty: no B-frames
};

struct Mp4AudioInput {
  std::vector<uint8_t> adts;  // AAC with an ADTS header on every frame
};

struct Mp4WriteResult {
  std::vector<uint8_t> file;
  uint32_t time_scale = 0;
  // Per sample: the NAL units with their 4-byte lengths; the frame without its ADTS header.
  std::vector<uint32_t> video_sizes;
  std::vector<uint32_t> audio_sizes;
  std::vector<bool> video_keys;
  int composition_shift = 0;  // frames added to keep composition offsets positive; the edit list removes them
};

// Writes with a client of the given name (inserted and deleted here); either
// input may be null. Failures fail the running test.
Mp4WriteResult write_mp4(const std::string& client, const Mp4VideoInput* video, const Mp4AudioInput* audio);

struct TopBox {
  std::string type;
  uint64_t offset = 0, size = 0;
  bool operator==(const TopBox&) const = default;
};
inline void PrintTo(const TopBox& box, std::ostream* os) { *os << box.type << " at " << box.offset << " size " << box.size; }

// The top-level boxes of a file, read straight from its bytes.
std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file);

}  // namespace boxlane::test
