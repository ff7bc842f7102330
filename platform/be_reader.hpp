// A bounded big-endian read cursor. It knows how many bytes remain; a read
// that would pass the end reads nothing, returns zero, leaves the position
// where it was and marks the cursor failed. Failure is sticky, so a reader
// can take a run of fields and test ok() once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace boxlane {

class BeReader {
 public:
  constexpr BeReader() noexcept = default;
  constexpr BeReader(const uint8_t* data, std::size_t size) noexcept : data_(size ? data : nullptr), size_(data ? size : 0) {}

  constexpr std::size_t size() const noexcept { return size_; }
  constexpr std::size_t position() const noexcept { return pos_; }
  constexpr std::size_t remaining() const noexcept { return size_ - pos_; }
  constexpr bool ok() const noexcept { return !failed_; }
  constexpr bool has(uint64_t n) const noexcept { return n <= remaining(); }

  uint8_t u8() noexcept { return static_cast<uint8_t>(take(1)); }
  uint16_t u16() noexcept { return static_cast<uint16_t>(take(2)); }
  uint32_t u24() noexcept { return static_cast<uint32_t>(take(3)); }
  uint32_t u32() noexcept { return static_cast<uint32_t>(take(4)); }
  uint64_t u64() noexcept { return take(8); }
  int32_t i32() noexcept { return static_cast<int32_t>(u32()); }

  // Advances n bytes, or fails and stays.
  bool skip(uint64_t n) noexcept {
    if (!has(n)) return fail();
    pos_ += static_cast<std::size_t>(n);
    return true;
  }
  // Moves to an absolute offset within the view.
  bool seek(uint64_t offset) noexcept {
    if (offset > size_) return fail();
    pos_ = static_cast<std::size_t>(offset);
    return true;
  }
  // Copies n bytes out and advances, or fails and copies nothing.
  bool copy(void* out, uint64_t n) noexcept {
    if (!has(n)) return fail();
    if (n) std::memcpy(out, data_ + pos_, static_cast<std::size_t>(n));
    pos_ += static_cast<std::size_t>(n);
    return true;
  }
  // The next n bytes in place, advancing past them; nullptr (and failed) if
  // fewer remain. A zero-length view is valid and may be nullptr.
  const uint8_t* bytes(uint64_t n) noexcept {
    if (!has(n)) {
      fail();
      return nullptr;
    }
    const uint8_t* p = data_ ? data_ + pos_ : nullptr;
    pos_ += static_cast<std::size_t>(n);
    return p;
  }
  // A cursor over the next n bytes, advancing past them. If fewer remain,
  // this cursor fails and the result is an empty, failed cursor.
  BeReader sub(uint64_t n) noexcept {
    const uint8_t* p = bytes(n);
    if (!p && n) {
      BeReader empty;
      empty.failed_ = true;
      return empty;
    }
    return BeReader(p, static_cast<std::size_t>(n));
  }
  // Looks at the byte at offset ahead of the position without moving.
  bool peek(uint64_t ahead, uint8_t& out) const noexcept {
    if (ahead >= remaining()) return false;
    out = data_[pos_ + ahead];
    return true;
  }
  // The bytes not yet read, as a pointer; nullptr when none remain.
  const uint8_t* current() const noexcept { return remaining() ? data_ + pos_ : nullptr; }

 private:
  bool fail() noexcept {
    failed_ = true;
    return false;
  }
  uint64_t take(std::size_t n) noexcept {
    if (!has(n)) {
      fail();
      return 0;
    }
    uint64_t v = 0;
    for (std::size_t i = 0; i < n; ++i) v = (v << 8) | data_[pos_ + i];
    pos_ += n;
    return v;
  }

  const uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t pos_ = 0;
  bool failed_ = false;
};

}  // namespace boxlane
