// The hvc1/hvcC stsd writer against boxes worked out by hand from the parameter sets (ISO/IEC 14496-15 §8.3.3.1).
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"
#include "support/hevc_units.hpp"

#include <string>
#include <vector>

namespace boxlane::test {
namespace {

using Bytes = std::vector<uint8_t>;

// libx265 Main, 320x240, and Main 10, 328x184 coded, 322x182 shown (see tests/platform/test_hevc.cpp).
const std::string kVps = "40010c01ffff01600000030090000003000003003c959809";
const std::string kSps = "42010101600000030090000003000003003ca00a080f165959a4932bc05a020000030002000003003210";
const std::string kPps = "4401c172b46240";
const std::string kVps10 = "40010c01ffff02200000030090000003000003003c959409";
const std::string kSps10 =
    "42010102200000030090000003000003003ca00a480b9c94d96565924caf01680800001f480003a98300a4837000493e000927c4";

Bytes annexb(const std::vector<Bytes>& units, std::size_t zeros = 3) {
  test::Bytes out;
  for (const Bytes& u : units) out.zeros(zeros).u8(1).add(u);
  return out;
}

class HevcSampleDescription : public WriterTest {
 protected:
  std::string stsd(const Bytes& sets) { return box(Boxlane_Packet_STsdHEVC, sets.data(), int32_t(sets.size())); }
  // The hvcC payload after its 8-byte header, as hex.
  std::string hvcc(const Bytes& sets) {
    const std::string all = stsd(sets);
    return all.size() > 133 * 3 ? all.substr(110 * 3) : "";
  }
  void refused(const Bytes& sets) {
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdHEVC, sets.data(), int32_t(sets.size()));
  }
};

TEST_F(HevcSampleDescription, X265MainAndMain10ByHand) {
  // 221 bytes: space 0, tier 0, profile 1; compatibility 1 and 2; level 60; no segmentation restriction
  // (parallelismType 0); 4:2:0, 8 bits; one temporal layer, nested, 4-byte lengths (0F); three complete arrays.
  EXPECT_EQ(stsd(annexb({unhex(kVps), unhex(kSps), unhex(kPps)})),
            bytes_hex("000000DD 73747364 00000000 00000001 000000CD 68766331 000000000000 0001" + std::string(32, '0') +
                      "0140 00F0 00480000 00480000 00000000 0001 0448455643" + std::string(54, '0') + "0018 FFFF"
                      "00000077 68766343 01 01 60000000 9000 00000000 3C F000 FC FD F8 F8 0000 0F 03"
                      "A0 0001 0018" + kVps + "A1 0001 002A" + kSps + "A2 0001 0007" + kPps));

  // Main 10: profile 2, compatibility 2 only, 10-bit (FA FA), 322 x 182 after the window. A repeated PPS goes.
  EXPECT_EQ(hvcc(annexb({unhex(kPps), unhex(kVps10), unhex(kSps10), unhex(kPps)})),
            bytes_hex("01 02 20000000 9000 00000000 3C F000 FC FD FA FA 0000 0F 03"
                      "A0 0001 0018" + kVps10 + "A1 0001 0034" + kSps10 + "A2 0001 0007" + kPps));
  EXPECT_EQ(stsd(annexb({unhex(kVps10), unhex(kSps10), unhex(kPps)})).substr(48 * 3, 11), "01 42 00 B6");
}

// The record describes every SPS (§8.3.3.2): space, profile, chroma of the first; flags all set; the highest tier,
// level and layers, the lowest segmentation; nested if all nest. parallelismType: wavefronts 3, tiles 2, neither 1.
TEST_F(HevcSampleDescription, FieldsThatDescribeEverySet) {
  // Space 1, high tier, profile 2, compatibility 0x20000000, constraints 0x800000000001, level 153,
  // min_spatial_segmentation_idc 1000; three temporal layers (nested, then not); 4:4:4 at 15 and 14 bits.
  HandSps hand, deep;
  hand.sub_layers_minus1 = 2;
  Bytes unnested = hand.nal();
  unnested[2] &= 0xFE;  // sps_temporal_id_nesting_flag
  deep.chroma = 3, deep.luma_minus8 = 7, deep.chroma_minus8 = 6;
  const Bytes vps = unhex(kVps), wpp = hand_pps(0, false, false, 0, true, false),
              tiles = hand_pps(1, false, false, 0, false, true), neither = hand_pps(2, false, false, 0, false, false);
  const struct {
    std::vector<Bytes> units;
    const char* head;  // the first 22 bytes of hvcC
  } cases[] = {
      {{vps, hand.nal(), wpp}, "01 62 20000000 8000 00000001 99 F3E8 FF FD F8 F8 0000 1F"},
      {{vps, hand.nal(), tiles}, "01 62 20000000 8000 00000001 99 F3E8 FE FD F8 F8 0000 1F"},
      {{vps, hand.nal(), neither}, "01 62 20000000 8000 00000001 99 F3E8 FD FD F8 F8 0000 1F"},
      {{vps, hand.nal(), wpp, tiles}, "01 62 20000000 8000 00000001 99 F3E8 FC FD F8 F8 0000 1F"},
      {{vps, hand.nal(), hand_pps(3)}, "01 62 20000000 8000 00000001 99 F3E8 FC FD F8 F8 0000 1F"},  // both in one
      {{vps, unnested, unhex(kSps), unhex(kPps)}, "01 62 20000000 8000 00000000 99 F000 FC FD F8 F8 0000 1B"},
      {{vps, deep.nal(), wpp}, "01 62 20000000 8000 00000001 99 F3E8 FF FF FF FE 0000 0F"},
  };
  for (const auto& c : cases) EXPECT_EQ(hvcc(annexb(c.units)).substr(0, 22 * 3 - 1), bytes_hex(c.head)) << c.units.size();
  // 16-bit luma or chroma is not describable: hvcC has 3 bits for each bit depth minus 8.
  for (const auto& [luma, chroma] : {std::pair{8u, 6u}, {7u, 8u}}) {
    deep.luma_minus8 = luma, deep.chroma_minus8 = chroma;
    refused(annexb({vps, deep.nal(), wpp}));
  }
}

TEST_F(HevcSampleDescription, WhatTheInputMayHold) {
  const Bytes vps = unhex(kVps), sps = unhex(kSps), pps = unhex(kPps);
  // The largest input, 65536 bytes, and one more; units that are no parameter sets (filler, unreadable) are skipped.
  Bytes filler = {0x4C, 0x01};
  filler.resize(65536 - annexb({vps, sps, pps, {0x4C}, {}}).size(), 0xFF);
  Bytes big = annexb({vps, sps, pps, {0x4C}, filler});
  EXPECT_EQ(stsd(big), stsd(annexb({vps, sps, pps})));
  big.push_back(0xFF);
  refused(big);

  // 64 parameter sets in all (a repeat after them is left out), and 65.
  std::vector<Bytes> many{vps, sps};
  for (uint32_t id = 0; id < 62; ++id) many.push_back(hand_pps(id));
  many.push_back(vps);
  EXPECT_EQ(stsd(annexb(many)).substr(209 * 3, 8), "A2 00 3E") << "62 PPS after the VPS and SPS arrays";
  many.push_back(hand_pps(62));
  refused(annexb(many));

  // The documented size, 142 + the input's bytes, is enough; with 3-byte start codes it is 3 bytes more than needed.
  const Bytes close = annexb({vps, sps, pps}, 2);
  exact(139 + close.size(), Boxlane_Packet_STsdHEVC, close.data(), int32_t(close.size()));
  // Missing or unreadable (cut) parameter sets.
  const auto cut = [](const Bytes& unit, std::size_t size) { return Bytes(unit.begin(), unit.begin() + size); };
  for (const Bytes& sets : {annexb({sps, pps}), annexb({vps, pps}), annexb({vps, sps}), annexb({vps, cut(sps, 20), pps}),
                            annexb({cut(vps, 6), sps, pps}), annexb({vps, sps, cut(pps, 3)})})
    refused(sets);
  // A length below 1 is refused before the bytes are read.
  for (const int32_t length : {0, -1})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdHEVC, big.data(), length);
}

}  // namespace
}  // namespace boxlane::test
