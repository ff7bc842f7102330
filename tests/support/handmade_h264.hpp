// H.264 Annex B streams written bit by bit from ISO/IEC 14496-10, for the shapes no encoder here produces on
// request: pictures that use several PPS by turns, a recording that starts in the middle of a GOP, a recovery
// point SEI instead of an IDR picture, A/53 caption SEI. Every picture is one 16x16 macroblock: an I_PCM
// macroblock of one grey level for an intra picture, a skipped one for a P picture, so FFmpeg decodes each to
// a known frame. Baseline profile, CAVLC, picture order count type 2.
#pragma once

#include <cstdint>
#include <vector>

namespace boxlane::test {

struct HandmadePicture {
  enum Kind { kIdr, kIntra, kSkipped } kind = kIdr;  // kIntra: a non-IDR I picture
  uint32_t pps = 0;                                  // 0 or 1
  uint8_t grey = 0x80;                               // intra pictures
  bool recovery_point = false;                       // an SEI with recovery_frame_cnt 0 before it
  bool captions = false;                             // an A/53 caption SEI before it
  bool mmco5 = false;                                // memory_management_control_operation 5 (a P picture)
};

// The SPS, or a PPS, of these streams with another id, after a start code.
std::vector<uint8_t> handmade_sps(uint32_t id);
std::vector<uint8_t> handmade_pps(uint32_t id);

// SPS, PPS 0 and PPS 1 (when `with_parameter_sets`), then the pictures, each NAL unit after a 4-byte start
// code. frame_num counts the reference pictures from the last IDR.
std::vector<uint8_t> handmade_h264(const std::vector<HandmadePicture>& pictures, bool with_parameter_sets = true);

}  // namespace boxlane::test
