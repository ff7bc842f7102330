// The H.264 syntax parser on parameter sets and slice headers that x264 made
// (the expected values come from the encoder settings and from ffprobe), and
// on hand-made bit strings for what x264 never writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "platform/h264.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::h264;
using boxlane::test::Bits;
using boxlane::test::unhex;

ParameterSets sets_of(const std::vector<uint8_t>& sps_nal, const std::vector<uint8_t>& pps_nal) {
  ParameterSets sets;
  Sps sps;
  Pps pps;
  EXPECT_TRUE(parse_sps(sps_nal.data(), sps_nal.size(), sps) && parse_pps(pps_nal.data(), pps_nal.size(), pps));
  sets.sps[sps.id] = sps;
  sets.pps[pps.id] = pps;
  sets.has_sps[sps.id] = sets.has_pps[pps.id] = true;
  return sets;
}

// POCs of slices fed in decoding order.
std::vector<int64_t> pocs_of(const ParameterSets& sets, const std::vector<std::vector<uint8_t>>& slices) {
  PocCounter counter;
  std::vector<int64_t> pocs;
  for (const auto& nal : slices) {
    SliceHeader sh;
    EXPECT_TRUE(parse_slice_header(nal.data(), nal.size(), sets, sh)) << boxlane::test::hex(nal);
    pocs.push_back(counter.next(sh, sets.sps[sets.pps[sh.pps_id].sps_id]));
  }
  return pocs;
}

// Display position of each picture: how many POCs come before its own.
std::vector<int> display_of(const std::vector<int64_t>& pocs) {
  std::vector<int> display;
  for (int64_t poc : pocs) display.push_back(int(std::count_if(pocs.begin(), pocs.end(), [&](int64_t p) { return p < poc; })));
  return display;
}

// Plain ue/se decoding is exercised by every parameter set and slice below.
TEST(H264BitReader, EmulationPreventionAndTheLargestCodes) {
  // Every 03 after two zeros is dropped, and counting zeros starts again
  // after it; an 03 after a dropped one is data.
  const std::vector<uint8_t> escaped = {0x06, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x03, 0x03};
  BitReader er(escaped.data(), escaped.size());
  EXPECT_EQ(er.bits(32), 0x00000100u);
  EXPECT_EQ(er.bits(24), 0x000000u);
  EXPECT_EQ(er.bits(16), 0x0303u);
  EXPECT_TRUE(er.ok());
  EXPECT_EQ(er.bits(1), 0u);
  EXPECT_FALSE(er.ok()) << "a read past the end fails";

  // The largest ue (32 leading zeros) does not fit and fails instead of
  // wrapping; 31 leading zeros is the largest legal code.
  const std::vector<uint8_t> huge = {0x67, 0, 0, 0, 0, 0x80, 0, 0, 0, 0};
  BitReader hr(huge.data(), huge.size());
  EXPECT_EQ(hr.ue(), 0u);
  EXPECT_FALSE(hr.ok());
  const std::vector<uint8_t> largest = {0x67, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE};
  BitReader lr(largest.data(), largest.size());
  EXPECT_EQ(lr.ue(), 0xFFFFFFFEu);
  EXPECT_TRUE(lr.ok());
}

// The fields of an SPS the muxer relies on, in one line.
std::string summary(const Sps& s) {
  std::ostringstream o;
  o << "profile " << +s.profile_idc << " level " << +s.level_idc << " chroma " << s.chroma_format_idc
    << (s.frame_mbs_only ? " frames " : " fields ") << s.width << "x" << s.height << " crop " << s.crop_bottom
    << " poc " << s.poc_type << " sar " << s.sar_width << ":" << s.sar_height;
  if (s.timing_info_present) o << " tick " << s.num_units_in_tick << "/" << s.time_scale;
  if (s.bitstream_restriction) o << " reorder " << s.max_num_reorder_frames;
  return o.str();
}

TEST(H264ParameterSets, X264AndHandMadeSequenceParameterSets) {
  // x264, Main, 1920x1080 (68 macroblock rows cropped by 8 lines) at
  // 30000/1001 with two B-frames. (The Baseline SPS used below for POC type 2
  // goes through the same fields.)
  const auto hd = unhex("674d4028eca03c0113f2e022000007d20001d4c01e30632c");
  Sps sps;
  ASSERT_TRUE(parse_sps(hd.data(), hd.size(), sps));
  EXPECT_EQ(summary(sps), "profile 77 level 40 chroma 1 frames 1920x1080 crop 8 poc 0 sar 1:1 tick 1001/60000 reorder 2");

  // The SPS/PPS of tests/data/x264_sps_pps.h264: High, CABAC.
  const auto high = unhex("67 64 00 0B AC D9 42 84 7E 5C 04 40 00 00 03 00 40 00 00 0C 83 C5 0A 65 80");
  const auto cabac = unhex("68 EB E3 CB 22 C0");
  Sps s;
  Pps p;
  ASSERT_TRUE(parse_sps(high.data(), high.size(), s));
  ASSERT_TRUE(parse_pps(cabac.data(), cabac.size(), p));
  EXPECT_EQ(s.profile_idc, 100);
  EXPECT_TRUE(p.entropy_coding_mode);

  // Cut short, wrong NAL type, empty: refused.
  for (std::size_t cut : {std::size_t{1}, std::size_t{4}, std::size_t{10}}) {
    EXPECT_FALSE(parse_sps(hd.data(), cut, sps)) << cut;
  }
  EXPECT_FALSE(parse_sps(cabac.data(), cabac.size(), sps));
  EXPECT_FALSE(parse_pps(hd.data(), hd.size(), p));
  EXPECT_FALSE(parse_pps(cabac.data(), 1, p));

  // High 4:2:2, 1276x720 coded as 1280x736, frame_mbs_only 0 (so map units
  // are field pairs): the crop unit is 2 across and 2 (one line per field) down.
  Bits b;
  b.u(8, 122).u(8, 0).u(8, 40).ue(0).ue(2).ue(0).ue(0).u(1, 0).u(1, 0);
  b.ue(0).ue(2).ue(4).u(1, 0);
  b.ue(1280 / 16 - 1).ue(736 / 32 - 1).u(1, 0).u(1, 1).u(1, 1);
  b.u(1, 1).ue(0).ue(2).ue(0).ue(8);  // cropping: 4 columns at the right, 16 lines at the bottom
  b.u(1, 1).u(1, 1).u(8, 255).u(16, 4).u(16, 3).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0);
  const auto nal = b.nal(3, kNalSps);
  ASSERT_TRUE(parse_sps(nal.data(), nal.size(), sps));
  EXPECT_EQ(summary(sps), "profile 122 level 40 chroma 2 fields 1276x720 crop 16 poc 2 sar 4:3");

  // frame_num and pic_order_cnt_lsb take 16 bits at most (§7.4.2.1.1): 16 is
  // read, 17 refused, for each.
  for (const uint32_t frame_num : {12u, 13u}) {
    for (const uint32_t lsb : {12u, 13u}) {
      Bits limits;
      limits.u(8, 66).u(8, 0).u(8, 30).ue(0).ue(frame_num).ue(0).ue(lsb).ue(1).u(1, 0).ue(0).ue(0);
      limits.u(1, 1).u(1, 1).u(1, 0).u(1, 0);
      const auto unit = limits.nal(3, kNalSps);
      const bool fits = frame_num == 12 && lsb == 12;
      EXPECT_EQ(parse_sps(unit.data(), unit.size(), sps), fits) << frame_num << " " << lsb;
      if (fits) {
        EXPECT_EQ(sps.log2_max_frame_num, 16u);
        EXPECT_EQ(sps.log2_max_poc_lsb, 16u);
      }
    }
  }
}

// Found by fuzzing: a scaling-list delta far outside -128..127 overflowed the
// running scale instead of being refused.
TEST(H264ParameterSets, ScalingListDeltaOutOfRangeIsRefused) {
  const std::vector<uint8_t> nal = {0x67, 0x64, 0x00, 0x0D, 0xAD, 0xD9, 0x41, 0x41, 0xFB, 0x01, 0x3D, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF3, 0xFF, 0x00, 0x00, 0x00, 0x01, 0xFF, 0xFF, 0xFF, 0x74, 0x6B, 0x68, 0x64, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x75, 0x72, 0x20, 0x99, 0x99, 0x60, 0x04};
  Sps sps;
  EXPECT_FALSE(parse_sps(nal.data(), nal.size(), sps));
}

TEST(H264SliceHeader, X264StreamsInDisplayOrder) {
  // The SPS, PPS and the first bytes of each slice of a six-frame x264
  // stream (Main, B-frames). ffprobe shows the frames, in display order, at
  // decoding positions 0, 2, 3, 1, 5, 4.
  const auto sets = sets_of(unhex("674d4028eca03c0113f2e022000007d20001d4c01e30632c"), unhex("68ce0fc8"));
  const std::vector<std::vector<uint8_t>> slices = {
      unhex("65888400e831800788088570"), unhex("419a2302af0cc3879ee3df21"), unhex("419e4142afe78b9b82653953"),
      unhex("019e6242455f1be000881571"), unhex("419a65344a72af5f127571e0"), unhex("019e844519e37c001180f102")};
  EXPECT_EQ(display_of(pocs_of(sets, slices)), (std::vector<int>{0, 3, 1, 2, 5, 4}));

  // The IDR: first macroblock 0, I slice, frame_num 0; slice 3: B, not a reference.
  SliceHeader idr, b;
  ASSERT_TRUE(parse_slice_header(slices[0].data(), slices[0].size(), sets, idr));
  ASSERT_TRUE(parse_slice_header(slices[3].data(), slices[3].size(), sets, b));
  EXPECT_EQ((std::vector<uint32_t>{idr.idr(), idr.first_mb, idr.slice_type, idr.frame_num, b.slice_type, b.nal_ref_idc}),
            (std::vector<uint32_t>{1, 0, 2, 0, 1, 0}));

  // Baseline without B-frames, POC type 2: display order is decoding order.
  const auto base = sets_of(unhex("6742c028da01e0089f97011000000300100000030320f1832a"), unhex("68ce0fc8"));
  const auto pocs = pocs_of(base, {unhex("6588843a0c6001e202215c21"), unhex("419a21af0cc3879ee69e4200"),
                                   unhex("419a40a89cbc4395c6f8003b"), unhex("419a60a8bc2fe00160c4e724")});
  EXPECT_EQ(pocs, (std::vector<int64_t>{0, 2, 4, 6}));

  // A slice whose PPS was never sent, or cut inside its header, is refused.
  ParameterSets none;
  SliceHeader sh;
  EXPECT_FALSE(parse_slice_header(slices[1].data(), slices[1].size(), none, sh));
  EXPECT_FALSE(parse_slice_header(slices[1].data(), 2, sets, sh));
  EXPECT_FALSE(parse_slice_header(unhex("68ce0fc8").data(), 4, sets, sh)) << "a PPS is no slice";
}

// A Baseline-like SPS with the given order count settings, 320x240, 16
// frame numbers, and a PPS for it.
std::vector<uint8_t> hand_sps(uint32_t poc_type, const std::vector<int32_t>& cycle = {}, int32_t non_ref = 0) {
  Bits b;
  b.u(8, 66).u(8, 0).u(8, 30).ue(0).ue(0).ue(poc_type);
  if (poc_type == 0) b.ue(0);  // 16 values of pic_order_cnt_lsb
  if (poc_type == 1) {
    b.u(1, 0).se(non_ref).se(0).ue(uint32_t(cycle.size()));
    for (int32_t c : cycle) b.se(c);
  }
  b.ue(2).u(1, 0).ue(19).ue(14).u(1, 1).u(1, 1).u(1, 0).u(1, 0);
  return b.nal(3, kNalSps);
}

std::vector<uint8_t> hand_pps() {
  Bits b;
  b.ue(0).ue(0).u(1, 0).u(1, 0).ue(0).ue(0).ue(0).u(1, 0).u(2, 0).se(0).se(0).se(0).u(1, 1).u(1, 0).u(1, 0);
  return b.nal(3, kNalPps);
}

// slice_type 0 P, 1 B, 2 I. `poc_field` is pic_order_cnt_lsb (type 0) or
// delta_pic_order_cnt[0] (type 1).
std::vector<uint8_t> hand_slice(uint32_t poc_type, bool idr, uint8_t ref_idc, uint32_t type, uint32_t frame_num,
                                int32_t poc_field, bool mmco5 = false) {
  Bits b;
  b.ue(0).ue(type + 5).ue(0).u(4, frame_num);
  if (idr) b.ue(0);
  if (poc_type == 0) b.u(4, uint32_t(poc_field));
  if (poc_type == 1) b.se(poc_field);
  if (type == 1) b.u(1, 1);            // direct_spatial_mv_pred_flag
  if (type != 2) b.u(1, 0).u(1, 0);    // no override, no list modification
  if (type == 1) b.u(1, 0);
  if (ref_idc) idr ? b.u(2, 0) : mmco5 ? b.u(1, 1).ue(5).ue(0) : b.u(1, 0);  // dec_ref_pic_marking
  return b.nal(ref_idc, idr ? kNalIdrSlice : kNalSlice);
}

TEST(H264PictureOrder, HandMadeType1Type0WrapAndMmco5) {
  // Type 1: reference frames 6 apart, non-reference pictures 4 before the
  // expected count; the second B moves 2 later with delta_pic_order_cnt[0].
  const auto t1 = sets_of(hand_sps(1, {6}, -4), hand_pps());
  EXPECT_EQ(pocs_of(t1, {hand_slice(1, true, 3, 2, 0, 0), hand_slice(1, false, 2, 0, 1, 0),
                         hand_slice(1, false, 0, 1, 2, 0), hand_slice(1, false, 0, 1, 2, 2)}),
            (std::vector<int64_t>{0, 6, 2, 4}));

  // Type 1 across the wrap of a 4-bit frame_num: FrameNumOffset carries on.
  std::vector<std::vector<uint8_t>> run{hand_slice(1, true, 3, 2, 0, 0)};
  for (uint32_t i = 1; i < 20; ++i) run.push_back(hand_slice(1, false, 2, 0, i % 16, 0));
  const auto wrapped = pocs_of(t1, run);
  for (std::size_t i = 0; i < wrapped.size(); ++i) EXPECT_EQ(wrapped[i], int64_t(6 * i)) << i;

  // Type 0 across the wrap of a 4-bit pic_order_cnt_lsb.
  const auto t0 = sets_of(hand_sps(0), hand_pps());
  run = {hand_slice(0, true, 3, 2, 0, 0)};
  for (uint32_t i = 1; i < 20; ++i) run.push_back(hand_slice(0, false, 2, 0, i % 16, int32_t((2 * i) % 16)));
  const auto msb = pocs_of(t0, run);
  for (std::size_t i = 0; i < msb.size(); ++i) EXPECT_EQ(msb[i], int64_t(2 * i)) << i;

  // At exactly half the lsb range a fall is a wrap and a rise is not (§8.2.1.1).
  EXPECT_EQ(pocs_of(t0, {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, 0, 1, 8),
                         hand_slice(0, false, 2, 0, 2, 0)}),
            (std::vector<int64_t>{0, 8, 16}));

  // memory_management_control_operation 5 restarts counting like an IDR:
  // the picture itself counts 0, and the one after it counts from there.
  const auto reset = pocs_of(t0, {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, 0, 1, 4),
                                  hand_slice(0, false, 2, 0, 2, 8, true), hand_slice(0, false, 2, 0, 1, 2)});
  EXPECT_EQ(reset, (std::vector<int64_t>{0, 4, 0, 2}));

  // A type 2 IDR after other pictures starts again at 0.
  const auto t2 = sets_of(hand_sps(2), hand_pps());
  EXPECT_EQ(pocs_of(t2, {hand_slice(2, true, 3, 2, 0, 0), hand_slice(2, false, 2, 0, 1, 0),
                         hand_slice(2, false, 0, 0, 2, 0), hand_slice(2, true, 3, 2, 0, 0)}),
            (std::vector<int64_t>{0, 2, 3, 0}));
}

// §7.3.2.3.1 and §D.1.8 by hand: the recovery point is found after other
// messages, and only payload type 6 counts (0xFF 0x06 is type 261).
TEST(H264Sei, RecoveryPointAmongOtherMessages) {
  const struct {
    const char* nal;
    bool found;
    uint32_t frames;
  } cases[] = {
      {"06 06 02 24 40 80", true, 3},                                               // recovery_frame_cnt 3
      {"06 05 11 11111111111111111111111111111111 78 06 01 C4 80", true, 0},        // after user data
      {"06 04 02 B5 00 80", false, 0},                                              // registered user data only
      {"06 FF 06 01 C4 80", false, 0},                                              // type 261
      {"06 06 02 24", false, 0},                                                    // cut in the payload
      {"65 06 01 C4 80", false, 0},                                                 // not an SEI NAL unit
  };
  for (const auto& c : cases) {
    const auto nal = boxlane::test::unhex(c.nal);
    uint32_t frames = 99;
    EXPECT_EQ(boxlane::h264::find_recovery_point(nal.data(), nal.size(), frames), c.found) << c.nal;
    if (c.found) {
      EXPECT_EQ(frames, c.frames) << c.nal;
    }
  }
}

}  // namespace