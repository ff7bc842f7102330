// Random but valid H.264 units, written field by field from the syntax of ITU-T H.264 §7.3.2.1.1 (SPS), §E.1.1
// (VUI, HRD), §7.3.2.2 (PPS) and §7.3.3 (slice header), with every optional part taken at random and every value
// drawn from its whole range, its ends more often. The reader must take each whole and report what was written,
// refuse it cut before its last read bit or with one value past its limit, and count the pictures of random
// sequences as they were meant to be shown (§8.2.1). Deterministic: a failure names its case and prints its bytes.
// BOXLANE_H264_GEN_DUMP=PREFIX writes the valid units as PREFIX-*.264 (Annex B) and the fields chosen as PREFIX-*.txt,
// to check the generator against another reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/h264.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::h264;
using boxlane::test::Bits;
using boxlane::test::hex;
using boxlane::test::kSampleAspectRatios;
using boxlane::test::nal_byte_of;
using Nal = std::vector<uint8_t>;

constexpr int64_t kI32 = 2147483647;  // a 32-bit se(v) lies in -kI32..kI32
constexpr uint32_t kSeed = 264;

class Gen {
 public:
  enum Code { kU, kUe, kSe };
  explicit Gen(uint32_t seed) : rng(seed) {}

  std::mt19937 rng;
  Bits b;
  std::size_t end = 0;  // bits up to the last field the reader reads
  std::string past;     // the field to write one past its limit, if the unit has it
  bool broke = false, above = false;  // whether it was; whether a signed one goes above
  std::ostringstream* log = nullptr;

  // lo..hi, each end a quarter of the time.
  int64_t draw(int64_t lo, int64_t hi) {
    const uint32_t r = rng() % 8;
    return r < 2 ? lo : r < 4 ? hi : std::uniform_int_distribution<int64_t>(lo, hi)(rng);
  }
  bool coin(unsigned one_in = 2) { return rng() % one_in == 0; }
  int64_t limit(const char* name, int64_t legal, int64_t beyond) {
    if (past != name) return legal;
    broke = true;
    return beyond;
  }
  int64_t put(Code code, unsigned n, const char* name, int64_t v) {
    code == kU ? b.u(n, uint64_t(v)) : code == kUe ? b.ue(uint32_t(v)) : b.se(int32_t(v));
    if (log) *log << name << ' ' << v << '\n';
    return v;
  }
  uint32_t u(unsigned n, const char* name, int64_t lo, int64_t hi) {
    return uint32_t(put(kU, n, name, limit(name, draw(lo, hi), hi + 1)));
  }
  uint32_t ue(const char* name, int64_t lo, int64_t hi, int64_t beyond = -1) {
    return uint32_t(put(kUe, 0, name, limit(name, draw(lo, hi), beyond < 0 ? hi + 1 : beyond)));
  }
  int32_t se(const char* name, int64_t lo, int64_t hi) {
    return int32_t(put(kSe, 0, name, limit(name, draw(lo, hi), above ? hi + 1 : lo - 1)));
  }
  bool flag(const char* name) { return put(kU, 1, name, coin()) != 0; }
  void start() {
    b = Bits();
    if (log) log->str("");
  }
};

struct Seq {
  Sps want;
  bool high = false, gaps = false, mbaff = false;
  uint32_t depth = 0;      // bit_depth_luma_minus8
  int64_t map_units = 0;   // PicSizeInMapUnits
};

struct PicSet {
  Pps want;
  uint32_t map_type = 0, change_rate = 1;
  int32_t init_qp = 0, init_qs = 0;
  bool deblocking = false;
};

// What a slice header says about its picture.
struct Pic {
  uint8_t nal_type = kNalSlice, ref_idc = 0;
  uint32_t frame_num = 0, lsb = 0;
  bool field = false, bottom = false, mmco5 = false;
  int32_t delta_bottom = 0, delta0 = 0, delta1 = 0;
};

// §7.3.2.1.1.1: deltas while the scale is not 0; now and then the one that makes it 0 and ends the list.
void scaling_list(Gen& g, int size) {
  int64_t last = 8, next = 8;
  for (int j = 0; j < size && next != 0; ++j) {
    const int64_t delta = g.coin(8) ? g.put(Gen::kSe, 0, "delta_scale", last <= 128 ? -last : 256 - last)
                                    : g.se("delta_scale", -128, 127);
    next = (last + delta + 256) % 256;
    if (next) last = next;
  }
}

void hrd(Gen& g) {
  const int64_t cpbs = g.ue("cpb_cnt_minus1", 0, 31) + 1;
  g.u(4, "bit_rate_scale", 0, 15), g.u(4, "cpb_size_scale", 0, 15);
  for (int64_t i = 0, rate = -1; i < cpbs; ++i) {
    rate = g.ue("bit_rate_value_minus1", rate + 1, 4294967294 - (cpbs - 1 - i));  // rising (§E.2.2)
    g.ue("cpb_size_value_minus1", 0, 4294967294);
    g.flag("cbr_flag");
  }
  for (const char* name : {"initial_cpb_removal_delay_length_minus1", "cpb_removal_delay_length_minus1",
                           "dpb_output_delay_length_minus1", "time_offset_length"})
    g.u(5, name, 0, 31);
}

void vui(Gen& g, Sps& s) {
  if (g.flag("aspect_ratio_info_present_flag")) {
    const int64_t idc = g.put(Gen::kU, 8, "aspect_ratio_idc", g.coin(6) ? 255 : g.draw(0, 16));
    if (idc == 255) {
      s.sar_width = uint16_t(g.u(16, "sar_width", 0, 65535));
      s.sar_height = uint16_t(g.u(16, "sar_height", 0, 65535));
    } else {
      s.sar_width = kSampleAspectRatios[idc][0], s.sar_height = kSampleAspectRatios[idc][1];
    }
  }
  if (g.flag("overscan_info_present_flag")) g.flag("overscan_appropriate_flag");
  if (g.flag("video_signal_type_present_flag")) {
    g.u(3, "video_format", 0, 5), g.flag("video_full_range_flag");
    if (g.flag("colour_description_present_flag"))
      g.u(8, "colour_primaries", 1, 12), g.u(8, "transfer_characteristics", 1, 18), g.u(8, "matrix_coefficients", 0, 14);
  }
  if (g.flag("chroma_loc_info_present_flag"))
    g.ue("chroma_sample_loc_type_top_field", 0, 5), g.ue("chroma_sample_loc_type_bottom_field", 0, 5);
  if ((s.timing_info_present = g.flag("timing_info_present_flag"))) {
    s.num_units_in_tick = g.u(32, "num_units_in_tick", 1, 4294967295);
    s.time_scale = g.u(32, "time_scale", 1, 4294967295);
    s.fixed_frame_rate = g.flag("fixed_frame_rate_flag");
  }
  const bool nal_hrd = g.flag("nal_hrd_parameters_present_flag");
  if (nal_hrd) hrd(g);
  const bool vcl_hrd = g.flag("vcl_hrd_parameters_present_flag");
  if (vcl_hrd) hrd(g);
  if (nal_hrd || vcl_hrd) g.flag("low_delay_hrd_flag");
  g.flag("pic_struct_present_flag");
  if ((s.bitstream_restriction = g.flag("bitstream_restriction_flag"))) {
    g.flag("motion_vectors_over_pic_boundaries_flag");
    g.ue("max_bytes_per_pic_denom", 0, 16), g.ue("max_bits_per_mb_denom", 0, 16);
    g.ue("log2_max_mv_length_horizontal", 0, 15), g.ue("log2_max_mv_length_vertical", 0, 15);
    const int64_t dpb = g.draw(s.max_num_ref_frames, 16);
    s.max_num_reorder_frames = g.ue("max_num_reorder_frames", 0, dpb);
    s.max_dec_frame_buffering = uint32_t(g.put(Gen::kUe, 0, "max_dec_frame_buffering", dpb));
  }
}

// `poc_type` -1: any.
Nal make_sps(Gen& g, Seq& q, int poc_type = -1) {
  static constexpr uint8_t kHigh[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
  static constexpr uint8_t kOther[] = {66, 77, 88};
  g.start();
  q = Seq();
  Sps& s = q.want;
  q.high = g.coin();
  s.profile_idc = uint8_t(g.put(Gen::kU, 8, "profile_idc", q.high ? kHigh[g.rng() % 13] : kOther[g.rng() % 3]));
  s.constraint_flags = uint8_t(g.put(Gen::kU, 8, "constraint_set_flags", g.draw(0, 63) << 2));
  s.level_idc = uint8_t(g.u(8, "level_idc", 0, 255));
  s.id = g.ue("seq_parameter_set_id", 0, 31);
  if (q.high) {
    s.chroma_format_idc = g.ue("chroma_format_idc", 0, 3);
    if (s.chroma_format_idc == 3) s.separate_colour_plane = g.flag("separate_colour_plane_flag");
    q.depth = g.ue("bit_depth_luma_minus8", 0, 6);
    g.ue("bit_depth_chroma_minus8", 0, 6);
    g.flag("qpprime_y_zero_transform_bypass_flag");
    if (g.flag("seq_scaling_matrix_present_flag"))
      for (int i = 0; i < (s.chroma_format_idc != 3 ? 8 : 12); ++i)
        if (g.flag("seq_scaling_list_present_flag")) scaling_list(g, i < 6 ? 16 : 64);
  }
  const int64_t wrap = g.above ? -1 : 4294967294;  // past by one, or by a value 32-bit sums wrap round into range
  s.log2_max_frame_num = g.ue("log2_max_frame_num_minus4", 0, 12, wrap) + 4;
  s.poc_type = poc_type < 0 ? g.ue("pic_order_cnt_type", 0, 2)
                            : uint32_t(g.put(Gen::kUe, 0, "pic_order_cnt_type", poc_type));
  if (s.poc_type == 0) s.log2_max_poc_lsb = g.ue("log2_max_pic_order_cnt_lsb_minus4", 0, 12, wrap) + 4;
  if (s.poc_type == 1) {
    s.delta_pic_order_always_zero = g.flag("delta_pic_order_always_zero_flag");
    s.offset_for_non_ref_pic = g.se("offset_for_non_ref_pic", -kI32, kI32);
    s.offset_for_top_to_bottom_field = g.se("offset_for_top_to_bottom_field", -kI32, kI32);
    s.num_ref_frames_in_poc_cycle = g.ue("num_ref_frames_in_pic_order_cnt_cycle", 0, 255);
    for (uint32_t i = 0; i < s.num_ref_frames_in_poc_cycle; ++i) {
      const int32_t offset = g.se("offset_for_ref_frame", -kI32, kI32);
      if (i < 255) s.offset_for_ref_frame[i] = offset;
    }
  }
  s.max_num_ref_frames = g.ue("max_num_ref_frames", 0, 16);
  q.gaps = g.flag("gaps_in_frame_num_value_allowed_flag");
  s.width_in_mbs = g.ue("pic_width_in_mbs_minus1", 0, 1023) + 1;
  s.height_in_map_units = g.ue("pic_height_in_map_units_minus1", 0, 1023) + 1;
  q.map_units = int64_t{s.width_in_mbs} * s.height_in_map_units;
  s.frame_mbs_only = g.flag("frame_mbs_only_flag");
  if (!s.frame_mbs_only) q.mbaff = g.flag("mb_adaptive_frame_field_flag");
  g.put(Gen::kU, 1, "direct_8x8_inference_flag", !s.frame_mbs_only || g.coin());
  // §7.4.2.1.1: crop units of SubWidthC by SubHeightC (Table 6-1, by ChromaArrayType; 1 by 1 for 0), twice as
  // high for fields.
  static constexpr uint32_t kSubWidth[] = {1, 2, 2, 1}, kSubHeight[] = {1, 2, 1, 1};
  const uint32_t array_type = s.separate_colour_plane ? 0 : s.chroma_format_idc % 4;
  const int64_t unit_x = kSubWidth[array_type], unit_y = kSubHeight[array_type] * (s.frame_mbs_only ? 1 : 2);
  const int64_t full_w = 16 * int64_t{s.width_in_mbs}, full_h = 16 * (2 - s.frame_mbs_only) * s.height_in_map_units;
  int64_t crop[4] = {};
  if (g.flag("frame_cropping_flag")) {
    const int64_t across = g.limit("frame_crop_right_offset", g.draw(0, full_w / unit_x - 1), full_w / unit_x);
    const int64_t down = g.limit("frame_crop_bottom_offset", g.draw(0, full_h / unit_y - 1), full_h / unit_y);
    crop[0] = g.draw(0, across), crop[1] = across - crop[0], crop[2] = g.draw(0, down), crop[3] = down - crop[2];
    crop[0] = g.limit("frame_crop_left_offset", crop[0], int64_t{1} << 31);  // 2^31 times CropUnitX wraps 32 bits
    static constexpr const char* kNames[] = {"frame_crop_left_offset", "frame_crop_right_offset",
                                             "frame_crop_top_offset", "frame_crop_bottom_offset"};
    for (int i = 0; i < 4; ++i) g.put(Gen::kUe, 0, kNames[i], crop[i]);
  }
  s.crop_left = uint32_t(unit_x * crop[0]), s.crop_right = uint32_t(unit_x * crop[1]);
  s.crop_top = uint32_t(unit_y * crop[2]), s.crop_bottom = uint32_t(unit_y * crop[3]);
  s.width = uint32_t(full_w - s.crop_left - s.crop_right), s.height = uint32_t(full_h - s.crop_top - s.crop_bottom);
  if ((s.vui_present = g.flag("vui_parameters_present_flag"))) vui(g, s);
  g.end = g.b.bits.size();
  return g.b.nal(3, kNalSps);
}

Nal make_pps(Gen& g, const Seq& q, PicSet& p) {
  g.start();
  p = PicSet();
  Pps& s = p.want;
  s.id = g.ue("pic_parameter_set_id", 0, 255);
  s.sps_id = uint32_t(g.put(Gen::kUe, 0, "seq_parameter_set_id", g.limit("seq_parameter_set_id", q.want.id, 32)));
  s.entropy_coding_mode = g.flag("entropy_coding_mode_flag");
  s.bottom_field_pic_order_in_frame_present = g.flag("bottom_field_pic_order_in_frame_present_flag");
  s.num_slice_groups = g.ue("num_slice_groups_minus1", 0, 7) + 1;
  if (s.num_slice_groups > 1) {
    const int64_t size = q.map_units, width = q.want.width_in_mbs, rows = size / width;
    p.map_type = g.ue("slice_group_map_type", 0, size <= 4096 ? 6 : 5, 7);
    for (uint32_t i = 0; p.map_type == 0 && i < s.num_slice_groups; ++i) g.ue("run_length_minus1", 0, size - 1);
    for (uint32_t i = 0; p.map_type == 2 && i + 1 < s.num_slice_groups; ++i) {
      const int64_t top = g.draw(0, rows - 1), left = g.draw(0, width - 1);
      g.put(Gen::kUe, 0, "top_left", top * width + left);
      g.put(Gen::kUe, 0, "bottom_right", g.draw(top, rows - 1) * width + g.draw(left, width - 1));
    }
    if (p.map_type >= 3 && p.map_type <= 5) {
      g.flag("slice_group_change_direction_flag");
      p.change_rate = g.ue("slice_group_change_rate_minus1", 0, size - 1) + 1;
    }
    if (p.map_type == 6) {
      const int64_t units = g.ue("pic_size_in_map_units_minus1", size - 1, size - 1) + 1;
      const auto id_bits = unsigned(std::bit_width(s.num_slice_groups - 1));  // Ceil(Log2(num_slice_groups))
      for (int64_t i = 0; i < units; ++i) g.u(id_bits, "slice_group_id", 0, s.num_slice_groups - 1);
    }
  }
  s.num_ref_idx_l0_default_active = g.ue("num_ref_idx_l0_default_active_minus1", 0, 31) + 1;
  s.num_ref_idx_l1_default_active = g.ue("num_ref_idx_l1_default_active_minus1", 0, 31) + 1;
  s.weighted_pred = g.flag("weighted_pred_flag");
  s.weighted_bipred_idc = g.u(2, "weighted_bipred_idc", 0, 2);
  p.init_qp = g.se("pic_init_qp_minus26", -26 - 6 * int64_t{q.depth}, 25);
  p.init_qs = g.se("pic_init_qs_minus26", -26, 25);
  g.se("chroma_qp_index_offset", -12, 12);
  p.deblocking = g.flag("deblocking_filter_control_present_flag");
  g.flag("constrained_intra_pred_flag");
  s.redundant_pic_cnt_present = g.flag("redundant_pic_cnt_present_flag");
  g.end = g.b.bits.size();
  if (q.high && g.coin()) {  // the high profiles' fields, which the reader leaves alone
    const bool transform_8x8 = g.flag("transform_8x8_mode_flag");
    if (g.flag("pic_scaling_matrix_present_flag"))
      for (int i = 0; i < 6 + (q.want.chroma_format_idc != 3 ? 2 : 6) * transform_8x8; ++i)
        if (g.flag("pic_scaling_list_present_flag")) scaling_list(g, i < 6 ? 16 : 64);
    g.se("second_chroma_qp_index_offset", -12, 12);
  }
  return g.b.nal(3, kNalPps);
}

Nal make_slice(Gen& g, const Seq& q, const PicSet& p, const Pic& pic, SliceHeader& want) {
  const Sps& s = q.want;
  g.start();
  want = SliceHeader();
  want.nal_type = pic.nal_type, want.nal_ref_idc = pic.ref_idc, want.mmco5 = pic.mmco5;
  const bool idr = pic.nal_type == kNalIdrSlice;
  const int64_t frame_rows = (2 - s.frame_mbs_only) * int64_t{s.height_in_map_units};  // FrameHeightInMbs
  const int64_t mbs = s.width_in_mbs * (pic.field ? frame_rows / 2 : frame_rows) / (q.mbaff && !pic.field ? 2 : 1);
  want.first_mb = g.ue("first_mb_in_slice", 0, mbs - 1);
  static constexpr int64_t kIntra[] = {2, 4, 7, 9};
  want.slice_type = uint32_t(g.put(Gen::kUe, 0, "slice_type",
                                   g.limit("slice_type", idr ? kIntra[g.rng() % 4] : g.draw(0, 9), 10))) % 5;
  const bool p_or_sp = want.slice_type == 0 || want.slice_type == 3, b = want.slice_type == 1;
  want.pps_id = uint32_t(g.put(Gen::kUe, 0, "pic_parameter_set_id", g.limit("pic_parameter_set_id", p.want.id, 256)));
  if (s.separate_colour_plane) g.u(2, "colour_plane_id", 0, 2);
  want.frame_num = uint32_t(g.put(Gen::kU, s.log2_max_frame_num, "frame_num", pic.frame_num));
  if (!s.frame_mbs_only && (want.field_pic = g.put(Gen::kU, 1, "field_pic_flag", pic.field)))
    want.bottom_field = g.put(Gen::kU, 1, "bottom_field_flag", pic.bottom);
  if (idr) want.idr_pic_id = g.ue("idr_pic_id", 0, 65535);
  const bool bottom_order = p.want.bottom_field_pic_order_in_frame_present && !pic.field;
  if (s.poc_type == 0) {
    want.poc_lsb = uint32_t(g.put(Gen::kU, s.log2_max_poc_lsb, "pic_order_cnt_lsb", pic.lsb));
    if (bottom_order) want.delta_poc_bottom = int32_t(g.put(Gen::kSe, 0, "delta_pic_order_cnt_bottom", pic.delta_bottom));
  }
  if (s.poc_type == 1 && !s.delta_pic_order_always_zero) {
    want.delta_poc[0] = int32_t(g.put(Gen::kSe, 0, "delta_pic_order_cnt[0]", pic.delta0));
    if (bottom_order) want.delta_poc[1] = int32_t(g.put(Gen::kSe, 0, "delta_pic_order_cnt[1]", pic.delta1));
  }
  if (p.want.redundant_pic_cnt_present) want.redundant_pic_cnt = g.ue("redundant_pic_cnt", 0, 127);
  if (b) g.flag("direct_spatial_mv_pred_flag");
  uint32_t refs[2] = {p.want.num_ref_idx_l0_default_active, p.want.num_ref_idx_l1_default_active};
  const int64_t most = pic.field ? 31 : 15;  // §7.4.3: 32 references for a field, 16 for a frame
  if ((p_or_sp || b) && g.put(Gen::kU, 1, "num_ref_idx_active_override_flag",
                              refs[0] > most + 1 || (b && refs[1] > most + 1) || g.coin())) {
    refs[0] = g.ue("num_ref_idx_l0_active_minus1", 0, most, 32) + 1;
    if (b) refs[1] = g.ue("num_ref_idx_l1_active_minus1", 0, most, 32) + 1;
  }
  // MaxPicNum; and the long-term picture numbers, LongTermFrameIdx below max_num_ref_frames (two per frame for fields).
  const int64_t max_pic_num = int64_t{1} << (s.log2_max_frame_num + pic.field);
  const int64_t long_terms = int64_t{s.max_num_ref_frames} << pic.field;
  for (int list = 0; list < (b ? 2 : p_or_sp ? 1 : 0); ++list) {
    if (!g.flag("ref_pic_list_modification_flag")) continue;
    for (int64_t n = g.draw(1, refs[list]); n > 0; --n) {  // at most one operation per reference (§7.4.3.1)
      if (g.ue("modification_of_pic_nums_idc", 0, long_terms ? 2 : 1, 6) == 2)
        g.ue("long_term_pic_num", 0, long_terms - 1);
      else
        g.ue("abs_diff_pic_num_minus1", 0, max_pic_num - 1);
    }
    g.put(Gen::kUe, 0, "modification_of_pic_nums_idc", 3);
  }
  if ((p.want.weighted_pred && p_or_sp) || (p.want.weighted_bipred_idc == 1 && b)) {
    g.ue("luma_log2_weight_denom", 0, 7);
    const bool chroma = s.chroma_format_idc != 0 && !s.separate_colour_plane;  // ChromaArrayType != 0
    if (chroma) g.ue("chroma_log2_weight_denom", 0, 7);
    for (int list = 0; list < 1 + b; ++list) {
      for (uint32_t i = 0; i < refs[list]; ++i) {
        if (g.flag("luma_weight_flag")) g.se("luma_weight", -128, 127), g.se("luma_offset", -128, 127);
        if (chroma && g.flag("chroma_weight_flag"))
          for (int j = 0; j < 2; ++j) g.se("chroma_weight", -128, 127), g.se("chroma_offset", -128, 127);
      }
    }
  }
  if (pic.ref_idc && idr) g.flag("no_output_of_prior_pics_flag"), g.flag("long_term_reference_flag");
  if (pic.ref_idc && !idr && g.put(Gen::kU, 1, "adaptive_ref_pic_marking_mode_flag", pic.mmco5 || g.coin())) {
    std::vector<int> ops;  // mmco 4 once at most; 2, 3 and 6 only where there may be long-term pictures
    for (int64_t n = g.draw(!pic.mmco5, 6); n > 0; --n) {
      const int op = int(g.draw(1, 6));
      if (op != 5 && (op != 4 || std::count(ops.begin(), ops.end(), 4) == 0) && (op == 1 || op == 4 || long_terms))
        ops.push_back(op);
    }
    if (ops.empty() && !pic.mmco5) ops.push_back(1);
    if (pic.mmco5) ops.insert(ops.begin() + g.draw(0, int64_t(ops.size())), 5);
    for (const int op : ops) {
      g.put(Gen::kUe, 0, "memory_management_control_operation", g.limit("memory_management_control_operation", op, 7));
      if (op == 1 || op == 3) g.ue("difference_of_pic_nums_minus1", 0, max_pic_num - 1);
      if (op == 2) g.ue("long_term_pic_num", 0, long_terms - 1);
      if (op == 3 || op == 6) g.ue("long_term_frame_idx", 0, s.max_num_ref_frames - 1);
      if (op == 4) g.ue("max_long_term_frame_idx_plus1", 0, s.max_num_ref_frames);
    }
    g.put(Gen::kUe, 0, "memory_management_control_operation", 0);
  }
  g.end = g.b.bits.size();
  // The rest of the header, which the reader leaves alone, and a byte of slice data.
  if (p.want.entropy_coding_mode && (p_or_sp || b)) g.ue("cabac_init_idc", 0, 2);
  g.se("slice_qp_delta", -26 - 6 * int64_t{q.depth} - p.init_qp, 25 - p.init_qp);
  if (want.slice_type == 3) g.flag("sp_for_switch_flag");
  if (want.slice_type >= 3) g.se("slice_qs_delta", -26 - p.init_qs, 25 - p.init_qs);
  if (p.deblocking && g.ue("disable_deblocking_filter_idc", 0, 2) != 1)
    g.se("slice_alpha_c0_offset_div2", -6, 6), g.se("slice_beta_offset_div2", -6, 6);
  if (p.want.num_slice_groups > 1 && p.map_type >= 3 && p.map_type <= 5) {
    // Ceil(Log2(PicSizeInMapUnits ÷ SliceGroupChangeRate + 1)) bits.
    unsigned n = 0;
    while ((int64_t{p.change_rate} << n) < q.map_units + p.change_rate) ++n;
    g.u(n, "slice_group_change_cycle", 0, (q.map_units + p.change_rate - 1) / p.change_rate);
  }
  while (p.want.entropy_coding_mode && g.b.bits.size() % 8) g.b.u(1, 1);  // cabac_alignment_one_bit
  g.b.u(8, 0xA5);
  return g.b.nal(pic.ref_idc, pic.nal_type);
}

Pic random_pic(Gen& g, const Seq& q) {
  const Sps& s = q.want;
  Pic pic;
  pic.nal_type = g.coin(4) ? kNalIdrSlice : g.coin(8) ? kNalPartitionA : kNalSlice;
  const bool idr = pic.nal_type == kNalIdrSlice;
  pic.ref_idc = uint8_t(g.draw(idr, 3));
  pic.frame_num = idr ? 0 : uint32_t(g.draw(0, (int64_t{1} << s.log2_max_frame_num) - 1));
  pic.lsb = idr ? 0 : uint32_t(g.draw(0, (int64_t{1} << s.log2_max_poc_lsb) - 1));
  pic.field = !s.frame_mbs_only && g.coin();
  pic.bottom = pic.field && g.coin();
  pic.mmco5 = pic.ref_idc && !idr && g.coin(3);
  pic.delta_bottom = int32_t(g.draw(-kI32, kI32)), pic.delta0 = int32_t(g.draw(-kI32, kI32));
  pic.delta1 = int32_t(g.draw(-kI32, kI32));
  return pic;
}

std::string describe(const Sps& s) {
  std::ostringstream o;
  o << "profile " << +s.profile_idc << " flags " << +s.constraint_flags << " level " << +s.level_idc << " id " << s.id
    << " chroma " << s.chroma_format_idc << " separate " << s.separate_colour_plane << " frame_num "
    << s.log2_max_frame_num << " poc " << s.poc_type << " lsb " << s.log2_max_poc_lsb << " zero "
    << s.delta_pic_order_always_zero << " non-ref " << s.offset_for_non_ref_pic << " bottom "
    << s.offset_for_top_to_bottom_field << " cycle";
  for (uint32_t i = 0; i < s.num_ref_frames_in_poc_cycle && i < 255; ++i) o << ' ' << s.offset_for_ref_frame[i];
  o << " refs " << s.max_num_ref_frames << " frames " << s.frame_mbs_only << " mbs " << s.width_in_mbs << "x"
    << s.height_in_map_units << " crop " << s.crop_left << " " << s.crop_right << " " << s.crop_top << " "
    << s.crop_bottom << " size " << s.width << "x" << s.height << " vui " << s.vui_present << " sar " << s.sar_width
    << ":" << s.sar_height << " timing " << s.timing_info_present << " " << s.num_units_in_tick << "/"
    << s.time_scale << " " << s.fixed_frame_rate << " restriction " << s.bitstream_restriction << " "
    << s.max_num_reorder_frames << " " << s.max_dec_frame_buffering;
  return o.str();
}

std::string describe(const Pps& p) {
  std::ostringstream o;
  o << "id " << p.id << " sps " << p.sps_id << " cabac " << p.entropy_coding_mode << " bottom "
    << p.bottom_field_pic_order_in_frame_present << " groups " << p.num_slice_groups << " refs "
    << p.num_ref_idx_l0_default_active << " " << p.num_ref_idx_l1_default_active << " weighted " << p.weighted_pred
    << " " << p.weighted_bipred_idc << " redundant " << p.redundant_pic_cnt_present;
  return o.str();
}

std::string describe(const SliceHeader& h) {
  std::ostringstream o;
  o << "nal " << +h.nal_type << " ref " << +h.nal_ref_idc << " mb " << h.first_mb << " type " << h.slice_type
    << " pps " << h.pps_id << " frame_num " << h.frame_num << " field " << h.field_pic << h.bottom_field << " idr "
    << h.idr_pic_id << " lsb " << h.poc_lsb << " bottom " << h.delta_poc_bottom << " deltas " << h.delta_poc[0]
    << " " << h.delta_poc[1] << " redundant " << h.redundant_pic_cnt << " mmco5 " << h.mmco5;
  return o.str();
}

// What the reader makes of a unit, or "refused".
using Reader = std::function<std::string(const Nal&)>;

Reader sps_reader() {
  return [](const Nal& nal) { Sps got; return parse_sps(nal.data(), nal.size(), got) ? describe(got) : "refused"; };
}
Reader pps_reader() {
  return [](const Nal& nal) { Pps got; return parse_pps(nal.data(), nal.size(), got) ? describe(got) : "refused"; };
}
// The parameter sets the generator meant, not the ones the reader made of them.
std::shared_ptr<ParameterSets> sets_of(const Seq& q, const PicSet& p) {
  auto sets = std::make_shared<ParameterSets>();
  sets->sps[q.want.id] = q.want, sets->has_sps[q.want.id] = true;
  sets->pps[p.want.id] = p.want, sets->has_pps[p.want.id] = true;
  return sets;
}
Reader slice_reader(std::shared_ptr<ParameterSets> sets) {
  return [sets](const Nal& nal) {
    SliceHeader got;
    return parse_slice_header(nal.data(), nal.size(), *sets, got) ? describe(got) : "refused";
  };
}

void expect_read(const std::string& what, const Nal& nal, std::size_t end, const Reader& read, const std::string& want) {
  EXPECT_EQ(read(nal), want) << what << ": " << hex(nal);
  Nal retyped = nal;  // under the header of another type: an SPS's under a PPS's, the others' under an SPS's
  retyped[0] = uint8_t((nal[0] & 0xE0) | ((nal[0] & 0x1F) == kNalSps ? kNalPps : kNalSps));
  EXPECT_EQ(read(retyped), "refused") << what << " retyped: " << hex(nal);
  const Nal cut(nal.begin(), nal.begin() + long(nal_byte_of(nal, 1, end - 1)));  // without the last read bit's byte
  EXPECT_EQ(read(cut), "refused") << what << ", cut before bit " << end << ": " << hex(nal);
}

struct Dump {
  std::ofstream stream, fields;
  std::ostringstream log;
  Dump(Gen& g, const std::string& name) {
    if (const char* prefix = std::getenv("BOXLANE_H264_GEN_DUMP")) {
      stream.open(prefix + name + ".264", std::ios::binary), fields.open(prefix + name + ".txt");
      g.log = &log;
    }
  }
  void add(const Nal& nal) {
    if (stream.is_open() && (nal[0] & 0x1F) != kNalPartitionA) {
      stream.write("\0\0\0\1", 4).write(reinterpret_cast<const char*>(nal.data()), long(nal.size()));
      fields << "== " << (nal[0] & 0x1F) << '\n' << log.str();
    }
    log.str("");
  }
};

TEST(H264Generated, UnitsReadAsWritten) {
  Gen g(kSeed);
  Dump dump(g, "-units");
  for (int n = 0; n < 300; ++n) {
    const std::string what = "seed " + std::to_string(kSeed) + " case " + std::to_string(n);
    Seq q;
    PicSet p;
    const Nal sps = make_sps(g, q);
    dump.add(sps);
    expect_read(what + " SPS", sps, g.end, sps_reader(), describe(q.want));
    const Nal pps = make_pps(g, q, p);
    dump.add(pps);
    expect_read(what + " PPS", pps, g.end, pps_reader(), describe(p.want));
    const auto no_pps = sets_of(q, p), no_sps = sets_of(q, p);
    no_pps->has_pps[p.want.id] = no_sps->has_sps[q.want.id] = false;
    const Reader read = slice_reader(sets_of(q, p));
    for (int i = 0; i < 3; ++i) {
      SliceHeader want;
      const Nal slice = make_slice(g, q, p, random_pic(g, q), want);
      dump.add(slice);
      expect_read(what + " slice " + std::to_string(i), slice, g.end, read, describe(want));
      // A slice whose PPS, or that one's SPS, never came.
      EXPECT_EQ(slice_reader(no_pps)(slice) + slice_reader(no_sps)(slice), "refusedrefused")
          << what << ": " << hex(slice);
    }
  }
}

TEST(H264Generated, OnePastALimitIsRefused) {
  // S: in an SPS, P: in a PPS, H: in a slice header.
  const std::pair<char, const char*> limits[] = {
      {'S', "seq_parameter_set_id"}, {'S', "chroma_format_idc"}, {'S', "bit_depth_luma_minus8"},
      {'S', "bit_depth_chroma_minus8"}, {'S', "delta_scale"}, {'S', "log2_max_frame_num_minus4"},
      {'S', "pic_order_cnt_type"}, {'S', "log2_max_pic_order_cnt_lsb_minus4"},
      {'S', "num_ref_frames_in_pic_order_cnt_cycle"}, {'S', "pic_width_in_mbs_minus1"},
      {'S', "pic_height_in_map_units_minus1"}, {'S', "frame_crop_left_offset"}, {'S', "frame_crop_right_offset"},
      {'S', "frame_crop_bottom_offset"}, {'S', "cpb_cnt_minus1"}, {'P', "pic_parameter_set_id"},
      {'P', "seq_parameter_set_id"}, {'P', "num_slice_groups_minus1"}, {'P', "slice_group_map_type"},
      {'P', "num_ref_idx_l0_default_active_minus1"}, {'P', "num_ref_idx_l1_default_active_minus1"},
      {'P', "weighted_bipred_idc"}, {'H', "slice_type"}, {'H', "pic_parameter_set_id"},
      {'H', "num_ref_idx_l0_active_minus1"}, {'H', "num_ref_idx_l1_active_minus1"},
      {'H', "modification_of_pic_nums_idc"}, {'H', "memory_management_control_operation"},
  };
  Gen g(kSeed + 1);
  for (const auto& [unit, field] : limits) {
    int broken = 0;
    for (int n = 0; n < 500 && broken < 3; ++n) {
      Seq q;
      PicSet p;
      SliceHeader want;
      g.broke = false, g.above = broken % 2;
      g.past = unit == 'S' ? field : "";
      Nal nal = make_sps(g, q);
      Reader read = sps_reader();
      if (unit != 'S') {
        g.past = unit == 'P' ? field : "";
        nal = make_pps(g, q, p);
        read = pps_reader();
      }
      if (unit == 'H') {
        g.past = field;
        nal = make_slice(g, q, p, random_pic(g, q), want);
        read = slice_reader(sets_of(q, p));
      }
      if (!g.broke) continue;
      ++broken;
      EXPECT_EQ(read(nal), "refused") << field << " past its limit, case " << n << ": " << hex(nal);
    }
    EXPECT_EQ(broken, 3) << field;
  }
}

// Pictures in decoding order, each with the count the reader should report (§8.2.1), written forward: the counts are
// chosen first, within what the standard lets an encoder send, and then the fields that carry them.
class Order {
 public:
  Order(Gen& g, const Seq& q, const PicSet& p)
      : g_(g), s_(q.want), gaps_(q.gaps), bottom_order_(p.want.bottom_field_pic_order_in_frame_present) {}

  int64_t next(Pic& pic) {
    const int64_t max_frame_num = int64_t{1} << s_.log2_max_frame_num;
    bool idr = false;
    int64_t frames;  // FrameNumOffset + frame_num as meant
    if (second_) {
      // The second field of a pair: the other parity, the same frame_num and reference or not like the first.
      second_ = false;
      pic.nal_type = kNalSlice, pic.bottom = !pic.bottom, pic.mmco5 = pic.ref_idc && g_.coin(4);
      frames = pair_frames_;
    } else {
      idr = start_ || g_.coin(10);
      start_ = false;
      pic = Pic();
      pic.field = !s_.frame_mbs_only && g_.coin();
      pic.bottom = pic.field && g_.coin();
      const int64_t t2b = s_.offset_for_top_to_bottom_field;
      if (idr && s_.poc_type == 1 && s_.delta_pic_order_always_zero && t2b) {
        // An IDR counts 0 (§8.2.1): with no deltas sent, a frame's bottom field must not count below its top, and
        // a bottom field alone cannot count 0.
        pic.field = t2b < 0 || pic.field, pic.bottom = false;
      }
      // Type 2 has no two non-reference frames in a row (§8.2.1.3).
      const bool ref = idr || (s_.poc_type == 2 && last_non_ref_) || !g_.coin(3);
      last_non_ref_ = !ref;
      pic.ref_idc = uint8_t(ref ? g_.draw(1, 3) : 0);
      pic.nal_type = idr ? kNalIdrSlice : g_.coin(8) ? kNalPartitionA : kNalSlice;
      frames = idr ? 0 : !ref ? frames_ + 1 : frames_ + (gaps_ ? g_.draw(1, max_frame_num - 1) : 1);
      pic.mmco5 = ref && !idr && !pic.field && g_.coin(5);
      second_ = pic.field, pair_frames_ = frames;
    }
    pic.frame_num = uint32_t(frames % max_frame_num);
    if (pic.ref_idc) frames_ = frames;
    int64_t top = 0, bottom = 0;
    if (s_.poc_type == 0) {
      // Within half the lsb range of the last reference picture's count, so that the lsb tells which it is.
      const int64_t max_lsb = int64_t{1} << s_.log2_max_poc_lsb, half = max_lsb / 2;
      const bool delta = bottom_order_ && !pic.field;
      if (idr) {
        const int64_t d = delta ? g_.draw(-half, half) : 0;  // the top's lsb too must count from 0
        top = std::max<int64_t>(0, -d), bottom = top + d;
      } else {
        top = anchor_ + g_.draw(1 - half, half);
        bottom = delta ? top + g_.draw(-half, half) : top;
      }
      pic.lsb = uint32_t((top % max_lsb + max_lsb) % max_lsb), pic.delta_bottom = int32_t(bottom - top);
      if (pic.ref_idc) anchor_ = top;
      if (pic.mmco5) anchor_ = top - std::min(top, bottom);
    } else if (s_.poc_type == 1) {
      // ExpectedPicOrderCnt: every offset_for_ref_frame of the reference frames up to this one (a non-reference
      // picture counts those before it), then offset_for_non_ref_pic.
      const int64_t cycle = s_.num_ref_frames_in_poc_cycle, t2b = s_.offset_for_top_to_bottom_field;
      const int64_t counted = cycle == 0 ? 0 : pic.ref_idc ? frames : std::max<int64_t>(frames - 1, 0);
      int64_t expected = pic.ref_idc ? 0 : s_.offset_for_non_ref_pic;
      for (int64_t i = 0; i < cycle && i < counted; ++i)
        expected += s_.offset_for_ref_frame[size_t(i)] * ((counted - 1 - i) / cycle + 1);
      int64_t d0 = 0, d1 = 0;
      if (!s_.delta_pic_order_always_zero) {
        if (bottom_order_ && !pic.field) d1 = g_.draw(std::max(-kI32, -kI32 - t2b), std::min(kI32, kI32 - t2b));
        d0 = !idr ? g_.draw(-kI32, kI32) : pic.field ? (pic.bottom ? -t2b : 0) : std::max<int64_t>(0, -(t2b + d1));
      }
      top = expected + d0, bottom = pic.field ? expected + t2b + d0 : top + t2b + d1;
      pic.delta0 = int32_t(d0), pic.delta1 = int32_t(d1);
    } else {
      top = bottom = idr ? 0 : 2 * frames - !pic.ref_idc;
    }
    if (pic.mmco5) frames_ = 0;
    // mmco 5 makes the picture count 0 (§8.2.1), as an IDR does.
    return pic.mmco5 ? 0 : !pic.field ? std::min(top, bottom) : pic.bottom ? bottom : top;
  }

 private:
  Gen& g_;
  const Sps& s_;
  const bool gaps_, bottom_order_;
  bool start_ = true, second_ = false, last_non_ref_ = false;
  int64_t frames_ = 0, pair_frames_ = 0;  // of the last reference picture; of the pair under way
  int64_t anchor_ = 0;                    // type 0: the count the last reference picture's lsb carries
};

TEST(H264Generated, PictureOrderOfRandomSequences) {
  Gen g(kSeed + 2);
  Dump dump(g, "-order");
  for (int n = 0; n < 90; ++n) {
    Seq q;
    PicSet p;
    Nal sps;
    do {
      sps = make_sps(g, q, n % 3);
    } while (q.want.frame_mbs_only && q.want.delta_pic_order_always_zero && q.want.offset_for_top_to_bottom_field < 0);
    dump.add(sps);
    dump.add(make_pps(g, q, p));
    const auto sets = sets_of(q, p);
    Order order(g, q, p);
    PocCounter counter;
    Pic pic;
    for (int i = 0; i < 40; ++i) {
      const int64_t poc = order.next(pic);
      SliceHeader want, got;
      const Nal slice = make_slice(g, q, p, pic, want);
      dump.add(slice);
      ASSERT_TRUE(parse_slice_header(slice.data(), slice.size(), *sets, got)) << n << " " << i << ": " << hex(slice);
      ASSERT_EQ(counter.next(got, q.want), poc)
          << "seed " << kSeed + 2 << " sequence " << n << " picture " << i << ": " << hex(slice);
    }
  }
}

}  // namespace
