#include "platform/adts.hpp"
#include "platform/sanvik.hpp"
#include "support/paths.hpp"

#include <array>
#include <vector>

namespace {

using boxlane::AdtsHeader;
using boxlane::parse_adts;
using boxlane::test::hex;
using boxlane::test::unhex;

// ISO/IEC 14496-3 Table 1.A.5/1.A.6 bit by bit, each header in `size` bytes (an exact heap copy); the
// AudioSpecificConfig of §1.6.2.1 and what Sanvik_Parse_AACInfo hands out follow from it.
TEST(Adts, HeadersFieldByFieldAndTheirConfigurations) {
  const struct {
    const char* what;
    const char* header;
    std::size_t size;
    bool ok;
    std::array<unsigned, 7> fields;  // profile, rate, channels, crc, header, frame length, raw blocks
    const char* config;
  } cases[] = {
      {"LC 44.1 kHz stereo", "FF F1 50 80 00 FF FC", 7, true, {1, 44100, 2, 0, 7, 7, 0}, "12 10"},
      {"Main 96 kHz mono", "FF F1 00 40 00 E0 00", 7, true, {0, 96000, 1, 0, 7, 7, 0}, "08 08"},
      {"SSR 48 kHz 5.1, 2 blocks", "FF F1 8D 80 01 05 55", 8, true, {2, 48000, 6, 0, 7, 8, 1}, "19 B0"},
      {"LTP 8 kHz 7.1 with CRC", "FF F0 ED C0 01 20 03", 9, true, {3, 8000, 7, 1, 9, 9, 3}, "25 B8"},
      {"MPEG-2 (ID 1) LC 44.1 kHz stereo", "FF F9 50 80 00 FF FC", 7, true, {1, 44100, 2, 0, 7, 7, 0}, "12 10"},
      {"longest frame", "FF F1 50 83 FF FF FC", 8191, true, {1, 44100, 2, 0, 7, 8191, 0}, "12 10"},
      {"longest frame, one byte short", "FF F1 50 83 FF FF FC", 8190, false, {}, ""},
      {"index 13 is reserved", "FF F1 74 80 00 FF FC", 7, false, {}, ""},
      {"sync word FFE", "FF E1 50 80 00 FF FC", 7, false, {}, ""},
      {"layer 1", "FF F3 50 80 00 FF FC", 7, false, {}, ""},
      {"layer 2: MPEG-1 Layer II audio", "FF FD 50 80 00 FF FC", 7, false, {}, ""},
      {"frame of 6 bytes", "FF F1 50 80 00 DF FC", 7, false, {}, ""},
      {"CRC frame of 8 bytes", "FF F0 50 80 01 1F FC", 9, false, {}, ""},
      {"cut in the header", "FF F1 50 80 00 FF", 6, false, {}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> bytes = unhex(c.header);
    bytes.resize(c.size, 0);
    AdtsHeader h;
    int info[4] = {-1, -1, -1, -1};
    ASSERT_EQ(parse_adts(bytes.data(), bytes.size(), h), c.ok);
    ASSERT_EQ(Sanvik_Parse_AACInfo(bytes.data(), int(bytes.size()), &info[0], &info[1], &info[2], &info[3]), c.ok);
    ASSERT_EQ(Sanvik_Parse_AACInfo(bytes.data(), int(bytes.size()), nullptr, nullptr, nullptr, nullptr), c.ok);
    if (!c.ok) continue;
    EXPECT_FALSE(Sanvik_Parse_AACInfo(bytes.data(), -1, &info[0], &info[1], &info[2], &info[3])) << "length -1";
    EXPECT_EQ((std::array<unsigned, 4>{unsigned(info[0]), unsigned(info[1]), unsigned(info[2]), unsigned(info[3])}),
              (std::array<unsigned, 4>{c.fields[0], c.fields[1], c.fields[2], c.fields[5]}));
    EXPECT_EQ((std::array<unsigned, 7>{h.profile, h.sample_rate, h.channel_config, !h.protection_absent,
                                       h.header_length, h.frame_length, h.raw_data_blocks}),
              c.fields);
    uint8_t asc[3] = {0, 0, 0xEE};
    boxlane::audio_specific_config(h, asc);
    EXPECT_EQ(hex(asc, 3), hex(unhex(c.config)) + " EE");
  }
  // Table 1.18, every sampling_frequency_index in use.
  const unsigned rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
  for (uint8_t index = 0; index < 13; ++index) {
    const uint8_t bytes[] = {0xFF, 0xF1, uint8_t(0x40 | index << 2), 0x80, 0x00, 0xFF, 0xFC};
    AdtsHeader h;
    EXPECT_TRUE(parse_adts(bytes, sizeof bytes, h) && h.sample_rate == rates[index]) << +index;
  }
}

// ISO/IEC 14496-3 Table 4.2 by hand: the PCE after a 3-bit element id in a frame, after 16 bits in the configuration.
TEST(Adts, ProgramConfigElementMovesIntoTheConfiguration) {
  const struct {
    const char* what;
    uint8_t sampling_index;
    const char* raw;
    const char* config;
    unsigned channels;
  } cases[] = {
      // A front CPE, a side SCE (tag 3), mono, stereo (element 5) and matrix (index 2) mixdowns, comment "hi".
      {"44.1 kHz, 3 channels", 4, "A2 A0 88 00 27 5C 80 C0 02 68 69 E0", "12 00 15 04 40 01 3A E4 06 02 68 69", 3},
      // 5.1: front SCE and CPE, back CPE, LFE, a data element, an independent coupling channel; no comment.
      {"16 kHz, 5.1", 8, "A0 C1 00 A4 40 21 10 29 80 00 E0", "14 00 06 08 05 22 01 08 81 4C 00", 6},
  };
  AdtsHeader h;
  h.profile = 1;
  std::vector<uint8_t> config;
  unsigned channels = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    h.sampling_index = c.sampling_index;
    const auto raw = unhex(c.raw);
    ASSERT_TRUE(boxlane::audio_specific_config_with_pce(h, raw.data(), raw.size(), config, channels));
    EXPECT_EQ(std::pair(hex(config), channels), std::pair(hex(unhex(c.config)), c.channels));
    // Cut anywhere before the comment ends (exact heap copies), it is refused and nothing is kept; cut right after
    // it (no ID_END), it is taken whole.
    for (std::size_t size = 0; size < raw.size(); ++size) {
      const std::vector<uint8_t> cut(raw.begin(), raw.begin() + long(size));
      std::vector<uint8_t> kept;
      const bool whole = size + 1 == raw.size();
      EXPECT_EQ(boxlane::audio_specific_config_with_pce(h, cut.data(), cut.size(), kept, channels), whole) << size;
      EXPECT_EQ(hex(kept), whole ? hex(config) : "");
    }
  }
  // A block that opens with another element (ID_CPE) is refused.
  const auto other = unhex("22 A0 88 00 26 C8 0C 02 68 69 E0");
  EXPECT_FALSE(boxlane::audio_specific_config_with_pce(h, other.data(), other.size(), config, channels));
}

}  // namespace
