// Big-endian box bytes for the fuzz targets that wrap the fuzzer's input in
// a movie of their own (ISO/IEC 14496-12 §4.2: size, type, then payload).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace fuzz {

using Bytes = std::vector<uint8_t>;

inline void u32(Bytes& b, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(v >> s));
}
inline Bytes box(const char* type, const Bytes& payload) {
  Bytes b;
  u32(b, uint32_t(payload.size() + 8));
  b.insert(b.end(), type, type + 4);
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}
inline Bytes full(const char* type, uint32_t version_flags, const Bytes& payload) {
  Bytes p;
  u32(p, version_flags);
  p.insert(p.end(), payload.begin(), payload.end());
  return box(type, p);
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace fuzz
