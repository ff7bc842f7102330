// Builds boxes by hand for tests: big-endian fields appended in order, and boxes whose size is written for
// you or forced to any value (truncated, below 8, past the parent, 0 or 1) to make malformed input.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace boxlane::test {

struct Bytes : std::vector<uint8_t> {
  Bytes() = default;
  Bytes(std::initializer_list<uint8_t> init) : std::vector<uint8_t>(init) {}
  Bytes& u8(uint8_t v) { push_back(v); return *this; }
  Bytes& u16(uint16_t v) { return u8(uint8_t(v >> 8)).u8(uint8_t(v)); }
  Bytes& u24(uint32_t v) { return u8(uint8_t(v >> 16)).u16(uint16_t(v)); }
  Bytes& u32(uint32_t v) { return u16(uint16_t(v >> 16)).u16(uint16_t(v)); }
  Bytes& u64(uint64_t v) { return u32(uint32_t(v >> 32)).u32(uint32_t(v)); }
  Bytes& str(std::string_view s) { insert(end(), s.begin(), s.end()); return *this; }
  Bytes& zeros(std::size_t n) { resize(size() + n); return *this; }
  Bytes& add(const std::vector<uint8_t>& more) { insert(end(), more.begin(), more.end()); return *this; }
  // Version and flags of a full box.
  Bytes& full(uint8_t version, uint32_t flags) { return u8(version).u24(flags); }
};

// A box: size (payload + 8 unless forced), fourcc, payload.
inline Bytes box(std::string_view fourcc, const std::vector<uint8_t>& payload = {}, int64_t forced_size = -1) {
  Bytes out;
  out.reserve(payload.size() + 8);  // one allocation; also keeps GCC 12 from misreading the appends
  out.u32(forced_size >= 0 ? uint32_t(forced_size) : uint32_t(payload.size() + 8));
  out.str(fourcc.substr(0, 4));
  out.add(payload);
  return out;
}

// A full box: version and flags, then the payload.
inline Bytes full_box(std::string_view fourcc, uint8_t version, uint32_t flags, const std::vector<uint8_t>& payload = {}) {
  Bytes body;
  body.full(version, flags).add(payload);
  return box(fourcc, body);
}

// Concatenation of several boxes or byte runs.
inline Bytes cat(std::initializer_list<std::vector<uint8_t>> parts) {
  Bytes out;
  for (const auto& p : parts) out.add(p);
  return out;
}

}  // namespace boxlane::test
