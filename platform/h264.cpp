#include "platform/h264.hpp"

#include <algorithm>

namespace boxlane::h264 {

namespace {

// The NAL header byte (§7.3.1), or 0 (no valid NAL unit has it) when empty.
uint8_t header_of(const uint8_t* nal, std::size_t size) {
  BeReader r(nal, size);
  return r.u8();
}

constexpr bool high_profile(uint8_t profile) {
  switch (profile) {
    case 100: case 110: case 122: case 244: case 44: case 83:
    case 86: case 118: case 128: case 138: case 139: case 134: case 135:
      return true;
    default:
      return false;
  }
}

// §7.3.2.1.1.1: only walked over; the lists themselves are not kept.
void skip_scaling_list(BitReader& br, int size) {
  int32_t last = 8;
  int32_t next = 8;
  for (int j = 0; j < size && br.ok(); ++j) {
    if (next != 0) {
      // delta_scale lies in -128..127 (§7.4.2.1.1.1); anything else is not
      // H.264, and would overflow the sum below.
      const int32_t delta = br.se();
      if (delta < -128 || delta > 127) {
        br.fail();
        return;
      }
      next = (last + delta + 256) % 256;
    }
    last = next == 0 ? last : next;
  }
}

// Annex E.1.2.
void skip_hrd(BitReader& br) {
  const uint32_t cpb_cnt = br.ue() + 1;
  if (cpb_cnt > 32) {
    br.fail();
    return;
  }
  br.bits(8);  // bit_rate_scale, cpb_size_scale
  for (uint32_t i = 0; i < cpb_cnt && br.ok(); ++i) {
    br.ue();
    br.ue();
    br.flag();
  }
  br.bits(20);  // four 5-bit delay and offset lengths
}

void parse_vui(BitReader& br, Sps& sps) {
  if (br.flag()) read_aspect_ratio(br, sps.sar_width, sps.sar_height);  // aspect_ratio_info_present_flag
  if (br.flag()) br.flag();  // overscan
  if (br.flag()) {           // video_signal_type_present_flag
    br.bits(4);
    if (br.flag()) br.bits(24);
  }
  if (br.flag()) {  // chroma_loc_info_present_flag
    br.ue();
    br.ue();
  }
  sps.timing_info_present = br.flag();
  if (sps.timing_info_present) {
    sps.num_units_in_tick = br.bits(32);
    sps.time_scale = br.bits(32);
    sps.fixed_frame_rate = br.flag();
  }
  const bool nal_hrd = br.flag();
  if (nal_hrd) skip_hrd(br);
  const bool vcl_hrd = br.flag();
  if (vcl_hrd) skip_hrd(br);
  if (nal_hrd || vcl_hrd) br.flag();  // low_delay_hrd_flag
  br.flag();                          // pic_struct_present_flag
  sps.bitstream_restriction = br.flag();
  if (sps.bitstream_restriction) {
    br.flag();
    for (int i = 0; i < 4; ++i) br.ue();
    sps.max_num_reorder_frames = br.ue();
    sps.max_dec_frame_buffering = br.ue();
  }
}

}  // namespace

bool parse_sps(const uint8_t* nal, std::size_t size, Sps& out) noexcept {
  if ((header_of(nal, size) & 0x1F) != kNalSps) return false;
  BitReader br(nal, size);
  Sps sps;
  sps.profile_idc = static_cast<uint8_t>(br.bits(8));
  sps.constraint_flags = static_cast<uint8_t>(br.bits(8));
  sps.level_idc = static_cast<uint8_t>(br.bits(8));
  sps.id = br.ue();
  if (sps.id > 31) return false;
  if (high_profile(sps.profile_idc)) {
    sps.chroma_format_idc = br.ue();
    if (sps.chroma_format_idc > 3) return false;
    if (sps.chroma_format_idc == 3) sps.separate_colour_plane = br.flag();
    if (br.ue() > 6 || br.ue() > 6) return false;  // bit depths beyond 14
    br.flag();                                     // qpprime_y_zero_transform_bypass_flag
    if (br.flag()) {                               // seq_scaling_matrix_present_flag
      const int lists = sps.chroma_format_idc != 3 ? 8 : 12;
      for (int i = 0; i < lists && br.ok(); ++i) {
        if (br.flag()) skip_scaling_list(br, i < 6 ? 16 : 64);
      }
    }
  }
  // Summed in 64 bits: a coded 2^32 - 2 must not wrap round into the range.
  const uint64_t log2_frame_num = uint64_t{br.ue()} + 4;
  if (log2_frame_num > 16) return false;
  sps.log2_max_frame_num = static_cast<uint32_t>(log2_frame_num);
  sps.poc_type = br.ue();
  if (sps.poc_type == 0) {
    const uint64_t log2_lsb = uint64_t{br.ue()} + 4;
    if (log2_lsb > 16) return false;
    sps.log2_max_poc_lsb = static_cast<uint32_t>(log2_lsb);
  } else if (sps.poc_type == 1) {
    sps.delta_pic_order_always_zero = br.flag();
    sps.offset_for_non_ref_pic = br.se();
    sps.offset_for_top_to_bottom_field = br.se();
    sps.num_ref_frames_in_poc_cycle = br.ue();
    if (sps.num_ref_frames_in_poc_cycle > 255) return false;
    for (uint32_t i = 0; i < sps.num_ref_frames_in_poc_cycle; ++i) sps.offset_for_ref_frame[i] = br.se();
  } else if (sps.poc_type != 2) {
    return false;
  }
  sps.max_num_ref_frames = br.ue();
  br.flag();  // gaps_in_frame_num_value_allowed_flag
  sps.width_in_mbs = br.ue() + 1;
  sps.height_in_map_units = br.ue() + 1;
  sps.frame_mbs_only = br.flag();
  if (!sps.frame_mbs_only) br.flag();  // mb_adaptive_frame_field_flag
  br.flag();                           // direct_8x8_inference_flag
  if (!br.ok() || sps.width_in_mbs > 1024 || sps.height_in_map_units > 1024) return false;
  const uint32_t frame_height_in_mbs = (sps.frame_mbs_only ? 1 : 2) * sps.height_in_map_units;
  const uint32_t full_width = sps.width_in_mbs * 16;
  const uint32_t full_height = frame_height_in_mbs * 16;
  if (br.flag()) {  // frame_cropping_flag
    const uint32_t cat = sps.chroma_array_type();
    const uint32_t sub_width = (cat == 1 || cat == 2) ? 2 : 1;
    const uint32_t sub_height = cat == 1 ? 2 : 1;
    const uint64_t unit_x = sub_width;
    const uint64_t unit_y = uint64_t{sub_height} * (sps.frame_mbs_only ? 1 : 2);
    const uint64_t left = br.ue() * unit_x, right = br.ue() * unit_x;
    const uint64_t top = br.ue() * unit_y, bottom = br.ue() * unit_y;
    if (left + right >= full_width || top + bottom >= full_height) return false;
    sps.crop_left = static_cast<uint32_t>(left);
    sps.crop_right = static_cast<uint32_t>(right);
    sps.crop_top = static_cast<uint32_t>(top);
    sps.crop_bottom = static_cast<uint32_t>(bottom);
  }
  sps.width = full_width - sps.crop_left - sps.crop_right;
  sps.height = full_height - sps.crop_top - sps.crop_bottom;
  sps.vui_present = br.flag();
  if (sps.vui_present) parse_vui(br, sps);
  if (!br.ok()) return false;
  out = sps;
  return true;
}

bool parse_pps(const uint8_t* nal, std::size_t size, Pps& out) noexcept {
  if ((header_of(nal, size) & 0x1F) != kNalPps) return false;
  BitReader br(nal, size);
  Pps pps;
  pps.id = br.ue();
  pps.sps_id = br.ue();
  if (pps.id > 255 || pps.sps_id > 31) return false;
  pps.entropy_coding_mode = br.flag();
  pps.bottom_field_pic_order_in_frame_present = br.flag();
  pps.num_slice_groups = br.ue() + 1;
  if (pps.num_slice_groups > 8) return false;
  if (pps.num_slice_groups > 1) {
    const uint32_t map_type = br.ue();
    if (map_type == 0) {
      for (uint32_t i = 0; i < pps.num_slice_groups; ++i) br.ue();
    } else if (map_type == 2) {
      for (uint32_t i = 0; i + 1 < pps.num_slice_groups; ++i) br.ue(), br.ue();
    } else if (map_type >= 3 && map_type <= 5) {
      br.flag();
      br.ue();
    } else if (map_type == 6) {
      const uint32_t units = br.ue() + 1;
      unsigned id_bits = 0;
      while ((1u << id_bits) < pps.num_slice_groups) ++id_bits;
      if (units > 1024u * 1024u) return false;
      for (uint32_t i = 0; i < units && br.ok(); ++i) br.bits(id_bits);
    } else if (map_type > 6) {
      return false;
    }
  }
  pps.num_ref_idx_l0_default_active = br.ue() + 1;
  pps.num_ref_idx_l1_default_active = br.ue() + 1;
  if (pps.num_ref_idx_l0_default_active > 32 || pps.num_ref_idx_l1_default_active > 32) return false;
  pps.weighted_pred = br.flag();
  pps.weighted_bipred_idc = br.bits(2);
  br.se();    // pic_init_qp_minus26
  br.se();    // pic_init_qs_minus26
  br.se();    // chroma_qp_index_offset
  br.flag();  // deblocking_filter_control_present_flag
  br.flag();  // constrained_intra_pred_flag
  pps.redundant_pic_cnt_present = br.flag();
  if (!br.ok() || pps.weighted_bipred_idc > 2) return false;
  out = pps;
  return true;
}

namespace {

// §7.3.3.1. False on an out-of-range operation.
bool skip_ref_pic_list_modification(BitReader& br) {
  if (!br.flag()) return true;
  for (int n = 0; n < 66 && br.ok(); ++n) {
    const uint32_t idc = br.ue();
    if (idc == 3) return true;
    if (idc > 5) return false;
    br.ue();
  }
  return false;
}

// §7.3.3.2.
void skip_weights(BitReader& br, uint32_t count, bool chroma) {
  for (uint32_t i = 0; i < count && br.ok(); ++i) {
    if (br.flag()) br.se(), br.se();
    if (chroma && br.flag()) {
      for (int j = 0; j < 2; ++j) br.se(), br.se();
    }
  }
}

// §7.3.3.3; sets mmco5.
bool read_dec_ref_pic_marking(BitReader& br, bool idr, bool& mmco5) {
  if (idr) {
    br.flag();  // no_output_of_prior_pics_flag
    br.flag();  // long_term_reference_flag
    return true;
  }
  if (!br.flag()) return true;  // adaptive_ref_pic_marking_mode_flag
  for (int n = 0; n < 100 && br.ok(); ++n) {
    const uint32_t op = br.ue();
    if (op == 0) return true;
    if (op > 6) return false;
    if (op == 1 || op == 3) br.ue();
    if (op == 2) br.ue();
    if (op == 3 || op == 6) br.ue();
    if (op == 4) br.ue();
    if (op == 5) mmco5 = true;
  }
  return false;
}

}  // namespace

bool parse_slice_header(const uint8_t* nal, std::size_t size, const ParameterSets& sets, SliceHeader& out) noexcept {
  const uint8_t header = header_of(nal, size);
  const uint8_t type = header & 0x1F;
  if (type != kNalSlice && type != kNalIdrSlice && type != kNalPartitionA) return false;
  BitReader br(nal, size);
  SliceHeader sh;
  sh.nal_type = type;
  sh.nal_ref_idc = static_cast<uint8_t>((header >> 5) & 3);
  sh.first_mb = br.ue();
  const uint32_t raw_type = br.ue();
  if (raw_type > 9) return false;
  sh.slice_type = raw_type % 5;
  sh.pps_id = br.ue();
  if (!br.ok() || sh.pps_id > 255 || !sets.has_pps[sh.pps_id]) return false;
  const Pps& pps = sets.pps[sh.pps_id];
  if (!sets.has_sps[pps.sps_id]) return false;
  const Sps& sps = sets.sps[pps.sps_id];
  if (sps.separate_colour_plane) br.bits(2);
  sh.frame_num = br.bits(sps.log2_max_frame_num);
  if (!sps.frame_mbs_only) {
    sh.field_pic = br.flag();
    if (sh.field_pic) sh.bottom_field = br.flag();
  }
  if (sh.idr()) sh.idr_pic_id = br.ue();
  if (sps.poc_type == 0) {
    sh.poc_lsb = br.bits(sps.log2_max_poc_lsb);
    if (pps.bottom_field_pic_order_in_frame_present && !sh.field_pic) sh.delta_poc_bottom = br.se();
  } else if (sps.poc_type == 1 && !sps.delta_pic_order_always_zero) {
    sh.delta_poc[0] = br.se();
    if (pps.bottom_field_pic_order_in_frame_present && !sh.field_pic) sh.delta_poc[1] = br.se();
  }
  if (pps.redundant_pic_cnt_present) sh.redundant_pic_cnt = br.ue();
  if (!br.ok()) return false;

  // The rest matters only for memory_management_control_operation 5.
  const bool p = sh.slice_type == 0 || sh.slice_type == 3;
  const bool b = sh.slice_type == 1;
  if (b) br.flag();  // direct_spatial_mv_pred_flag
  uint32_t l0 = pps.num_ref_idx_l0_default_active;
  uint32_t l1 = pps.num_ref_idx_l1_default_active;
  if ((p || b) && br.flag()) {  // num_ref_idx_active_override_flag
    l0 = br.ue() + 1;
    if (b) l1 = br.ue() + 1;
    if (l0 > 32 || l1 > 32) return false;
  }
  if (sh.slice_type != 2 && sh.slice_type != 4 && !skip_ref_pic_list_modification(br)) return false;
  if (b && !skip_ref_pic_list_modification(br)) return false;
  if ((pps.weighted_pred && p) || (pps.weighted_bipred_idc == 1 && b)) {
    br.ue();  // luma_log2_weight_denom
    const bool chroma = sps.chroma_array_type() != 0;
    if (chroma) br.ue();
    skip_weights(br, l0, chroma);
    if (b) skip_weights(br, l1, chroma);
  }
  if (sh.nal_ref_idc != 0 && !read_dec_ref_pic_marking(br, sh.idr(), sh.mmco5)) return false;
  if (!br.ok()) return false;
  out = sh;
  return true;
}

bool find_recovery_point(const uint8_t* nal, std::size_t size, uint32_t& recovery_frame_cnt) noexcept {
  if ((header_of(nal, size) & 0x1F) != kNalSei) return false;
  BitReader br(nal, size);
  // §7.3.2.3.1: sei_message()s until the RBSP trailing bits; type and size
  // are each a run of 0xFF bytes plus a last byte.
  for (;;) {
    uint32_t type = 0, bytes = 0, byte;
    while ((byte = br.bits(8)) == 0xFF && br.ok()) type += 255;
    type += byte;
    while ((byte = br.bits(8)) == 0xFF && br.ok()) bytes += 255;
    bytes += byte;
    // The payload is taken whole, so one cut short is no message.
    std::array<uint8_t, 16> payload{};
    for (uint32_t i = 0; i < bytes && br.ok(); ++i) {
      const auto v = static_cast<uint8_t>(br.bits(8));
      if (i < payload.size()) payload[i] = v;
    }
    if (!br.ok()) return false;
    if (type == 6) {
      BitReader fields(payload.data(), std::min<std::size_t>(bytes, payload.size()), 0);
      recovery_frame_cnt = fields.ue();
      return fields.ok();
    }
  }
}

int64_t PocCounter::next(const SliceHeader& sh, const Sps& sps) noexcept {
  int64_t top = 0;
  int64_t bottom = 0;
  const int64_t max_frame_num = int64_t{1} << sps.log2_max_frame_num;
  int64_t frame_num_offset = 0;
  if (sps.poc_type != 0) {
    if (sh.idr()) {
      frame_num_offset = 0;
    } else if (prev_frame_num_ > sh.frame_num) {
      frame_num_offset = prev_frame_num_offset_ + max_frame_num;
    } else {
      frame_num_offset = prev_frame_num_offset_;
    }
  }

  if (sps.poc_type == 0) {
    // §8.2.1.1.
    if (sh.idr()) {
      prev_msb_ = 0;
      prev_lsb_ = 0;
    }
    const int64_t max_lsb = int64_t{1} << sps.log2_max_poc_lsb;
    const int64_t lsb = sh.poc_lsb;
    int64_t msb = prev_msb_;
    if (lsb < prev_lsb_ && prev_lsb_ - lsb >= max_lsb / 2) {
      msb = prev_msb_ + max_lsb;
    } else if (lsb > prev_lsb_ && lsb - prev_lsb_ > max_lsb / 2) {
      msb = prev_msb_ - max_lsb;
    }
    top = msb + lsb;
    bottom = sh.field_pic ? msb + lsb : top + sh.delta_poc_bottom;
    if (sh.nal_ref_idc != 0) {
      prev_msb_ = msb;
      prev_lsb_ = lsb;
    }
  } else if (sps.poc_type == 1) {
    // §8.2.1.2.
    int64_t abs_frame_num = 0;
    if (sps.num_ref_frames_in_poc_cycle != 0) abs_frame_num = frame_num_offset + sh.frame_num;
    if (sh.nal_ref_idc == 0 && abs_frame_num > 0) --abs_frame_num;
    int64_t expected = 0;
    if (abs_frame_num > 0) {
      int64_t per_cycle = 0;
      for (uint32_t i = 0; i < sps.num_ref_frames_in_poc_cycle; ++i) per_cycle += sps.offset_for_ref_frame[i];
      const int64_t cycles = (abs_frame_num - 1) / sps.num_ref_frames_in_poc_cycle;
      const int64_t in_cycle = (abs_frame_num - 1) % sps.num_ref_frames_in_poc_cycle;
      expected = cycles * per_cycle;
      for (int64_t i = 0; i <= in_cycle; ++i) expected += sps.offset_for_ref_frame[static_cast<std::size_t>(i)];
    }
    if (sh.nal_ref_idc == 0) expected += sps.offset_for_non_ref_pic;
    if (!sh.field_pic) {
      top = expected + sh.delta_poc[0];
      bottom = top + sps.offset_for_top_to_bottom_field + sh.delta_poc[1];
    } else if (!sh.bottom_field) {
      top = bottom = expected + sh.delta_poc[0];
    } else {
      top = bottom = expected + sps.offset_for_top_to_bottom_field + sh.delta_poc[0];
    }
  } else {
    // §8.2.1.3.
    int64_t temp = 0;
    if (!sh.idr()) temp = 2 * (frame_num_offset + sh.frame_num) - (sh.nal_ref_idc == 0 ? 1 : 0);
    top = bottom = temp;
  }

  int64_t poc = sh.field_pic ? (sh.bottom_field ? bottom : top) : std::min(top, bottom);
  prev_frame_num_offset_ = frame_num_offset;
  prev_frame_num_ = sh.frame_num;
  if (sh.mmco5) {
    // §8.2.1: after mmco 5 the picture's counts are taken relative to itself,
    // and the pictures after it count as if it had frame_num 0,
    // FrameNumOffset 0 and, for type 0, a most significant part of 0.
    top -= poc;
    poc = 0;
    prev_msb_ = 0;
    prev_lsb_ = (sh.field_pic && sh.bottom_field) ? 0 : top;
    prev_frame_num_offset_ = 0;
    prev_frame_num_ = 0;
  }
  return poc;
}

}  // namespace boxlane::h264
