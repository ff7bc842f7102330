// The stsd box with one hvc1 entry and its hvcC record for H.265 video
// (ISO/IEC 14496-15 §8.3.3 and §8.4.1). The record's fields are derived from
// the parameter sets the caller hands in, which go into its arrays whole.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/visual_entry.hpp"
#include "platform/annexb.hpp"
#include "platform/be_writer.hpp"
#include "platform/hevc.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace {

using boxlane::BeWriter;
using boxlane::NalUnit;
namespace hevc = boxlane::hevc;

constexpr int32_t kMaxParamSetBytes = 65536;
constexpr std::size_t kMaxParamSets = BOXLANE_HEVC_MAX_NALUS;
constexpr uint8_t kArrayTypes[] = {hevc::kVps, hevc::kSps, hevc::kPps};

// The parameter sets of one call, as views into the caller's bytes, and what
// the hvcC record says about them.
struct Description {
  std::array<NalUnit, kMaxParamSets> units{};
  std::array<uint8_t, kMaxParamSets> types{};
  std::size_t count = 0;

  hevc::Sps first_sps;
  bool has[3] = {};
  uint8_t tier = 0;
  uint32_t compatibility = 0xFFFFFFFF;
  uint64_t constraints = 0xFFFFFFFFFFFF;
  uint8_t level = 0;
  uint32_t min_spatial_segmentation = 0xFFF;
  uint32_t temporal_layers = 1;
  bool temporal_id_nested = true;
  bool all_wpp = true, all_tiles = true, all_neither = true;

  bool seen(const NalUnit& nal) const noexcept {
    for (std::size_t i = 0; i < count; ++i) {
      if (units[i].size == nal.size && std::memcmp(units[i].data, nal.data, nal.size) == 0) return true;
    }
    return false;
  }

  // §8.3.3.2: the record describes every parameter set at once. A
  // compatibility or constraint flag stays only when every SPS sets it; the
  // level and tier are the highest; min_spatial_segmentation_idc the lowest.
  bool add_sps(const NalUnit& nal) noexcept {
    hevc::Sps sps;
    if (!hevc::parse_sps(nal.data, nal.size, sps)) return false;
    if (!has[1]) first_sps = sps;
    tier = std::max<uint8_t>(tier, sps.ptl.tier);
    compatibility &= sps.ptl.compatibility_flags;
    constraints &= sps.ptl.constraint_flags;
    level = std::max(level, sps.ptl.level_idc);
    min_spatial_segmentation =
        std::min(min_spatial_segmentation, sps.bitstream_restriction ? sps.min_spatial_segmentation_idc : 0);
    temporal_layers = std::max(temporal_layers, sps.max_sub_layers);
    temporal_id_nested = temporal_id_nested && sps.temporal_id_nesting;
    // hvcC has 3 bits for bit_depth_*_minus8.
    return sps.bit_depth_luma <= 15 && sps.bit_depth_chroma <= 15;
  }

  void add_pps(const hevc::Pps& pps) noexcept {
    all_wpp = all_wpp && pps.entropy_coding_sync_enabled && !pps.tiles_enabled;
    all_tiles = all_tiles && pps.tiles_enabled && !pps.entropy_coding_sync_enabled;
    all_neither = all_neither && !pps.tiles_enabled && !pps.entropy_coding_sync_enabled;
  }

  bool add(const NalUnit& nal) noexcept {
    hevc::NalHeader h;
    if (!hevc::parse_nal_header(nal.data, nal.size, h)) return true;  // not a unit the record holds
    const auto kind = std::find(std::begin(kArrayTypes), std::end(kArrayTypes), h.type) - std::begin(kArrayTypes);
    if (kind == 3 || seen(nal)) return true;
    if (count == units.size()) return false;
    bool readable = false;
    if (h.type == hevc::kVps) {
      hevc::Vps vps;
      readable = hevc::parse_vps(nal.data, nal.size, vps);
    } else if (h.type == hevc::kSps) {
      readable = add_sps(nal);
    } else {
      hevc::Pps pps;
      readable = hevc::parse_pps(nal.data, nal.size, pps);
      if (readable) add_pps(pps);
    }
    if (!readable) return false;
    has[kind] = true;
    types[count] = h.type;
    units[count++] = nal;
    return true;
  }

  // §8.3.3.2: which parallelism the min_spatial_segmentation_idc restriction
  // comes from: 1 slices, 2 tiles, 3 wavefronts, 0 mixed or not known.
  uint8_t parallelism() const noexcept {
    if (min_spatial_segmentation == 0) return 0;
    if (all_wpp) return 3;
    if (all_tiles) return 2;
    if (all_neither) return 1;
    return 0;
  }
};

void write_hvcc(BeWriter& w, const Description& d) {
  const hevc::Sps& sps = d.first_sps;
  const auto config = w.open("hvcC");
  w.u8(1);  // configurationVersion
  w.u8(static_cast<uint8_t>(sps.ptl.profile_space << 6 | d.tier << 5 | (sps.ptl.profile_idc & 0x1F)));
  w.u32(d.compatibility);
  w.u16(static_cast<uint16_t>(d.constraints >> 32));
  w.u32(static_cast<uint32_t>(d.constraints));
  w.u8(d.level);
  w.u16(static_cast<uint16_t>(0xF000 | d.min_spatial_segmentation));
  w.u8(static_cast<uint8_t>(0xFC | d.parallelism()));
  w.u8(static_cast<uint8_t>(0xFC | sps.chroma_format_idc));
  w.u8(static_cast<uint8_t>(0xF8 | (sps.bit_depth_luma - 8)));
  w.u8(static_cast<uint8_t>(0xF8 | (sps.bit_depth_chroma - 8)));
  w.u16(0);  // avgFrameRate: not given
  // constantFrameRate 0 (not known), numTemporalLayers, temporalIdNested,
  // lengthSizeMinusOne 3: the frame writers emit 4-byte lengths.
  w.u8(static_cast<uint8_t>((d.temporal_layers & 7) << 3 | (d.temporal_id_nested ? 4 : 0) | 3));
  w.u8(3);  // numOfArrays: VPS, SPS, PPS
  for (const uint8_t type : kArrayTypes) {
    // array_completeness 1: no parameter set of this type is in the samples.
    w.u8(static_cast<uint8_t>(0x80 | type));
    const auto n = std::count(d.types.begin(), d.types.begin() + static_cast<std::ptrdiff_t>(d.count), type);
    w.u16(static_cast<uint16_t>(n));
    for (std::size_t i = 0; i < d.count; ++i) {
      if (d.types[i] != type) continue;
      w.u16(static_cast<uint16_t>(d.units[i].size));
      w.bytes(d.units[i].data, d.units[i].size);
    }
  }
  w.close(config);
}

}  // namespace

bool CBoxlane_Packet::Boxlane_Packet_STsdHEVC(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                              const uint8_t* lpszParamSets, int nParamSetsLen) {
  return boxlane::packet::write_box(
      *this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](const QORVANE_MP4PACKET&, BeWriter& w) {
        if (!lpszParamSets || nParamSetsLen < 1 || nParamSetsLen > kMaxParamSetBytes) {
          return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
        }
        Description d;
        boxlane::AnnexBSplitter splitter(lpszParamSets, static_cast<std::size_t>(nParamSetsLen));
        NalUnit nal;
        while (splitter.next(nal)) {
          if (!d.add(nal)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
        }
        if (!d.has[0] || !d.has[1] || !d.has[2]) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);

        const auto stsd = w.open_full("stsd", 0, 0);
        w.u32(1);  // entry_count
        // hvc1: every parameter set is in the record and none in the samples.
        const auto entry = w.open("hvc1");
        boxlane::packet::put_visual_entry_fields(w, static_cast<uint16_t>(d.first_sps.width),
                                                 static_cast<uint16_t>(d.first_sps.height), "HEVC");
        write_hvcc(w, d);
        w.close(entry);
        w.close(stsd);
        return true;
      });
}
