// What the frame writers need from the fragment writer: a client in
// fragment mode records each sample for the pending fragment instead of in
// the movie's sample lists.
#pragma once

#include "packet/packet_record.hpp"

#include <cstdint>

namespace boxlane::packet {

struct FragmentFrame {
  int track;  // BOXLANE_FRAGMENTS::kVideo or kAudio
  uint32_t size;
  int duration;    // 0 or less: the sample lasts 0
  int cts_offset;  // before the client's shift is taken out
  bool sync;
};

// Records the frame for the pending fragment; false (through fail()) when
// the client has no such track, the offset does not fit, or the fragment
// cannot take the frame. Nothing changes on failure.
[[nodiscard]] bool add_fragment_sample(BOXLANE_FRAGMENTS& fragments, const FragmentFrame& frame);

}  // namespace boxlane::packet
