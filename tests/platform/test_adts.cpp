// tests/data/aac_lc_44100_stereo.adts: ffmpeg -f lavfi -i sine=frequency=440:sample_rate=44100 -t 0.1
// -ac 2 -c:a aac -f adts. ffprobe -show_packets: frames of 345 415 340 351 409 14 bytes, LC, 44100 Hz, 2 ch.
#include "platform/adts.hpp"
#include "platform/sanvik.hpp"
#include "support/paths.hpp"

#include <vector>

namespace {

using boxlane::AdtsHeader;
using boxlane::parse_adts;

// ISO/IEC 14496-3 Table 1.A.5/1.A.6, field by field, padded to `size` bytes.
std::vector<uint8_t> adts(unsigned sync, unsigned layer, bool no_crc, unsigned sfi, unsigned length, std::size_t size = 7) {
  const uint64_t bits = uint64_t(sync) << 44 | uint64_t(layer) << 41 | uint64_t(no_crc) << 40 | 1ull << 38 |
                        uint64_t(sfi) << 34 | 2ull << 30 | uint64_t(length) << 13 | 0x7FFull << 2;
  std::vector<uint8_t> out(size, 0);
  for (int i = 0; i < 7; ++i) out[i] = uint8_t(bits >> (48 - 8 * i));
  return out;
}

TEST(Adts, ReadsAnFfmpegStream) {
  const auto stream = boxlane::test::read_file(boxlane::test::source_dir() + "/tests/data/aac_lc_44100_stereo.adts");
  std::vector<unsigned> lengths;
  AdtsHeader h;
  for (std::size_t pos = 0; pos < stream.size(); pos += h.frame_length) {
    ASSERT_TRUE(parse_adts(stream.data() + pos, stream.size() - pos, h)) << pos;
    EXPECT_TRUE(h.profile == 1 && h.sample_rate == 44100 && h.channel_config == 2 && h.header_length == 7);
    lengths.push_back(h.frame_length);
  }
  EXPECT_EQ(lengths, (std::vector<unsigned>{345, 415, 340, 351, 409, 14}));
  uint8_t asc[3] = {0, 0, 0xEE};
  boxlane::audio_specific_config(h, asc);
  EXPECT_EQ(boxlane::test::hex(asc, 3), "12 10 EE");
  // ISO/IEC 14496-3 §1.6.2.1 by hand, LTP 8000 Hz 7.1: 00100 1011 0111 000.
  h.profile = 3, h.sampling_index = 11, h.channel_config = 7;
  boxlane::audio_specific_config(h, asc);
  EXPECT_EQ(boxlane::test::hex(asc, 2), "25 B8");

  int profile = -1, rate = -1, channels = -1, length = -1;
  ASSERT_TRUE(Sanvik_Parse_AACInfo(stream.data(), 345, &profile, &rate, &channels, &length));
  EXPECT_EQ(std::vector<int>({profile, rate, channels, length}), std::vector<int>({1, 44100, 2, 345}));
  EXPECT_FALSE(Sanvik_Parse_AACInfo(stream.data(), 344, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(Sanvik_Parse_AACInfo(stream.data(), -1, nullptr, nullptr, nullptr, nullptr));
}

TEST(Adts, RejectsEachBadField) {
  AdtsHeader h;
  EXPECT_TRUE(parse_adts(adts(0xFFF, 0, true, 12, 7).data(), 7, h));
  EXPECT_EQ(h.sample_rate, 7350u);
  // Sync word twice, layer, reserved sampling index, frame shorter than its
  // header, and with a CRC (9-byte header) a frame of 8.
  const std::vector<uint8_t> bad[] = {adts(0xFFE, 0, true, 3, 7), adts(0x7FF, 0, true, 3, 7), adts(0xFFF, 2, true, 3, 7),
                                      adts(0xFFF, 0, true, 13, 7), adts(0xFFF, 0, true, 3, 6),
                                      adts(0xFFF, 0, false, 3, 8, 9)};
  for (const auto& header : bad) EXPECT_FALSE(parse_adts(header.data(), header.size(), h)) << boxlane::test::hex(header);
  ASSERT_TRUE(parse_adts(adts(0xFFF, 0, false, 3, 9, 9).data(), 9, h));
  EXPECT_EQ(h.header_length, 9);

  // frame_length 100: every shorter view is refused, read from an exact-size
  // heap copy so that a read past the end trips the sanitizer.
  const auto frame = adts(0xFFF, 0, true, 4, 100, 100);
  for (std::size_t size = 0; size < frame.size(); ++size)
    EXPECT_FALSE(parse_adts(std::vector<uint8_t>(frame.begin(), frame.begin() + long(size)).data(), size, h)) << size;
  EXPECT_TRUE(parse_adts(frame.data(), frame.size(), h));
}

// ISO/IEC 14496-3 Table 4.2 written out by hand: LC at 44.1 kHz, a front
// CPE and a side SCE (tag 3), mono and matrix mixdowns (index 2, no pseudo
// surround), the comment "hi". In a frame
// the PCE follows the 3-bit element id and aligns from the block's start; in
// the configuration it follows 16 bits and aligns from there.
TEST(Adts, ProgramConfigElementMovesIntoTheConfiguration) {
  AdtsHeader h;
  h.profile = 1;
  h.sampling_index = 4;
  const auto raw = boxlane::test::unhex("A2 A0 88 00 26 C8 0C 02 68 69 E0");
  std::vector<uint8_t> config;
  unsigned channels = 0;
  ASSERT_TRUE(boxlane::audio_specific_config_with_pce(h, raw.data(), raw.size(), config, channels));
  EXPECT_EQ(boxlane::test::hex(config), "12 00 15 04 40 01 36 40 60 02 68 69");
  EXPECT_EQ(channels, 3u);
  // Cut anywhere before the comment ends (exact heap copies), or opening
  // with another element (ID_CPE), it is refused and nothing is kept.
  for (std::size_t size = 0; size < 10; ++size) {
    const std::vector<uint8_t> cut(raw.begin(), raw.begin() + long(size));
    std::vector<uint8_t> none;
    EXPECT_FALSE(boxlane::audio_specific_config_with_pce(h, cut.data(), cut.size(), none, channels)) << size;
    EXPECT_TRUE(none.empty());
  }
  auto other = raw;
  other[0] = 0x22;
  EXPECT_FALSE(boxlane::audio_specific_config_with_pce(h, other.data(), other.size(), config, channels));
}

}  // namespace