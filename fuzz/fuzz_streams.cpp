// The H.264 syntax parser and the `boxlane mux` stream scanners (H.264,
// H.265 and ADTS) on arbitrary bytes. The first byte picks the scanner; the scanners may refuse the input
// with a ToolError, but must never read outside it or return a stream whose
// pieces lie outside it.
#include "platform/h264.hpp"
#include "tools/mux/audio.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/mux/video.hpp"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

bool inside(const uint8_t* piece, uint64_t size, const std::vector<uint8_t>& whole) {
  return piece >= whole.data() && size <= whole.size() && piece - whole.data() <= static_cast<std::ptrdiff_t>(whole.size() - size);
}

void scan_video_stream(const std::vector<uint8_t>& bytes, bool hevc) {
  boxlane::tool::VideoStream video;
  try {
    if (hevc) {
      boxlane::tool::scan_hevc(bytes.data(), bytes.size(), "fuzz.h265", video);
    } else {
      boxlane::tool::scan_video(bytes.data(), bytes.size(), "fuzz.h264", video);
    }
  } catch (const boxlane::tool::ToolError&) {
    return;
  }
  for (const auto& nal : video.nals)
    if (!inside(nal.data, nal.size, bytes)) std::abort();
  std::vector<bool> seen(video.units.size());
  if (video.display.size() != video.units.size()) std::abort();
  for (uint32_t position : video.display) {
    if (position >= seen.size() || seen[position]) std::abort();  // not a permutation
    seen[position] = true;
  }
  for (const auto& unit : video.units)
    if (uint64_t{unit.first_nal} + unit.nal_count > video.nals.size()) std::abort();
  std::size_t set_bytes = 0;
  for (const auto& set : video.hevc_sets) set_bytes += 4 + set.size();
  if (video.hevc_sets.size() > 64 || set_bytes > 65536) std::abort();  // what the hvcC writer takes
}

void scan_audio_stream(const std::vector<uint8_t>& bytes) {
  boxlane::tool::AudioStream audio;
  try {
    boxlane::tool::scan_audio(bytes.data(), bytes.size(), "fuzz.aac", audio);
  } catch (const boxlane::tool::ToolError&) {
    return;
  }
  for (const auto& frame : audio.frames)
    if (!inside(frame.data, frame.size, bytes) || frame.header_size > frame.size) std::abort();
}

// One NAL unit through each syntax parser, with parameter sets learnt along
// the way.
void parse_units(const std::vector<uint8_t>& bytes) {
  static boxlane::h264::ParameterSets sets;
  boxlane::h264::Sps sps;
  boxlane::h264::Pps pps;
  boxlane::h264::SliceHeader slice;
  boxlane::h264::PocCounter poc;
  if (boxlane::h264::parse_sps(bytes.data(), bytes.size(), sps) && sps.id < sets.sps.size()) {
    sets.sps[sps.id] = sps;
    sets.has_sps[sps.id] = true;
  }
  if (boxlane::h264::parse_pps(bytes.data(), bytes.size(), pps) && pps.id < sets.pps.size()) {
    sets.pps[pps.id] = pps;
    sets.has_pps[pps.id] = true;
  }
  if (boxlane::h264::parse_slice_header(bytes.data(), bytes.size(), sets, slice)) {
    const auto& active = sets.sps[sets.pps[slice.pps_id].sps_id];
    poc.next(slice, active);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::vector<uint8_t> bytes(data + 1, data + size);  // exact heap block: overreads are caught
  switch (data[0] % 4) {
    case 0: scan_video_stream(bytes, false); break;
    case 1: scan_audio_stream(bytes); break;
    case 2: parse_units(bytes); break;
    default:
      boxlane::tool::detect_codec(bytes.data(), bytes.size());
      scan_video_stream(bytes, true);
      break;
  }
  return 0;
}
