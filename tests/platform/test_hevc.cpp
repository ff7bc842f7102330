// The H.265 syntax parser on units written out by hand from ISO/IEC 23008-2, field by field.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "platform/hevc.hpp"
#include "support/hevc_units.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::hevc;
using boxlane::test::Bits;
using boxlane::test::HandSps;
using boxlane::test::unhex;
using Nal = std::vector<uint8_t>;

std::string summary(const Sps& s) {
  std::ostringstream o;
  o << "sps " << s.id << " vps " << s.vps_id << " sub " << s.max_sub_layers << " nest " << s.temporal_id_nesting
    << " | space " << +s.ptl.profile_space << " tier " << s.ptl.tier << " profile " << +s.ptl.profile_idc
    << " compat " << std::hex << s.ptl.compatibility_flags << " constraints " << s.ptl.constraint_flags << std::dec
    << " level " << +s.ptl.level_idc << " | chroma " << s.chroma_format_idc << " " << s.coded_width << "x"
    << s.coded_height << " window " << s.crop_left << " " << s.crop_right << " " << s.crop_top << " "
    << s.crop_bottom << " = " << s.width << "x" << s.height << " depth " << s.bit_depth_luma << " "
    << s.bit_depth_chroma << " lsb " << s.log2_max_poc_lsb << " dpb " << s.max_dec_pic_buffering << " reorder "
    << s.max_num_reorder_pics << " ctb " << s.log2_ctb_size << " rps " << s.num_short_term_ref_pic_sets
    << " | sar " << s.sar_width << ":" << s.sar_height;
  if (s.timing_info_present) o << " tick " << s.num_units_in_tick << "/" << s.time_scale;
  if (s.bitstream_restriction) o << " segmentation " << s.min_spatial_segmentation_idc;
  return o.str();
}
std::string parsed(const Nal& nal) {
  Sps sps;
  return parse_sps(nal.data(), nal.size(), sps) ? summary(sps) : "refused";
}
// A PPS for SPS `sps`: 7 flags (dependent_slice_segments_enabled on), both reference counts, init_qp_minus26,
// chroma QP.
Nal pps_of(uint32_t id, uint32_t head = 0, uint32_t refs = 0, int32_t qp = 0, int32_t cb = 0, int32_t cr = 0,
           uint32_t sps = 0) {
  return Bits().ue(id).ue(sps).u(7, head).ue(refs).ue(refs).se(qp).u(3, 0).se(cb).se(cr).u(5, 0).u(1, 1).hevc_nal(
      kPps);
}

// A VPS with no sub-layer profiles or levels, of vps_max_dec_pic_buffering_minus1 4.
Nal vps_of(uint32_t sub_layers_minus1, uint32_t reorder = 0) {
  Bits b;
  b.u(4, 0).u(2, 3).u(6, 0).u(3, sub_layers_minus1).u(1, 1).u(16, 0xFFFF);
  b.u(8, 0x22).u(32, 0x20000000).u(48, 0).u(8, 93).u(sub_layers_minus1 ? 16 : 0, 0);
  return b.u(1, 0).ue(4).ue(reorder).ue(0).hevc_nal(kVps);
}

TEST(HevcNalHeader, EveryFieldAtItsLargestAndRefusals) {
  // forbidden_zero_bit set, nuh_temporal_id_plus1 0 and a header cut short are refused.
  const uint8_t largest[] = {0x7F, 0xFF}, forbidden[] = {0x80, 0x01}, no_tid[] = {0x02, 0x00};
  NalHeader h;
  ASSERT_TRUE(parse_nal_header(largest, 2, h));
  EXPECT_EQ((std::array<int, 3>{h.type, h.layer_id, h.temporal_id}), (std::array<int, 3>{63, 63, 6}));
  EXPECT_FALSE(parse_nal_header(forbidden, 2, h) || parse_nal_header(no_tid, 2, h) || parse_nal_header(largest, 1, h));
  // A parameter set is read only under a header of its own type in layer 0 (the layered forms of Annex F differ):
  // each body under its own header, under the next type's and in layer 1.
  const auto headed = [](Nal nal, uint8_t type, uint8_t layer) {
    nal[0] = uint8_t(type << 1 | layer >> 5), nal[1] = uint8_t((layer & 31) << 3 | 1);
    return nal;
  };
  const auto read = [](const Nal& nal, uint8_t as) {
    Vps vps;
    Sps sps;
    Pps pps;
    return as == kVps ? parse_vps(nal.data(), nal.size(), vps)
                      : as == kSps ? parse_sps(nal.data(), nal.size(), sps) : parse_pps(nal.data(), nal.size(), pps);
  };
  for (const auto& [nal, type] : {std::pair(vps_of(0), kVps), {HandSps{}.nal(), kSps}, {pps_of(0), kPps}}) {
    const uint8_t other = type == kPps ? uint8_t{kVps} : uint8_t(type + 1);
    EXPECT_EQ((std::array{read(nal, type), read(headed(nal, other, 0), type), read(headed(nal, type, 1), type)}),
              (std::array{true, false, false}))
        << +type;
  }
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
std::vector<uint32_t> deltas(uint32_t n) {
  std::vector<uint32_t> out;
  for (uint32_t d = 1; d <= n; ++d) out.push_back(d);
  return out;
}
// ... or predicted from the set before: used_by_curr_pic_flag and use_delta_flag for each delta and delta_rps.
Bits predicted_rps(int32_t delta_rps, const std::vector<std::array<bool, 2>>& flags) {
  Bits b;
  b.u(1, 1).u(1, delta_rps < 0).ue(uint32_t(std::abs(delta_rps)) - 1);
  for (const auto& f : flags) f[0] ? b.u(1, 1) : b.u(1, 0).u(1, f[1]);
  return b;
}

// Under sps_max_dec_pic_buffering 16: a set of 15 negative (or positive) deltas, one predicted from it with
// delta_rps -1 (or +1) of 16, and one predicted from that with `delta_rps`, of the 17 deltas it could keep all but
// `unused` (-1: all).
void sixteen(HandSps& s, bool negative, int32_t delta_rps, int unused) {
  std::vector<std::array<bool, 2>> all(16, {true, true}), but(17, {true, true});
  if (unused >= 0) but[std::size_t(unused)] = {false, false};
  s.buffering_minus1 = 15;
  const std::vector<uint32_t> ones(15, 1);  // -1 to -15, or +1 to +15
  s.rps = {negative ? explicit_rps(ones, {}, true) : explicit_rps({}, ones, true),
           predicted_rps(negative ? -1 : 1, all), predicted_rps(delta_rps, but)};
}

TEST(HevcParameterSets, HandMadeSequenceParameterSetsReadToTheEnd) {
  // Every field the syntax skips must be skipped exactly, or the VUI at the end (SAR 64:45, 1001/60000,
  // segmentation 1000) comes out wrong: sub-layers with their own profiles and levels, scaling lists with the
  // highest DC coefficient (255), PCM, explicit and predicted reference picture sets, long-term pictures and
  // HRD parameters with the most CPBs (32) for every sub-layer.
  HandSps full;
  full.sub_layers_minus1 = 2, full.sub_layer_profile = full.scaling_list = full.pcm = full.hrd = true;
  full.cpbs = 32, full.dc_minus8 = 247, full.long_term = 3;
  full.rps = {explicit_rps({1, 2}, {3}, true),
              // From {-1, -3 | +3} with delta_rps -1: -2 and -4 from the negatives, +2 from the positive.
              predicted_rps(-1, {{true, true}, {false, true}, {true, true}, {false, false}}),
              // From that set with delta_rps 2: -2 + 2 and -4 + 2 dropped (0, use_delta_flag 0); +4 and +2 kept.
              predicted_rps(2, {{true, true}, {false, false}, {true, true}, {true, true}}),
              // From {| +2, +4} with delta_rps -1: a flag for each and for delta_rps itself, so +1 and +3.
              predicted_rps(-1, {{true, true}, {true, true}, {false, false}})};
  EXPECT_EQ(parsed(full.nal()),
            "sps 0 vps 0 sub 3 nest 1 | space 1 tier 1 profile 2 compat 20000000 constraints 800000000001 level 153 | "
            "chroma 1 1280x720 window 0 0 0 0 = 1280x720 depth 8 8 lsb 8 dpb 5 reorder 0 ctb 6 rps 4 | sar 64:45 "
            "tick 1001/60000 segmentation 1000");
  // Parts that are absent or shorter, and the VUI reads on: an HRD of low_delay_hrd_flag 1 sends no cpb_cnt_minus1
  // (§E.2.2), one of fixed_pic_rate_general_flag 1 no fixed_pic_rate_within_cvs_flag (1 then, §E.3.2), one of VCL
  // parameters only still has the common part; scaling lists may be enabled with the default ones (§7.3.2.2); a VUI
  // may lack the aspect ratio and carry overscan_appropriate_flag (§E.2.1).
  HandSps low, general, vcl_only, default_lists, no_sar;
  low.hrd = low.low_delay = true;
  general.hrd = general.general = true, general.elemental = 1;
  vcl_only.hrd = true, vcl_only.nal_hrd = false;
  default_lists.default_lists = true;
  no_sar.sar = false, no_sar.overscan = true;
  for (const HandSps& s : {low, general, vcl_only, default_lists, no_sar}) {
    EXPECT_TRUE(parsed(s.nal()).ends_with(s.sar ? "sar 64:45 tick 1001/60000 segmentation 1000"
                                                : "sar 0:0 tick 1001/60000 segmentation 1000"))
        << parsed(s.nal());
  }
  // From {-1 | +1} with delta_rps -2 (§7.4.8): +1 becomes -1, kept by the second use_delta_flag, and -1 becomes -3,
  // dropped by the first. The set is {-1, -2 |}, so the one predicted from it reads three flags. From {-1, -2 |}
  // (two steps of 1, (7-67)) with delta_rps 2, -2 becomes 0 and goes: {| +1, +2}, again three flags after it.
  HandSps turned, stepped;
  turned.rps = {explicit_rps({1}, {1}, true), predicted_rps(-2, {{false, false}, {true, true}, {true, true}}),
                predicted_rps(1, {{false, false}, {true, true}, {true, true}})};
  stepped.rps = {explicit_rps({1, 1}, {}, true), predicted_rps(2, {{true, true}, {true, true}, {true, true}}),
                 predicted_rps(1, {{true, true}, {true, true}, {true, true}})};
  for (const HandSps& s : {turned, stepped})
    EXPECT_TRUE(parsed(s.nal()).ends_with("rps 3 | sar 64:45 tick 1001/60000 segmentation 1000")) << parsed(s.nal());
  // Cut anywhere before its last field, it is refused.
  const Nal whole = full.nal();
  for (std::size_t cut = 0; cut + 2 < whole.size(); ++cut)
    EXPECT_EQ(parsed(Nal(whole.begin(), whole.begin() + long(cut))), "refused") << cut;
  // The conformance window counts chroma samples: 2 x 2 for 4:2:0, 2 x 1 for 4:2:2, 1 x 1 for 4:4:4 and mono.
  const char* windows[] = {"window 1 2 3 4 = 1277x713", "window 2 4 6 8 = 1274x706", "window 2 4 3 4 = 1274x713",
                           "window 1 2 3 4 = 1277x713"};
  for (uint32_t chroma = 0; chroma < 4; ++chroma) {
    HandSps windowed;
    windowed.chroma = chroma, windowed.window = {1, 2, 3, 4};
    EXPECT_NE(parsed(windowed.nal()).find(windows[chroma]), std::string::npos) << parsed(windowed.nal());
  }
}

TEST(HevcParameterSets, LimitsOnBothSides) {
  // Each row sets one field to the largest (or smallest) value allowed and to one past it.
  const struct {
    const char* what;
    void (*set)(HandSps&, bool past);
  } limits[] = {
      {"sps_seq_parameter_set_id 15", [](HandSps& s, bool p) { s.id = p ? 16 : 15; }},
      {"chroma_format_idc 3", [](HandSps& s, bool p) { s.chroma = p ? 4 : 3; }},
      {"sps_max_sub_layers_minus1 6", [](HandSps& s, bool p) { s.sub_layers_minus1 = p ? 7 : 6; }},
      {"bit_depth_luma_minus8 8", [](HandSps& s, bool p) { s.luma_minus8 = p ? 9 : 8; }},
      {"bit_depth_chroma_minus8 8", [](HandSps& s, bool p) { s.chroma_minus8 = p ? 9 : 8; }},
      {"log2_max_pic_order_cnt_lsb_minus4 12", [](HandSps& s, bool p) { s.lsb_minus4 = p ? 13 : 12; }},
      {"sps_max_dec_pic_buffering_minus1 15", [](HandSps& s, bool p) { s.buffering_minus1 = p ? 16 : 15; }},
      {"sps_max_num_reorder_pics 4 of 5", [](HandSps& s, bool p) { s.reorder = p ? 5 : 4; }},
      {"CtbLog2SizeY 6", [](HandSps& s, bool p) { s.cb_diff = p ? 4 : 3; }},
      {"CtbLog2SizeY 6 from 16x16 blocks", [](HandSps& s, bool p) { s.min_cb_minus3 = 1, s.cb_diff = p ? 3 : 2; }},
      // A difference of 2^32 - 2 would wrap CtbLog2SizeY round to 4.
      {"log2_diff_max_min_luma_coding_block_size 0 of 64x64 blocks", [](HandSps& s, bool p) {
         s.min_cb_minus3 = 3, s.cb_diff = p ? 0xFFFFFFFE : 0, s.height = 704, s.tb_diff = 2; }},
      {"CtbLog2SizeY 4", [](HandSps& s, bool p) { s.cb_diff = p ? 0 : 1, s.tb_diff = 1; }},
      {"MaxTbLog2SizeY 5 in 64x64 blocks", [](HandSps& s, bool p) { s.tb_diff = p ? 4 : 3; }},
      // Both up to CtbLog2SizeY - MinTbLog2SizeY (§7.4.3.2.1).
      {"max_transform_hierarchy_depth_inter 2 in 16x16 blocks of 4x4 transforms",
       [](HandSps& s, bool p) { s.cb_diff = 1, s.tb_diff = 1, s.depth_inter = p ? 3 : 2; }},
      {"max_transform_hierarchy_depth_intra 4 in 64x64 blocks of 4x4 transforms",
       [](HandSps& s, bool p) { s.depth_intra = p ? 5 : 4; }},
      {"min_spatial_segmentation_idc 4095", [](HandSps& s, bool p) { s.min_spatial = p ? 4096 : 4095; }},
      {"pic_width_in_luma_samples 32768", [](HandSps& s, bool p) { s.width = p ? 32776 : 32768; }},
      {"pic_height_in_luma_samples 32768", [](HandSps& s, bool p) { s.height = p ? 32776 : 32768; }},
      {"pic_width_in_luma_samples 8", [](HandSps& s, bool p) { s.width = p ? 0 : 8; }},
      {"pic_height_in_luma_samples 8", [](HandSps& s, bool p) { s.height = p ? 0 : 8; }},
      {"width a multiple of MinCbSizeY", [](HandSps& s, bool p) { s.width = p ? 1284 : 1288; }},
      {"height a multiple of MinCbSizeY", [](HandSps& s, bool p) { s.height = p ? 716 : 720; }},
      {"MinTbLog2SizeY below MinCbLog2SizeY", [](HandSps& s, bool p) { s.tb_minus2 = p ? 1 : 0, s.tb_diff = 3 - p; }},
      // Coded values that a 32-bit sum would wrap round to MinTbLog2SizeY 0, MaxTbLog2SizeY 0, Log2MinIpcmCbSizeY 0.
      {"log2_min_luma_transform_block_size_minus2 0", [](HandSps& s, bool p) { s.tb_minus2 = p ? 0xFFFFFFFE : 0; }},
      {"log2_diff_max_min_luma_transform_block_size 3", [](HandSps& s, bool p) { s.tb_diff = p ? 0xFFFFFFFE : 3; }},
      {"log2_min_pcm_luma_coding_block_size_minus3 0",
       [](HandSps& s, bool p) { s.pcm = true, s.pcm_min_minus3 = p ? 0xFFFFFFFD : 0; }},
      {"scaling_list_dc_coef_minus8 -7", [](HandSps& s, bool p) { s.scaling_list = true, s.dc_minus8 = p ? -8 : -7; }},
      {"scaling_list_dc_coef_minus8 247", [](HandSps& s, bool p) { s.scaling_list = 1, s.dc_minus8 = 247 + p; }},
      {"scaling_list_delta_coef -128", [](HandSps& s, bool p) { s.scaling_list = 1, s.first_delta = -128 - p; }},
      {"scaling_list_delta_coef 127", [](HandSps& s, bool p) { s.scaling_list = 1, s.first_delta = 127 + p; }},
      {"scaling_list_pred_matrix_id_delta 1 of a 32x32 list",
       [](HandSps& s, bool p) { s.scaling_list = true, s.pred_delta_32 = p ? 2 : 1; }},
      {"PCM chroma depth up to an 8-bit chroma beside 10-bit luma",
       [](HandSps& s, bool p) { s.pcm = true, s.luma_minus8 = 2, s.pcm_chroma_minus1 = p ? 8 : 7; }},
      // Past it, a difference of 2^32 - 2 would bring Log2MaxIpcmCbSizeY round to 4.
      {"Log2MinIpcmCbSizeY 5",
       [](HandSps& s, bool p) { s.pcm = true, s.pcm_min_minus3 = 2 + p, s.pcm_diff = p ? 0xFFFFFFFE : 0; }},
      {"elemental_duration_in_tc_minus1 2047", [](HandSps& s, bool p) { s.hrd = true, s.elemental = p ? 2048 : 2047; }},
      {"window narrower than the picture", [](HandSps& s, bool p) { s.window = {p ? 320u : 319u, 320, 0, 0}; }},
      {"window lower than the picture", [](HandSps& s, bool p) { s.window = {0, 0, p ? 180u : 179u, 180}; }},
      {"num_short_term_ref_pic_sets 64", [](HandSps& s, bool p) {
         s.rps.assign(p ? 65 : 64, explicit_rps({1}, {}, false)), s.rps[0] = explicit_rps({1}, {}, true); }},
      // sps_max_dec_pic_buffering 5 leaves room for 4 deltas in a set, whichever their sign.
      {"num_negative_pics 4", [](HandSps& s, bool p) { s.rps = {explicit_rps(deltas(4 + p), {}, true)}; }},
      {"num_positive_pics 3 after 1", [](HandSps& s, bool p) { s.rps = {explicit_rps({1}, deltas(3 + p), true)}; }},
      {"num_long_term_ref_pics_sps 32", [](HandSps& s, bool p) { s.long_term = p ? 33 : 32; }},
      {"delta_poc_s0_minus1 32767", [](HandSps& s, bool p) { s.rps = {explicit_rps({32768u + p}, {}, true)}; }},
      {"delta_poc_s1_minus1 32767", [](HandSps& s, bool p) { s.rps = {explicit_rps({}, {32768u + p}, true)}; }},
      {"abs_delta_rps_minus1 32767", [](HandSps& s, bool p) {
         s.rps = {explicit_rps({1}, {}, true), predicted_rps(-32768 - p, {{false, false}, {false, false}})}; }},
      // A set predicted from one of 16 deltas may keep the most a set holds, 16, not all 17 it could (7-61, 7-62).
      {"16 deltas kept negative", [](HandSps& s, bool p) { sixteen(s, true, -1, p ? -1 : 16); }},
      {"16 deltas kept positive", [](HandSps& s, bool p) { sixteen(s, false, 1, p ? -1 : 0); }},
      {"16 positive deltas turned negative", [](HandSps& s, bool p) { sixteen(s, false, -17, p ? -1 : 0); }},
      {"16 negative deltas turned positive", [](HandSps& s, bool p) { sixteen(s, true, 17, p ? -1 : 16); }},
      {"16 negative deltas turned positive, one dropped", [](HandSps& s, bool p) { sixteen(s, true, 17, p ? -1 : 0); }},
      {"cpb_cnt_minus1 31", [](HandSps& s, bool p) { s.hrd = true, s.cpbs = p ? 33 : 32; }},
      {"PCM luma depth up to an 8-bit luma beside 10-bit chroma",
       [](HandSps& s, bool p) { s.pcm = true, s.chroma_minus8 = 2, s.pcm_luma_minus1 = p ? 8 : 7; }},
      {"Log2MaxIpcmCbSizeY 5", [](HandSps& s, bool p) { s.pcm = true, s.pcm_diff = p ? 3 : 2; }},
      {"Log2MaxIpcmCbSizeY 4 in 16x16 blocks",
       [](HandSps& s, bool p) { s.cb_diff = 1, s.tb_diff = 1, s.pcm = true, s.pcm_diff = p ? 2 : 1; }},
  };
  for (const auto& limit : limits) {
    HandSps at, past;
    limit.set(at, false);
    limit.set(past, true);
    EXPECT_EQ(std::pair(parsed(at.nal()) == "refused", parsed(past.nal())), std::pair(false, std::string("refused")))
        << limit.what;
  }
  // cu_qp_delta_enabled_flag with diff_cu_qp_delta_depth: up to log2_diff_max_min_luma_coding_block_size
  // (§7.4.3.3), which is 3 at most (64x64 tree blocks of 8x8 coding blocks).
  const auto qp_depth = [](uint32_t depth) {
    return Bits().ue(0).ue(0).u(7, 0).ue(0).ue(0).se(0).u(3, 1).ue(depth).se(0).se(0).u(5, 0).u(1, 1).hevc_nal(kPps);
  };
  Nal cut_pps = pps_of(0);
  cut_pps.pop_back();
  const auto l1_refs = [](uint32_t refs) {
    return Bits().ue(0).ue(0).u(7, 0).ue(0).ue(refs).se(0).u(3, 0).se(0).se(0).u(5, 0).u(1, 1).hevc_nal(kPps);
  };
  const struct {
    const char* what;
    Nal at, past;
  } unit_limits[] = {
      {"diff_cu_qp_delta_depth 3", qp_depth(3), qp_depth(4)},
      {"vps_max_sub_layers_minus1 6", vps_of(6), vps_of(7)},
      {"vps_max_num_reorder_pics 4 of 5", vps_of(0, 4), vps_of(0, 5)},
      {"pps_pic_parameter_set_id 63", pps_of(63), pps_of(64)},
      {"pps_seq_parameter_set_id 15", pps_of(0, 0, 0, 0, 0, 0, 15), pps_of(0, 0, 0, 0, 0, 0, 16)},
      {"num_ref_idx_lX_default_active_minus1 14", pps_of(0, 0, 14), pps_of(0, 0, 15)},
      {"init_qp_minus26 25", pps_of(0, 0, 0, 25), pps_of(0, 0, 0, 26)},
      {"init_qp_minus26 -74", pps_of(0, 0, 0, -74), pps_of(0, 0, 0, -75)},
      {"pps_cb_qp_offset 12", pps_of(0, 0, 0, 0, 12), pps_of(0, 0, 0, 0, 13)},
      {"pps_cb_qp_offset -12", pps_of(0, 0, 0, 0, -12), pps_of(0, 0, 0, 0, -13)},
      {"pps_cr_qp_offset 12", pps_of(0, 0, 0, 0, 0, 12), pps_of(0, 0, 0, 0, 0, 13)},
      {"pps_cr_qp_offset -12", pps_of(0, 0, 0, 0, 0, -12), pps_of(0, 0, 0, 0, 0, -13)},
      {"num_ref_idx_l1_default_active_minus1 14", l1_refs(14), l1_refs(15)},
      {"a PPS whole, not cut short", pps_of(0), cut_pps},
  };
  const auto accepted = [](const Nal& nal) {
    Vps vps;
    Pps pps;
    return nal[0] >> 1 == kVps ? parse_vps(nal.data(), nal.size(), vps) : parse_pps(nal.data(), nal.size(), pps);
  };
  for (const auto& limit : unit_limits) {
    EXPECT_EQ(std::pair(accepted(limit.at), accepted(limit.past)), std::pair(true, false)) << limit.what;
  }
}

// SPS 0, PPS 0 (plain), 62 (output_flag_present_flag alone) and 63 (dependent slice segments,
// output_flag_present_flag, 2 extra header bits).
ParameterSets hand_sets(uint32_t lsb_minus4, HandSps hand = {}) {
  hand.lsb_minus4 = lsb_minus4;
  ParameterSets sets;
  const Nal sps = hand.nal(), plain = pps_of(0), output = pps_of(62, 0b0100000), rich = pps_of(63, 0b1101000);
  EXPECT_TRUE(parse_sps(sps.data(), sps.size(), sets.sps[0]) && parse_pps(plain.data(), plain.size(), sets.pps[0]) &&
              parse_pps(output.data(), output.size(), sets.pps[62]) &&
              parse_pps(rich.data(), rich.size(), sets.pps[63]));
  sets.has_sps[0] = sets.has_pps[0] = sets.has_pps[62] = sets.has_pps[63] = true;
  return sets;
}

// The first slice segment of a picture through PPS 0.
Nal hand_slice(uint8_t type, uint32_t lsb, uint8_t temporal_id = 0) {
  Bits b;
  b.u(1, 1);
  if (is_irap(type)) b.u(1, 0);
  b.ue(0).ue(is_irap(type) ? 2 : 1);
  if (!is_idr(type)) b.u(4, lsb);
  return b.hevc_nal(type, temporal_id);
}

std::vector<int64_t> pocs_of(const ParameterSets& sets, const std::vector<Nal>& slices) {
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
  // A step of exactly half the range back counts as a wrap forwards; exactly half forwards is no wrap back.
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 8), hand_slice(kTrailR, 0),
                           hand_slice(kTrailR, 9), hand_slice(kTrailR, 1)}),
            (std::vector<int64_t>{0, 8, 16, 9, 17}));
  // Going forwards by more than half wraps backwards: leading pictures of an IDR come out negative.
  EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kRadlN, 14), hand_slice(kRadlN + 1, 15)}),
            (std::vector<int64_t>{0, -2, -1}));
  // A BLA picture of any type restarts the count as an IDR picture does (§8.3.1, NoRaslOutputFlag 1): lsb 4 after
  // POC 16 is 4, not 20.
  for (const uint8_t bla : {uint8_t{kBlaWLp}, uint8_t{17}, uint8_t{kBlaNLp}}) {
    EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), hand_slice(kTrailR, 8), hand_slice(kTrailR, 0),
                             hand_slice(bla, 4)}),
              (std::vector<int64_t>{0, 8, 16, 4})) << +bla;
  }
  // Only layer 0 pictures neither leading nor sub-layer non-reference move the reference point: after such an lsb 7,
  // lsb 9 counts as 9; after any other (non-reference, leading, layer 1), it counts as -7 from the IDR.
  for (const auto& skipped : {hand_slice(kTrailN, 7), hand_slice(kRadlN + 1, 7), hand_slice(kRaslR, 7),
                              hand_slice(kTrailR, 7, 1), hand_slice(kTrailR, 7)}) {
    EXPECT_EQ(pocs_of(sets, {hand_slice(kIdrWRadl, 0), skipped, hand_slice(kTrailR, 9)})[2],
              skipped == hand_slice(kTrailR, 7) ? 9 : -7);
  }
}

TEST(HevcSliceHeader, SegmentsAndRefusals) {
  // 1280x720 in 64x64 tree blocks: 20 x 12 = 240, so 8 address bits; 1024x1024 is exactly 256 and still takes
  // 8. With separate colour planes, colour_plane_id (2 bits) comes before the lsb. The last sets lack SPS 0.
  HandSps square, planes;
  square.width = square.height = 1024;
  planes.chroma = 3, planes.separate = true;
  ParameterSets sets[] = {hand_sets(4), hand_sets(4, square), hand_sets(4, planes), hand_sets(4)};
  sets[3].has_sps[0] = false;
  const auto slice = [](uint8_t type, const Bits& b) { return b.hevc_nal(type); };
  Nal forbidden = slice(kTrailR, Bits().u(1, 1).ue(0).ue(1).u(8, 33));
  forbidden[0] |= 0x80;
  const struct {
    const char* what;
    int sets;
    Nal nal;
    bool ok;
    std::array<uint32_t, 6> fields;  // first, dependent, address, slice_type, poc_lsb, pic_output
  } cases[] = {
      {"IDR: no lsb", 0, slice(kIdrNLp, Bits().u(1, 1).u(1, 1).ue(0).ue(2)), true, {1, 0, 0, 2, 0, 1}},
      {"CRA with lsb", 0, slice(kCra, Bits().u(1, 1).u(1, 0).ue(0).ue(2).u(8, 200)), true, {1, 0, 0, 2, 200, 1}},
      {"address 239", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 239).ue(1).u(8, 33)), true, {0, 0, 239, 1, 33, 1}},
      {"address past the picture", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 240).ue(1).u(8, 33)), false, {}},
      {"address 0 after the first", 0, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 0).ue(1).u(8, 33)), false, {}},
      {"last of 256", 1, slice(kTrailR, Bits().u(1, 0).ue(0).u(8, 255).ue(1).u(8, 33)), true, {0, 0, 255, 1, 33, 1}},
      {"colour_plane_id", 2, slice(kTrailR, Bits().u(1, 1).ue(0).ue(1).u(2, 2).u(8, 33)), true, {1, 0, 0, 1, 33, 1}},
      {"dependent segment", 0, slice(kTrailR, Bits().u(1, 0).ue(63).u(1, 1).u(8, 5)), true, {0, 1, 5, 0, 0, 1}},
      {"extra bits and pic_output_flag 0", 0, slice(kTrailN, Bits().u(1, 1).ue(63).u(2, 3).ue(0).u(1, 0).u(8, 77)),
       true, {1, 0, 0, 0, 77, 0}},
      {"pic_output_flag 0 of a later segment, no dependent ones", 0,
       slice(kTrailR, Bits().u(1, 0).ue(62).u(8, 5).ue(1).u(1, 0).u(8, 33)), true, {0, 0, 5, 1, 33, 0}},
      {"slice_type 3", 0, slice(kTrailR, Bits().u(1, 1).ue(0).ue(3).u(8, 1)), false, {}},
      {"unknown PPS", 0, slice(kTrailR, Bits().u(1, 1).ue(2).ue(1).u(8, 1)), false, {}},
      {"PPS id 64", 3, slice(kTrailR, Bits().u(1, 1).ue(64).ue(1).u(8, 1)), false, {}},
      {"PPS without its SPS", 3, slice(kTrailR, Bits().u(1, 1).ue(0).ue(1).u(8, 1)), false, {}},
      {"reserved VCL type 10", 0, slice(10, Bits().u(1, 1).ue(0).ue(1).u(8, 1)), false, {}},
      {"reserved IRAP type 22", 0, slice(22, Bits().u(1, 1).u(1, 0).ue(0).ue(2).u(8, 1)), false, {}},
      {"cut in its lsb", 0, slice(kTrailR, Bits().u(1, 1).ue(0).ue(1)), false, {}},
      {"forbidden_zero_bit", 0, forbidden, false, {}},
  };
  for (const auto& c : cases) {
    SliceHeader sh;
    ASSERT_EQ(parse_slice_header(c.nal.data(), c.nal.size(), sets[c.sets], sh), c.ok) << c.what;
    if (!c.ok) continue;
    EXPECT_EQ((std::array<uint32_t, 6>{sh.first_slice_segment_in_pic, sh.dependent_slice_segment,
                                       sh.segment_address, sh.slice_type, sh.poc_lsb, sh.pic_output}),
              c.fields)
        << c.what;
  }
}

}  // namespace
