#include "platform/rbsp_reader.hpp"

namespace boxlane {

RbspReader::RbspReader(const uint8_t* nal, std::size_t size, std::size_t header_bytes) noexcept : in_(nal, size) {
  if (!in_.skip(header_bytes)) ok_ = false;
}

bool RbspReader::fetch() noexcept {
  if (!in_.has(1)) return false;
  uint8_t byte = in_.u8();
  if (zeros_ >= 2 && byte == 0x03) {
    zeros_ = 0;
    if (!in_.has(1)) return false;
    byte = in_.u8();
  }
  zeros_ = byte == 0 ? zeros_ + 1 : 0;
  cur_ = byte;
  left_ = 8;
  return true;
}

uint32_t RbspReader::bits(unsigned n) noexcept {
  uint32_t v = 0;
  for (unsigned i = 0; i < n; ++i) {
    if (left_ == 0 && (!ok_ || !fetch())) {
      ok_ = false;
      return 0;
    }
    --left_;
    v = (v << 1) | ((cur_ >> left_) & 1u);
  }
  return v;
}

uint32_t RbspReader::ue() noexcept {
  unsigned leading = 0;
  while (ok_ && !flag()) {
    if (++leading > 31) {
      ok_ = false;
      return 0;
    }
  }
  if (!ok_) return 0;
  if (leading == 0) return 0;
  const uint64_t value = (uint64_t{1} << leading) - 1 + bits(leading);
  return ok_ ? static_cast<uint32_t>(value) : 0;
}

int32_t RbspReader::se() noexcept {
  const uint32_t k = ue();
  const int64_t magnitude = (int64_t{k} + 1) / 2;
  return static_cast<int32_t>((k & 1) ? magnitude : -magnitude);
}

namespace {

// Table E-1, identical in both standards.
constexpr uint16_t kSarTable[17][2] = {{0, 0},   {1, 1},   {12, 11}, {10, 11}, {16, 11},  {40, 33},
                                       {24, 11}, {20, 11}, {32, 11}, {80, 33}, {18, 11},  {15, 11},
                                       {64, 33}, {160, 99}, {4, 3},  {3, 2},   {2, 1}};

}  // namespace

void read_aspect_ratio(RbspReader& br, uint16_t& width, uint16_t& height) noexcept {
  const uint32_t idc = br.bits(8);
  if (idc == 255) {
    width = static_cast<uint16_t>(br.bits(16));
    height = static_cast<uint16_t>(br.bits(16));
  } else if (idc < 17) {
    width = kSarTable[idc][0];
    height = kSarTable[idc][1];
  }
}

}  // namespace boxlane
