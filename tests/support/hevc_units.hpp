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
  uint32_t vps_id = 0;
  uint32_t sub_layers_minus1 = 0;
  bool sub_layer_profile = false;  // sub_layer_profile_present_flag of every sub-layer
  uint32_t id = 0;
  uint32_t chroma = 1;
  bool separate = false;  // separate_colour_plane_flag (4:4:4)
  uint32_t width = 1280, height = 720;
  std::vector<uint32_t> window;  // left, right, top bottom in chroma units
  uint32_t luma_minus8 = 0, chroma_minus8 = 0;
  uint32_t lsb_minus4 = 4;
  uint32_t buffering_minus1 = 4, reorder = 0;
  uint32_t min_cb_minus3 = 0, cb_diff = 3, tb_minus2 = 0, tb_diff = 3;
  uint32_t depth_inter = 1, depth_intra = 1;  // max_transform_hierarchy_depth_inter and _intra
  bool scaling_list = false;
  bool default_lists = false;  // scaling_list_enabled_flag with no sps_scaling_list_data_present_flag
  uint32_t pred_delta_32 = 1;  // scaling_list_pred_matrix_id_delta of the second 32x32 list
  bool pcm = false;
  uint32_t pcm_luma_minus1 = 7, pcm_chroma_minus1 = 7;
  uint32_t pcm_min_minus3 = 0, pcm_diff = 2;  // log2_min_pcm_luma_coding_block_size_minus3 and the difference
  std::vector<Bits> rps;
  uint32_t long_term = 0;
  uint32_t min_spatial = 1000;
  bool hrd = false;
  uint32_t cpbs = 2;        // per sub-layer, with HRD
  int32_t dc_minus8 = 8;    // scaling_list_dc_coef_minus8 of every list that has one
  int32_t first_delta = 3;  // scaling_list_delta_coef of the first coefficient of every list sent
  int elemental = -1;       // with HRD, a fixed picture rate of that elemental_duration_in_tc_minus1
  bool low_delay = false;   // with HRD and no fixed rate, low_delay_hrd_flag: one CPB, its count not sent
  bool general = false;     // with a fixed rate, fixed_pic_rate_general_flag 1: no within_cvs flag sent
  bool nal_hrd = true;      // with HRD, NAL parameters beside the VCL ones
  bool sar = true;          // aspect_ratio_info_present_flag
  bool overscan = false;    // overscan_info_present_flag

  std::vector<uint8_t> nal() const {
    Bits b;
    b.u(4, vps_id).u(3, sub_layers_minus1).u(1, 1);
    // profile_tier_level: space 1, high tier, Main 10 compatible with Main 10 only.
    b.u(2, 1).u(1, 1).u(5, 2).u(32, 0x20000000).u(16, 0x8000).u(32, 1).u(8, 153);
    for (uint32_t i = 0; i < sub_layers_minus1; ++i) b.u(1, sub_layer_profile).u(1, 1);
    if (sub_layers_minus1) b.u(2 * (8 - sub_layers_minus1), 0);
    for (uint32_t i = 0; i < sub_layers_minus1; ++i) {
      if (sub_layer_profile) b.u(8, 0xFF).u(32, 0xFFFFFFFF).u(32, 0xFFFFFFFF).u(16, 0xFFFF);
      b.u(8, 0xAA);
    }
    b.ue(id).ue(chroma);
    if (chroma == 3) b.u(1, separate);
    b.ue(width).ue(height).u(1, !window.empty());
    for (uint32_t w : window) b.ue(w);
    b.ue(luma_minus8).ue(chroma_minus8).ue(lsb_minus4);
    b.u(1, 1);
    for (uint32_t i = 0; i <= sub_layers_minus1; ++i) b.ue(buffering_minus1).ue(reorder).ue(0);
    b.ue(min_cb_minus3).ue(cb_diff).ue(tb_minus2).ue(tb_diff).ue(depth_inter).ue(depth_intra);
    b.u(1, scaling_list || default_lists);
    if (default_lists) b.u(1, 0);
    if (scaling_list) {
      b.u(1, 1);
      for (int size_id = 0; size_id < 4; ++size_id) {
        for (int m = 0; m < 6; m += size_id == 3 ? 3 : 1) {
          if (m % 2) {  // predicted from the list before
            b.u(1, 0).ue(size_id == 3 ? pred_delta_32 : 1);
            continue;
          }
          b.u(1, 1);
          if (size_id > 1) b.se(dc_minus8);
          b.se(first_delta);
          for (int i = 1; i < std::min(64, 1 << (4 + 2 * size_id)); ++i) b.se(i % 2 ? -3 : 3);
        }
      }
    }
    b.u(1, 0).u(1, 1).u(1, pcm);
    if (pcm) b.u(4, pcm_luma_minus1).u(4, pcm_chroma_minus1).ue(pcm_min_minus3).ue(pcm_diff).u(1, 0);
    b.ue(uint32_t(rps.size()));
    for (const Bits& set : rps) b.add(set);
    b.u(1, long_term != 0);
    if (long_term) {
      b.ue(long_term);
      for (uint32_t i = 0; i < long_term; ++i) b.u(lsb_minus4 + 4, i).u(1, 1);
    }
    b.u(1, 1).u(1, 1).u(1, 1);
    // VUI: SAR 255 (given), overscan when asked, video signal, chroma sample locations, default display window,
    // timing, HRD when asked, bitstream restriction.
    b.u(1, sar);
    if (sar) b.u(8, 255).u(16, 64).u(16, 45);
    b.u(1, overscan).u(overscan ? 1 : 0, 1).u(1, 1).u(3, 5).u(1, 0).u(1, 1).u(24, 0x010101);
    b.u(1, 1).ue(2).ue(5).u(1, 0).u(1, 0).u(1, 0).u(1, 1).ue(0).ue(8).ue(0).ue(4);
    b.u(1, 1).u(32, 1001).u(32, 60000).u(1, 1).ue(1).u(1, hrd);
    if (hrd) {
      b.u(1, nal_hrd).u(1, 1).u(1, 1).u(8, 90).u(5, 23).u(1, 1).u(5, 23).u(4, 4).u(4, 6).u(4, 2);
      b.u(5, 23).u(5, 23).u(5, 23);
      for (uint32_t i = 0; i <= sub_layers_minus1; ++i) {
        // fixed_pic_rate_general_flag, fixed_pic_rate_within_cvs_flag when that is 0, then its elemental duration
        // or low_delay_hrd_flag
        const bool low = elemental < 0 && low_delay;
        b.u(1, general).u(general ? 0 : 1, elemental >= 0);
        elemental >= 0 ? b.ue(uint32_t(elemental)) : b.u(1, low);
        if (!low) b.ue(cpbs - 1);
        for (uint32_t k = 0; k < (nal_hrd ? 2 : 1) * (low ? 1 : cpbs); ++k)
          b.ue(1000).ue(2000).ue(300).ue(400).u(1, 1);  // NAL, VCL
      }
    }
    b.u(1, 1).u(1, 0).u(1, 1).u(1, 0).ue(min_spatial).ue(2).ue(1).ue(15).ue(15);
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
