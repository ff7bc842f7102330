#include "support/handmade_h264.hpp"

namespace boxlane::test {
namespace {

// RBSP bits, most significant first; emulation prevention added when a NAL
// unit is made of them.
struct Rbsp {
  std::vector<uint8_t> bytes;
  int used = 8;  // bits of the last byte in use

  void bit(bool b) {
    if (used == 8) bytes.push_back(0), used = 0;
    if (b) bytes.back() = static_cast<uint8_t>(bytes.back() | (0x80 >> used));
    ++used;
  }
  void bits(uint32_t v, int n) {
    for (int i = n - 1; i >= 0; --i) bit((v >> i) & 1);
  }
  void ue(uint32_t v) {  // §9.1
    const uint64_t code = uint64_t{v} + 1;
    int length = 0;
    while ((code >> length) > 1) ++length;
    bits(0, length);
    bits(static_cast<uint32_t>(code), length + 1);
  }
  void align_zero() {
    while (used != 8) bit(false);
  }
  void trailing() {  // rbsp_trailing_bits
    bit(true);
    align_zero();
  }
};

// A NAL unit with its 4-byte start code: header byte, then the RBSP with an
// emulation_prevention_three_byte wherever two zeros meet a byte below 4.
void nal(std::vector<uint8_t>& out, uint8_t header, const std::vector<uint8_t>& rbsp) {
  out.insert(out.end(), {0, 0, 0, 1, header});
  int zeros = 0;
  for (const uint8_t b : rbsp) {
    if (zeros >= 2 && b <= 3) out.push_back(3), zeros = 0;
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
}

std::vector<uint8_t> sps() {
  Rbsp r;
  r.bits(66, 8);    // profile_idc: Baseline
  r.bits(0xC0, 8);  // constraint_set0 and 1
  r.bits(10, 8);    // level_idc 1.0
  r.ue(0);          // seq_parameter_set_id
  r.ue(0);          // log2_max_frame_num_minus4: frame_num has 4 bits
  r.ue(2);          // pic_order_cnt_type 2: output order is decoding order
  r.ue(1);          // max_num_ref_frames
  r.bit(false);     // gaps_in_frame_num_value_allowed_flag
  r.ue(0);          // pic_width_in_mbs_minus1
  r.ue(0);          // pic_height_in_map_units_minus1
  r.bit(true);      // frame_mbs_only_flag
  r.bit(true);      // direct_8x8_inference_flag
  r.bit(false);     // frame_cropping_flag
  r.bit(false);     // vui_parameters_present_flag
  r.trailing();
  return r.bytes;
}

std::vector<uint8_t> pps(uint32_t id) {
  Rbsp r;
  r.ue(id);
  r.ue(0);       // seq_parameter_set_id
  r.bit(false);  // entropy_coding_mode_flag: CAVLC
  r.bit(false);  // bottom_field_pic_order_in_frame_present_flag
  r.ue(0);       // num_slice_groups_minus1
  r.ue(0);       // num_ref_idx_l0_default_active_minus1
  r.ue(0);       // num_ref_idx_l1_default_active_minus1
  r.bit(false);  // weighted_pred_flag
  r.bits(0, 2);  // weighted_bipred_idc
  r.ue(0);       // pic_init_qp_minus26 (se 0)
  r.ue(0);       // pic_init_qs_minus26
  r.ue(0);       // chroma_qp_index_offset
  r.bit(true);   // deblocking_filter_control_present_flag
  r.bit(false);  // constrained_intra_pred_flag
  r.bit(false);  // redundant_pic_cnt_present_flag
  r.trailing();
  return r.bytes;
}

std::vector<uint8_t> slice(const HandmadePicture& p, uint32_t frame_num, uint32_t idr_id) {
  Rbsp r;
  r.ue(0);                                   // first_mb_in_slice
  r.ue(p.kind == HandmadePicture::kSkipped ? 5 : 7);  // slice_type: all P, or all I
  r.ue(p.pps);
  r.bits(frame_num % 16, 4);
  if (p.kind == HandmadePicture::kIdr) {
    r.ue(idr_id);
    r.bits(0, 2);  // no_output_of_prior_pics_flag, long_term_reference_flag
  } else {
    if (p.kind == HandmadePicture::kSkipped) {
      r.bit(false);  // num_ref_idx_active_override_flag
      r.bit(false);  // ref_pic_list_modification_flag_l0
    }
    r.bit(false);  // adaptive_ref_pic_marking_mode_flag
  }
  r.ue(0);  // slice_qp_delta (se 0)
  r.ue(1);  // disable_deblocking_filter_idc 1
  if (p.kind == HandmadePicture::kSkipped) {
    r.ue(1);  // mb_skip_run: the one macroblock
  } else {
    r.ue(25);  // mb_type I_PCM
    r.align_zero();
    for (int i = 0; i < 256; ++i) r.bits(p.grey, 8);
    for (int i = 0; i < 128; ++i) r.bits(0x80, 8);
  }
  r.trailing();
  return r.bytes;
}

}  // namespace

std::vector<uint8_t> caption_sei() {
  // user_data_registered_itu_t_t35 (payload type 4): ATSC A/53 Part 4,
  // "GA94", cc_data with one CEA-608 pair.
  return {0x06, 0x04, 0x0E, 0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, 0x41, 0xFF, 0xFC, 0x94, 0x20, 0xFF, 0x80};
}

std::vector<uint8_t> recovery_point_sei() {
  // Payload type 6, one byte: recovery_frame_cnt 0, exact_match_flag 1,
  // broken_link_flag 0, changing_slice_group_idc 0, then payload alignment.
  return {0x06, 0x06, 0x01, 0xC4, 0x80};
}

std::vector<uint8_t> handmade_h264(const std::vector<HandmadePicture>& pictures, bool with_parameter_sets) {
  std::vector<uint8_t> out;
  if (with_parameter_sets) {
    nal(out, 0x67, sps());
    nal(out, 0x68, pps(0));
    nal(out, 0x68, pps(1));
  }
  uint32_t frame_num = 0, idr_id = 0;
  for (const HandmadePicture& p : pictures) {
    if (p.kind == HandmadePicture::kIdr) frame_num = 0;
    const auto sei = [&](const std::vector<uint8_t>& unit) {
      out.insert(out.end(), {0, 0, 0, 1});
      out.insert(out.end(), unit.begin(), unit.end());
    };
    if (p.captions) sei(caption_sei());
    if (p.recovery_point) sei(recovery_point_sei());
    nal(out, p.kind == HandmadePicture::kIdr ? 0x65 : 0x41, slice(p, frame_num, idr_id));
    if (p.kind == HandmadePicture::kIdr) ++idr_id;
    ++frame_num;
  }
  return out;
}

}  // namespace boxlane::test
