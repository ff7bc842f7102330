// The track fragments a client in the extended mode has read and not yet
// handed out: the moof reader appends each trun's entries and closes each
// traf into an answer; Boxlane_Parse_GetFragment works the samples out into
// the caller's array, oldest answer first. What is not taken is released
// oldest first beyond the limits, so a never-ending stream holds a bounded
// amount.
#pragma once

#include "parse/parse_record.hpp"

#include <cstddef>
#include <cstdint>

namespace boxlane::parse {

// tr_flags (ISO/IEC 14496-12 §8.8.8.1): the run's optional fields, then the
// per-sample fields in the order they stand in an entry.
inline constexpr uint32_t kTrunDataOffset = 0x000001;
inline constexpr uint32_t kTrunFirstSampleFlags = 0x000004;
inline constexpr uint32_t kTrunSampleDuration = 0x000100;
inline constexpr uint32_t kTrunSampleSize = 0x000200;
inline constexpr uint32_t kTrunSampleFlags = 0x000400;
inline constexpr uint32_t kTrunSampleCompositionOffset = 0x000800;

// The most samples one answer holds; a traf that declares more is cut.
inline constexpr std::size_t kMaxFragmentSamples = std::size_t{1} << 20;
// Waiting answers beyond either limit are released, oldest first.
inline constexpr std::size_t kMaxPendingSamples = std::size_t{1} << 20;
inline constexpr std::size_t kMaxPendingFragments = 4096;

// Makes the arrays ready for the next answer's runs, which the reader then
// appends; returns the index its first run will have.
std::size_t open_fragment(BOXLANE_FRAGMENTQUEUE& queue);
// Queues the answer whose runs were appended from `first_run` on, and
// releases the oldest answers while more than the limits wait. Returns how
// many were released.
uint32_t close_fragment(BOXLANE_FRAGMENTQUEUE& queue, const BOXLANE_FRAGMENTINFO& info, std::size_t first_run);

}  // namespace boxlane::parse
