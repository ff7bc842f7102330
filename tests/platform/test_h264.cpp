// The H.264 syntax parser on x264's units (values from its settings and ffprobe) and on hand-made bit strings.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/h264.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::h264;
using boxlane::test::Bits;
using boxlane::test::hex;
using boxlane::test::unhex;
using Nal = std::vector<uint8_t>;
using Pocs = std::vector<int64_t>;

ParameterSets sets_of(const Nal& sps_nal, const Nal& pps_nal) {
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
Pocs pocs_of(const ParameterSets& sets, const std::vector<Nal>& slices) {
  PocCounter counter;
  Pocs pocs;
  for (const auto& nal : slices) {
    SliceHeader sh;
    EXPECT_TRUE(parse_slice_header(nal.data(), nal.size(), sets, sh)) << hex(nal);
    pocs.push_back(counter.next(sh, sets.sps[sets.pps[sh.pps_id].sps_id]));
  }
  return pocs;
}

TEST(H264BitReader, EmulationPreventionAndTheLargestCodes) {
  // The 03 after two zeros is dropped and counting zeros starts again after it, so an 03 after the next single
  // zero is data. 31 leading zeros is the largest code; 32 fails instead of wrapping.
  const Nal again = unhex("06 0000 03 00 03"), largest = unhex("67 00000001 FFFFFFFE"),
            huge = unhex("67 00000000 80000000 00");
  BitReader lr(largest.data(), largest.size()), hr(huge.data(), huge.size());
  EXPECT_EQ(BitReader(again.data(), again.size()).bits(32), 0x00000003u);
  EXPECT_EQ((std::tuple{lr.ue(), lr.ok(), hr.ue(), hr.ok()}), (std::tuple{0xFFFFFFFEu, true, 0u, false}));
}

// The fields of an SPS the muxer relies on, in one line.
std::string parsed(const Nal& nal) {
  Sps s;
  if (!parse_sps(nal.data(), nal.size(), s)) return "refused";
  std::ostringstream o;
  o << "profile " << +s.profile_idc << " level " << +s.level_idc << " chroma " << s.chroma_format_idc
    << (s.frame_mbs_only ? " frames " : " fields ") << s.width << "x" << s.height << " crop " << s.crop_left << " "
    << s.crop_right << " " << s.crop_top << " " << s.crop_bottom << " poc " << s.poc_type << " sar "
    << s.sar_width << ":" << s.sar_height;
  if (s.timing_info_present) o << " tick " << s.num_units_in_tick << "/" << s.time_scale;
  if (s.bitstream_restriction) o << " reorder " << s.max_num_reorder_frames;
  return o.str();
}

TEST(H264ParameterSets, X264AndHandMadeSequenceParameterSets) {
  // x264, Main, 1920x1080 (68 macroblock rows cropped by 8 lines) at 30000/1001 with two B-frames.
  const auto hd = unhex("674d4028eca03c0113f2e022000007d20001d4c01e30632c");
  EXPECT_EQ(parsed(hd),
            "profile 77 level 40 chroma 1 frames 1920x1080 crop 0 0 0 8 poc 0 sar 1:1 tick 1001/60000 reorder 2");
  // Cut short, or the wrong NAL type: refused.
  for (std::size_t cut : {std::size_t{0}, std::size_t{4}, hd.size() - 1})
    EXPECT_EQ(parsed(Nal(hd.begin(), hd.begin() + long(cut))), "refused") << cut;
  EXPECT_EQ(parsed(unhex("68 EB E3 CB 22 C0")), "refused");
  // The body of x264's PPS is read as one only under a PPS header (nal_unit_type 8).
  Pps pps;
  const Nal under_sps = unhex("67 EB E3 CB 22 C0"), under_pps = unhex("68 EB E3 CB 22 C0");
  EXPECT_EQ(std::pair(parse_pps(under_sps.data(), 6, pps), parse_pps(under_pps.data(), 6, pps)), std::pair(false, true));

  // High 4:2:2 at 14 bits, 1280x736 coded, fields (crop unit 2 x 2). Scaling lists (4x4, one ending on a zero
  // scale, 8x8) and every optional VUI part, with the most CPBs, must be skipped exactly for the fields after them.
  Bits b;
  b.u(8, 122).u(8, 0).u(8, 40).ue(0).ue(2).ue(6).ue(6).u(1, 0).u(1, 1).u(1, 1);
  for (int i = 0; i < 16; ++i) b.se(1);
  b.u(1, 1).se(-8).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 1);
  for (int i = 0; i < 64; ++i) b.se(1);
  b.u(1, 0).ue(0).ue(2).ue(4).u(1, 0).ue(1280 / 16 - 1).ue(736 / 32 - 1).u(1, 0).u(1, 1).u(1, 1);
  b.u(1, 1).ue(0).ue(2).ue(0).ue(8);  // cropping: 4 columns at the right, 16 lines at the bottom
  b.u(1, 1).u(1, 1).u(8, 255).u(16, 4).u(16, 3).u(1, 1).u(1, 0).u(1, 1).u(3, 5).u(1, 0).u(1, 1).u(24, 0x010101);
  b.u(1, 1).ue(1).ue(1).u(1, 1).u(32, 1001).u(32, 60000).u(1, 1);
  b.u(1, 1).ue(31).u(4, 2).u(4, 3);  // NAL HRD with 32 CPBs, no VCL HRD, low_delay and pic_struct flags
  for (int i = 0; i < 32; ++i) b.ue(1000).ue(2000).u(1, i % 2);
  b.u(20, 0xBBBBB).u(1, 0).u(1, 0).u(1, 0);
  b.u(1, 1).u(1, 1).ue(0).ue(1).ue(16).ue(16).ue(3).ue(4);  // bitstream_restriction: 3 reordered frames
  EXPECT_EQ(parsed(b.nal(3, kNalSps)),
            "profile 122 level 40 chroma 2 fields 1276x720 crop 0 4 0 16 poc 2 sar 4:3 tick 1001/60000 reorder 3");
  // Found by fuzzing: a scaling-list delta far outside -128..127 overflowed the running scale.
  EXPECT_EQ(parsed(unhex("6764000DADD94141FB013DFFFFFFFFFFF3FF00000001FFFFFF746B6864FFFFFFFFFFFFFFFFFFFFFFFFFF"
                         "0075722099996004")),
            "refused");
}

// An SPS of the given fields, 320x240: Baseline, or High 4:4:4 (or `profile`) with every scaling list flag 0 when
// `chroma` is set.
struct HandSps {
  int chroma = -1;
  uint8_t profile = 244;
  bool separate = false, fields = false, always_zero = false;
  int chroma_depth = -1;     // bit_depth_chroma_minus8 when not `depth`
  int32_t scale_delta = 0;   // when not 0, the first 4x4 scaling list: this delta_scale, then 15 of 0
  bool signal = false;       // a VUI with video_signal_type_present_flag and no colour description
  uint32_t depth = 0, id = 0, frame_num_minus4 = 0, poc_type = 0, lsb_minus4 = 0, width_mbs = 20, height_units = 15;
  std::vector<int32_t> cycle;
  int32_t non_ref = 0, top_to_bottom = 0;
  std::vector<uint32_t> crop;  // left, right, top, bottom in crop units
  int sar_idc = -1;            // a VUI with aspect_ratio_idc
  uint32_t cpbs = 0;           // a VUI with an HRD of that many CPBs: a NAL one, or (`vcl` 1) a VCL one, or (2) both
  int vcl = 0;
  int reorder = -1;            // a VUI with bitstream_restriction, max_num_reorder_frames

  Nal nal() const {
    Bits b;
    b.u(8, chroma < 0 ? 66 : profile).u(8, 0).u(8, 30).ue(id);
    if (chroma >= 0) {
      b.ue(uint32_t(chroma));
      if (chroma == 3) b.u(1, separate);
      b.ue(depth).ue(chroma_depth < 0 ? depth : uint32_t(chroma_depth)).u(1, 0).u(1, 1).u(1, scale_delta != 0);
      for (int j = 0; scale_delta && j < 16; ++j) b.se(j ? 0 : scale_delta);
      b.u(chroma == 3 ? 11 : 7, 0);
    }
    b.ue(frame_num_minus4).ue(poc_type);
    if (poc_type == 0) b.ue(lsb_minus4);
    if (poc_type == 1) b.u(1, always_zero).se(non_ref).se(top_to_bottom).ue(uint32_t(cycle.size()));
    for (int32_t c : cycle) b.se(c);
    // frame_mbs_only_flag, mb_adaptive_frame_field_flag 0 with fields, direct_8x8_inference_flag.
    b.ue(2).u(1, 0).ue(width_mbs - 1).ue(height_units - 1).u(1, !fields).u(fields ? 2 : 1, 1).u(1, !crop.empty());
    for (uint32_t c : crop) b.ue(c);
    const bool vui = sar_idc >= 0 || cpbs || reorder >= 0 || signal;
    b.u(1, vui);
    if (!vui) return b.nal(3, kNalSps);
    b.u(1, sar_idc >= 0);
    if (sar_idc >= 0) b.u(8, uint32_t(sar_idc));
    b.u(1, 0).u(1, signal);  // overscan, video signal type: format 5, full range, no colour description
    if (signal) b.u(3, 5).u(1, 1).u(1, 0);
    b.u(2, 0);  // chroma location, timing
    for (const bool hrd : {cpbs && vcl != 1, cpbs && vcl != 0}) {
      b.u(1, hrd);
      if (!hrd) continue;
      b.ue(cpbs - 1).u(8, 0);
      for (uint32_t i = 0; i < cpbs; ++i) b.ue(0).ue(0).u(1, 0);
      b.u(20, 0);
    }
    b.u(cpbs ? 2 : 1, 0).u(1, reorder >= 0);  // low_delay_hrd_flag after an HRD, pic_struct_present_flag
    if (reorder >= 0) b.u(1, 1).ue(0).ue(1).ue(16).ue(16).ue(uint32_t(reorder)).ue(4);
    return b.nal(3, kNalSps);
  }
};

struct HandPps {
  uint32_t id = 0, sps_id = 0, groups_minus1 = 0, l0_minus1 = 0, l1_minus1 = 0, bipred = 0;
  bool weighted = false;
  bool bottom_order = false;  // bottom_field_pic_order_in_frame_present_flag
  bool redundant = false;     // redundant_pic_cnt_present_flag
  Bits map = Bits().ue(3).u(1, 0).ue(0);  // with slice groups: from slice_group_map_type on (3, box-out)

  Nal nal() const {
    Bits b;
    b.ue(id).ue(sps_id).u(1, 0).u(1, bottom_order).ue(groups_minus1).add(groups_minus1 ? map : Bits());
    b.ue(l0_minus1).ue(l1_minus1).u(1, weighted).u(2, bipred).se(0).se(0).se(0).u(1, 1).u(1, 0).u(1, redundant);
    return b.nal(3, kNalPps);
  }
};

TEST(H264ParameterSets, LimitsOnBothSides) {
  // Each row makes a unit with one field at the largest value allowed, or one past it.
  const struct {
    const char* what;
    Nal (*make)(bool past);
  } limits[] = {
      {"seq_parameter_set_id 31", [](bool p) { HandSps s; s.id = p ? 32 : 31; return s.nal(); }},
      {"chroma_format_idc 3", [](bool p) { HandSps s; s.chroma = p ? 4 : 3; return s.nal(); }},
      {"bit depth 14", [](bool p) { HandSps s; s.chroma = 1, s.depth = p ? 7 : 6; return s.nal(); }},
      {"chroma bit depth 14", [](bool p) { HandSps s; s.chroma = 1, s.chroma_depth = p ? 7 : 6; return s.nal(); }},
      {"delta_scale -128", [](bool p) { HandSps s; s.chroma = 1, s.scale_delta = p ? -129 : -128; return s.nal(); }},
      {"log2_max_frame_num 16", [](bool p) { HandSps s; s.frame_num_minus4 = p ? 13 : 12; return s.nal(); }},
      {"log2_max_pic_order_cnt_lsb 16", [](bool p) { HandSps s; s.lsb_minus4 = p ? 13 : 12; return s.nal(); }},
      {"pic_order_cnt_type 2", [](bool p) { HandSps s; s.poc_type = p ? 3 : 2; return s.nal(); }},
      {"num_ref_frames_in_pic_order_cnt_cycle 255",
       [](bool p) { HandSps s; s.poc_type = 1, s.cycle.assign(p ? 256 : 255, -7); return s.nal(); }},
      {"1024 macroblocks across", [](bool p) { HandSps s; s.width_mbs = p ? 1025 : 1024; return s.nal(); }},
      {"1024 map units down", [](bool p) { HandSps s; s.height_units = p ? 1025 : 1024; return s.nal(); }},
      {"cropping leaves 2 columns", [](bool p) { HandSps s; s.crop = {80, p ? 80u : 79u, 0, 0}; return s.nal(); }},
      {"cropping leaves 2 lines", [](bool p) { HandSps s; s.crop = {0, 0, p ? 1u : 0u, 119}; return s.nal(); }},
      {"pic_parameter_set_id 255", [](bool p) { HandPps s; s.id = p ? 256 : 255; return s.nal(); }},
      {"seq_parameter_set_id 31 in a PPS", [](bool p) { HandPps s; s.sps_id = p ? 32 : 31; return s.nal(); }},
      {"num_slice_groups 8", [](bool p) { HandPps s; s.groups_minus1 = p ? 8 : 7; return s.nal(); }},
      {"num_ref_idx_l0_default_active 32", [](bool p) { HandPps s; s.l0_minus1 = p ? 32 : 31; return s.nal(); }},
      {"num_ref_idx_l1_default_active 32", [](bool p) { HandPps s; s.l1_minus1 = p ? 32 : 31; return s.nal(); }},
      {"weighted_bipred_idc 2", [](bool p) { HandPps s; s.bipred = p ? 3 : 2; return s.nal(); }},
      {"cpb_cnt 32", [](bool p) { HandSps s; s.cpbs = p ? 33 : 32; return s.nal(); }},
      // 1024 x 1024 map units, the most the SPS limits allow, each with a 1-bit slice_group_id of two groups.
      {"pic_size_in_map_units 1048576", [](bool p) {
         HandPps s;
         s.groups_minus1 = 1, s.map = Bits().ue(6).ue(1048575 + p);
         s.map.bits.resize(s.map.bits.size() + 1048576 + p);
         return s.nal(); }},
  };
  for (const auto& limit : limits) {
    for (const bool past : {false, true}) {
      const Nal nal = limit.make(past);
      Pps pps;
      const bool ok = (nal[0] & 0x1F) == kNalSps ? parsed(nal) != "refused" : parse_pps(nal.data(), nal.size(), pps);
      EXPECT_EQ(ok, !past) << limit.what;
    }
  }
  // Maps of four slice groups (§7.3.2.2), types 0 (run lengths), 1 (dispersed: no fields), 2 (rectangles), 4 and 5
  // (a change direction and rate) and 6 (five 2-bit ids), are read through to the fields after them; type 7 is
  // reserved.
  for (const auto& [map, valid] : {std::pair(Bits().ue(0).ue(9).ue(9).ue(9).ue(9), true), {Bits().ue(1), true},
                                    {Bits().ue(2).ue(0).ue(99).ue(1).ue(99).ue(2).ue(99), true},
                                    {Bits().ue(4).u(1, 1).ue(9), true}, {Bits().ue(5).u(1, 0).ue(9), true},
                                    {Bits().ue(6).ue(4).u(10, 0x1B1), true}, {Bits().ue(7), false}}) {
    HandPps groups;
    groups.groups_minus1 = 3, groups.l0_minus1 = 5, groups.bipred = 2, groups.map = map;
    const Nal nal = groups.nal();
    Pps pps;
    const bool ok = parse_pps(nal.data(), nal.size(), pps);
    EXPECT_EQ(std::tuple(ok, pps.num_ref_idx_l0_default_active, pps.weighted_bipred_idc),
              valid ? std::tuple(true, 6u, 2u) : std::tuple(false, 1u, 0u));
  }
  // A PPS cut short of its last fields: refused.
  const Nal pps_nal = HandPps{}.nal();
  for (const std::size_t cut : {std::size_t{1}, pps_nal.size() - 2}) {
    Pps pps;
    EXPECT_FALSE(parse_pps(pps_nal.data(), cut, pps)) << cut;
  }
  // The crop unit of each chroma format (separate planes count as monochrome), after 8 or 12 scaling list
  // flags; and Table E-1, which ends at 16 (2:1): 17 to 254 are reserved and give no ratio.
  const std::tuple<int, bool, int, const char*> cases[] = {
      {0, false, 1, "chroma 0 frames 317x233 crop 1 2 3 4 poc 0 sar 1:1"},
      {1, false, 16, "chroma 1 frames 314x226 crop 2 4 6 8 poc 0 sar 2:1"},
      {2, false, 17, "chroma 2 frames 314x233 crop 2 4 3 4 poc 0 sar 0:0"},
      {3, false, -1, "chroma 3 frames 317x233 crop 1 2 3 4 poc 0 sar 0:0"},
      {3, true, -1, "chroma 3 frames 317x233 crop 1 2 3 4 poc 0 sar 0:0"},
  };
  for (const auto& [chroma, separate, sar_idc, expected] : cases) {
    HandSps s;
    s.chroma = chroma, s.separate = separate, s.sar_idc = sar_idc, s.crop = {1, 2, 3, 4};
    EXPECT_EQ(parsed(s.nal()), std::string("profile 244 level 30 ") + expected);
  }
  // Every profile whose SPS carries chroma_format_idc and bit depths (§7.3.2.1.1).
  for (const uint8_t profile : {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135}) {
    HandSps s;
    s.profile = profile, s.chroma = 2, s.depth = 2, s.crop = {1, 2, 3, 4};
    EXPECT_EQ(parsed(s.nal()), "profile " + std::to_string(profile) + " level 30 chroma 2 frames 314x233 crop 2 4 3 4 "
                               "poc 0 sar 0:0");
  }
  // low_delay_hrd_flag follows a NAL HRD, a VCL HRD alone or both (§E.1.1), before the restriction's reorder depth;
  // a video signal type without colour_description_present_flag has no colour fields.
  for (const int form : {0, 1, 2, 3}) {
    HandSps s;
    s.cpbs = form < 3 ? 2 : 0, s.vcl = form % 3, s.signal = form == 3, s.reorder = 3;
    EXPECT_TRUE(parsed(s.nal()).ends_with(" sar 0:0 reorder 3")) << parsed(s.nal());
  }
  // Every ratio of Table E-1, as the table writes them.
  const char* ratios[] = {"1:1",   "12:11", "10:11", "16:11", "40:33",  "24:11", "20:11", "32:11",
                          "80:33", "18:11", "15:11", "64:33", "160:99", "4:3",   "3:2",   "2:1"};
  for (int idc = 1; idc <= 16; ++idc) {
    HandSps s;
    s.sar_idc = idc;
    EXPECT_TRUE(parsed(s.nal()).ends_with(std::string(" sar ") + ratios[idc - 1])) << idc;
  }
}

// slice_type 0 P, 1 B, 2 I, 4 SI. `poc_field` is pic_order_cnt_lsb (type 0) or delta_pic_order_cnt[0] (type 1).
// `field`: 0 top, 1 bottom, under an SPS of fields; `weights`: a pred_weight_table of one luma and chroma entry per
// list;
// `bottom`: delta_pic_order_cnt_bottom (type 0) or delta_pic_order_cnt[1] (type 1), for a PPS with bottom_order.
Nal hand_slice(uint32_t poc_type, bool idr, uint8_t ref_idc, uint32_t type, uint32_t frame_num, int32_t poc_field,
               bool mmco5 = false, int field = -1, bool weights = false, std::optional<int32_t> bottom = {}) {
  Bits b;
  b.ue(0).ue(type + 5).ue(0).u(4, frame_num);
  if (field >= 0) b.u(1, 1).u(1, field);
  if (idr) b.ue(0);
  if (poc_type == 0) b.u(4, uint32_t(poc_field));
  if (poc_type == 0 && bottom) b.se(*bottom);
  if (poc_type == 1) b.se(poc_field);
  if (poc_type == 1 && bottom) b.se(*bottom);
  if (type == 1) b.u(1, 1);          // direct_spatial_mv_pred_flag
  if (type != 2 && type != 4) b.u(1, 0).u(1, 0);  // no override, no list modification
  if (type == 1) b.u(1, 0);
  if (weights) b.ue(3).ue(4);
  for (uint32_t list = 0; weights && list < (type == 1 ? 2 : 1); ++list)
    b.u(1, 1).se(-2).se(5).u(1, 1).se(1).se(-1).se(2).se(-2);
  // dec_ref_pic_marking; with mmco5, every other operation (and its arguments, all 7) comes first.
  if (ref_idc) idr ? b.u(2, 0) : b.u(1, mmco5);
  if (ref_idc && mmco5) b.ue(1).ue(7).ue(2).ue(7).ue(3).ue(7).ue(7).ue(4).ue(7).ue(6).ue(7).ue(5).ue(0);
  return b.nal(ref_idc, idr ? kNalIdrSlice : kNalSlice);
}

ParameterSets hand_sets(uint32_t poc_type, std::vector<int32_t> cycle = {}, int32_t non_ref = 0) {
  HandSps s;
  s.poc_type = poc_type, s.cycle = std::move(cycle), s.non_ref = non_ref;
  return sets_of(s.nal(), HandPps{}.nal());
}

TEST(H264PictureOrder, HandMadeType1Type0WrapAndMmco5) {
  // POC type 1 with a cycle of none: every picture counts from 0, non-reference ones from -4. With
  // delta_pic_order_always_zero_flag the slices carry no delta_pic_order_cnt, as under type 2.
  EXPECT_EQ(pocs_of(hand_sets(1, {}, -4), {hand_slice(1, true, 3, 2, 0, 0), hand_slice(1, false, 2, 0, 1, 5),
                                           hand_slice(1, false, 0, 1, 2, 1)}),
            (Pocs{0, 5, -3}));
  HandSps zero;
  zero.poc_type = 1, zero.cycle = {6}, zero.non_ref = -4, zero.always_zero = true;
  EXPECT_EQ(pocs_of(sets_of(zero.nal(), HandPps{}.nal()),
                    {hand_slice(2, true, 3, 2, 0, 0), hand_slice(2, false, 2, 0, 1, 0), hand_slice(2, false, 0, 1, 2, 0)}),
            (Pocs{0, 6, 2}));
  // Fields: a bottom field counts offset_for_top_to_bottom_field (3) more than its top.
  HandSps fields;
  fields.poc_type = 1, fields.cycle = {6}, fields.fields = true, fields.top_to_bottom = 3;
  EXPECT_EQ(pocs_of(sets_of(fields.nal(), HandPps{}.nal()),
                    {hand_slice(1, true, 3, 2, 0, 0, false, 0), hand_slice(1, true, 3, 2, 0, 0, false, 1),
                     hand_slice(1, false, 3, 2, 1, 0, false, 0), hand_slice(1, false, 3, 2, 1, 0, false, 1)}),
            (Pocs{0, 3, 6, 9}));
  // Two offsets, 3 and 5: from frame_num 3 on a whole cycle (8) has passed (§8.2.1.2), and the non-reference frame 5
  // counts as frame 4 does, less 4.
  EXPECT_EQ(pocs_of(hand_sets(1, {3, 5}, -4), {hand_slice(1, true, 3, 2, 0, 0), hand_slice(1, false, 2, 0, 1, 0),
                                               hand_slice(1, false, 2, 0, 2, 0), hand_slice(1, false, 2, 0, 3, 0),
                                               hand_slice(1, false, 2, 0, 4, 0), hand_slice(1, false, 0, 1, 5, 0)}),
            (Pocs{0, 3, 8, 11, 16, 12}));
  // A non-reference frame right after the IDR (frame_num 1) counts as frame 0 does: no offset of the cycle, less 4.
  EXPECT_EQ(pocs_of(hand_sets(1, {3, 5}, -4), {hand_slice(1, true, 3, 2, 0, 0), hand_slice(1, false, 0, 1, 1, 0)}),
            (Pocs{0, -4}));
  // A frame_num of 5 bits wraps after 31: types 1 and 2 add MaxFrameNum (32) to FrameNumOffset, whatever the lsb
  // range these types do not send. With offset_for_ref_frame 2 and offset_for_non_ref_pic 1, type 1 counts as type 2
  // does: twice the frame number, one less for a non-reference frame.
  const auto five_bits = [](bool idr, uint8_t ref_idc, uint32_t frame_num) {
    Bits b;
    b.ue(0).ue(idr ? 7 : 5).ue(0).u(5, frame_num);
    idr ? b.ue(0).u(2, 0) : b.u(1, 0).u(1, 0).u(ref_idc ? 1 : 0, 0);
    return b.nal(ref_idc, idr ? kNalIdrSlice : kNalSlice);
  };
  for (const uint32_t type : {1u, 2u}) {
    HandSps wide;
    wide.poc_type = type, wide.frame_num_minus4 = 1, wide.always_zero = true, wide.non_ref = 1;
    wide.cycle = std::vector<int32_t>(type == 1, 2);
    std::vector<Nal> slices{five_bits(true, 3, 0)};
    Pocs expected{0};
    for (uint32_t n = 1; n <= 32; ++n) slices.push_back(five_bits(false, 2, n % 32)), expected.push_back(2 * n);
    slices.push_back(five_bits(false, 0, 1)), expected.push_back(65);
    EXPECT_EQ(pocs_of(sets_of(wide.nal(), HandPps{}.nal()), slices), expected) << type;
  }

  // At exactly half the lsb range a fall is a wrap and a rise is not (§8.2.1.1); one more than half and a
  // rise is a wrap backwards. Only reference pictures move the reference point; an IDR takes it back to lsb 0.
  const auto t0 = hand_sets(0);
  EXPECT_EQ(pocs_of(t0, {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, 0, 1, 8),
                         hand_slice(0, false, 2, 0, 2, 0), hand_slice(0, false, 0, 0, 3, 9),
                         hand_slice(0, false, 2, 0, 3, 8), hand_slice(0, true, 3, 2, 0, 0)}),
            (Pocs{0, 8, 16, 9, 24, 0}));
  // memory_management_control_operation 5 restarts counting like an IDR, from the picture itself: the next lsb,
  // 13, is more than half the range above 0 and counts backwards.
  EXPECT_EQ(pocs_of(t0, {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, 0, 1, 4),
                         hand_slice(0, false, 2, 0, 2, 8, true), hand_slice(0, false, 2, 0, 1, 13)}),
            (Pocs{0, 4, 0, -3}));
  // An SI slice (slice_type 9) has no reference list syntax (§7.3.3): its mmco 5 follows its lsb directly.
  EXPECT_EQ(pocs_of(t0, {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, 4, 1, 8, true),
                         hand_slice(0, false, 2, 0, 2, 13)}),
            (Pocs{0, 0, -3}));
  // Under weighted prediction a P or SP slice (slice_type 8) has its weights (§7.3.3.2) before the mmco 5 that is
  // read after them, and a B slice under explicit bi-prediction (weighted_bipred_idc 1) those of both lists; under
  // implicit bi-prediction (2, x264's weightb) a B slice has none.
  HandPps weighted, explicit_bi, implicit_bi;
  weighted.weighted = true, explicit_bi.bipred = 1, implicit_bi.bipred = 2;
  for (const auto& [pps, type, weights] : {std::tuple(weighted.nal(), 0u, true), {weighted.nal(), 3u, true},
                                           {explicit_bi.nal(), 1u, true}, {implicit_bi.nal(), 1u, false}}) {
    EXPECT_EQ(pocs_of(sets_of(HandSps{}.nal(), pps),
                      {hand_slice(0, true, 3, 2, 0, 0), hand_slice(0, false, 2, type, 1, 8, true, -1, weights)}),
              (Pocs{0, 0})) << type;
  }
  // A non-reference B field under a PPS with redundant_pic_cnt_present_flag and bottom_order: a field has no
  // delta_pic_order_cnt_bottom (§7.3.3), its redundant_pic_cnt (1) is kept, and an override may give both lists 32
  // references (the most, for fields), not 33 to either.
  HandSps field_sps;
  field_sps.fields = true;
  HandPps with_redundant;
  with_redundant.redundant = with_redundant.bottom_order = true;
  const auto redundant = sets_of(field_sps.nal(), with_redundant.nal());
  for (const auto& [l0, l1] : {std::pair(32u, 32u), {33u, 32u}, {32u, 33u}}) {
    const Nal nal = Bits().ue(0).ue(6).ue(0).u(4, 1).u(1, 1).u(1, 0).u(4, 2).ue(1).u(1, 1).u(1, 1).ue(l0 - 1)
                        .ue(l1 - 1).u(1, 0).u(1, 0).nal(0, kNalSlice);
    SliceHeader sh;
    const bool valid = l0 + l1 == 64;
    EXPECT_EQ(parse_slice_header(nal.data(), nal.size(), redundant, sh), valid) << l0 << " " << l1;
    EXPECT_EQ(sh.redundant_pic_cnt, valid ? 1u : 0u) << l0 << " " << l1;
  }
  // A frame whose bottom field counts 3 before its top (delta_pic_order_cnt_bottom, or delta_pic_order_cnt[1] with
  // offset_for_top_to_bottom_field 0) takes the lower count (§8.2.1). After such a frame with mmco 5 (frame_num 2)
  // its top counts 3, the lsb reference point, so lsb 11 is no wrap; the frame_num 1 after it is no frame_num wrap.
  for (const uint32_t type : {0u, 1u}) {
    HandSps sps;
    sps.poc_type = type, sps.cycle = std::vector<int32_t>(type, 8);
    HandPps bottom_order;
    bottom_order.bottom_order = true;
    EXPECT_EQ(pocs_of(sets_of(sps.nal(), bottom_order.nal()),
                      {hand_slice(type, true, 3, 2, 0, 0, false, -1, false, 0),
                       hand_slice(type, false, 2, 0, 1, type ? 0 : 8, false, -1, false, -3),
                       hand_slice(type, false, 2, 0, 2, type ? 0 : 14, true, -1, false, -3),
                       hand_slice(type, false, 2, 0, 1, type ? 0 : 11, false, -1, false, 0)}),
              (Pocs{0, 5, 0, type ? 8 : 11})) << type;
  }
  // Type 2: non-reference pictures count one less; an IDR after other pictures starts again at 0, FrameNumOffset too.
  EXPECT_EQ(pocs_of(hand_sets(2), {hand_slice(2, true, 3, 2, 0, 0), hand_slice(2, false, 2, 0, 1, 0),
                                   hand_slice(2, false, 0, 0, 2, 0), hand_slice(2, true, 3, 2, 0, 0),
                                   hand_slice(2, false, 2, 0, 1, 0)}),
            (Pocs{0, 2, 3, 0, 2}));

  // slice_type 9 is the largest; with separate colour planes colour_plane_id (2 bits) comes before frame_num.
  HandSps planes;
  planes.chroma = 3, planes.separate = true;
  const auto with_planes = sets_of(planes.nal(), HandPps{}.nal());
  for (const auto& [type, plane_bits, ok] : {std::tuple{9u, 0u, true}, {10u, 0u, false}, {7u, 2u, true}}) {
    const Nal nal = Bits().ue(0).ue(type).ue(0).u(plane_bits, 3).u(4, 5).ue(0).u(4, 0).u(2, 0).nal(3, kNalIdrSlice);
    SliceHeader sh;
    EXPECT_EQ(parse_slice_header(nal.data(), nal.size(), plane_bits ? with_planes : t0, sh), ok) << type;
    EXPECT_EQ(sh.frame_num, ok ? 5u : 0u) << type;
  }
  // pic_parameter_set_id 255 is the largest a slice may name, and only a PPS that came (here not 0).
  HandPps last_id;
  last_id.id = 255;
  const auto with_255 = sets_of(HandSps{}.nal(), last_id.nal());
  for (const uint32_t id : {0u, 255u, 256u}) {
    const Nal nal = Bits().ue(0).ue(7).ue(id).u(4, 5).ue(0).u(4, 0).u(2, 0).nal(3, kNalIdrSlice);
    SliceHeader sh;
    EXPECT_EQ(parse_slice_header(nal.data(), nal.size(), with_255, sh), id == 255) << id;
  }
  // There a weighted P slice's table has no chroma part (ChromaArrayType 0) before its mmco 5, and an entry for each
  // of the two references its override gives list 0 (the PPS has one).
  EXPECT_EQ(pocs_of(sets_of(planes.nal(), weighted.nal()),
                    {Bits().ue(0).ue(7).ue(0).u(2, 0).u(4, 0).ue(0).u(4, 0).u(2, 0).nal(3, kNalIdrSlice),
                     Bits().ue(0).ue(5).ue(0).u(2, 1).u(4, 1).u(4, 8).u(1, 1).ue(1).u(1, 0).ue(3).u(1, 1).se(-2)
                         .se(5).u(1, 0).u(1, 1).ue(5).ue(0).nal(2, kNalSlice)}),
            (Pocs{0, 0}));
}

// Slices a field decides the syntax of, and slices refused: under SPS 0 of 4-bit frame_num and lsb (of frames, of
// fields, or of fields and POC type 1) and PPS 0.
TEST(H264SliceHeader, FieldsOnlySomeSlicesHaveAndRefusals) {
  HandSps fields, type1_fields;
  fields.fields = type1_fields.fields = true;
  type1_fields.poc_type = 1, type1_fields.cycle = {6};
  HandPps bottom_order;
  bottom_order.bottom_order = bottom_order.redundant = true;
  ParameterSets sets[] = {hand_sets(0), sets_of(fields.nal(), HandPps{}.nal()),
                          sets_of(type1_fields.nal(), bottom_order.nal()), hand_sets(0)};
  sets[3].has_sps[0] = false;
  // A non-reference P slice of frame_num 1 and lsb 2, with a list 0 modification of one operation (3 ends the list).
  const auto p_slice = [](uint32_t idc) {
    return Bits().ue(0).ue(5).ue(0).u(4, 1).u(4, 2).u(1, 0).u(1, 1).ue(idc).ue(0).ue(3).nal(0, kNalSlice);
  };
  // A B slice whose list 1 has that modification.
  const auto b_slice = [](uint32_t idc) {
    return Bits().ue(0).ue(6).ue(0).u(4, 1).u(4, 2).u(1, 1).u(1, 0).u(1, 0).u(1, 1).ue(idc).ue(0).ue(3).nal(
        0, kNalSlice);
  };
  // A reference P slice whose dec_ref_pic_marking has one operation of that number.
  const auto marked = [](uint32_t op) {
    return Bits().ue(0).ue(5).ue(0).u(4, 1).u(4, 2).u(1, 0).u(1, 0).u(1, 1).ue(op).ue(1).ue(0).nal(2, kNalSlice);
  };
  // A non-reference P field that gives list 0 32 references and modifies each, the most there may be (§7.4.3.1).
  Bits most = Bits().ue(0).ue(5).ue(0).u(4, 1).u(1, 1).u(1, 0).u(4, 2).u(1, 1).ue(31).u(1, 1);
  for (int i = 0; i < 32; ++i) most.ue(0).ue(0);
  Nal retyped = p_slice(2), partition_a = p_slice(2);
  retyped[0] = uint8_t(retyped[0] & 0xE0) | kNalSps;
  partition_a[0] = uint8_t(partition_a[0] & 0xE0) | kNalPartitionA;
  const struct {
    const char* what;
    int sets;
    Nal nal;
    int64_t lsb_or_delta, redundant;  // pic_order_cnt_lsb or delta_pic_order_cnt[0]; redundant_pic_cnt; -1: refused
  } cases[] = {
      {"modification_of_pic_nums_idc 2", 0, p_slice(2), 2, 0},
      {"modification_of_pic_nums_idc 6", 0, p_slice(6), -1, -1},
      {"list 1 modification_of_pic_nums_idc 0", 0, b_slice(0), 2, 0},
      {"list 1 modification_of_pic_nums_idc 6", 0, b_slice(6), -1, -1},
      {"32 modifications of a field's list", 1, most.ue(3).nal(0, kNalSlice), 2, 0},
      {"memory_management_control_operation 6", 0, marked(6), 2, 0},
      {"memory_management_control_operation 7", 0, marked(7), -1, -1},
      {"cut after its lsb", 0, Bits().ue(0).ue(5).ue(0).u(4, 1).u(4, 2).nal(2, kNalSlice), -1, -1},
      {"a slice body under an SPS header", 0, retyped, -1, -1},
      {"data partition A: a slice header (§7.3.2.9.1)", 0, partition_a, 2, 0},
      {"a PPS whose SPS never came", 3, p_slice(2), -1, -1},
      // field_pic_flag 0 has no bottom_field_flag after it; an IDR frame of lsb 6.
      {"a frame among fields", 1, Bits().ue(0).ue(7).ue(0).u(4, 5).u(1, 0).ue(0).u(4, 6).u(2, 0).nal(3, kNalIdrSlice),
       6, 0},
      // A bottom field of type 1: delta_pic_order_cnt[0] 3, no delta_pic_order_cnt[1], redundant_pic_cnt 1.
      {"a type 1 field", 2,
       Bits().ue(0).ue(7).ue(0).u(4, 0).u(1, 1).u(1, 1).ue(0).se(3).ue(1).u(2, 0).nal(3, kNalIdrSlice), 3, 1},
  };
  for (const auto& c : cases) {
    SliceHeader sh;
    std::pair<int64_t, int64_t> got(-1, -1);
    if (parse_slice_header(c.nal.data(), c.nal.size(), sets[c.sets], sh))
      got = {c.sets == 2 ? int64_t{sh.delta_poc[0]} : int64_t{sh.poc_lsb}, sh.redundant_pic_cnt};
    EXPECT_EQ(got, std::pair(c.lsb_or_delta, c.redundant))
        << c.what;
  }
}

// §7.3.2.3.1, §D.1.8 by hand: the recovery point after other messages (one of 300 bytes: FF 2D); not type 261.
TEST(H264Sei, RecoveryPointAmongOtherMessages) {
  const std::pair<std::string, int> cases[] = {
      {"06 06 02 24 40 80", 3},                                                // recovery_frame_cnt 3
      {"06 05 11 11111111111111111111111111111111 78 06 01 C4 80", 0},         // after user data
      {"06 05 FF 2D " + std::string(600, '1') + " 06 02 24 40 80", 3},          // after 300 bytes of it
      {"06 04 02 B5 00 80", -1},                                               // registered user data only
      {"06 FF 06 01 C4 80", -1},                                               // type 261
      {"06 06 02 24", -1},                                                     // cut in the payload
      {"65 06 01 C4 80", -1},                                                  // not an SEI NAL unit
  };
  for (const auto& [bytes, frames] : cases) {
    const auto nal = unhex(bytes);
    uint32_t found = 99;
    EXPECT_EQ(find_recovery_point(nal.data(), nal.size(), found) ? int(found) : -1, frames) << bytes;
  }
}

}  // namespace
