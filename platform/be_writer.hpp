// A big-endian write cursor for box writers. It appends fields at the next
// free position, opens a box with a placeholder size and patches the size
// when the box is closed, so no caller computes a box size by hand.
//
// The caller's buffer size is not part of the writer interface, so the
// capacity defaults to unbounded; code that knows a capacity passes it, and a
// write that would pass it writes nothing and marks the cursor failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace boxlane {

class BeWriter {
 public:
  struct Box {
    std::size_t start;
  };

  explicit BeWriter(uint8_t* out, std::size_t capacity = std::numeric_limits<std::size_t>::max()) noexcept
      : out_(out), capacity_(capacity) {}

  std::size_t size() const noexcept { return pos_; }
  bool ok() const noexcept { return !failed_; }

  void u8(uint8_t v) noexcept { put(v, 1); }
  void u16(uint16_t v) noexcept { put(v, 2); }
  void u24(uint32_t v) noexcept { put(v, 3); }
  void u32(uint32_t v) noexcept { put(v, 4); }
  void u64(uint64_t v) noexcept { put(v, 8); }
  void fourcc(const char* code) noexcept { bytes(code, 4); }
  void bytes(const void* src, std::size_t n) noexcept {
    if (!room(n)) return;
    if (n) std::memcpy(out_ + pos_, src, n);
    pos_ += n;
  }
  void zeros(std::size_t n) noexcept {
    if (!room(n)) return;
    if (n) std::memset(out_ + pos_, 0, n);
    pos_ += n;
  }

  // Writes a zero size and the fourcc; close() patches the size.
  Box open(const char* code) noexcept {
    Box box{pos_};
    u32(0);
    fourcc(code);
    return box;
  }
  // A full box (ISO/IEC 14496-12 §4.2): header, version and 24-bit flags.
  Box open_full(const char* code, uint8_t version, uint32_t flags) noexcept {
    Box box = open(code);
    u8(version);
    u24(flags);
    return box;
  }
  // Patches the box's size from its start to the current position; returns it.
  uint32_t close(Box box) noexcept {
    const auto size = static_cast<uint32_t>(pos_ - box.start);
    patch_u32(box.start, size);
    return size;
  }
  void patch_u32(std::size_t at, uint32_t v) noexcept {
    if (failed_ || at + 4 > pos_) return;
    for (int i = 0; i < 4; ++i) out_[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
  }

 private:
  bool room(std::size_t n) noexcept {
    if (failed_ || n > capacity_ - pos_) {
      failed_ = true;
      return false;
    }
    return true;
  }
  void put(uint64_t v, std::size_t n) noexcept {
    if (!room(n)) return;
    for (std::size_t i = 0; i < n; ++i) out_[pos_ + i] = static_cast<uint8_t>(v >> (8 * (n - 1 - i)));
    pos_ += n;
  }

  uint8_t* out_;
  std::size_t capacity_;
  std::size_t pos_ = 0;
  bool failed_ = false;
};

}  // namespace boxlane
