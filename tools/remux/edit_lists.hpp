// The edit lists of a movie (ISO/IEC 14496-12 §8.6.6), read from the mapped
// file: the parser reports each elst box but keeps none of its entries.
// Only moov/trak/tkhd and moov/trak/edts/elst are looked at, each through a
// cursor bounded by its box.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "tools/common/edit_list.hpp"

namespace boxlane::tool {

// The entries of every track's elst, keyed by the track_ID of the trak's
// tkhd; tracks without one are left out. Malformed boxes are passed over:
// a file whose boxes do not add up yields fewer lists, never a read past
// `size`.
std::map<uint32_t, std::vector<EditEntry>> read_edit_lists(const uint8_t* data, std::size_t size);

}  // namespace boxlane::tool
