#include "support/mp4_rewrite.hpp"

#include "support/box_builder.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
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
      const uint64_t wide = uint64_t{be32(file, at + 8)} + 8;
      const Bytes header = Bytes{}.u32(1).str("mdat").u64(wide);
      std::copy(header.begin(), header.end(), file.begin() + std::ptrdiff_t(at));
      return file;
    }
    if (size < 8) break;
    at += size;
  }
  ADD_FAILURE() << "no free box before the mdat";
  return file;
}

std::vector<uint8_t> with_co64(const std::vector<uint8_t>& file) {
  std::function<Bytes(std::size_t, std::size_t)> rewrite = [&](std::size_t at, std::size_t end) {
    Bytes out;
    while (at + 8 <= end) {
      const uint32_t size = be32(file, at);
      if (size < 8 || size > end - at) break;
      const std::string type(reinterpret_cast<const char*>(&file[at + 4]), 4);
      if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl") {
        out.add(box(type, rewrite(at + 8, at + size)));
      } else if (type == "stco") {
        const uint32_t n = be32(file, at + 12);
        Bytes p;
        p.u32(n);
        for (uint32_t i = 0; i < n; ++i) p.u64(be32(file, at + 16 + 4 * i));
        out.add(full_box("co64", 0, 0, p));
      } else {
        out.insert(out.end(), file.begin() + std::ptrdiff_t(at), file.begin() + std::ptrdiff_t(at + size));
      }
      at += size;
    }
    return out;
  };
  return rewrite(0, file.size());
}

}  // namespace boxlane::test
