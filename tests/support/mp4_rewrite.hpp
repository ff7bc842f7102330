// A file's top-level boxes read straight from its bytes, and rewrites of files from other muxers into the
// forms a large file takes, without writing gigabytes.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace boxlane::test {

// The big-endian 32-bit number at `at`.
uint32_t be32(const std::vector<uint8_t>& b, std::size_t at);
// `v` written big-endian over the 4 bytes at `at`.
void set_be32(std::vector<uint8_t>& b, std::size_t at, uint32_t v);

struct TopBox {
  std::string type;
  uint64_t offset = 0, size = 0;
  bool operator==(const TopBox&) const = default;
};
inline void PrintTo(const TopBox& box, std::ostream* os) { *os << box.type << " at " << box.offset << " size " << box.size; }

// The top-level boxes in file order (32-bit sizes only); the walk stops at a size below 8.
std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file);

// The 8-byte free box FFmpeg keeps before its mdat joined to the mdat header as a 64-bit size (what FFmpeg
// does past 4 GiB); nothing moves. Fails the test when there is no such pair.
std::vector<uint8_t> widen_mdat(std::vector<uint8_t> file);
// Every stco becomes a co64 with the same offsets, the boxes around it growing to match. The moov must come
// after the mdat, so no sample moves.
std::vector<uint8_t> with_co64(const std::vector<uint8_t>& file);
// `bytes` put into `file` at `at`, each box of `boxes` (the first of its type after the moov's start) grown to
// hold them. The moov must come after the mdat, so no sample moves.
std::vector<uint8_t> inserted(std::vector<uint8_t> file, const std::vector<std::string>& boxes, std::size_t at,
                              const std::vector<uint8_t>& bytes);

}  // namespace boxlane::test
