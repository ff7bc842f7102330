// The H.265 syntax parser on arbitrary bytes: each input is cut into NAL
// units (Annex B), and every unit goes through the header, parameter-set and
// slice-header readers, with the sets learnt along the way and picture order
// counts taken for the slices. Nothing may be read outside the input, and
// what the readers accept must lie within the ranges they promise.
#include "platform/annexb.hpp"
#include "platform/hevc.hpp"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

using namespace boxlane::hevc;

void check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::vector<uint8_t> bytes(data, data + size);  // exact heap block: overreads are caught
  boxlane::AnnexBSplitter splitter(bytes.data(), bytes.size());
  boxlane::NalUnit nal;
  ParameterSets sets;
  PocCounter poc;
  bool first_picture = true;
  while (splitter.next(nal)) {
    const std::vector<uint8_t> unit(nal.data, nal.data + nal.size);
    NalHeader h;
    if (!parse_nal_header(unit.data(), unit.size(), h)) continue;
    Vps vps;
    Sps sps;
    Pps pps;
    SliceHeader slice;
    if (parse_vps(unit.data(), unit.size(), vps)) check(vps.max_sub_layers >= 1 && vps.max_sub_layers <= 7);
    if (parse_sps(unit.data(), unit.size(), sps)) {
      check(sps.id < sets.sps.size() && sps.width > 0 && sps.height > 0 && sps.width <= sps.coded_width &&
            sps.height <= sps.coded_height && sps.bit_depth_luma <= 16 && sps.log2_max_poc_lsb <= 16);
      sets.sps[sps.id] = sps;
      sets.has_sps[sps.id] = true;
    }
    if (parse_pps(unit.data(), unit.size(), pps)) {
      check(pps.id < sets.pps.size() && pps.sps_id < sets.sps.size());
      sets.pps[pps.id] = pps;
      sets.has_pps[pps.id] = true;
    }
    if (parse_slice_header(unit.data(), unit.size(), sets, slice) && slice.first_slice_segment_in_pic) {
      const Sps& active = sets.sps[sets.pps[slice.pps_id].sps_id];
      check(slice.poc_lsb < (1u << active.log2_max_poc_lsb));
      poc.next(slice, active, first_picture || is_idr(h.type) || is_bla(h.type));
      first_picture = false;
    }
  }
  return 0;
}
