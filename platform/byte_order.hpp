// Big-endian conversion of host integers (the network byte order of the
// MP4 box fields). Loads and stores of box fields go through the cursors in
// be_reader.hpp and be_writer.hpp, which assemble bytes by shifts; these
// value conversions serve code that holds a converted integer.
#pragma once

#include <bit>
#include <cstdint>

namespace boxlane::detail {
constexpr uint16_t bswap16(uint16_t v) noexcept { return static_cast<uint16_t>((v >> 8) | (v << 8)); }
constexpr uint32_t bswap32(uint32_t v) noexcept {
  return (v >> 24) | ((v >> 8) & 0x0000FF00u) | ((v << 8) & 0x00FF0000u) | (v << 24);
}
constexpr uint64_t bswap64(uint64_t v) noexcept {
  return (uint64_t{bswap32(static_cast<uint32_t>(v))} << 32) | bswap32(static_cast<uint32_t>(v >> 32));
}
}  // namespace boxlane::detail

constexpr uint32_t Olbrant_Endain_htonl(uint32_t v) noexcept {
  return std::endian::native == std::endian::big ? v : boxlane::detail::bswap32(v);
}
constexpr uint16_t Olbrant_Endain_htons(uint16_t v) noexcept {
  return std::endian::native == std::endian::big ? v : boxlane::detail::bswap16(v);
}
constexpr uint32_t Olbrant_Endain_ntohl(uint32_t v) noexcept { return Olbrant_Endain_htonl(v); }
constexpr uint16_t Olbrant_Endain_ntohs(uint16_t v) noexcept { return Olbrant_Endain_htons(v); }
constexpr uint64_t Olbrant_Endain_ntohl64(uint64_t v) noexcept {
  return std::endian::native == std::endian::big ? v : boxlane::detail::bswap64(v);
}
