#include "platform/hevc.hpp"

#include <algorithm>

namespace boxlane::hevc {

bool parse_nal_header(const uint8_t* nal, std::size_t size, NalHeader& out) noexcept {
  BeReader r(nal, size);
  const uint16_t header = r.u16();
  if (!r.ok() || (header & 0x8000u) || (header & 0x7u) == 0) return false;
  out.type = static_cast<uint8_t>((header >> 9) & 0x3Fu);
  out.layer_id = static_cast<uint8_t>((header >> 3) & 0x3Fu);
  out.temporal_id = static_cast<uint8_t>((header & 0x7u) - 1);
  return true;
}

namespace {

// A parameter set of the given type in the base layer: the only kind the
// syntax below describes (the layered forms of Annex F differ).
bool opens(const uint8_t* nal, std::size_t size, uint8_t type) {
  NalHeader h;
  return parse_nal_header(nal, size, h) && h.type == type && h.layer_id == 0;
}

// §7.3.3 with profilePresentFlag 1.
void read_profile_tier_level(RbspReader& br, uint32_t max_sub_layers_minus1, ProfileTierLevel& ptl) {
  ptl.profile_space = static_cast<uint8_t>(br.bits(2));
  ptl.tier = br.flag();
  ptl.profile_idc = static_cast<uint8_t>(br.bits(5));
  ptl.compatibility_flags = br.bits(32);
  ptl.constraint_flags = uint64_t{br.bits(16)} << 32;
  ptl.constraint_flags |= br.bits(32);
  ptl.level_idc = static_cast<uint8_t>(br.bits(8));
  bool profile_present[8] = {};
  bool level_present[8] = {};
  for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
    profile_present[i] = br.flag();
    level_present[i] = br.flag();
  }
  if (max_sub_layers_minus1 > 0) {
    for (uint32_t i = max_sub_layers_minus1; i < 8; ++i) br.bits(2);  // reserved_zero_2bits
  }
  for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
    if (profile_present[i]) {
      br.bits(8);   // space, tier, profile
      br.bits(32);  // compatibility flags
      br.bits(32);  // the 48 constraint bits
      br.bits(16);
    }
    if (level_present[i]) br.bits(8);
  }
}

// The sub-layer ordering loop of the VPS and SPS; false on a value out of
// range. Keeps the values of the highest sub-layer.
bool read_sub_layer_ordering(RbspReader& br, uint32_t max_sub_layers_minus1, uint32_t& dec_pic_buffering,
                             uint32_t& num_reorder) {
  const bool all = br.flag();  // *_sub_layer_ordering_info_present_flag
  for (uint32_t i = all ? 0 : max_sub_layers_minus1; i <= max_sub_layers_minus1; ++i) {
    const uint32_t buffering_minus1 = br.ue();
    const uint32_t reorder = br.ue();
    br.ue();  // max_latency_increase_plus1
    // §7.4.3.2.1 with MaxDpbSize at most 16 (§A.4.2).
    if (buffering_minus1 > 15 || reorder > buffering_minus1) return false;
    dec_pic_buffering = buffering_minus1 + 1;
    num_reorder = reorder;
  }
  return br.ok();
}

// §7.3.4; the lists themselves are not kept.
bool skip_scaling_list_data(RbspReader& br) {
  for (uint32_t size_id = 0; size_id < 4; ++size_id) {
    for (uint32_t matrix_id = 0; matrix_id < 6; matrix_id += size_id == 3 ? 3 : 1) {
      if (!br.flag()) {  // scaling_list_pred_mode_flag
        if (br.ue() > matrix_id / (size_id == 3 ? 3 : 1)) return false;
        continue;
      }
      const uint32_t coefs = std::min<uint32_t>(64, 1u << (4 + (size_id << 1)));
      if (size_id > 1) {
        const int32_t dc = br.se();  // scaling_list_dc_coef_minus8
        if (dc < -7 || dc > 247) return false;
      }
      for (uint32_t i = 0; i < coefs && br.ok(); ++i) {
        const int32_t delta = br.se();
        if (delta < -128 || delta > 127) return false;
      }
    }
  }
  return br.ok();
}

// The delta picture order counts of one short-term reference picture set,
// kept because the next set may be predicted from this one (§7.4.8).
struct ShortTermRps {
  uint32_t negative = 0;
  uint32_t positive = 0;
  std::array<int32_t, 16> s0{};
  std::array<int32_t, 16> s1{};
  uint32_t deltas() const noexcept { return negative + positive; }
};

// §7.3.7 in a sequence parameter set (so RefRpsIdx is idx - 1), with the
// derivations (7-61) and (7-62).
bool read_short_term_rps(RbspReader& br, uint32_t idx, const std::array<ShortTermRps, 64>& sets,
                         uint32_t max_dec_pic_buffering, ShortTermRps& out) {
  const bool predicted = idx != 0 && br.flag();  // inter_ref_pic_set_prediction_flag
  if (!predicted) {
    out.negative = br.ue();
    if (out.negative >= max_dec_pic_buffering) return false;
    out.positive = br.ue();
    if (out.positive >= max_dec_pic_buffering - out.negative) return false;
    int32_t poc = 0;
    for (uint32_t i = 0; i < out.negative; ++i) {
      const uint32_t delta_minus1 = br.ue();
      if (delta_minus1 > 0x7FFF) return false;
      poc -= static_cast<int32_t>(delta_minus1) + 1;
      out.s0[i] = poc;
      br.flag();  // used_by_curr_pic_s0_flag
    }
    poc = 0;
    for (uint32_t i = 0; i < out.positive; ++i) {
      const uint32_t delta_minus1 = br.ue();
      if (delta_minus1 > 0x7FFF) return false;
      poc += static_cast<int32_t>(delta_minus1) + 1;
      out.s1[i] = poc;
      br.flag();  // used_by_curr_pic_s1_flag
    }
    return br.ok();
  }
  const ShortTermRps& ref = sets[idx - 1];
  const bool negative_sign = br.flag();  // delta_rps_sign
  const uint32_t abs_minus1 = br.ue();
  if (abs_minus1 > 0x7FFF) return false;
  const int32_t delta_rps = (negative_sign ? -1 : 1) * (static_cast<int32_t>(abs_minus1) + 1);
  std::array<bool, 33> use{};
  for (uint32_t j = 0; j <= ref.deltas(); ++j) {
    const bool used = br.flag();  // used_by_curr_pic_flag
    use[j] = used || br.flag();   // use_delta_flag, 1 when absent
  }
  if (!br.ok()) return false;
  const auto add = [](std::array<int32_t, 16>& list, uint32_t& count, int32_t poc) {
    if (count >= list.size()) return false;
    list[count++] = poc;
    return true;
  };
  out = ShortTermRps{};
  for (uint32_t j = ref.positive; j-- > 0;) {
    const int32_t d = ref.s1[j] + delta_rps;
    if (d < 0 && use[ref.negative + j] && !add(out.s0, out.negative, d)) return false;
  }
  if (delta_rps < 0 && use[ref.deltas()] && !add(out.s0, out.negative, delta_rps)) return false;
  for (uint32_t j = 0; j < ref.negative; ++j) {
    const int32_t d = ref.s0[j] + delta_rps;
    if (d < 0 && use[j] && !add(out.s0, out.negative, d)) return false;
  }
  for (uint32_t j = ref.negative; j-- > 0;) {
    const int32_t d = ref.s0[j] + delta_rps;
    if (d > 0 && use[j] && !add(out.s1, out.positive, d)) return false;
  }
  if (delta_rps > 0 && use[ref.deltas()] && !add(out.s1, out.positive, delta_rps)) return false;
  for (uint32_t j = 0; j < ref.positive; ++j) {
    const int32_t d = ref.s1[j] + delta_rps;
    if (d > 0 && use[ref.negative + j] && !add(out.s1, out.positive, d)) return false;
  }
  return true;
}

// §E.2.3, for one sub-layer.
void skip_sub_layer_hrd(RbspReader& br, uint32_t cpb_count, bool sub_pic) {
  for (uint32_t i = 0; i < cpb_count && br.ok(); ++i) {
    br.ue();  // bit_rate_value_minus1
    br.ue();  // cpb_size_value_minus1
    if (sub_pic) {
      br.ue();  // cpb_size_du_value_minus1
      br.ue();  // bit_rate_du_value_minus1
    }
    br.flag();  // cbr_flag
  }
}

// §E.2.2 with commonInfPresentFlag 1.
bool skip_hrd_parameters(RbspReader& br, uint32_t max_sub_layers_minus1) {
  const bool nal = br.flag();
  const bool vcl = br.flag();
  bool sub_pic = false;
  if (nal || vcl) {
    sub_pic = br.flag();
    if (sub_pic) br.bits(8 + 5 + 1 + 5);
    br.bits(8);  // bit_rate_scale, cpb_size_scale
    if (sub_pic) br.bits(4);
    br.bits(15);  // three delay lengths
  }
  for (uint32_t i = 0; i <= max_sub_layers_minus1 && br.ok(); ++i) {
    bool fixed_within_cvs = true;
    if (!br.flag()) fixed_within_cvs = br.flag();  // fixed_pic_rate_general/within_cvs_flag
    bool low_delay = false;
    if (fixed_within_cvs) {
      if (br.ue() > 2047) return false;  // elemental_duration_in_tc_minus1
    } else {
      low_delay = br.flag();
    }
    uint32_t cpb_count = 1;
    if (!low_delay) {
      cpb_count = br.ue() + 1;
      if (cpb_count > 32) return false;
    }
    if (nal) skip_sub_layer_hrd(br, cpb_count, sub_pic);
    if (vcl) skip_sub_layer_hrd(br, cpb_count, sub_pic);
  }
  return br.ok();
}

// §E.2.1.
bool read_vui(RbspReader& br, Sps& sps) {
  if (br.flag()) read_aspect_ratio(br, sps.sar_width, sps.sar_height);  // aspect_ratio_info_present_flag
  if (br.flag()) br.flag();  // overscan_info_present_flag, overscan_appropriate_flag
  if (br.flag()) {           // video_signal_type_present_flag
    br.bits(4);              // video_format, video_full_range_flag
    if (br.flag()) br.bits(24);
  }
  if (br.flag()) {  // chroma_loc_info_present_flag
    br.ue();
    br.ue();
  }
  br.bits(3);       // neutral_chroma_indication, field_seq, frame_field_info_present
  if (br.flag()) {  // default_display_window_flag
    for (int i = 0; i < 4; ++i) br.ue();
  }
  sps.timing_info_present = br.flag();
  if (sps.timing_info_present) {
    sps.num_units_in_tick = br.bits(32);
    sps.time_scale = br.bits(32);
    if (br.flag()) br.ue();  // vui_poc_proportional_to_timing_flag, num_ticks_poc_diff_one_minus1
    if (br.flag() && !skip_hrd_parameters(br, sps.max_sub_layers - 1)) return false;
  }
  sps.bitstream_restriction = br.flag();
  if (sps.bitstream_restriction) {
    br.bits(3);  // tiles_fixed_structure, motion_vectors_over_pic_boundaries, restricted_ref_pic_lists
    sps.min_spatial_segmentation_idc = br.ue();
    if (sps.min_spatial_segmentation_idc > 4095) return false;
    for (int i = 0; i < 4; ++i) br.ue();
  }
  return br.ok();
}

}  // namespace

uint32_t Sps::ctbs_in_picture() const noexcept {
  const uint32_t ctb = 1u << log2_ctb_size;
  return ((coded_width + ctb - 1) >> log2_ctb_size) * ((coded_height + ctb - 1) >> log2_ctb_size);
}

bool parse_vps(const uint8_t* nal, std::size_t size, Vps& out) noexcept {
  if (!opens(nal, size, kVps)) return false;
  RbspReader br(nal, size, 2);
  Vps vps;
  vps.id = br.bits(4);
  br.bits(2);                                // vps_base_layer_internal_flag, vps_base_layer_available_flag
  br.bits(6);                                // vps_max_layers_minus1
  const uint32_t sub_layers_minus1 = br.bits(3);
  if (sub_layers_minus1 > 6) return false;
  vps.max_sub_layers = sub_layers_minus1 + 1;
  vps.temporal_id_nesting = br.flag();
  br.bits(16);  // vps_reserved_0xffff_16bits
  read_profile_tier_level(br, sub_layers_minus1, vps.ptl);
  uint32_t buffering = 0;
  uint32_t reorder = 0;
  if (!read_sub_layer_ordering(br, sub_layers_minus1, buffering, reorder)) return false;
  out = vps;
  return true;
}

bool parse_sps(const uint8_t* nal, std::size_t size, Sps& out) noexcept {
  if (!opens(nal, size, kSps)) return false;
  RbspReader br(nal, size, 2);
  Sps sps;
  sps.vps_id = br.bits(4);
  const uint32_t sub_layers_minus1 = br.bits(3);
  if (sub_layers_minus1 > 6) return false;
  sps.max_sub_layers = sub_layers_minus1 + 1;
  sps.temporal_id_nesting = br.flag();
  read_profile_tier_level(br, sub_layers_minus1, sps.ptl);
  sps.id = br.ue();
  if (sps.id > 15) return false;
  sps.chroma_format_idc = br.ue();
  if (sps.chroma_format_idc > 3) return false;
  if (sps.chroma_format_idc == 3) sps.separate_colour_plane = br.flag();
  sps.coded_width = br.ue();
  sps.coded_height = br.ue();
  if (sps.coded_width == 0 || sps.coded_height == 0 || sps.coded_width > 32768 || sps.coded_height > 32768) return false;
  if (br.flag()) {  // conformance_window_flag
    // §7.4.3.2.1: SubWidthC and SubHeightC are 1 for 4:4:4, separate planes and monochrome.
    const bool planes = sps.chroma_format_idc == 0 || sps.chroma_format_idc == 3 || sps.separate_colour_plane;
    const uint64_t unit_x = planes ? 1 : 2;
    const uint64_t unit_y = planes || sps.chroma_format_idc == 2 ? 1 : 2;
    const uint64_t left = br.ue() * unit_x, right = br.ue() * unit_x;
    const uint64_t top = br.ue() * unit_y, bottom = br.ue() * unit_y;
    if (left + right >= sps.coded_width || top + bottom >= sps.coded_height) return false;
    sps.crop_left = static_cast<uint32_t>(left);
    sps.crop_right = static_cast<uint32_t>(right);
    sps.crop_top = static_cast<uint32_t>(top);
    sps.crop_bottom = static_cast<uint32_t>(bottom);
  }
  sps.width = sps.coded_width - sps.crop_left - sps.crop_right;
  sps.height = sps.coded_height - sps.crop_top - sps.crop_bottom;
  const uint32_t luma_minus8 = br.ue();
  const uint32_t chroma_minus8 = br.ue();
  if (luma_minus8 > 8 || chroma_minus8 > 8) return false;
  sps.bit_depth_luma = luma_minus8 + 8;
  sps.bit_depth_chroma = chroma_minus8 + 8;
  const uint32_t poc_lsb_minus4 = br.ue();
  if (poc_lsb_minus4 > 12) return false;
  sps.log2_max_poc_lsb = poc_lsb_minus4 + 4;
  if (!read_sub_layer_ordering(br, sub_layers_minus1, sps.max_dec_pic_buffering, sps.max_num_reorder_pics)) return false;

  const uint32_t min_cb_minus3 = br.ue();
  const uint32_t cb_diff = br.ue();
  if (min_cb_minus3 > 3 || cb_diff > 3) return false;
  sps.log2_min_cb_size = min_cb_minus3 + 3;
  sps.log2_ctb_size = sps.log2_min_cb_size + cb_diff;
  // CtbLog2SizeY lies in 4..6, and the picture is whole coding blocks.
  if (sps.log2_ctb_size < 4 || sps.log2_ctb_size > 6) return false;
  const uint32_t min_cb = 1u << sps.log2_min_cb_size;
  if (sps.coded_width % min_cb || sps.coded_height % min_cb) return false;
  // Summed in 64 bits: a coded 2^32 - 2 must not wrap round into the range.
  const uint64_t min_tb = uint64_t{br.ue()} + 2;
  const uint64_t max_tb = min_tb + br.ue();
  if (min_tb >= sps.log2_min_cb_size || max_tb > std::min<uint32_t>(sps.log2_ctb_size, 5)) return false;
  if (br.ue() > sps.log2_ctb_size - min_tb || br.ue() > sps.log2_ctb_size - min_tb) return false;  // hierarchy depths
  if (br.flag() && br.flag() && !skip_scaling_list_data(br)) return false;  // scaling_list_enabled, sps_..._present
  br.flag();        // amp_enabled_flag
  br.flag();        // sample_adaptive_offset_enabled_flag
  if (br.flag()) {  // pcm_enabled_flag
    if (br.bits(4) + 1 > sps.bit_depth_luma || br.bits(4) + 1 > sps.bit_depth_chroma) return false;
    const uint64_t min_pcm = uint64_t{br.ue()} + 3;
    if (min_pcm > 5 || min_pcm + br.ue() > std::min<uint32_t>(sps.log2_ctb_size, 5)) return false;
    br.flag();  // pcm_loop_filter_disabled_flag
  }
  sps.num_short_term_ref_pic_sets = br.ue();
  if (sps.num_short_term_ref_pic_sets > 64 || !br.ok()) return false;
  std::array<ShortTermRps, 64> sets{};
  for (uint32_t i = 0; i < sps.num_short_term_ref_pic_sets; ++i) {
    if (!read_short_term_rps(br, i, sets, sps.max_dec_pic_buffering, sets[i])) return false;
  }
  sps.long_term_ref_pics_present = br.flag();
  if (sps.long_term_ref_pics_present) {
    const uint32_t count = br.ue();
    if (count > 32) return false;
    for (uint32_t i = 0; i < count; ++i) br.bits(sps.log2_max_poc_lsb + 1);  // lt_ref_pic_poc_lsb_sps, used flag
  }
  br.flag();  // sps_temporal_mvp_enabled_flag
  br.flag();  // strong_intra_smoothing_enabled_flag
  sps.vui_present = br.flag();
  if (sps.vui_present && !read_vui(br, sps)) return false;
  if (!br.ok()) return false;
  out = sps;
  return true;
}

bool parse_pps(const uint8_t* nal, std::size_t size, Pps& out) noexcept {
  if (!opens(nal, size, kPps)) return false;
  RbspReader br(nal, size, 2);
  Pps pps;
  pps.id = br.ue();
  pps.sps_id = br.ue();
  if (pps.id > 63 || pps.sps_id > 15) return false;
  pps.dependent_slice_segments_enabled = br.flag();
  pps.output_flag_present = br.flag();
  pps.num_extra_slice_header_bits = br.bits(3);
  br.flag();  // sign_data_hiding_enabled_flag
  br.flag();  // cabac_init_present_flag
  if (br.ue() > 14 || br.ue() > 14) return false;  // num_ref_idx_l0/l1_default_active_minus1
  const int32_t init_qp_minus26 = br.se();
  if (init_qp_minus26 < -(26 + 48) || init_qp_minus26 > 25) return false;
  br.flag();        // constrained_intra_pred_flag
  br.flag();        // transform_skip_enabled_flag
  if (br.flag()) {  // cu_qp_delta_enabled_flag
    if (br.ue() > 3) return false;  // diff_cu_qp_delta_depth
  }
  const int32_t cb = br.se();
  const int32_t cr = br.se();
  if (cb < -12 || cb > 12 || cr < -12 || cr > 12) return false;
  br.flag();  // pps_slice_chroma_qp_offsets_present_flag
  br.flag();  // weighted_pred_flag
  br.flag();  // weighted_bipred_flag
  br.flag();  // transquant_bypass_enabled_flag
  pps.tiles_enabled = br.flag();
  pps.entropy_coding_sync_enabled = br.flag();
  if (!br.ok()) return false;
  out = pps;
  return true;
}

bool parse_slice_header(const uint8_t* nal, std::size_t size, const ParameterSets& sets, SliceHeader& out) noexcept {
  SliceHeader sh;
  if (!parse_nal_header(nal, size, sh.nal)) return false;
  const uint8_t type = sh.nal.type;
  // The VCL types in use: 0 to 9 and the IRAP types 16 to 21.
  if (type > kRaslR && (type < kBlaWLp || type > kCra)) return false;
  RbspReader br(nal, size, 2);
  sh.first_slice_segment_in_pic = br.flag();
  if (is_irap(type)) sh.no_output_of_prior_pics = br.flag();
  sh.pps_id = br.ue();
  if (!br.ok() || sh.pps_id > 63 || !sets.has_pps[sh.pps_id]) return false;
  const Pps& pps = sets.pps[sh.pps_id];
  if (!sets.has_sps[pps.sps_id]) return false;
  const Sps& sps = sets.sps[pps.sps_id];
  if (!sh.first_slice_segment_in_pic) {
    if (pps.dependent_slice_segments_enabled) sh.dependent_slice_segment = br.flag();
    const uint32_t ctbs = sps.ctbs_in_picture();
    unsigned address_bits = 0;
    while ((uint64_t{1} << address_bits) < ctbs) ++address_bits;  // Ceil(Log2(PicSizeInCtbsY))
    sh.segment_address = br.bits(address_bits);
    if (sh.segment_address == 0 || sh.segment_address >= ctbs) return false;
  }
  if (!sh.dependent_slice_segment) {
    br.bits(pps.num_extra_slice_header_bits);  // slice_reserved_flag
    sh.slice_type = br.ue();
    if (sh.slice_type > 2) return false;
    if (pps.output_flag_present) sh.pic_output = br.flag();
    if (sps.separate_colour_plane) br.bits(2);  // colour_plane_id
    if (!is_idr(type)) sh.poc_lsb = br.bits(sps.log2_max_poc_lsb);
  }
  if (!br.ok()) return false;
  out = sh;
  return true;
}

int64_t PocCounter::next(const SliceHeader& sh, const Sps& sps, bool restart) noexcept {
  const int64_t max_lsb = int64_t{1} << sps.log2_max_poc_lsb;
  const int64_t lsb = sh.poc_lsb;
  int64_t msb = 0;
  if (!restart) {
    // (8-1): the most significant part follows the nearest lsb change.
    msb = prev_msb_;
    if (lsb < prev_lsb_ && prev_lsb_ - lsb >= max_lsb / 2) {
      msb = prev_msb_ + max_lsb;
    } else if (lsb > prev_lsb_ && lsb - prev_lsb_ > max_lsb / 2) {
      msb = prev_msb_ - max_lsb;
    }
  }
  // prevTid0Pic: the last picture of temporal layer 0 that is neither a
  // leading picture nor a sub-layer non-reference picture.
  const uint8_t type = sh.nal.type;
  if (sh.nal.temporal_id == 0 && !is_rasl(type) && !is_radl(type) && !is_sub_layer_non_reference(type)) {
    prev_msb_ = msb;
    prev_lsb_ = lsb;
  }
  return msb + lsb;
}

}  // namespace boxlane::hevc
