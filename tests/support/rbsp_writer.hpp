// Writes RBSP bits by hand for the bitstream tests, then wraps them as a NAL unit with the stop bit and
// emulation prevention inserted (ISO/IEC 14496-10 §7.4.1, ISO/IEC 23008-2 §7.4.2).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace boxlane::test {

struct Bits {
  std::vector<bool> bits;
  Bits& u(unsigned n, uint64_t v) {
    for (unsigned i = n; i-- > 0;) bits.push_back((v >> i) & 1);
    return *this;
  }
  Bits& ue(uint32_t v) {
    const unsigned len = unsigned(std::bit_width(uint64_t{v} + 1)) - 1;
    return u(len, 0).u(len + 1, uint64_t{v} + 1);
  }
  Bits& se(int32_t v) { return ue(v > 0 ? uint32_t(2 * int64_t{v} - 1) : uint32_t(-2 * int64_t{v})); }
  Bits& add(const Bits& more) {
    bits.insert(bits.end(), more.bits.begin(), more.bits.end());
    return *this;
  }

  // The NAL unit: `header` as given, then the escaped RBSP.
  std::vector<uint8_t> with_header(std::vector<uint8_t> out) const {
    Bits rbsp = *this;
    for (rbsp.u(1, 1); rbsp.bits.size() % 8;) rbsp.u(1, 0);
    unsigned zeros = 0;
    for (std::size_t i = 0; i < rbsp.bits.size(); i += 8) {
      uint8_t b = 0;
      for (std::size_t k = i; k < i + 8; ++k) b = uint8_t(b << 1 | rbsp.bits[k]);
      if (zeros >= 2 && b <= 3) out.push_back(3), zeros = 0;
      out.push_back(b);
      zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
  }
  // H.264: the one-byte header of §7.3.1.
  std::vector<uint8_t> nal(uint8_t ref_idc, uint8_t type) const { return with_header({uint8_t(ref_idc << 5 | type)}); }
  // H.265: the two-byte header of §7.3.1.2, layer 0.
  std::vector<uint8_t> hevc_nal(uint8_t type, uint8_t temporal_id = 0) const {
    return with_header({uint8_t(type << 1), uint8_t(temporal_id + 1)});
  }
};

// Table E-1 of both ITU-T H.264 and ISO/IEC 23008-2: the sample aspect ratio of each aspect_ratio_idc below 17.
inline constexpr uint16_t kSampleAspectRatios[17][2] = {{0, 0},   {1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33},
                                                        {24, 11}, {20, 11}, {32, 11}, {80, 33}, {18, 11}, {15, 11},
                                                        {64, 33}, {160, 99}, {4, 3},  {3, 2},   {2, 1}};

// Where in `nal` the byte holding RBSP bit `bit` lies (bit 0 the first after the `header` bytes), emulation
// prevention bytes passed over; nal.size() when the unit ends before it.
inline std::size_t nal_byte_of(const std::vector<uint8_t>& nal, std::size_t header, std::size_t bit) {
  std::size_t rbsp = 0, zeros = 0;
  for (std::size_t i = header; i < nal.size(); ++i) {
    if (zeros >= 2 && nal[i] == 3) {  // emulation_prevention_three_byte
      zeros = 0;
      continue;
    }
    zeros = nal[i] == 0 ? zeros + 1 : 0;
    if (rbsp++ == bit / 8) return i;
  }
  return nal.size();
}

}  // namespace boxlane::test
