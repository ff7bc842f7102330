// H.264 bitstream syntax (ISO/IEC 14496-10): the exp-Golomb bit reader over
// a NAL unit's RBSP, the sequence and picture parameter sets, the slice
// header, and picture order counts (§8.2.1). Enough to group NAL units into
// pictures and to put pictures in display order; nothing here decodes
// macroblocks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/rbsp_reader.hpp"

namespace boxlane::h264 {

enum NalType : uint8_t {
  kNalSlice = 1,
  kNalPartitionA = 2,
  kNalPartitionB = 3,
  kNalPartitionC = 4,
  kNalIdrSlice = 5,
  kNalSei = 6,
  kNalSps = 7,
  kNalPps = 8,
  kNalAud = 9,
  kNalEndOfSequence = 10,
  kNalEndOfStream = 11,
  kNalFiller = 12,
};

// The RBSP bit reader (§7.4.1 emulation prevention removed, §9.1 codes).
using BitReader = RbspReader;

struct Sps {
  uint8_t profile_idc = 0;
  uint8_t constraint_flags = 0;  // constraint_set0_flag .. reserved bits, as stored
  uint8_t level_idc = 0;
  uint32_t id = 0;
  uint32_t chroma_format_idc = 1;
  bool separate_colour_plane = false;
  uint32_t log2_max_frame_num = 4;
  uint32_t poc_type = 0;
  uint32_t log2_max_poc_lsb = 4;
  bool delta_pic_order_always_zero = false;
  int32_t offset_for_non_ref_pic = 0;
  int32_t offset_for_top_to_bottom_field = 0;
  uint32_t num_ref_frames_in_poc_cycle = 0;
  std::array<int32_t, 255> offset_for_ref_frame{};
  uint32_t max_num_ref_frames = 0;
  bool frame_mbs_only = true;
  uint32_t width_in_mbs = 0;
  uint32_t height_in_map_units = 0;
  // frame_cropping, already in luma samples (§7.4.2.1.1 CropUnitX/Y).
  uint32_t crop_left = 0, crop_right = 0, crop_top = 0, crop_bottom = 0;
  uint32_t width = 0;   // after cropping
  uint32_t height = 0;  // after cropping

  bool vui_present = false;
  uint16_t sar_width = 0, sar_height = 0;  // 0: not given
  bool timing_info_present = false;
  uint32_t num_units_in_tick = 0;
  uint32_t time_scale = 0;
  bool fixed_frame_rate = false;
  bool bitstream_restriction = false;
  uint32_t max_num_reorder_frames = 0;
  uint32_t max_dec_frame_buffering = 0;

  uint32_t chroma_array_type() const noexcept { return separate_colour_plane ? 0 : chroma_format_idc; }
};

struct Pps {
  uint32_t id = 0;
  uint32_t sps_id = 0;
  bool entropy_coding_mode = false;
  bool bottom_field_pic_order_in_frame_present = false;
  uint32_t num_slice_groups = 1;
  uint32_t num_ref_idx_l0_default_active = 1;
  uint32_t num_ref_idx_l1_default_active = 1;
  bool weighted_pred = false;
  uint32_t weighted_bipred_idc = 0;
  bool redundant_pic_cnt_present = false;
};

// Parameter sets by id, as a decoder keeps them.
struct ParameterSets {
  std::array<Sps, 32> sps{};
  std::array<bool, 32> has_sps{};
  std::array<Pps, 256> pps{};
  std::array<bool, 256> has_pps{};
};

struct SliceHeader {
  uint8_t nal_type = 0;
  uint8_t nal_ref_idc = 0;
  uint32_t first_mb = 0;
  uint32_t slice_type = 0;  // modulo 5: 0 P, 1 B, 2 I, 3 SP, 4 SI
  uint32_t pps_id = 0;
  uint32_t frame_num = 0;
  bool field_pic = false;
  bool bottom_field = false;
  uint32_t idr_pic_id = 0;
  uint32_t poc_lsb = 0;
  int32_t delta_poc_bottom = 0;
  std::array<int32_t, 2> delta_poc{};
  uint32_t redundant_pic_cnt = 0;
  // From dec_ref_pic_marking: memory_management_control_operation 5 seen,
  // which resets frame numbering and picture order like an IDR (§8.2.1).
  bool mmco5 = false;

  bool idr() const noexcept { return nal_type == kNalIdrSlice; }
};

// Each takes a whole NAL unit, header byte included, and fails on a NAL unit
// of the wrong type, a value outside its legal range, or one cut short.
bool parse_sps(const uint8_t* nal, std::size_t size, Sps& out) noexcept;
bool parse_pps(const uint8_t* nal, std::size_t size, Pps& out) noexcept;
// The slice header is read to the end of dec_ref_pic_marking. Fails also
// when the slice names a picture parameter set, or that one a sequence
// parameter set, that `sets` does not hold.
bool parse_slice_header(const uint8_t* nal, std::size_t size, const ParameterSets& sets, SliceHeader& out) noexcept;

// Whether an SEI NAL unit holds a recovery point message (§D.1.8, payload
// type 6): decoding may start at the access unit it belongs to, and shows
// pictures exactly after recovery_frame_cnt more frames.
bool find_recovery_point(const uint8_t* nal, std::size_t size, uint32_t& recovery_frame_cnt) noexcept;

// Picture order counts for pictures given in decoding order (§8.2.1, types
// 0, 1 and 2). Feed the first slice header of every primary picture.
class PocCounter {
 public:
  // PicOrderCnt of the picture: the smaller of its two field counts for a
  // frame, the field's own count for a field. After an IDR or a picture with
  // memory_management_control_operation 5, counting starts again.
  int64_t next(const SliceHeader& slice, const Sps& sps) noexcept;

 private:
  int64_t prev_msb_ = 0;
  int64_t prev_lsb_ = 0;
  int64_t prev_frame_num_offset_ = 0;
  uint32_t prev_frame_num_ = 0;
};

}  // namespace boxlane::h264
