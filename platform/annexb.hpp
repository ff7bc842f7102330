// Splits an H.264 Annex B byte stream (ISO/IEC 14496-10 Annex B) into NAL
// units. Start codes are 00 00 01 or 00 00 00 01; the units come out without
// them, and without the trailing zero bytes that precede the next start code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace boxlane {

struct NalUnit {
  const uint8_t* data = nullptr;  // first byte is the NAL header
  std::size_t size = 0;
  std::size_t offset = 0;  // offset of data within the stream
  uint8_t type() const noexcept { return size ? static_cast<uint8_t>(data[0] & 0x1F) : 0; }
};

class AnnexBSplitter {
 public:
  AnnexBSplitter(const uint8_t* data, std::size_t size) noexcept : data_(data), size_(data ? size : 0) {
    pos_ = find_start(0);
  }

  // Bytes before the first start code (garbage or a stream that is not
  // Annex B at all, when that is everything).
  std::size_t leading_bytes() const noexcept { return first_; }

  // The next NAL unit; false at the end of the stream.
  bool next(NalUnit& nal) noexcept {
    if (pos_ >= size_) return false;
    const std::size_t begin = pos_;
    std::size_t end = size_;
    const std::size_t following = find_start(begin);
    if (following != kNone) end = following - 3;  // back over 00 00 01
    pos_ = following;
    while (end > begin && data_[end - 1] == 0) --end;  // trailing_zero_8bits and 4-byte start codes
    nal = NalUnit{data_ + begin, end - begin, begin};
    return true;
  }

 private:
  // A start code may end exactly at size_, so "none" needs its own value.
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  // Position just after the next 00 00 01 at or after `from`, or kNone.
  // memchr finds each 01 byte at memory speed; in coded slices only about
  // one byte in 256 is one, so checking the two bytes before each is cheap.
  std::size_t find_start(std::size_t from) noexcept {
    for (std::size_t i = from + 2; i < size_;) {
      const auto* hit = static_cast<const uint8_t*>(std::memchr(data_ + i, 1, size_ - i));
      if (!hit) break;
      const auto one = static_cast<std::size_t>(hit - data_);
      if (data_[one - 1] == 0 && data_[one - 2] == 0) {
        const std::size_t start = one - 2;
        if (!seen_) {
          seen_ = true;
          first_ = (start > 0 && data_[start - 1] == 0) ? start - 1 : start;
        }
        return one + 1;
      }
      i = one + 3;  // this 01 cannot be one of the two zeros of a start code
    }
    if (!seen_) first_ = size_;
    return kNone;
  }

  const uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
  std::size_t first_ = 0;
  bool seen_ = false;
};

}  // namespace boxlane
