// tests/data/aac_lc_44100_stereo.adts was made with
//   ffmpeg -f lavfi -i sine=frequency=440:sample_rate=44100 -t 0.1 -ac 2 -c:a aac -f adts aac_lc_44100_stereo.adts
// and ffprobe -show_packets reports its frames as 345 415 340 351 409 14 bytes,
// AAC LC, 44100 Hz, 2 channels.
#include "platform/adts.hpp"
#include "platform/sanvik.hpp"
#include "support/paths.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using boxlane::AdtsHeader;
using boxlane::parse_adts;

std::vector<uint8_t> fixture() { return boxlane::test::read_file(boxlane::test::source_dir() + "/tests/data/aac_lc_44100_stereo.adts"); }

// A header with every field given, laid out as ISO/IEC 14496-3 Table 1.A.5/1.A.6.
std::vector<uint8_t> header(unsigned sync, unsigned layer, bool protection_absent, unsigned profile, unsigned sfi,
                            unsigned channels, unsigned frame_length) {
  uint64_t bits = 0;
  auto put = [&bits](uint64_t value, unsigned width) { bits = (bits << width) | (value & ((1u << width) - 1)); };
  put(sync, 12);
  put(0, 1);  // ID: MPEG-4
  put(layer, 2);
  put(protection_absent, 1);
  put(profile, 2);
  put(sfi, 4);
  put(0, 1);
  put(channels, 3);
  put(0, 4);
  put(frame_length, 13);
  put(0x7FF, 11);
  put(0, 2);
  std::vector<uint8_t> out;
  for (int shift = 48; shift >= 0; shift -= 8) out.push_back(uint8_t(bits >> shift));
  return out;
}

TEST(Adts, ReadsEveryFrameOfAnFfmpegStream) {
  const auto stream = fixture();
  const std::vector<unsigned> expected = {345, 415, 340, 351, 409, 14};
  std::vector<unsigned> lengths;
  std::size_t pos = 0;
  while (pos < stream.size()) {
    AdtsHeader h;
    ASSERT_TRUE(parse_adts(stream.data() + pos, stream.size() - pos, h)) << "at " << pos;
    EXPECT_EQ(h.profile, 1);
    EXPECT_EQ(h.sampling_index, 4);
    EXPECT_EQ(h.sample_rate, 44100u);
    EXPECT_EQ(h.channel_config, 2);
    EXPECT_TRUE(h.protection_absent);
    EXPECT_EQ(h.header_length, 7);
    lengths.push_back(h.frame_length);
    pos += h.frame_length;
  }
  EXPECT_EQ(lengths, expected);

  int profile = -1, rate = -1, channels = -1, length = -1;
  ASSERT_TRUE(Sanvik_Parse_AACInfo(stream.data(), int(stream.size()), &profile, &rate, &channels, &length));
  EXPECT_EQ(profile, 1);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  EXPECT_EQ(length, 345);
  EXPECT_TRUE(Sanvik_Parse_AACInfo(stream.data(), 345, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(Sanvik_Parse_AACInfo(stream.data(), 344, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(Sanvik_Parse_AACInfo(stream.data(), -1, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(Sanvik_Parse_AACInfo(nullptr, 345, nullptr, nullptr, nullptr, nullptr));
}

TEST(Adts, RejectsEachBadField) {
  AdtsHeader h;
  const auto good = header(0xFFF, 0, true, 1, 3, 2, 7);
  ASSERT_TRUE(parse_adts(good.data(), good.size(), h));
  EXPECT_EQ(h.sample_rate, 48000u);
  EXPECT_EQ(h.frame_length, 7);

  EXPECT_FALSE(parse_adts(header(0xFFE, 0, true, 1, 3, 2, 7).data(), 7, h)) << "sync word";
  EXPECT_FALSE(parse_adts(header(0x7FF, 0, true, 1, 3, 2, 7).data(), 7, h)) << "sync word";
  EXPECT_FALSE(parse_adts(header(0xFFF, 1, true, 1, 3, 2, 7).data(), 7, h)) << "layer";
  EXPECT_FALSE(parse_adts(header(0xFFF, 3, true, 1, 3, 2, 7).data(), 7, h)) << "layer";
  EXPECT_TRUE(parse_adts(header(0xFFF, 0, true, 1, 12, 2, 7).data(), 7, h)) << "7350 Hz is the last rate";
  EXPECT_EQ(h.sample_rate, 7350u);
  EXPECT_FALSE(parse_adts(header(0xFFF, 0, true, 1, 13, 2, 7).data(), 7, h)) << "reserved index";
  EXPECT_FALSE(parse_adts(header(0xFFF, 0, true, 1, 15, 2, 7).data(), 7, h)) << "escape index";
  EXPECT_FALSE(parse_adts(header(0xFFF, 0, true, 1, 3, 2, 6).data(), 7, h)) << "frame shorter than header";
  EXPECT_FALSE(parse_adts(header(0xFFF, 0, true, 1, 3, 2, 0).data(), 7, h)) << "frame length 0";

  // With a CRC the header is 9 bytes, so a frame must be at least that long.
  std::vector<uint8_t> crc = header(0xFFF, 0, false, 1, 3, 2, 8);
  crc.resize(9);
  EXPECT_FALSE(parse_adts(crc.data(), crc.size(), h));
  crc = header(0xFFF, 0, false, 1, 3, 2, 9);
  crc.resize(9);
  ASSERT_TRUE(parse_adts(crc.data(), crc.size(), h));
  EXPECT_FALSE(h.protection_absent);
  EXPECT_EQ(h.header_length, 9);
}

TEST(Adts, NeverReadsPastTheBytesGiven) {
  // frame_length says 100 bytes; every shorter view is refused.
  auto frame = header(0xFFF, 0, true, 1, 4, 2, 100);
  frame.resize(100, 0xAA);
  AdtsHeader h;
  for (std::size_t size = 0; size < frame.size(); ++size) {
    // An exact-size heap copy, so a read past the end trips the sanitizer.
    const std::vector<uint8_t> cut(frame.begin(), frame.begin() + std::ptrdiff_t(size));
    EXPECT_FALSE(parse_adts(cut.data(), cut.size(), h)) << size;
  }
  EXPECT_TRUE(parse_adts(frame.data(), frame.size(), h));
  EXPECT_FALSE(parse_adts(nullptr, 100, h));
}

TEST(Adts, AudioSpecificConfig) {
  // ISO/IEC 14496-3 §1.6.2.1, worked by hand: 5 bits object type, 4 bits
  // sampling index, 4 bits channels, 3 zero bits.
  struct Case {
    uint8_t profile, sfi, channels, b0, b1;
  } const cases[] = {
      {1, 4, 2, 0x12, 0x10},  // LC 44100 stereo: 00010 0100 0010 000
      {1, 3, 1, 0x11, 0x88},  // LC 48000 mono:   00010 0011 0001 000
      {0, 0, 6, 0x08, 0x30},  // Main 96000 5.1:  00001 0000 0110 000
      {3, 11, 7, 0x25, 0xB8}, // LTP 8000 7.1:    00100 1011 0111 000
  };
  for (const auto& c : cases) {
    AdtsHeader h;
    h.profile = c.profile;
    h.sampling_index = c.sfi;
    h.channel_config = c.channels;
    uint8_t out[3] = {0xEE, 0xEE, 0xEE};
    boxlane::audio_specific_config(h, out);
    EXPECT_EQ(out[0], c.b0);
    EXPECT_EQ(out[1], c.b1);
    EXPECT_EQ(out[2], 0xEE) << "writes two bytes only";
  }

  AdtsHeader from_stream;
  const auto stream = fixture();
  ASSERT_TRUE(parse_adts(stream.data(), stream.size(), from_stream));
  uint8_t out[2];
  boxlane::audio_specific_config(from_stream, out);
  EXPECT_EQ(out[0], 0x12);
  EXPECT_EQ(out[1], 0x10);
}

}  // namespace
