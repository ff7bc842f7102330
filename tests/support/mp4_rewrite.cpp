#include "support/mp4_rewrite.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <iterator>
#include <string>

namespace boxlane::test {
namespace {

uint32_t be32(const std::vector<uint8_t>& b, std::size_t at) {
  return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3];
}

}  // namespace

std::vector<uint8_t> widen_mdat(std::vector<uint8_t> file) {
  for (std::size_t at = 0; at + 16 <= file.size();) {
    const uint32_t size = be32(file, at);
    if (size == 8 && std::memcmp(&file[at + 4], "free", 4) == 0 && std::memcmp(&file[at + 12], "mdat", 4) == 0) {
      // Written in place: size field 1, the fourcc, then the 64-bit size.
      const uint64_t wide = uint64_t{be32(file, at + 8)} + 8;
      const uint8_t header[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't', uint8_t(wide >> 56), uint8_t(wide >> 48),
                                  uint8_t(wide >> 40), uint8_t(wide >> 32), uint8_t(wide >> 24), uint8_t(wide >> 16),
                                  uint8_t(wide >> 8), uint8_t(wide)};
      std::copy(std::begin(header), std::end(header), file.begin() + std::ptrdiff_t(at));
      return file;
    }
    if (size < 8) break;
    at += size;
  }
  ADD_FAILURE() << "no free box before the mdat";
  return file;
}

// Built byte by byte: GCC 12's -Wstringop-overflow misreads the box
// builder's range inserts once this is inlined in a Release build.
std::vector<uint8_t> with_co64(const std::vector<uint8_t>& file) {
  const auto put32 = [](std::vector<uint8_t>& out, uint64_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
  };
  const auto put_type = [](std::vector<uint8_t>& out, const char* type) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(type[i]));
  };
  std::function<std::vector<uint8_t>(std::size_t, std::size_t)> rewrite = [&](std::size_t at, std::size_t end) {
    std::vector<uint8_t> out;
    while (at + 8 <= end) {
      const uint32_t size = be32(file, at);
      if (size < 8 || size > end - at) break;
      const std::string type(reinterpret_cast<const char*>(&file[at + 4]), 4);
      if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl") {
        const std::vector<uint8_t> children = rewrite(at + 8, at + size);
        put32(out, 8 + children.size());
        put_type(out, type.c_str());
        for (const uint8_t b : children) out.push_back(b);
      } else if (type == "stco") {
        const uint32_t n = be32(file, at + 12);
        put32(out, 16 + 8 * uint64_t{n});
        put_type(out, "co64");
        put32(out, 0);  // version and flags
        put32(out, n);
        for (uint32_t i = 0; i < n; ++i) put32(out, 0), put32(out, be32(file, at + 16 + 4 * i));
      } else {
        for (std::size_t i = 0; i < size; ++i) out.push_back(file[at + i]);
      }
      at += size;
    }
    return out;
  };
  return rewrite(0, file.size());
}

}  // namespace boxlane::test
