// A bounded big-endian read cursor. It knows how many bytes remain; a read
// that would pass the end reads nothing, returns zero, leaves the position
// where it was and marks the cursor failed. Failure is sticky, so a reader
// can take a run of fields and test ok() once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/byte_order.hpp"

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
  // Sums of 32-bit fields over `count` records of `stride` bytes that start
  // at the position: the field `first` bytes into each record, and the one
  // `second` bytes in (a table's columns: a trun's durations and sizes).
  // One pass reads both. Moves nothing; fails and gives zeros when the
  // records do not lie whole in what remains or a field not in a record.
  struct Sums {
    uint64_t first = 0;
    uint64_t second = 0;
  };
  Sums sum32(uint64_t count, uint64_t stride, uint64_t first, uint64_t second) noexcept {
    if (first + 4 > stride || second + 4 > stride || (count && stride > remaining() / count)) {
      fail();
      return {};
    }
    return count ? column_sums(data_ + pos_, count, stride, first, second) : Sums{};
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
  // Kept out of line: inlined, a sum could share a caller's variable whose
  // address is taken, and every byte load would then force a store.
  [[gnu::noinline]] static Sums column_sums(const uint8_t* p, uint64_t count, uint64_t stride, uint64_t first,
                                            uint64_t second) noexcept {
    const auto field = [](const uint8_t* at) noexcept {
      uint32_t v;
      std::memcpy(&v, at, 4);
      return uint64_t{Olbrant_Endain_ntohl(v)};
    };
    // Two records a turn, into separate sums, so the loads overlap.
    Sums even, odd;
    uint64_t i = 0;
    for (; i + 2 <= count; i += 2, p += 2 * stride) {
      even.first += field(p + first);
      even.second += field(p + second);
      odd.first += field(p + stride + first);
      odd.second += field(p + stride + second);
    }
    if (i < count) {
      even.first += field(p + first);
      even.second += field(p + second);
    }
    return {even.first + odd.first, even.second + odd.second};
  }
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
