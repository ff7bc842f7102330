#include "support/handmade_h264.hpp"

#include "support/rbsp_writer.hpp"

namespace boxlane::test {
namespace {

// A NAL unit with its 4-byte start code.
void nal(std::vector<uint8_t>& out, const std::vector<uint8_t>& unit) {
  out.insert(out.end(), {0, 0, 0, 1});
  out.insert(out.end(), unit.begin(), unit.end());
}

// Baseline (66) with constraint_set0 and 1, level 1.0, id 0, a 4-bit frame_num, pic_order_cnt_type 2, one
// reference frame, no gaps, one macroblock wide and high, frame_mbs_only and direct_8x8_inference, no
// cropping, no VUI.
std::vector<uint8_t> sps(uint32_t id = 0) {
  return Bits().u(8, 66).u(8, 0xC0).u(8, 10).ue(id).ue(0).ue(2).ue(1).u(1, 0).ue(0).ue(0).u(2, 3).u(2, 0).nal(3, 7);
}

// SPS 0, CAVLC, no bottom-field POC, one slice group, one reference in each list, no weighted prediction, QP
// and chroma offsets 0, the deblocking filter controlled by the slice.
std::vector<uint8_t> pps(uint32_t id) {
  return Bits().ue(id).ue(0).u(2, 0).ue(0).ue(0).ue(0).u(3, 0).se(0).se(0).se(0).u(3, 0b100).nal(3, 8);
}

std::vector<uint8_t> slice(const HandmadePicture& p, uint32_t frame_num, uint32_t idr_id) {
  const bool idr = p.kind == HandmadePicture::kIdr, skipped = p.kind == HandmadePicture::kSkipped;
  Bits b;
  b.ue(0).ue(skipped ? 5 : 7).ue(p.pps);  // first_mb_in_slice, slice_type (all P or all I), pic_parameter_set_id
  b.u(4, frame_num % 16);
  if (idr) b.ue(idr_id).u(2, 0);  // no_output_of_prior_pics_flag, long_term_reference_flag
  if (skipped) b.u(2, 0);         // num_ref_idx_active_override_flag, ref_pic_list_modification_flag_l0
  if (!idr && p.mmco5) b.u(1, 1).ue(5).ue(0);  // adaptive marking: mmco 5, then the end
  else if (!idr) b.u(1, 0);                   // adaptive_ref_pic_marking_mode_flag
  b.se(0).ue(1);                  // slice_qp_delta, disable_deblocking_filter_idc 1
  if (skipped) return b.ue(1).nal(2, 1);  // mb_skip_run: the one macroblock
  b.ue(25);                               // mb_type I_PCM, then pcm_alignment_zero_bits and the samples
  while (b.bits.size() % 8) b.u(1, 0);
  for (int i = 0; i < 256; ++i) b.u(8, p.grey);
  for (int i = 0; i < 128; ++i) b.u(8, 0x80);
  return b.nal(idr ? 3 : 2, idr ? 5 : 1);
}

// user_data_registered_itu_t_t35 (payload type 4): ATSC A/53 Part 4, "GA94", cc_data with one CEA-608 pair.
const std::vector<uint8_t> kCaptionSei = {0x06, 0x04, 0x0E, 0xB5, 0x00, 0x31, 'G',  'A',  '9',
                                          '4',  0x03, 0x41, 0xFF, 0xFC, 0x94, 0x20, 0xFF, 0x80};
// Payload type 6, one byte: recovery_frame_cnt 0, exact_match_flag 1, broken_link_flag 0,
// changing_slice_group_idc 0, then payload alignment.
const std::vector<uint8_t> kRecoveryPointSei = {0x06, 0x06, 0x01, 0xC4, 0x80};

}  // namespace

std::vector<uint8_t> handmade_sps(uint32_t id) {
  std::vector<uint8_t> out;
  nal(out, sps(id));
  return out;
}

std::vector<uint8_t> handmade_pps(uint32_t id) {
  std::vector<uint8_t> out;
  nal(out, pps(id));
  return out;
}

std::vector<uint8_t> handmade_h264(const std::vector<HandmadePicture>& pictures, bool with_parameter_sets) {
  std::vector<uint8_t> out;
  if (with_parameter_sets) {
    nal(out, sps());
    nal(out, pps(0));
    nal(out, pps(1));
  }
  uint32_t frame_num = 0, idr_id = 0;
  for (const HandmadePicture& p : pictures) {
    if (p.kind == HandmadePicture::kIdr) frame_num = 0;
    if (p.captions) nal(out, kCaptionSei);
    if (p.recovery_point) nal(out, kRecoveryPointSei);
    nal(out, slice(p, frame_num, idr_id));
    if (p.kind == HandmadePicture::kIdr) ++idr_id;
    frame_num = p.mmco5 ? 1 : frame_num + 1;  // an mmco 5 picture counts as frame_num 0 for those after it
  }
  return out;
}

}  // namespace boxlane::test
