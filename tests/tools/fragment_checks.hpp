// Checks of a fragmented MP4 shared by the tools suites: the top-level layout
// and fragments that open with a video key frame where the cut rule puts them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"

namespace boxlane::test {

inline std::vector<TopBox> boxes_of(const std::string& file) { return top_boxes(read_file(file)); }

// The sequence number of each moof's mfhd, the box that opens it (ISO/IEC 14496-12 §8.8.5).
inline std::vector<uint32_t> sequence_numbers(const std::string& file) {
  const auto bytes = read_file(file);
  std::vector<uint32_t> numbers;
  for (const TopBox& box : top_boxes(bytes)) {
    if (box.type != "moof") continue;
    const uint8_t* mfhd = bytes.data() + box.offset + 8;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(mfhd) + 4, 4), "mfhd");
    numbers.push_back(uint32_t(mfhd[12]) << 24 | mfhd[13] << 16 | mfhd[14] << 8 | mfhd[15]);
  }
  return numbers;
}

// mehd's duration in seconds of the mvhd's time scale (ISO/IEC 14496-12 §8.8.2), from the bytes; -1 without.
inline double mehd_seconds(const std::string& file) {
  const auto bytes = read_file(file);
  const std::string text(bytes.begin(), bytes.end());
  const std::size_t mvhd = text.find("mvhd"), mehd = text.find("mehd");
  if (mvhd == std::string::npos || mehd == std::string::npos) return -1;
  const auto field = [&](std::size_t at, int size) {
    uint64_t v = 0;
    for (int i = 0; i < size; ++i) v = v << 8 | bytes.at(at + i);
    return double(v);
  };
  return field(mehd + 8, bytes.at(mehd + 4) == 1 ? 8 : 4) / field(mvhd + (bytes.at(mvhd + 4) == 1 ? 24 : 16), 4);
}

// ftyp, moov, then moof and mdat pairs numbered 1, 2, 3, ..., an optional mfra last; with
// `seconds` above 0 each fragment opens with a key frame, the first at least `seconds` after the
// start of the fragment before, as ffprobe reads the file.
inline void expect_fragment_layout(const std::string& file, double seconds) {
  std::string layout, want = "ftyp moov";
  std::vector<uint64_t> moofs;
  for (const TopBox& box : boxes_of(file)) {
    layout += (layout.empty() ? "" : " ") + box.type;
    if (box.type == "moof") moofs.push_back(box.offset), want += " moof mdat";
  }
  EXPECT_EQ(layout, layout.ends_with(" mfra") ? want + " mfra" : want);
  ASSERT_FALSE(moofs.empty());
  const auto numbers = sequence_numbers(file);
  for (std::size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], i + 1);
  if (seconds <= 0) return;
  const auto packets = probe_packets(file, 'v');
  std::vector<double> cuts, expected{packets.front().dts};
  std::size_t next = 0;
  for (const ProbedPacket& p : packets) {
    for (; next < moofs.size() && uint64_t(p.pos) > moofs[next]; ++next) {
      EXPECT_TRUE(p.key) << "fragment " << next << " opens with a picture that is not a key frame";
      cuts.push_back(p.dts);
    }
    if (p.key && p.dts - expected.back() >= seconds - 1e-6) expected.push_back(p.dts);
  }
  EXPECT_EQ(cuts, expected);
}

}  // namespace boxlane::test
