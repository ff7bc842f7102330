// The H.265 syntax parser on random but valid units, built field by field from the syntax tables of
// ISO/IEC 23008-2 (§7.3.1.2, §7.3.2, §7.3.3, §7.3.4, §7.3.6.1, §7.3.7, §E.2) with every optional branch taken at
// random and every value drawn from its whole range, its ends more often: the parser must report what was chosen,
// refuse each unit cut before its last read bit, and refuse it with one field one past its limit. Picture order
// counts come from sequences written forwards from the counts chosen for them (§8.3.1).
//
// With BOXLANE_H265_GEN_DUMP=path set, the units of the first test are also written there as an Annex B stream,
// and what was chosen for each to path.txt, to hold them against another reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/hevc.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::hevc;
using boxlane::test::Bits;
using boxlane::test::kSampleAspectRatios;
using Nal = std::vector<uint8_t>;

// The fields whose legal range the parser enforces; a unit may be built with one of them one past its range.
enum Limit {
  kNone, kSubLayers, kVpsSubLayers, kBuffering, kReorder, kSpsId, kChroma, kWidth, kHeight, kCropX, kCropY, kLumaDepth, kChromaDepth,
  kPocLsb, kMinCb, kCtb, kMinTb, kMaxTb, kDepthInter, kDepthIntra, kPredMatrix, kDc, kCoef, kPcmLuma, kPcmChroma,
  kPcmMin, kPcmMax, kRpsCount, kNegative, kPositive, kDeltaS0, kDeltaS1, kDeltaRps, kLongTerm, kElemental, kCpbCnt,
  kSpatial, kPpsId, kPpsSps, kRefsL0, kRefsL1, kInitQp, kQpDepth, kCbOffset, kCrOffset, kSlicePps, kSliceType,
  kAddress, kLimits
};
enum Kind { kVpsUnit, kSpsUnit, kPpsUnit, kSliceUnit };

// A unit and the number of RBSP bits up to the last one the parser reads.
struct Unit {
  Nal nal;
  std::size_t read_bits = 0;
};

// What a generated stream of one VPS, SPS, PPS and slice segment should read as.
struct Case {
  Unit vps, sps, pps, slice;
  Vps want_vps;
  Sps want_sps;
  Pps want_pps;
  SliceHeader want_slice;
};

std::string describe(const ProfileTierLevel& p) {
  std::ostringstream o;
  o << "space " << +p.profile_space << " tier " << p.tier << " profile " << +p.profile_idc << " compat " << std::hex
    << p.compatibility_flags << " constraints " << p.constraint_flags << std::dec << " level " << +p.level_idc;
  return o.str();
}
std::string describe(const Vps& v) {
  return "vps " + std::to_string(v.id) + " sub " + std::to_string(v.max_sub_layers) + " nest " +
         std::to_string(v.temporal_id_nesting) + " " + describe(v.ptl);
}
std::string describe(const Sps& s) {
  std::ostringstream o;
  o << "sps " << s.id << " vps " << s.vps_id << " sub " << s.max_sub_layers << " nest " << s.temporal_id_nesting
    << " " << describe(s.ptl) << " chroma " << s.chroma_format_idc << " separate " << s.separate_colour_plane << " "
    << s.coded_width << "x" << s.coded_height << " crop " << s.crop_left << " " << s.crop_right << " " << s.crop_top
    << " " << s.crop_bottom << " = " << s.width << "x" << s.height << " depth " << s.bit_depth_luma << " "
    << s.bit_depth_chroma << " lsb " << s.log2_max_poc_lsb << " dpb " << s.max_dec_pic_buffering << " reorder "
    << s.max_num_reorder_pics << " cb " << s.log2_min_cb_size << " ctb " << s.log2_ctb_size << " rps "
    << s.num_short_term_ref_pic_sets << " lt " << s.long_term_ref_pics_present << " vui " << s.vui_present << " sar "
    << s.sar_width << ":" << s.sar_height << " timing " << s.timing_info_present << " " << s.num_units_in_tick << "/"
    << s.time_scale << " restriction " << s.bitstream_restriction << " " << s.min_spatial_segmentation_idc;
  return o.str();
}
std::string describe(const Pps& p) {
  std::ostringstream o;
  o << "pps " << p.id << " sps " << p.sps_id << " dependent " << p.dependent_slice_segments_enabled << " output "
    << p.output_flag_present << " extra " << p.num_extra_slice_header_bits << " tiles " << p.tiles_enabled
    << " sync " << p.entropy_coding_sync_enabled;
  return o.str();
}
std::string describe(const SliceHeader& s) {
  std::ostringstream o;
  o << "slice type " << +s.nal.type << " tid " << +s.nal.temporal_id << " first " << s.first_slice_segment_in_pic
    << " no_output " << s.no_output_of_prior_pics << " pps " << s.pps_id << " dependent "
    << s.dependent_slice_segment << " address " << s.segment_address << " slice_type " << s.slice_type << " output "
    << s.pic_output << " lsb " << s.poc_lsb;
  return o.str();
}

// Table 7-1.
constexpr bool irap(uint8_t type) { return type >= 16 && type <= 23; }
constexpr bool idr(uint8_t type) { return type == 19 || type == 20; }

// A short-term reference picture set as its delta picture order counts, nearest first on each side.
struct Rps {
  std::vector<int32_t> s0, s1;
  std::size_t size() const { return s0.size() + s1.size(); }
};

class Generator {
 public:
  explicit Generator(uint32_t seed) : rng_(seed) {}

  // Builds the next unit with `limit` one past its range (on its low side if `low`), if the unit has that field.
  Limit past = kNone;
  bool low = false;
  int hit = -1;  // the kind of unit `past` went into, -1 while none

  bool coin() { return rng_() & 1; }
  bool flag(Bits& b) { return b.u(1, coin()).bits.back(); }  // a flag drawn and written
  // A value of lo..hi, either end or a value next to the low end more often than the rest.
  int64_t draw(int64_t lo, int64_t hi) {
    if (hi <= lo) return lo;
    switch (rng_() % 8) {
      case 0: return lo;
      case 1: return hi;
      case 2: return lo + int64_t(rng_() % std::min<uint64_t>(uint64_t(hi - lo) + 1, 4));
      default: return std::uniform_int_distribution<int64_t>(lo, hi)(rng_);
    }
  }
  // A value of a limited field: one past its range when that is what this unit is built to hold.
  int64_t pick(Limit limit, int64_t lo, int64_t hi, bool low_too = false) {
    if (limit != kNone && limit == past && hit < 0 && (!low || low_too)) {
      hit = kind_;
      return low ? lo - 1 : hi + 1;
    }
    return draw(lo, hi);
  }

  // §7.3.3 with profilePresentFlag 1: general values valid for the profile drawn (the constraint flags of
  // §7.3.3 that a profile does not define stay 0).
  void profile(Bits& b, ProfileTierLevel* out) {
    const bool tier = coin();
    const uint32_t idc = uint32_t(draw(0, 31)), compat = uint32_t(rng_());
    const auto has = [&](uint32_t j) { return idc == j || (compat >> (31 - j) & 1); };
    uint64_t flags = uint64_t(draw(0, 15)) << 44;  // progressive, interlaced, non-packed, frame only
    bool rext = false;
    for (uint32_t j = 4; j <= 11; ++j) rext = rext || has(j);
    if (rext) {
      flags |= uint64_t(draw(0, 511)) << 35;  // general_max_12bit_constraint_flag .. general_lower_bit_rate_...
    } else if (has(2)) {
      flags |= uint64_t(coin()) << 36;  // general_one_picture_only_constraint_flag
    }
    if (has(1) || has(2) || has(3) || has(4) || has(5) || has(9) || has(11)) flags |= coin();  // general_inbld_flag
    b.u(2, 0).u(1, tier).u(5, idc).u(32, compat).u(48, flags);
    if (out) out->profile_space = 0, out->tier = tier, out->profile_idc = uint8_t(idc);
    if (out) out->compatibility_flags = compat, out->constraint_flags = flags;
  }
  void profile_tier_level(Bits& b, uint32_t sub_minus1, ProfileTierLevel& out) {
    profile(b, &out);
    out.level_idc = uint8_t(draw(0, 255));
    b.u(8, out.level_idc);
    bool profiles[8] = {}, levels[8] = {};
    for (uint32_t i = 0; i < sub_minus1; ++i) b.u(1, profiles[i] = coin()).u(1, levels[i] = coin());
    if (sub_minus1 > 0) b.u(2 * (8 - sub_minus1), 0);
    for (uint32_t i = 0; i < sub_minus1; ++i) {
      if (profiles[i]) profile(b, nullptr);
      if (levels[i]) b.u(8, uint64_t(draw(0, 255)));
    }
  }
  // The sub-layer ordering loop, each value at least the one of the sub-layer below; gives the highest's.
  void ordering(Bits& b, uint32_t sub_minus1, uint32_t& buffering_minus1, uint32_t& reorder) {
    const bool all = flag(b);
    buffering_minus1 = reorder = 0;
    for (uint32_t i = all ? 0 : sub_minus1; i <= sub_minus1; ++i) {
      buffering_minus1 = uint32_t(pick(kBuffering, buffering_minus1, 15));
      reorder = uint32_t(pick(kReorder, reorder, std::min<uint32_t>(buffering_minus1, 15)));
      b.ue(buffering_minus1).ue(reorder).ue(uint32_t(draw(0, 0xFFFFFFFE)));
    }
  }

  // The VPS of `sps`: as many sub-layers, and temporal id nesting only where the SPS has it (§7.4.3.2.1).
  Unit vps(const Sps& sps, Vps& want) {
    kind_ = kVpsUnit;
    Bits b;
    const uint32_t sub_minus1 = uint32_t(past == kVpsSubLayers ? pick(kVpsSubLayers, 0, 6) : sps.max_sub_layers - 1);
    want.id = sps.vps_id, want.max_sub_layers = sub_minus1 + 1;
    want.temporal_id_nesting = sub_minus1 == 0 || (sps.temporal_id_nesting && coin());
    b.u(4, want.id).u(1, 1).u(1, 1).u(6, 0).u(3, sub_minus1).u(1, want.temporal_id_nesting).u(16, 0xFFFF);
    profile_tier_level(b, sub_minus1, want.ptl);
    uint32_t buffering = 0, reorder = 0;
    ordering(b, sub_minus1, buffering, reorder);
    Unit unit{{}, b.bits.size()};
    b.u(6, 0).ue(0);  // vps_max_layer_id, vps_num_layer_sets_minus1
    if (flag(b)) b.u(32, uint64_t(draw(1, 0xFFFFFFFF))).u(32, uint64_t(draw(1, 0xFFFFFFFF))).u(1, 0).ue(0);
    b.u(1, 0);  // vps_extension_flag
    unit.nal = b.hevc_nal(kVps);
    return unit;
  }

  // §7.3.4, each coefficient kept above 0 (§7.4.5).
  void scaling_list_data(Bits& b) {
    // The parser reads the lists of an SPS only.
    const auto limit = [&](Limit l) { return kind_ == kSpsUnit ? l : kNone; };
    for (uint32_t size_id = 0; size_id < 4; ++size_id) {
      for (uint32_t matrix = 0; matrix < 6; matrix += size_id == 3 ? 3 : 1) {
        if (!flag(b)) {  // scaling_list_pred_mode_flag
          b.ue(uint32_t(pick(limit(kPredMatrix), 0, size_id == 3 ? matrix / 3 : matrix)));
          continue;
        }
        int64_t next = 8;
        if (size_id > 1) {
          const int64_t dc = pick(limit(kDc), -7, 247, true);
          b.se(int32_t(dc));
          next = dc + 8;
        }
        for (int i = 0; i < std::min(64, 1 << (4 + 2 * size_id)); ++i) {
          int64_t delta;
          do delta = pick(limit(kCoef), -128, 127, true);
          while (delta >= -128 && delta <= 127 && (next + delta + 256) % 256 == 0);
          b.se(int32_t(delta));
          next = (next + delta + 256) % 256;
        }
      }
    }
  }

  // §7.3.7 for set `idx` of an SPS; the set predicted from the one before holds the pictures of that one and the
  // reference picture itself, moved by delta_rps and kept by their flags, never more than `room`.
  Rps short_term_rps(Bits& b, const std::vector<Rps>& sets, uint32_t room) {
    Rps out;
    const bool predicted = !sets.empty() && coin();
    if (!sets.empty()) b.u(1, predicted);
    if (!predicted) {
      const uint32_t negative = uint32_t(pick(kNegative, 0, room));
      const uint32_t positive = uint32_t(pick(kPositive, 0, room - std::min(room, negative)));
      b.ue(negative).ue(positive);
      int32_t poc = 0;
      for (uint32_t i = 0; i < negative; ++i) {
        const int64_t step = pick(kDeltaS0, 0, 32767) + 1;
        b.ue(uint32_t(step - 1)).u(1, coin());
        out.s0.push_back(poc -= int32_t(step));
      }
      poc = 0;
      for (uint32_t i = 0; i < positive; ++i) {
        const int64_t step = pick(kDeltaS1, 0, 32767) + 1;
        b.ue(uint32_t(step - 1)).u(1, coin());
        out.s1.push_back(poc += int32_t(step));
      }
      return out;
    }
    const Rps& ref = sets.back();
    const int64_t magnitude = pick(kDeltaRps, 0, 32767) + 1;
    const bool negative = coin();
    const int32_t delta_rps = int32_t(negative ? -magnitude : magnitude);
    // The candidates in the order of the flags: S0, S1, then the reference picture (delta 0).
    std::vector<int32_t> moved;
    for (int32_t d : ref.s0) moved.push_back(d + delta_rps);
    for (int32_t d : ref.s1) moved.push_back(d + delta_rps);
    moved.push_back(delta_rps);
    std::vector<bool> used(moved.size()), kept(moved.size());
    std::size_t count = 0;
    for (std::size_t j = 0; j < moved.size(); ++j) {
      used[j] = coin(), kept[j] = used[j] || coin();
      count += kept[j] && moved[j] != 0;
    }
    while (count > room) {  // drop pictures at random until the set fits the buffer
      const std::size_t j = rng_() % moved.size();
      if (kept[j] && moved[j] != 0) used[j] = kept[j] = false, --count;
    }
    b.u(1, negative).ue(uint32_t(magnitude - 1));
    for (std::size_t j = 0; j < moved.size(); ++j) {
      b.u(1, used[j]);
      if (!used[j]) b.u(1, kept[j]);
      if (kept[j] && moved[j] < 0) out.s0.push_back(moved[j]);
      if (kept[j] && moved[j] > 0) out.s1.push_back(moved[j]);
    }
    std::sort(out.s0.rbegin(), out.s0.rend());
    std::sort(out.s1.begin(), out.s1.end());
    return out;
  }

  // §E.2.3.
  void sub_layer_hrd(Bits& b, uint32_t cpbs, bool sub_pic) {
    for (uint32_t k = 0; k < cpbs; ++k) {
      b.ue(uint32_t(draw(0, 0xFFFFFFFE))).ue(uint32_t(draw(0, 0xFFFFFFFE)));
      if (sub_pic) b.ue(uint32_t(draw(0, 0xFFFFFFFE))).ue(uint32_t(draw(0, 0xFFFFFFFE)));
      b.u(1, coin());
    }
  }
  // §E.2.2 with commonInfPresentFlag 1.
  void hrd(Bits& b, uint32_t sub_minus1) {
    const bool nal = coin(), vcl = coin();
    bool sub_pic = false;
    b.u(1, nal).u(1, vcl);
    if (nal || vcl) {
      b.u(1, sub_pic = coin());
      if (sub_pic) b.u(8, uint64_t(draw(0, 255))).u(5, uint64_t(draw(0, 31))).u(1, coin()).u(5, uint64_t(draw(0, 31)));
      b.u(4, uint64_t(draw(0, 15))).u(4, uint64_t(draw(0, 15)));
      if (sub_pic) b.u(4, uint64_t(draw(0, 15)));
      b.u(5, uint64_t(draw(0, 31))).u(5, uint64_t(draw(0, 31))).u(5, uint64_t(draw(0, 31)));
    }
    for (uint32_t i = 0; i <= sub_minus1; ++i) {
      const bool general = coin();
      const bool within_cvs = general || coin();  // inferred 1 under fixed_pic_rate_general_flag 1 (§E.3.2)
      b.u(1, general);
      if (!general) b.u(1, within_cvs);
      bool low_delay = false;
      if (within_cvs) {
        b.ue(uint32_t(pick(kElemental, 0, 2047)));
      } else {
        b.u(1, low_delay = coin());
      }
      uint32_t cpbs = 1;
      if (!low_delay) b.ue((cpbs = uint32_t(pick(kCpbCnt, 0, 31)) + 1) - 1);
      if (nal) sub_layer_hrd(b, cpbs, sub_pic);
      if (vcl) sub_layer_hrd(b, cpbs, sub_pic);
    }
  }
  // §E.2.1.
  void vui(Bits& b, uint32_t sub_minus1, Sps& want) {
    if (flag(b)) {  // aspect_ratio_info_present_flag
      const uint32_t idc = coin() ? 255 : uint32_t(draw(0, 254));
      b.u(8, idc);
      if (idc == 255) {
        want.sar_width = uint16_t(draw(1, 65535)), want.sar_height = uint16_t(draw(1, 65535));
        b.u(16, want.sar_width).u(16, want.sar_height);
      } else if (idc <= 16) {
        want.sar_width = kSampleAspectRatios[idc][0], want.sar_height = kSampleAspectRatios[idc][1];
      }
    }
    if (coin()) b.u(1, 1).u(1, coin());  // overscan_info_present_flag, overscan_appropriate_flag
    else b.u(1, 0);
    if (flag(b)) {  // video_signal_type_present_flag
      const bool colour = coin();
      b.u(3, uint64_t(draw(0, 5))).u(1, coin()).u(1, colour);
      if (colour) b.u(8, uint64_t(draw(0, 255))).u(8, uint64_t(draw(0, 255))).u(8, uint64_t(draw(0, 255)));
    }
    if (flag(b)) b.ue(uint32_t(draw(0, 5))).ue(uint32_t(draw(0, 5)));  // chroma_loc_info_present_flag
    b.u(1, coin()).u(1, coin()).u(1, coin());  // neutral chroma, field_seq, frame_field_info_present
    if (flag(b)) b.ue(uint32_t(draw(0, 8))).ue(uint32_t(draw(0, 8))).ue(uint32_t(draw(0, 8))).ue(uint32_t(draw(0, 8)));
    if ((want.timing_info_present = flag(b))) {
      want.num_units_in_tick = uint32_t(draw(1, 0xFFFFFFFF)), want.time_scale = uint32_t(draw(1, 0xFFFFFFFF));
      b.u(32, want.num_units_in_tick).u(32, want.time_scale);
      if (flag(b)) b.ue(uint32_t(draw(0, 0xFFFFFFFE)));  // vui_poc_proportional_to_timing_flag
      if (flag(b)) hrd(b, sub_minus1);                    // vui_hrd_parameters_present_flag
    }
    // Mostly present: min_spatial_segmentation_idc is what shows a part above read wrong.
    want.bitstream_restriction = rng_() % 8 != 0;
    b.u(1, want.bitstream_restriction);
    if (want.bitstream_restriction) {
      b.u(1, coin()).u(1, coin()).u(1, coin());
      want.min_spatial_segmentation_idc = uint32_t(pick(kSpatial, 0, 4095));
      b.ue(want.min_spatial_segmentation_idc).ue(uint32_t(draw(0, 16))).ue(uint32_t(draw(0, 16)));
      b.ue(uint32_t(draw(0, 15))).ue(uint32_t(draw(0, 15)));
    }
  }

  Unit sps(Sps& want, const uint32_t* lsb_minus4 = nullptr) {
    kind_ = kSpsUnit;
    Bits b;
    want = Sps{};
    want.vps_id = uint32_t(draw(0, 15));
    const uint32_t sub_minus1 = uint32_t(pick(kSubLayers, 0, 6));
    want.max_sub_layers = sub_minus1 + 1;
    want.temporal_id_nesting = sub_minus1 == 0 || coin();
    b.u(4, want.vps_id).u(3, sub_minus1).u(1, want.temporal_id_nesting);
    profile_tier_level(b, sub_minus1, want.ptl);
    want.id = uint32_t(pick(kSpsId, 0, 15));
    want.chroma_format_idc = uint32_t(pick(kChroma, 0, 3));
    b.ue(want.id).ue(want.chroma_format_idc);
    if (want.chroma_format_idc == 3) b.u(1, want.separate_colour_plane = coin());
    // The coding block sizes come later in the unit but bound the picture size, so are drawn first.
    const uint32_t min_cb_minus3 = uint32_t(pick(kMinCb, 0, 3));
    want.log2_min_cb_size = min_cb_minus3 + 3;
    const uint32_t cb_diff = uint32_t(pick(kCtb, std::max<int64_t>(0, 4 - int64_t(want.log2_min_cb_size)),
                                           6 - int64_t(want.log2_min_cb_size), want.log2_min_cb_size < 4));
    want.log2_ctb_size = want.log2_min_cb_size + cb_diff;
    const uint32_t min_cb = 1u << std::min(want.log2_min_cb_size, 6u);
    // Mostly within the largest of the levels of Table A.8 (16888, the square root of 8 MaxLumaPs), now and then
    // up to the parser's limit.
    const uint32_t most = past == kWidth || past == kHeight || rng_() % 4 == 0 ? 32768 : 16888;
    want.coded_width = uint32_t(pick(kWidth, 1, most / min_cb, true)) * min_cb;
    want.coded_height = uint32_t(pick(kHeight, 1, most / min_cb, true)) * min_cb;
    b.ue(want.coded_width).ue(want.coded_height);
    // Table 6-1: SubWidthC, SubHeightC.
    const bool one = want.chroma_format_idc == 0 || want.chroma_format_idc == 3;
    const uint32_t sub_w = one ? 1 : 2, sub_h = one || want.chroma_format_idc == 2 ? 1 : 2;
    if (flag(b)) {  // conformance_window_flag
      const int64_t across = int64_t(want.coded_width / sub_w) - 1, down = int64_t(want.coded_height / sub_h) - 1;
      const uint32_t left = uint32_t(draw(0, std::max<int64_t>(across, 0)));
      const uint32_t right = uint32_t(pick(across >= 0 ? kCropX : kNone, 0, across - left));
      const uint32_t top = uint32_t(draw(0, std::max<int64_t>(down, 0)));
      const uint32_t bottom = uint32_t(pick(down >= 0 ? kCropY : kNone, 0, down - top));
      b.ue(left).ue(right).ue(top).ue(bottom);
      want.crop_left = left * sub_w, want.crop_right = right * sub_w;
      want.crop_top = top * sub_h, want.crop_bottom = bottom * sub_h;
    }
    want.width = want.coded_width - want.crop_left - want.crop_right;
    want.height = want.coded_height - want.crop_top - want.crop_bottom;
    const uint32_t luma_minus8 = uint32_t(pick(kLumaDepth, 0, 8)), chroma_minus8 = uint32_t(pick(kChromaDepth, 0, 8));
    want.bit_depth_luma = luma_minus8 + 8, want.bit_depth_chroma = chroma_minus8 + 8;
    const uint32_t lsb = uint32_t(lsb_minus4 ? *lsb_minus4 : pick(kPocLsb, 0, 12));
    want.log2_max_poc_lsb = lsb + 4;
    b.ue(luma_minus8).ue(chroma_minus8).ue(lsb);
    uint32_t buffering_minus1 = 0;
    ordering(b, sub_minus1, buffering_minus1, want.max_num_reorder_pics);
    want.max_dec_pic_buffering = buffering_minus1 + 1;
    b.ue(min_cb_minus3).ue(cb_diff);
    const uint32_t ctb = std::min(want.log2_ctb_size, 6u), cb = std::min(want.log2_min_cb_size, 6u);
    const uint32_t min_tb = uint32_t(pick(kMinTb, 0, int64_t(cb) - 3)) + 2;
    const uint32_t max_tb = min_tb + uint32_t(pick(min_tb < cb ? kMaxTb : kNone, 0,
                                                   std::max<int64_t>(0, int64_t(std::min(ctb, 5u)) - min_tb)));
    b.ue(min_tb - 2).ue(max_tb - min_tb);
    const int64_t depth = std::max<int64_t>(0, int64_t(ctb) - min_tb);
    b.ue(uint32_t(pick(kDepthInter, 0, depth))).ue(uint32_t(pick(kDepthIntra, 0, depth)));
    const bool scaling = coin(), scaling_data = scaling && coin();
    b.u(1, scaling);
    if (scaling) b.u(1, scaling_data);
    if (scaling_data) scaling_list_data(b);
    b.u(1, coin()).u(1, sao_ = coin());
    const uint32_t pcm_cap = std::min(ctb, 5u);
    const bool pcm = cb <= pcm_cap && coin();
    b.u(1, pcm);
    if (pcm) {
      b.u(4, uint64_t(pick(want.bit_depth_luma < 16 ? kPcmLuma : kNone, 0, want.bit_depth_luma - 1)));
      b.u(4, uint64_t(pick(want.bit_depth_chroma < 16 ? kPcmChroma : kNone, 0, want.bit_depth_chroma - 1)));
      const uint32_t pcm_min = uint32_t(pick(pcm_cap == 5 ? kPcmMin : kNone, cb - 3, pcm_cap - 3)) + 3;
      b.ue(pcm_min - 3).ue(pcm_min > pcm_cap ? 0 : uint32_t(pick(kPcmMax, 0, pcm_cap - pcm_min))).u(1, coin());
    }
    // Mostly a few sets, now and then up to the most an SPS may have.
    want.num_short_term_ref_pic_sets = uint32_t(past == kRpsCount ? pick(kRpsCount, 0, 64) : draw(0, rng_() % 4 ? 6 : 64));
    b.ue(want.num_short_term_ref_pic_sets);
    std::vector<Rps> sets;
    for (uint32_t i = 0; i < want.num_short_term_ref_pic_sets; ++i)
      sets.push_back(short_term_rps(b, sets, std::min(buffering_minus1, 15u)));
    sets_ = uint32_t(sets.size());
    long_term_sps_ = 0;
    if ((want.long_term_ref_pics_present = flag(b))) {
      b.ue(long_term_sps_ = uint32_t(pick(kLongTerm, 0, 32)));
      for (uint32_t i = 0; i < long_term_sps_; ++i) b.u(want.log2_max_poc_lsb, uint64_t(draw(0, (1 << want.log2_max_poc_lsb) - 1))).u(1, coin());
    }
    b.u(1, tmvp_ = coin()).u(1, coin());
    // Mostly with a VUI: its last fields show whether all before them was read right.
    want.vui_present = rng_() % 8 != 0;
    b.u(1, want.vui_present);
    if (want.vui_present) vui(b, sub_minus1, want);
    Unit unit{{}, b.bits.size()};
    if (flag(b)) {  // sps_extension_present_flag
      b.u(1, 1).u(1, 0).u(1, 0).u(1, 0).u(4, 0);  // sps_range_extension_flag alone
      for (int i = 0; i < 9; ++i) b.u(1, coin());
    }
    unit.nal = b.hevc_nal(kSps);
    return unit;
  }

  Unit pps(const Sps& sps, Pps& want) {
    kind_ = kPpsUnit;
    Bits b;
    want = Pps{};
    want.id = uint32_t(pick(kPpsId, 0, 63));
    want.sps_id = uint32_t(past == kPpsSps ? pick(kPpsSps, 0, 15) : sps.id);
    want.dependent_slice_segments_enabled = coin(), want.output_flag_present = coin();
    want.num_extra_slice_header_bits = uint32_t(draw(0, 7));
    b.ue(want.id).ue(want.sps_id).u(1, want.dependent_slice_segments_enabled).u(1, want.output_flag_present);
    b.u(3, want.num_extra_slice_header_bits).u(1, coin()).u(1, coin());
    b.ue(uint32_t(pick(kRefsL0, 0, 14))).ue(uint32_t(pick(kRefsL1, 0, 14)));
    const int64_t offset = 6 * (int64_t(sps.bit_depth_luma) - 8);  // QpBdOffsetY
    b.se(int32_t(pick(kInitQp, -(26 + offset), 25, offset == 48)));
    const bool transform_skip = coin(), cu_qp = coin();
    b.u(1, coin()).u(1, transform_skip).u(1, cu_qp);
    const uint32_t cb_diff = sps.log2_ctb_size - sps.log2_min_cb_size;
    if (cu_qp) b.ue(uint32_t(pick(cb_diff == 3 ? kQpDepth : kNone, 0, cb_diff)));
    b.se(int32_t(pick(kCbOffset, -12, 12, true))).se(int32_t(pick(kCrOffset, -12, 12, true)));
    slice_qp_offsets_ = coin();
    b.u(1, slice_qp_offsets_).u(1, coin()).u(1, coin()).u(1, coin());
    const uint32_t ctb = 1u << std::min(sps.log2_ctb_size, 6u);
    const uint32_t columns = (sps.coded_width + ctb - 1) / ctb, rows = (sps.coded_height + ctb - 1) / ctb;
    want.tiles_enabled = columns * rows > 1 && coin(), want.entropy_coding_sync_enabled = coin();
    b.u(1, want.tiles_enabled).u(1, want.entropy_coding_sync_enabled);
    Unit unit{{}, b.bits.size()};
    if (want.tiles_enabled) {
      uint32_t across = 1, down = 1;
      while (across * down == 1 && columns * rows > 1) {
        across = uint32_t(draw(1, std::min(columns, 20u))), down = uint32_t(draw(1, std::min(rows, 22u)));
      }
      const bool uniform = coin();
      b.ue(across - 1).ue(down - 1).u(1, uniform);
      if (!uniform) {
        for (uint32_t i = 0; i + 1 < across; ++i) b.ue(0);  // one CTB each, the rest to the last column
        for (uint32_t i = 0; i + 1 < down; ++i) b.ue(0);
      }
      b.u(1, coin());  // loop_filter_across_tiles_enabled_flag
    }
    b.u(1, loop_across_slices_ = coin());
    override_ = deblocking_off_ = false;
    if (flag(b)) {  // deblocking_filter_control_present_flag
      b.u(1, override_ = coin()).u(1, deblocking_off_ = coin());
      if (!deblocking_off_) b.se(int32_t(draw(-6, 6))).se(int32_t(draw(-6, 6)));
    }
    if (flag(b)) scaling_list_data(b);  // pps_scaling_list_data_present_flag
    b.u(1, coin()).ue(uint32_t(draw(0, sps.log2_ctb_size - 2)));
    b.u(1, header_extension_ = coin());
    chroma_qp_list_ = false;
    if (flag(b)) {  // pps_extension_present_flag
      b.u(1, 1).u(1, 0).u(1, 0).u(1, 0).u(4, 0);  // pps_range_extension_flag alone
      if (transform_skip) b.ue(0);  // log2_max_transform_skip_block_size_minus2
      b.u(1, sps.chroma_format_idc == 3 && coin()).u(1, chroma_qp_list_ = coin());  // cross_component_prediction
      if (chroma_qp_list_) {
        b.ue(uint32_t(draw(0, cb_diff)));
        const uint32_t len = uint32_t(draw(0, 5));
        b.ue(len);
        for (uint32_t i = 0; i <= len; ++i) b.se(int32_t(draw(-12, 12))).se(int32_t(draw(-12, 12)));
      }
      b.ue(uint32_t(draw(0, std::max<int64_t>(0, int64_t(sps.bit_depth_luma) - 10))));
      b.ue(uint32_t(draw(0, std::max<int64_t>(0, int64_t(sps.bit_depth_chroma) - 10))));
    }
    unit.nal = b.hevc_nal(kPps);
    return unit;
  }

  // §7.3.6.1, a slice segment of `type` through `pps` of `sps`. An I slice is written whole, with an empty
  // reference picture set and one byte of slice data; others end after the fields the parser reads.
  // With `lsb` given, the first segment of a picture of that slice_pic_order_cnt_lsb.
  Unit slice(const Sps& sps, const Pps& pps, uint8_t type, uint8_t tid, SliceHeader& want, int64_t lsb = -1) {
    kind_ = kSliceUnit;
    Bits b;
    want = SliceHeader{};
    want.nal = {type, 0, tid};
    const uint32_t ctb = 1u << sps.log2_ctb_size;
    const uint64_t ctbs = uint64_t((sps.coded_width + ctb - 1) / ctb) * ((sps.coded_height + ctb - 1) / ctb);
    want.first_slice_segment_in_pic = ctbs == 1 || lsb >= 0 || coin();
    b.u(1, want.first_slice_segment_in_pic);
    if (irap(type)) b.u(1, want.no_output_of_prior_pics = coin());
    want.pps_id = uint32_t(past == kSlicePps ? pick(kSlicePps, 0, 63) : pps.id);
    b.ue(want.pps_id);
    if (!want.first_slice_segment_in_pic) {
      if (pps.dependent_slice_segments_enabled) b.u(1, want.dependent_slice_segment = coin());
      unsigned bits = 0;
      while ((uint64_t{1} << bits) < ctbs) ++bits;  // Ceil(Log2(PicSizeInCtbsY))
      want.segment_address = uint32_t(pick(kAddress, 1, int64_t(ctbs) - 1, true));
      b.u(bits, want.segment_address);
    }
    std::size_t read = b.bits.size();
    if (!want.dependent_slice_segment) {
      b.u(pps.num_extra_slice_header_bits, uint64_t(draw(0, (1 << pps.num_extra_slice_header_bits) - 1)));
      want.slice_type = uint32_t(irap(type) ? (past == kSliceType ? pick(kSliceType, 2, 2) : 2)
                                               : pick(kSliceType, 0, 2));
      b.ue(want.slice_type);
      if (pps.output_flag_present) b.u(1, want.pic_output = coin());
      if (sps.separate_colour_plane) b.u(2, uint64_t(draw(0, 2)));
      if (!idr(type)) b.u(sps.log2_max_poc_lsb, want.poc_lsb = uint32_t(lsb >= 0 ? lsb : draw(0, (1 << sps.log2_max_poc_lsb) - 1)));
      read = b.bits.size();
      if (want.slice_type != 2) return Unit{b.u(8, 0xA5).hevc_nal(type, tid), read};
      if (!idr(type)) {
        b.u(1, 0);  // short_term_ref_pic_set_sps_flag, then an empty set of the slice's own
        if (sets_ != 0) b.u(1, 0);
        b.ue(0).ue(0);
        if (sps.long_term_ref_pics_present) {
          if (long_term_sps_ > 0) b.ue(0);
          b.ue(0);
        }
        if (tmvp_) b.u(1, 0);
      }
      const bool chroma = sps.chroma_format_idc != 0 && !sps.separate_colour_plane;
      if (sao_) b.u(1, 0).u(chroma ? 1 : 0, 0);
      b.se(0);
      if (slice_qp_offsets_) b.se(0).se(0);
      if (chroma_qp_list_) b.u(1, 0);
      if (override_) b.u(1, 0);
      if (loop_across_slices_ && !deblocking_off_) b.u(1, 0);
    }
    if (pps.tiles_enabled || pps.entropy_coding_sync_enabled) b.ue(0);
    if (header_extension_) b.ue(0);
    b.u(1, 1);  // byte_alignment()
    while (b.bits.size() % 8) b.u(1, 0);
    return Unit{b.u(8, 0xA5).hevc_nal(type, tid), read};
  }

  // The slice NAL unit types in use (Table 7-1) and a TemporalId for one: 0 for IRAP pictures.
  // TSA and STSA pictures need a TemporalId above 0 (§7.4.2.2).
  uint8_t vcl_type(uint32_t sub_layers) {
    static constexpr uint8_t kTypes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 17, 18, 19, 20, 21};
    uint8_t type;
    do type = kTypes[rng_() % 16];
    while (sub_layers == 1 && type >= 2 && type <= 5);
    return type;
  }
  uint8_t temporal_id(uint8_t type, uint32_t sub_layers) {
    return irap(type) ? 0 : uint8_t(draw(type >= 2 && type <= 5 ? 1 : 0, sub_layers - 1));
  }

  Case make() {
    Case c;
    c.sps = sps(c.want_sps);
    c.vps = vps(c.want_sps, c.want_vps);
    c.pps = pps(c.want_sps, c.want_pps);
    const uint8_t type = vcl_type(c.want_sps.max_sub_layers);
    const uint8_t tid = temporal_id(type, c.want_sps.max_sub_layers);
    c.slice = slice(c.want_sps, c.want_pps, type, tid, c.want_slice);
    return c;
  }

 private:
  std::mt19937 rng_;
  int kind_ = kVpsUnit;
  // What the last SPS and PPS put in a slice header after the fields the parser reads.
  uint32_t sets_ = 0, long_term_sps_ = 0;
  bool sao_ = false, tmvp_ = false, slice_qp_offsets_ = false, loop_across_slices_ = false, override_ = false;
  bool deblocking_off_ = false, header_extension_ = false, chroma_qp_list_ = false;
};

// Reads one unit of a case: the description of what was read, or "refused". A slice is read with the case's SPS
// and PPS, or with its PPS alone.
std::string read(const Case& c, int kind, const Nal& nal, bool with_sps = true) {
  const auto got = [](bool ok, const auto& value) { return ok ? describe(value) : std::string("refused"); };
  Vps v;
  Sps s;
  Pps p;
  if (kind == kVpsUnit) return got(parse_vps(nal.data(), nal.size(), v), v);
  if (kind == kSpsUnit) return got(parse_sps(nal.data(), nal.size(), s), s);
  if (kind == kPpsUnit) return got(parse_pps(nal.data(), nal.size(), p), p);
  ParameterSets sets;
  sets.sps[c.want_sps.id] = c.want_sps, sets.has_sps[c.want_sps.id] = with_sps;
  sets.pps[c.want_pps.id] = c.want_pps, sets.has_pps[c.want_pps.id] = true;
  SliceHeader sh;
  return got(parse_slice_header(nal.data(), nal.size(), sets, sh), sh);
}

constexpr uint32_t kSeed = 265;
constexpr const char* kKinds[] = {"VPS", "SPS", "PPS", "slice"};

TEST(HevcGenerated, RandomUnitsReadAsBuilt) {
  Generator gen(kSeed);
  const char* dump = std::getenv("BOXLANE_H265_GEN_DUMP");
  std::ofstream stream, chosen;
  if (dump) stream.open(dump, std::ios::binary), chosen.open(std::string(dump) + ".txt");
  for (int n = 0; n < 300; ++n) {
    // Any NAL unit header reads as written.
    const uint8_t type = uint8_t(gen.draw(0, 63)), layer = uint8_t(gen.draw(0, 63)), tid = uint8_t(gen.draw(0, 6));
    const uint8_t header[] = {uint8_t(type << 1 | layer >> 5), uint8_t((layer & 31) << 3 | (tid + 1))};
    NalHeader h;
    ASSERT_TRUE(parse_nal_header(header, 2, h));
    ASSERT_EQ((std::array<int, 3>{h.type, h.layer_id, h.temporal_id}), (std::array<int, 3>{type, layer, tid}));
    const Case c = gen.make();
    const std::string want[] = {describe(c.want_vps), describe(c.want_sps), describe(c.want_pps),
                                describe(c.want_slice)};
    int kind = 0;
    for (const Unit* unit : {&c.vps, &c.sps, &c.pps, &c.slice}) {
      const auto where = [&] {  // only on a failure: the hex of a unit takes long
        return "seed " + std::to_string(kSeed) + " case " + std::to_string(n) + " " + kKinds[kind] + " " +
               boxlane::test::hex(unit->nal);
      };
      ASSERT_EQ(read(c, kind, unit->nal), want[kind]) << where();
      // Cut before its last read bit, at that bit's byte or anywhere before it, it is refused.
      const std::size_t through = boxlane::test::nal_byte_of(unit->nal, 2, unit->read_bits - 1) + 1;
      for (const std::size_t cut : {through - 1, std::size_t(gen.draw(0, int64_t(through) - 1))})
        EXPECT_EQ(read(c, kind, Nal(unit->nal.begin(), unit->nal.begin() + long(cut))), "refused")
            << where() << " cut to " << cut;
      // With forbidden_zero_bit set or a nuh_temporal_id_plus1 of 0 it is refused; so is a parameter set under the
      // header of another type or in layer 1 (whose forms Annex F sets apart), and a slice of a reserved type.
      std::vector<Nal> wrong(4, unit->nal);
      wrong[0][0] |= 0x80, wrong[1][1] &= 0xF8, wrong[3][1] |= 0x08;
      static constexpr uint8_t kOther[] = {kSps, kPps, kVps, 0};
      const uint8_t reserved = uint8_t(gen.coin() ? gen.draw(22, 31) : gen.draw(10, 15));
      wrong[2][0] = uint8_t((wrong[2][0] & 0x81) | (kind == kSliceUnit ? reserved : kOther[kind]) << 1);
      if (kind == kSliceUnit) wrong[3] = unit->nal;  // read without its SPS instead
      for (std::size_t w = 0; w < wrong.size(); ++w)
        EXPECT_EQ(read(c, kind, wrong[w], !(kind == kSliceUnit && w == 3)), "refused") << where() << " wrong " << w;
      if (dump) {
        stream.write("\0\0\0\1", 4).write(reinterpret_cast<const char*>(unit->nal.data()), long(unit->nal.size()));
        chosen << want[kind] << "\n";
      }
      ++kind;
    }
  }
}

TEST(HevcGenerated, OnePastEachLimitIsRefused) {
  // The limits with a low side that a unit can be written past.
  const std::vector<Limit> low_sides = {kWidth, kHeight, kCtb, kDc, kCoef, kInitQp, kCbOffset, kCrOffset, kAddress};
  Generator gen(kSeed + 1);
  for (int limit = kNone + 1; limit < kLimits; ++limit) {
    for (const bool low : {false, true}) {
      if (low && std::find(low_sides.begin(), low_sides.end(), limit) == low_sides.end()) continue;
      int units = 0;
      for (int attempt = 0; attempt < 300 && units < 3; ++attempt) {
        gen.past = Limit(limit), gen.low = low, gen.hit = -1;
        const Case c = gen.make();
        if (gen.hit < 0) continue;
        ++units;
        const Unit& unit = gen.hit == kVpsUnit ? c.vps : gen.hit == kSpsUnit ? c.sps : gen.hit == kPpsUnit ? c.pps : c.slice;
        EXPECT_EQ(read(c, gen.hit, unit.nal), "refused")
            << "limit " << limit << (low ? " low " : " high ") << kKinds[gen.hit] << " " << boxlane::test::hex(unit.nal);
      }
      EXPECT_EQ(units, 3) << "limit " << limit << (low ? " low" : " high") << " reached too seldom";
    }
  }
}

// Sequences of pictures in decoding order, written forwards: each picture's count is chosen first and its
// slice_pic_order_cnt_lsb follows from it. An IDR picture counts 0 and a BLA picture, or a CRA picture that
// restarts the count, its lsb; every other picture may lie at most half the lsb range after the last picture of
// TemporalId 0 that is neither a leading (RASL, RADL) nor a sub-layer non-reference picture, and less than half
// before it (§8.3.1), and any picture of it becomes that reference point. Leading pictures follow their IRAP
// picture and count below it, trailing ones above it.
TEST(HevcGenerated, PictureOrderCountsWrittenForwards) {
  Generator gen(kSeed + 2);
  // The leading pictures each IRAP type may have (§7.4.2.2): none, RADL only, or RADL and RASL.
  const auto leading = [](uint8_t type) { return type == 20 || type == 18 ? 0 : type == 19 || type == 17 ? 1 : 2; };
  // TRAIL_N, TSA_N, STSA_N, RADL_N, RADL_R, RASL_N, RASL_R.
  const auto reference_point = [](uint8_t type, uint8_t tid) {
    return tid == 0 && type != 0 && type != 2 && type != 4 && !(type >= 6 && type <= 9);
  };
  for (int n = 0; n < 60; ++n) {
    const uint32_t lsb_minus4 = n < 13 ? uint32_t(n) : uint32_t(gen.draw(0, 12));
    Sps sps;
    Pps pps;
    gen.sps(sps, &lsb_minus4);
    gen.pps(sps, pps);
    ParameterSets sets;
    sets.sps[sps.id] = sps, sets.has_sps[sps.id] = true, sets.pps[pps.id] = pps, sets.has_pps[pps.id] = true;
    const int64_t max = int64_t{1} << (lsb_minus4 + 4);
    PocCounter counter;
    int64_t anchor = 0, irap_poc = 0;
    int leads = 0;  // 1: RADL pictures may follow now, 2: RASL ones too
    for (int k = 0; k < 40; ++k) {
      uint8_t type;
      bool restart = false;
      int64_t poc;
      const unsigned roll = unsigned(gen.draw(0, 15));
      if (k == 0 || roll == 0) {  // an IDR, BLA or CRA picture that starts over
        static constexpr uint8_t kRestarts[] = {16, 17, 18, 19, 20, 21};
        type = kRestarts[gen.draw(0, 5)], restart = true;
        poc = idr(type) ? 0 : gen.draw(0, max - 1);
      } else {
        const bool lead = leads > 0 && roll <= 4;
        if (roll == 1) {
          type = 21;  // a CRA picture within the sequence
        } else if (lead) {
          static constexpr uint8_t kLeading[] = {6, 7, 8, 9};
          type = kLeading[gen.draw(0, leads == 2 ? 3 : 1)];
        } else {
          static constexpr uint8_t kTrailing[] = {0, 1, 2, 3, 4, 5};
          do type = kTrailing[gen.draw(0, 5)];
          while (sps.max_sub_layers == 1 && type >= 2);
        }
        // From less than half the range before the reference point to half after it, leading pictures below
        // their IRAP picture and trailing ones above it.
        int64_t lo = anchor - (max / 2 - 1), hi = anchor + max / 2;
        if (lead) hi = std::min(hi, irap_poc - 1);
        if (!lead && type != 21) lo = std::max(lo, irap_poc + 1);
        if (lo > hi) continue;
        poc = gen.draw(lo, hi);
      }
      const uint8_t tid = irap(type) ? 0 : uint8_t(gen.draw(type >= 2 && type <= 5 ? 1 : 0, sps.max_sub_layers - 1));
      // What a caller tells the counter from the NAL unit type.
      ASSERT_EQ(std::vector<bool>({is_irap(type), is_idr(type), is_bla(type), is_rasl(type),
                                   is_rasl(type) || is_radl(type) || is_sub_layer_non_reference(type)}),
                std::vector<bool>({irap(type), idr(type), type >= 16 && type <= 18, type == 8 || type == 9,
                                   !reference_point(type, 0)}))
          << +type;
      SliceHeader want, sh;
      const Unit unit = gen.slice(sps, pps, type, tid, want, ((poc % max) + max) % max);
      ASSERT_TRUE(parse_slice_header(unit.nal.data(), unit.nal.size(), sets, sh)) << boxlane::test::hex(unit.nal);
      ASSERT_EQ(counter.next(sh, sps, restart), poc)
          << "seed " << kSeed + 2 << " sequence " << n << " picture " << k << ", MaxPicOrderCntLsb " << max;
      if (irap(type)) irap_poc = poc, leads = leading(type);
      if (!irap(type) && (type < 6 || type > 9)) leads = 0;  // leading pictures come before all trailing ones
      if (reference_point(type, tid)) anchor = poc;
    }
  }
}

}  // namespace
