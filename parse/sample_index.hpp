// What the fragment readers share with the per-sample index of the moov's
// tables (parse/sample_index.cpp).
#pragma once

#include "parse/track_record.hpp"

#include <cstdint>

namespace boxlane::parse {

// Sum of the stts deltas, count times delta per run, saturating: where the
// moov's samples of the track end in decode time.
uint64_t table_duration(const BOXLANE_TRACKINFO& track) noexcept;

}  // namespace boxlane::parse
