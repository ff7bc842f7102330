// What `boxlane remux` reads from its input: the tracks the parser knows,
// each with its codec configuration, time scale, edit list and every sample
// (the moov's tables, then its track fragments) as the parser's per-sample
// answers give them, and whether the writer can describe it.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/parse_samples.hpp"
#include "tools/remux/edit_lists.hpp"

namespace boxlane::tool {

enum class SourceCodec { kOther, kH264, kH265, kAac };

struct SourceTrack {
  int32_t id = 0;  // as the parser keys it: ids of 2^31 and more are negative
  // The tkhd's track_ID as stored, unsigned (ISO/IEC 14496-12 §8.3.2).
  uint32_t unsigned_id() const noexcept { return static_cast<uint32_t>(id); }
  std::string handler;  // "vide", "soun", ...
  std::string fourcc;   // of the first sample entry
  SourceCodec codec = SourceCodec::kOther;
  bool video() const noexcept { return codec == SourceCodec::kH264 || codec == SourceCodec::kH265; }
  std::shared_ptr<const BOXLANE_CODECINFO> config;  // avc1 and mp4a
  std::shared_ptr<const BOXLANE_HEVCINFO> hevc;     // hvc1 and hev1
  // hev1: the samples may carry parameter sets too (ISO/IEC 14496-15 §8.4.1.1.2).
  bool sets_in_samples = false;
  uint32_t timescale = 0;
  uint16_t language = 0;
  uint32_t width = 0, height = 0;  // tkhd, whole pixels
  std::vector<IndexSample> samples;  // decode order
  std::vector<EditEntry> edits;
  // Why the writer cannot take the track; empty when it can.
  std::string unsupported;
};

struct Source {
  uint32_t movie_timescale = 0;
  bool fragmented = false;  // track fragments were read
  std::vector<SourceTrack> tracks;
};

// Reads the whole file at `path` through the parser in the extended mode.
// Throws ToolError when the input cannot be read as an MP4 file.
Source read_source(const std::string& path, const uint8_t* data, std::size_t size);

// Human names for messages: "H.264", "AAC", or the fourcc.
std::string codec_name(const SourceTrack& t);

}  // namespace boxlane::tool
