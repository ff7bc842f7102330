// H.265/HEVC bitstream syntax (ISO/IEC 23008-2): the NAL unit header, the
// video, sequence and picture parameter sets, the slice segment header up to
// the picture order count, and picture order counts (§8.3.1). Enough to
// describe a stream in an hvcC record, to group NAL units into pictures and
// to put pictures in display order; nothing here decodes coding tree units.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/rbsp_reader.hpp"

namespace boxlane::hevc {

// Table 7-1.
enum NalType : uint8_t {
  kTrailN = 0,
  kTrailR = 1,
  kRadlN = 6,
  kRaslR = 9,
  kBlaWLp = 16,
  kBlaNLp = 18,
  kIdrWRadl = 19,
  kIdrNLp = 20,
  kCra = 21,
  kIrapLast = 23,  // RSV_IRAP_VCL23
  kVps = 32,
  kSps = 33,
  kPps = 34,
  kAud = 35,
  kEos = 36,
  kEob = 37,
  kFiller = 38,
  kPrefixSei = 39,
  kSuffixSei = 40,
};

constexpr bool is_vcl(uint8_t type) noexcept { return type < 32; }
constexpr bool is_irap(uint8_t type) noexcept { return type >= kBlaWLp && type <= kIrapLast; }
constexpr bool is_idr(uint8_t type) noexcept { return type == kIdrWRadl || type == kIdrNLp; }
constexpr bool is_bla(uint8_t type) noexcept { return type >= kBlaWLp && type <= kBlaNLp; }
constexpr bool is_rasl(uint8_t type) noexcept { return type == 8 || type == kRaslR; }
constexpr bool is_radl(uint8_t type) noexcept { return type == kRadlN || type == 7; }
// §7.4.2.2: TRAIL_N, TSA_N, STSA_N, RADL_N, RASL_N and the reserved even
// types below 16 are sub-layer non-reference pictures.
constexpr bool is_sub_layer_non_reference(uint8_t type) noexcept { return type <= 14 && type % 2 == 0; }

// §7.3.1.2.
struct NalHeader {
  uint8_t type = 0;
  uint8_t layer_id = 0;
  uint8_t temporal_id = 0;  // nuh_temporal_id_plus1 - 1
};
// False for fewer than two bytes, forbidden_zero_bit set, or
// nuh_temporal_id_plus1 of 0.
bool parse_nal_header(const uint8_t* nal, std::size_t size, NalHeader& out) noexcept;

// The general part of profile_tier_level (§7.3.3); the sub-layer parts are
// read over.
struct ProfileTierLevel {
  uint8_t profile_space = 0;
  bool tier = false;
  uint8_t profile_idc = 0;
  uint32_t compatibility_flags = 0;  // general_profile_compatibility_flag[0] is the top bit
  // The 48 bits from general_progressive_source_flag to general_inbld_flag,
  // in the low 48 bits, as ISO/IEC 14496-15 §8.3.3 stores them.
  uint64_t constraint_flags = 0;
  uint8_t level_idc = 0;
};

struct Vps {
  uint32_t id = 0;
  uint32_t max_sub_layers = 1;
  bool temporal_id_nesting = false;
  ProfileTierLevel ptl;
};

struct Sps {
  uint32_t vps_id = 0;
  uint32_t max_sub_layers = 1;
  bool temporal_id_nesting = false;
  ProfileTierLevel ptl;
  uint32_t id = 0;
  uint32_t chroma_format_idc = 1;
  bool separate_colour_plane = false;
  uint32_t coded_width = 0;  // pic_width_in_luma_samples
  uint32_t coded_height = 0;
  // The conformance window in luma samples (§7.4.3.2.1 SubWidthC, SubHeightC).
  uint32_t crop_left = 0, crop_right = 0, crop_top = 0, crop_bottom = 0;
  uint32_t width = 0;  // after the conformance window
  uint32_t height = 0;
  uint32_t bit_depth_luma = 8;
  uint32_t bit_depth_chroma = 8;
  uint32_t log2_max_poc_lsb = 4;
  // For the highest sub-layer.
  uint32_t max_dec_pic_buffering = 1;
  uint32_t max_num_reorder_pics = 0;
  uint32_t log2_min_cb_size = 3;
  uint32_t log2_ctb_size = 4;
  uint32_t num_short_term_ref_pic_sets = 0;
  bool long_term_ref_pics_present = false;

  bool vui_present = false;
  uint16_t sar_width = 0, sar_height = 0;  // 0: not given
  bool timing_info_present = false;
  uint32_t num_units_in_tick = 0;
  uint32_t time_scale = 0;
  bool bitstream_restriction = false;
  uint32_t min_spatial_segmentation_idc = 0;

  // PicSizeInCtbsY (§7.4.3.2.1).
  uint32_t ctbs_in_picture() const noexcept;
};

struct Pps {
  uint32_t id = 0;
  uint32_t sps_id = 0;
  bool dependent_slice_segments_enabled = false;
  bool output_flag_present = false;
  uint32_t num_extra_slice_header_bits = 0;
  bool tiles_enabled = false;
  bool entropy_coding_sync_enabled = false;
};

// Parameter sets by id, as a decoder keeps them.
struct ParameterSets {
  std::array<Sps, 16> sps{};
  std::array<bool, 16> has_sps{};
  std::array<Pps, 64> pps{};
  std::array<bool, 64> has_pps{};
};

// The slice segment header (§7.3.6.1) up to slice_pic_order_cnt_lsb.
struct SliceHeader {
  NalHeader nal;
  bool first_slice_segment_in_pic = false;
  bool no_output_of_prior_pics = false;
  uint32_t pps_id = 0;
  bool dependent_slice_segment = false;
  uint32_t segment_address = 0;
  uint32_t slice_type = 0;  // 0 B, 1 P, 2 I; a dependent segment does not carry it (0)
  bool pic_output = true;
  uint32_t poc_lsb = 0;  // 0 for an IDR picture, which does not carry it
};

// Each takes a whole NAL unit, its two header bytes included, and fails on a
// NAL unit of the wrong type, a value outside its legal range, or one cut
// short.
bool parse_vps(const uint8_t* nal, std::size_t size, Vps& out) noexcept;
bool parse_sps(const uint8_t* nal, std::size_t size, Sps& out) noexcept;
bool parse_pps(const uint8_t* nal, std::size_t size, Pps& out) noexcept;
// Fails also when the slice names a picture parameter set, or that one a
// sequence parameter set, that `sets` does not hold.
bool parse_slice_header(const uint8_t* nal, std::size_t size, const ParameterSets& sets, SliceHeader& out) noexcept;

// Picture order counts (§8.3.1) for pictures given in decoding order: feed
// the first slice segment header of every picture.
class PocCounter {
 public:
  // `restart` tells that the picture is an IRAP picture with NoRaslOutputFlag
  // equal to 1 (an IDR or BLA picture, or a CRA picture that starts the
  // stream or follows an end of sequence): its most significant part is 0.
  int64_t next(const SliceHeader& slice, const Sps& sps, bool restart) noexcept;

 private:
  int64_t prev_msb_ = 0;
  int64_t prev_lsb_ = 0;
};

}  // namespace boxlane::hevc
