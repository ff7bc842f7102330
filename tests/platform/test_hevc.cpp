// The H.265 syntax parser on parameter sets that libx265 made (the expected values are those FFmpeg's
// trace_headers filter prints for them), and on hand-made bit strings for what libx265 never writes.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "platform/hevc.hpp"
#include "support/paths.hpp"
#include "support/hevc_units.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::hevc;
using boxlane::test::Bits;
using boxlane::test::HandSps;
using boxlane::test::hand_pps;
using boxlane::test::unhex;

// libx265, testsrc2 320x240 at 25 fps, yuv420p (Main).
const char* kMainPps = "4401c172b46240";
// libx265, testsrc2 322x182 at 30000/1001, yuv420p10le (Main 10), with HRD parameters in the VUI.
const char* kMain10Vps = "40010c01ffff02200000030090000003000003003c959409";
const char* kMain10Sps =
    "42010102200000030090000003000003003ca00a480b9c94d96565924caf01680800001f480003a98300a4837000493e000927c4";

std::string summary(const Sps& s) {
  std::ostringstream o;
  o << "sps " << s.id << " vps " << s.vps_id << " sub " << s.max_sub_layers << " nest " << s.temporal_id_nesting
    << " | space " << +s.ptl.profile_space << " tier " << s.ptl.tier << " profile " << +s.ptl.profile_idc << " compat "
    << std::hex << s.ptl.compatibility_flags << " constraints " << s.ptl.constraint_flags << std::dec << " level "
    << +s.ptl.level_idc << " | chroma " << s.chroma_format_idc << " " << s.coded_width << "x" << s.coded_height
    << " window " << s.crop_left << " " << s.crop_right << " " << s.crop_top << " " << s.crop_bottom << " = "
    << s.width << "x" << s.height << " depth " << s.bit_depth_luma << " " << s.bit_depth_chroma << " lsb "
    << s.log2_max_poc_lsb << " dpb " << s.max_dec_pic_buffering << " reorder " << s.max_num_reorder_pics << " ctb "
    << s.log2_ctb_size << " rps " << s.num_short_term_ref_pic_sets << " | sar " << s.sar_width << ":" << s.sar_height;
  if (s.timing_info_present) o << " tick " << s.num_units_in_tick << "/" << s.time_scale;
  if (s.bitstream_restriction) o << " segmentation " << s.min_spatial_segmentation_idc;
  return o.str();
}

TEST(HevcNalHeader, FieldsAndRefusals) {
  // Every field at its largest; then forbidden_zero_bit, nuh_temporal_id_plus1 0 and a header cut short.
  const uint8_t largest[] = {0x7F, 0xFF}, forbidden[] = {0x80, 0x01}, no_tid[] = {0x02, 0x00};
  NalHeader h;
  ASSERT_TRUE(parse_nal_header(largest, 2, h));
  EXPECT_EQ((std::array<int, 3>{h.type, h.layer_id, h.temporal_id}), (std::array<int, 3>{63, 63, 6}));
  EXPECT_FALSE(parse_nal_header(forbidden, 2, h));
  EXPECT_FALSE(parse_nal_header(no_tid, 2, h));
  EXPECT_FALSE(parse_nal_header(largest, 1, h));
}

TEST(HevcParameterSets, X265Main10) {
  // 4:2:0: conf_win_right_offset 3 and conf_win_bottom_offset 1 are in chroma samples, 6 and 2 luma samples.
  // The HRD parameters lie between the timing and the end.
  Sps sps;
  const auto m10_sps = unhex(kMain10Sps);
  ASSERT_TRUE(parse_sps(m10_sps.data(), m10_sps.size(), sps));
  EXPECT_EQ(summary(sps),
            "sps 0 vps 0 sub 1 nest 1 | space 0 tier 0 profile 2 compat 20000000 constraints 900000000000 level 60 | "
            "chroma 1 328x184 window 0 6 0 2 = 322x182 depth 10 10 lsb 8 dpb 5 reorder 2 ctb 6 rps 0 | sar 1:1 "
            "tick 1001/30000");

  Vps vps;
  const auto m10_vps = unhex(kMain10Vps);
  ASSERT_TRUE(parse_vps(m10_vps.data(), m10_vps.size(), vps));
  EXPECT_EQ((std::array<uint32_t, 2>{vps.ptl.profile_idc, vps.ptl.level_idc}), (std::array<uint32_t, 2>{2, 60}));

  // WPP on, no tiles, no dependent slice segments, no extra header bits.
  Pps pps;
  const auto main_pps = unhex(kMainPps);
  ASSERT_TRUE(parse_pps(main_pps.data(), main_pps.size(), pps));
  EXPECT_EQ((std::array<uint32_t, 6>{pps.id, pps.sps_id, pps.dependent_slice_segments_enabled, pps.num_extra_slice_header_bits,
                                     pps.tiles_enabled, pps.entropy_coding_sync_enabled}),
            (std::array<uint32_t, 6>{0, 0, 0, 0, 0, 1}));

  // Each parser refuses the others' units, and every unit cut before its last field.
  EXPECT_FALSE(parse_sps(main_pps.data(), main_pps.size(), sps));
  for (std::size_t cut = 0; cut + 2 < m10_sps.size(); ++cut) EXPECT_FALSE(parse_sps(m10_sps.data(), cut, sps)) << cut;
  for (std::size_t cut = 0; cut + 1 < main_pps.size(); ++cut) EXPECT_FALSE(parse_pps(main_pps.data(), cut, pps)) << cut;
}

// st_ref_pic_set written out: explicit negative and positive deltas ...
Bits explicit_rps(const std::vector<uint32_t>& negative, const std::vector<uint32_t>& positive, bool first) {
  Bits b;
  if (!first) b.u(1, 0);
  b.ue(uint32_t(negative.size())).ue(uint32_t(positive.size()));
  for (uint32_t d : negative) b.ue(d - 1).u(1, 1);
  for (uint32_t d : positive) b.ue(d - 1).u(1, 1);
  return b;
}
// ... or predicted from the set before: `flags` holds used_by_curr_pic_flag and use_delta_flag for each of
// its deltas and for delta_rps itself.
Bits predicted_rps(int32_t delta_rps, const std::vector<std::array<bool, 2>>& flags) {
  Bits b;
  b.u(1, 1).u(1, delta_rps < 0).ue(uint32_t(std::abs(delta_rps)) - 1);
  for (const auto& f : flags) {
    b.u(1, f[0]);
    if (!f[0]) b.u(1, f[1]);
  }
  return b;
}

std::string parsed(const HandSps& hand) {
  const auto nal = hand.nal();
  Sps sps;
  if (!parse_sps(nal.data(), nal.size(), sps)) return "refused";
  return summary(sps);
}

TEST(HevcParameterSets, HandMadeSequenceParameterSetsReadToTheEnd) {
  // Every field the syntax skips must be skipped exactly, or the VUI at the end (SAR 64:45, 1001/60000,
  // segmentation 1000) comes out wrong: sub-layers with their own profiles and levels, scaling lists, PCM,
  // explicit and predicted reference picture sets, long-term pictures and HRD parameters for every sub-layer.
  HandSps full;
  full.sub_layers_minus1 = 2;
  full.sub_layer_profile = true;
  full.scaling_list = true;
  full.pcm = true;
  full.hrd = true;
  full.cpbs = 32;        // the most §E.3.2 allows
  full.dc_minus8 = 247;  // the highest DC coefficient, 255 (§7.4.5)
  full.long_term = 3;
  full.rps = {explicit_rps({1, 2}, {3}, true),
              // From {-1, -3 | +3} with delta_rps -1: -2 and -4 from the negatives, +2 from the positive;
              // delta_rps itself unused.
              predicted_rps(-1, {{true, true}, {false, true}, {true, true}, {false, false}}),
              // From that set's 3 deltas with delta_rps 2: -2 + 2 and -4 + 2 dropped (0, and use_delta_flag
              // 0), +2 + 2 and delta_rps kept.
              predicted_rps(2, {{true, true}, {false, false}, {true, true}, {true, true}}),
              explicit_rps({}, {}, false)};
  EXPECT_EQ(parsed(full),
            "sps 0 vps 0 sub 3 nest 1 | space 1 tier 1 profile 2 compat 20000000 constraints 800000000001 level 153 | "
            "chroma 1 1280x720 window 0 0 0 0 = 1280x720 depth 8 8 lsb 8 dpb 5 reorder 0 ctb 6 rps 4 | sar 64:45 "
            "tick 1001/60000 segmentation 1000");

  // The conformance window is counted in chroma samples: 2 x 2 for 4:2:0, 2 x 1 for 4:2:2, 1 x 1 for 4:4:4
  // and monochrome.
  for (const auto& [chroma, size] : std::vector<std::pair<uint32_t, std::string>>{
           {0, "window 1 2 3 4 = 1277x713"}, {1, "window 2 4 6 8 = 1274x706"},
           {2, "window 2 4 3 4 = 1274x713"}, {3, "window 1 2 3 4 = 1277x713"}}) {
    HandSps windowed;
    windowed.chroma = chroma;
    windowed.window = {1, 2, 3, 4};
    EXPECT_NE(parsed(windowed).find(size), std::string::npos) << chroma << ": " << parsed(windowed);
  }
}

TEST(HevcParameterSets, LimitsOnBothSides) {
  // Each row sets one field to the largest value allowed and to one past it.
  struct Limit {
    const char* what;
    void (*set)(HandSps&, bool past);
  } limits[] = {
      {"sps_seq_parameter_set_id 15", [](HandSps& s, bool past) { s.id = past ? 16 : 15; }},
      {"chroma_format_idc 3", [](HandSps& s, bool past) { s.chroma = past ? 4 : 3; }},
      {"sps_max_sub_layers_minus1 6", [](HandSps& s, bool past) { s.sub_layers_minus1 = past ? 7 : 6; }},
      {"bit_depth_luma_minus8 8", [](HandSps& s, bool past) { s.luma_minus8 = past ? 9 : 8; }},
      {"bit_depth_chroma_minus8 8", [](HandSps& s, bool past) { s.chroma_minus8 = past ? 9 : 8; }},
      {"log2_max_pic_order_cnt_lsb_minus4 12", [](HandSps& s, bool past) { s.lsb_minus4 = past ? 13 : 12; }},
      {"sps_max_dec_pic_buffering_minus1 15", [](HandSps& s, bool past) { s.buffering_minus1 = past ? 16 : 15; }},
      {"sps_max_num_reorder_pics 4 of 5", [](HandSps& s, bool past) { s.reorder = past ? 5 : 4; }},
      {"CtbLog2SizeY 6", [](HandSps& s, bool past) { s.cb_diff = past ? 4 : 3; }},
      {"CtbLog2SizeY 4", [](HandSps& s, bool past) { s.cb_diff = past ? 0 : 1, s.tb_diff = 1; }},
      {"min_spatial_segmentation_idc 4095", [](HandSps& s, bool past) { s.min_spatial = past ? 4096 : 4095; }},
      {"pic_width_in_luma_samples 32768", [](HandSps& s, bool past) { s.width = past ? 32776 : 32768; }},
      {"width a multiple of MinCbSizeY", [](HandSps& s, bool past) { s.width = past ? 1284 : 1288; }},
      {"conformance window narrower than the picture",
       [](HandSps& s, bool past) { s.window = {past ? 320u : 319u, 320, 0, 0}; }},
      {"conformance window lower than the picture",
       [](HandSps& s, bool past) { s.window = {0, 0, past ? 180u : 179u, 180}; }},
      {"num_short_term_ref_pic_sets 64",
       [](HandSps& s, bool past) {
         s.rps.assign(past ? 65 : 64, explicit_rps({1}, {}, false));
         s.rps[0] = explicit_rps({1}, {}, true);
       }},
      {"num_negative_pics below sps_max_dec_pic_buffering",
       [](HandSps& s, bool past) { s.rps = {explicit_rps(past ? std::vector<uint32_t>{1, 2, 3, 4, 5} : std::vector<uint32_t>{1, 2, 3, 4}, {}, true)}; }},
      {"num_long_term_ref_pics_sps 32", [](HandSps& s, bool past) { s.long_term = past ? 33 : 32; }},
  };
  for (const Limit& limit : limits) {
    HandSps at, past;
    limit.set(at, false);
    limit.set(past, true);
    EXPECT_NE(parsed(at), "refused") << limit.what;
    EXPECT_EQ(parsed(past), "refused") << limit.what;
  }
  const struct {
    const char* what;
    std::vector<uint8_t> at, past;
  } pps_limits[] = {{"pps_pic_parameter_set_id 63", hand_pps(63), hand_pps(64)},
                    {"init_qp_minus26 25", hand_pps(0, 0, 0, 0, 1, 1, 25), hand_pps(0, 0, 0, 0, 1, 1, 26)}};
  for (const auto& limit : pps_limits) {
    Pps pps;
    EXPECT_TRUE(parse_pps(limit.at.data(), limit.at.size(), pps)) << limit.what;
    EXPECT_FALSE(parse_pps(limit.past.data(), limit.past.size(), pps)) << limit.what;
  }
}

ParameterSets hand_sets(uint32_t lsb_minus4, HandSps hand = {}) {
  hand.lsb_minus4 = lsb_minus4;
  ParameterSets sets;
  const auto sps = hand.nal();
  EXPECT_TRUE(parse_sps(sps.data(), sps.size(), sets.sps[0]));
  const auto plain = hand_pps(0);
  const auto rich = hand_pps(63, true, true, 2);
  EXPECT_TRUE(parse_pps(plain.data(), plain.size(), sets.pps[0]));
  EXPECT_TRUE(parse_pps(rich.data(), rich.size(), sets.pps[63]));
  sets.has_sps[0] = sets.has_pps[0] = sets.has_pps[63] = true;
  return sets;
}

// The first slice segment of a picture through PPS 0.
std::vector<uint8_t> hand_slice(uint8_t type, uint32_t lsb, uint8_t temporal_id = 0, uint32_t lsb_bits = 4) {
  Bits b;
  b.u(1, 1);
  if (is_irap(type)) b.u(1, 0);
  b.ue(0).ue(type == kIdrWRadl ? 2 : 1);
  if (!is_idr(type)) b.u(lsb_bits, lsb);
  return b.hevc_nal(type, temporal_id);
}

std::vector<int64_t> pocs_of(const ParameterSets& sets, const std::vector<std::vector<uint8_t>>& slices) {
  PocCounter counter;
  std::vector<int64_t> pocs;
  for (const auto& nal : slices) {
    SliceHeader sh;
    EXPECT_TRUE(parse_slice_header(nal.data(), nal.size(), sets, sh)) << boxlane::test::hex(nal);
    pocs.push_back(counter.next(sh, sets.sps[0], is_idr(sh.nal.type) || is_bla(sh.nal.type)));
  }
  return pocs;
}

TEST(HevcPictureOrder, WrapAtHalfTheRangeAndTheTid0Picture) {
  const ParameterSets sets = hand_sets(0);  // 16 values of slice_pic_order_cnt_lsb
  // A step of exactly half the range back counts as a wrap forwards; a step of exactly half forwards does not
  // count as a wrap backwards.
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 8), hand_slice(kTrailR, 0),
                           hand_slice(kTrailR, 9), hand_slice(kTrailR, 1)}),
            (std::vector<int64_t>{0, 8, 16, 9, 17}));
  // Going forwards by more than half wraps backwards: leading pictures of an IDR come out negative.
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kRadlN, 14), hand_slice(kRadlN + 1, 15)}),
            (std::vector<int64_t>{0, -2, -1}));
  // Only pictures of temporal layer 0 that are neither leading nor sub-layer non-reference pictures move the
  // reference point: after the IDR, lsb 7 (non-reference, leading, or in layer 1) leaves it at 0, so lsb 9
  // counts as -7; after a TRAIL_R with lsb 7, it counts as 9.
  for (const auto& skipped : {hand_slice(kTrailN, 7), hand_slice(kRadlN + 1, 7), hand_slice(kRaslR, 7),
                              hand_slice(kTrailR, 7, 1)}) {
    EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), skipped, hand_slice(kTrailR, 9)})[2], -7);
  }
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 7), hand_slice(kTrailR, 9)})[2], 9);
  // An IDR or BLA starts again from its own lsb; a CRA in mid-stream does not.
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 6), hand_slice(kTrailR, 12),
                           hand_slice(kBlaWLp, 3), hand_slice(kCra, 13)}),
            (std::vector<int64_t>{0, 6, 12, 3, -3}));

  // The widest lsb: 16 bits.
  const ParameterSets wide = hand_sets(12);
  EXPECT_EQ(pocs_of(wide, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 30000, 0, 16),
                           hand_slice(kTrailR, 60000, 0, 16), hand_slice(kTrailR, 100, 0, 16)}),
            (std::vector<int64_t>{0, 30000, 60000, 65636}));
}

TEST(HevcSliceHeader, SegmentsAndRefusals) {
  // 1280x720 in 64x64 tree blocks: 20 x 12 = 240, so 8 address bits; 1024x1024 is exactly 256 and still takes
  // 8. With separate colour planes, colour_plane_id (2 bits) comes before the lsb.
  HandSps square, planes;
  square.width = square.height = 1024;
  planes.chroma = 3, planes.separate = true;
  const ParameterSets sets[] = {hand_sets(4), hand_sets(4, square), hand_sets(4, planes)};
  EXPECT_EQ(sets[0].sps[0].ctbs_in_picture(), 240u);
  struct Case {
    const char* what;
    int sets;
    std::vector<uint8_t> nal;
    bool ok;
    std::array<uint32_t, 6> fields;  // first, dependent, address, slice_type, poc_lsb, pic_output
  };
  const auto slice = [](uint8_t type, const Bits& b) { return b.hevc_nal(type); };
  const Case cases[] = {
      {"IDR: no lsb", 0, slice(kIdrNLp, Bits().u(1, 1).u(1, 1).ue(0).ue(2)), true, {1, 0, 0, 2, 0, 1}},
      {"CRA with lsb", 0, slice(kCra, Bits().u(1, 1).u(1, 0).ue(0).ue(2).u(8, 200)), true, {1, 0, 0, 2, 200, 1}},
      {"second segment", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 239).ue(1).u(8, 33)), true, {0, 0, 239, 1, 33, 1}},
      {"address past the picture", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 240).ue(1).u(8, 33)), false, {}},
      {"address 0 after the first", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 0).ue(1).u(8, 33)), false, {}},
      {"last of 256", 1, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 255).ue(1).u(8, 33)), true, {0, 0, 255, 1, 33, 1}},
      {"colour_plane_id", 2, slice(kTrailR, Bits().u(1, 1).ue(0).ue(1).u(2, 2).u(8, 33)), true, {1, 0, 0, 1, 33, 1}},
      {"dependent segment: nothing more", 0, slice(kTrailR, Bits().u(1, 0).ue(63).u(1, 1).u(8, 5)), true,
       {0, 1, 5, 0, 0, 1}},
      {"extra bits and pic_output_flag 0", 0, slice(kTrailN, Bits().u(1, 1).ue(63).u(2, 3).ue(0).u(1, 0).u(8, 77)),
       true, {1, 0, 0, 0, 77, 0}},
      {"slice_type 3", 0, slice(kTrailR, Bits().u(1, 1).ue(0).ue(3).u(8, 1)), false, {}},
      {"unknown PPS", 0, slice(kTrailR, Bits().u(1, 1).ue(2).ue(1).u(8, 1)), false, {}},
      {"reserved VCL type 10", 0, slice(10, Bits().u(1, 1).ue(0).ue(1).u(8, 1)), false, {}},
  };
  for (const Case& c : cases) {
    SliceHeader sh;
    ASSERT_EQ(parse_slice_header(c.nal.data(), c.nal.size(), sets[c.sets], sh), c.ok) << c.what;
    if (!c.ok) continue;
    EXPECT_EQ((std::array<uint32_t, 6>{sh.first_slice_segment_in_pic, sh.dependent_slice_segment, sh.segment_address,
                                       sh.slice_type, sh.poc_lsb, sh.pic_output}),
              c.fields)
        << c.what;
  }
}

}  // namespace
