#include "support/mp4_rewrite.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

namespace boxlane::test {
namespace {

// Built byte by byte: GCC 12's -Wstringop-overflow misreads range inserts once this is inlined in a Release
// build.
void put(std::vector<uint8_t>& out, uint64_t v, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

void put_type(std::vector<uint8_t>& out, const char* type) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(type[i]));
}

}  // namespace

uint32_t be32(const std::vector<uint8_t>& b, std::size_t at) {
  return uint32_t(b.at(at)) << 24 | uint32_t(b.at(at + 1)) << 16 | uint32_t(b.at(at + 2)) << 8 | b.at(at + 3);
}

void set_be32(std::vector<uint8_t>& b, std::size_t at, uint32_t v) {
  for (std::size_t i = 0; i < 4; ++i) b.at(at + i) = uint8_t(v >> (24 - 8 * i));
}

std::vector<uint8_t> widen_mdat(std::vector<uint8_t> file) {
  for (std::size_t at = 0, size = 0; at + 16 <= file.size() && (size = be32(file, at)) >= 8; at += size) {
    if (size == 8 && std::memcmp(&file[at + 4], "free", 4) == 0 && std::memcmp(&file[at + 12], "mdat", 4) == 0) {
      std::vector<uint8_t> header;
      put(header, 1, 4), put_type(header, "mdat"), put(header, uint64_t{be32(file, at + 8)} + 8, 8);
      std::copy(header.begin(), header.end(), file.begin() + std::ptrdiff_t(at));
      return file;
    }
  }
  ADD_FAILURE() << "no free box before the mdat";
  return file;
}

std::vector<uint8_t> with_co64(const std::vector<uint8_t>& file) {
  std::function<std::vector<uint8_t>(std::size_t, std::size_t)> rewrite = [&](std::size_t at, std::size_t end) {
    std::vector<uint8_t> out;
    for (uint32_t size = 0; at + 8 <= end && (size = be32(file, at)) >= 8 && size <= end - at; at += size) {
      const std::string type(reinterpret_cast<const char*>(&file[at + 4]), 4);
      if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl") {
        const std::vector<uint8_t> children = rewrite(at + 8, at + size);
        put(out, 8 + children.size(), 4), put_type(out, type.c_str());
        for (const uint8_t b : children) out.push_back(b);
      } else if (type == "stco") {
        const uint32_t n = be32(file, at + 12);
        put(out, 16 + 8 * uint64_t{n}, 4), put_type(out, "co64"), put(out, 0, 4), put(out, n, 4);
        for (uint32_t i = 0; i < n; ++i) put(out, be32(file, at + 16 + 4 * i), 8);
      } else {
        for (std::size_t i = 0; i < size; ++i) out.push_back(file[at + i]);
      }
    }
    return out;
  };
  return rewrite(0, file.size());
}

std::vector<uint8_t> inserted(std::vector<uint8_t> file, const std::vector<std::string>& boxes, std::size_t at,
                              const std::vector<uint8_t>& bytes) {
  const std::string text(file.begin(), file.end());
  for (const std::string& type : boxes) {
    const std::size_t box = text.find(type, text.find("moov")) - 4;
    set_be32(file, box, be32(file, box) + uint32_t(bytes.size()));
  }
  file.insert(file.begin() + std::ptrdiff_t(at), bytes.begin(), bytes.end());
  return file;
}

std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file) {
  std::vector<TopBox> boxes;
  for (uint64_t at = 0; at + 8 <= file.size();) {
    const uint64_t size = be32(file, at);
    boxes.push_back({std::string(file.begin() + at + 4, file.begin() + at + 8), at, size});
    if (size < 8) break;
    at += size;
  }
  return boxes;
}

}  // namespace boxlane::test
