// Rewrites of files from other muxers into the forms a large file takes,
// without writing gigabytes.
#pragma once

#include <cstdint>
#include <vector>

namespace boxlane::test {

// The 8-byte free box FFmpeg keeps before its mdat joined to the mdat header
// as a 64-bit size (what FFmpeg does past 4 GiB); nothing moves. Fails the
// test when there is no such pair.
std::vector<uint8_t> widen_mdat(std::vector<uint8_t> file);
// Every stco becomes a co64 with the same offsets, the boxes around it
// growing to match. The moov must come after the mdat, so no sample moves.
std::vector<uint8_t> with_co64(const std::vector<uint8_t>& file);

}  // namespace boxlane::test
