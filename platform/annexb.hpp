// Splits an H.264 Annex B byte stream (ISO/IEC 14496-10 Annex B) into NAL
// units. Start codes are 00 00 01 or 00 00 00 01; the units come out without
// them, and without the trailing zero bytes that precede the next start code.
#pragma once

#include <cstddef>
#include <cstdint>

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
  std::size_t find_start(std::size_t from) noexcept {
    for (std::size_t i = from; i + 3 <= size_; ++i) {
      if (data_[i + 2] > 1) {
        i += 2;  // no start code can begin at i, i+1 or i+2
        continue;
      }
      if (data_[i] == 0 && data_[i + 1] == 0 && data_[i + 2] == 1) {
        if (!seen_) {
          seen_ = true;
          first_ = (i > 0 && data_[i - 1] == 0) ? i - 1 : i;
        }
        return i + 3;
      }
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
