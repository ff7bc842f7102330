// H.265 parameter sets built field by field (ISO/IEC 23008-2 §7.3.2), for what libx265 never writes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/hevc.hpp"
#include "support/rbsp_writer.hpp"

namespace boxlane::test {

// An SPS built field by field; every default is legal.
struct HandSps {
  uint32_t sub_layers_minus1 = 0;
  uint32_t id = 0;
  uint32_t chroma = 1;
  uint32_t width = 1280, height = 720;
  uint32_t window_left = 0;  // conf_win_left_offset, with the other three 0; 0: no conformance window
  uint32_t luma_minus8 = 0, chroma_minus8 = 0;
  uint32_t buffering_minus1 = 4;
  uint32_t tb_minus2 = 0, tb_diff = 3;  // log2_min_luma_transform_block_size_minus2, log2_diff_max_min_...
  bool scaling_list = false;
  uint32_t pred_delta_32 = 1;  // scaling_list_pred_matrix_id_delta of the second 32x32 list
  bool pcm = false;
  uint32_t pcm_min_minus3 = 0;  // log2_min_pcm_luma_coding_block_size_minus3
  std::vector<Bits> rps;

  std::vector<uint8_t> nal() const {
    Bits b;
    b.u(4, 0).u(3, sub_layers_minus1).u(1, 1);
    // profile_tier_level: space 1, high tier, Main 10 compatible with Main 10 only.
    b.u(2, 1).u(1, 1).u(5, 2).u(32, 0x20000000).u(16, 0x8000).u(32, 1).u(8, 153);
    for (uint32_t i = 0; i < sub_layers_minus1; ++i) b.u(1, 0).u(1, 1);
    if (sub_layers_minus1) b.u(2 * (8 - sub_layers_minus1), 0);
    for (uint32_t i = 0; i < sub_layers_minus1; ++i) b.u(8, 0xAA);
    b.ue(id).ue(chroma);
    if (chroma == 3) b.u(1, 0);
    b.ue(width).ue(height).u(1, window_left != 0);
    if (window_left) b.ue(window_left).ue(0).ue(0).ue(0);
    b.ue(luma_minus8).ue(chroma_minus8).ue(4);
    b.u(1, 1);
    for (uint32_t i = 0; i <= sub_layers_minus1; ++i) b.ue(buffering_minus1).ue(0).ue(0);
    b.ue(0).ue(3).ue(tb_minus2).ue(tb_diff).ue(1).ue(1);  // 8x8 to 64x64 coding blocks, 4x4 to 32x32 transforms
    b.u(1, scaling_list);
    if (scaling_list) {
      b.u(1, 1);
      for (int size_id = 0; size_id < 4; ++size_id) {
        for (int m = 0; m < 6; m += size_id == 3 ? 3 : 1) {
          if (m % 2) {  // predicted from the list before
            b.u(1, 0).ue(size_id == 3 ? pred_delta_32 : 1);
            continue;
          }
          b.u(1, 1);
          if (size_id > 1) b.se(8);
          b.se(3);
          for (int i = 1; i < std::min(64, 1 << (4 + 2 * size_id)); ++i) b.se(i % 2 ? -3 : 3);
        }
      }
    }
    b.u(1, 0).u(1, 1).u(1, pcm);
    if (pcm) b.u(4, 7).u(4, 7).ue(pcm_min_minus3).ue(2).u(1, 0);
    b.ue(uint32_t(rps.size()));
    for (const Bits& set : rps) b.add(set);
    b.u(1, 0).u(1, 1).u(1, 1).u(1, 1);
    // VUI: SAR 64:45, video signal, chroma sample locations, default display window, timing, bitstream restriction
    // of min_spatial_segmentation_idc 1000.
    b.u(1, 1).u(8, 255).u(16, 64).u(16, 45);
    b.u(1, 0).u(1, 1).u(3, 5).u(1, 0).u(1, 1).u(24, 0x010101);
    b.u(1, 1).ue(2).ue(5).u(1, 0).u(1, 0).u(1, 0).u(1, 1).ue(0).ue(8).ue(0).ue(4);
    b.u(1, 1).u(32, 1001).u(32, 60000).u(1, 1).ue(1).u(1, 0);
    b.u(1, 1).u(1, 0).u(1, 1).u(1, 0).ue(1000).ue(2).ue(1).ue(15).ue(15);
    b.u(1, 0);  // sps_extension_present_flag
    return b.hevc_nal(hevc::kSps);
  }
};

// A picture parameter set for SPS 0 with the given slice header switches, wavefront (entropy coding sync) and
// tiles.
inline std::vector<uint8_t> hand_pps(uint32_t id, bool dependent = false, bool output_flag = false, uint32_t extra_bits = 0,
                                     bool wpp = true, bool tiles = true, int32_t init_qp_minus26 = 0) {
  Bits b;
  b.ue(id).ue(0).u(1, dependent).u(1, output_flag).u(3, extra_bits).u(1, 0).u(1, 0).ue(0).ue(0).se(init_qp_minus26);
  b.u(1, 0).u(1, 0).u(1, 0).se(0).se(0).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, tiles).u(1, wpp);
  if (tiles) b.ue(1).ue(0).u(1, 1).u(1, 1);  // two tile columns, one row, uniform spacing, loop filter across tiles
  return b.hevc_nal(hevc::kPps);
}

}  // namespace boxlane::test
