#include "tools/common/parse_samples.hpp"

#include "tools/common/names.hpp"

#include <algorithm>

namespace boxlane::tool {
namespace {

IndexSample sample_of(const BOXLANE_SAMPLEINFO& s) {
  return {s.nDecodeTime, s.nCompositionTime, s.nOffset, s.nDuration, s.nSize, s.bSync != 0};
}

}  // namespace

void FragmentLog::take(const char* client) {
  for (;;) {
    BOXLANE_FRAGMENTINFO info{};
    int32_t count = 0;
    if (!Boxlane_Parse_GetFragment(client, &info, buffer_.data(), static_cast<int32_t>(buffer_.size()), &count)) {
      if (Boxlane_GetLastError(nullptr) != BOXLANE_ERROR_PARSE_BUFFER) return;
      // The record says how many samples it has; the fragment waits.
      buffer_.resize(info.nSampleCount);
      continue;
    }
    Track& track = tracks[info.nTrackID];
    ++track.fragments;
    track.problems |= info.nProblems;
    for (int32_t i = 0; i < count; ++i) track.samples.push_back(sample_of(buffer_[static_cast<std::size_t>(i)]));
  }
}

bool fetch_table_samples(const char* client, int32_t track, uint64_t count, std::vector<IndexSample>& out,
                         std::string& error) {
  constexpr int32_t kWindow = 1 << 16;
  std::vector<BOXLANE_SAMPLEINFO> window(static_cast<std::size_t>(std::min<uint64_t>(count, kWindow)));
  out.reserve(out.size() + count);
  for (uint64_t first = 0; first < count;) {
    int32_t got = 0;
    if (!Boxlane_Parse_GetTrackSamples(client, track, static_cast<uint32_t>(first), window.data(),
                                       static_cast<int32_t>(window.size()), &got)) {
      const uint64_t code = Boxlane_GetLastError(nullptr);
      error = "the sample query of track " + std::to_string(track) + " failed: " + hex_code(code) + " " + error_name(code);
      return false;
    }
    if (got <= 0) break;
    for (int32_t i = 0; i < got; ++i) out.push_back(sample_of(window[static_cast<std::size_t>(i)]));
    first += static_cast<uint64_t>(got);
  }
  return true;
}

}  // namespace boxlane::tool
