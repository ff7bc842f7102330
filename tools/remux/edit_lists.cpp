#include "tools/remux/edit_lists.hpp"

#include <cstring>
#include <optional>

namespace boxlane::tool {
namespace {

// A cursor over one box's bytes: a read past the end fails, and every later
// read fails too.
class Cursor {
 public:
  Cursor(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool ok() const noexcept { return ok_; }
  std::size_t remaining() const noexcept { return ok_ ? size_ - at_ : 0; }
  uint64_t take(std::size_t bytes) {
    if (!ok_ || size_ - at_ < bytes) {
      ok_ = false;
      return 0;
    }
    uint64_t v = 0;
    for (std::size_t i = 0; i < bytes; ++i) v = v << 8 | data_[at_ + i];
    at_ += bytes;
    return v;
  }
  void skip(std::size_t bytes) { take_span(bytes); }
  const uint8_t* take_span(std::size_t bytes) {
    if (!ok_ || size_ - at_ < bytes) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t* p = data_ + at_;
    at_ += bytes;
    return p;
  }

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
  bool ok_ = true;
};

struct Box {
  char type[4];
  const uint8_t* payload;
  std::size_t size;
};

// The next box of a container's payload (ISO/IEC 14496-12 §4.2): 32-bit or
// 64-bit size, size 0 to the end. nullopt at the end or on a size that does
// not fit.
std::optional<Box> next_box(Cursor& c) {
  if (c.remaining() < 8) return std::nullopt;
  const std::size_t left = c.remaining();
  uint64_t size = c.take(4);
  Box box{};
  std::memcpy(box.type, c.take_span(4), 4);
  std::size_t header = 8;
  if (size == 1) {
    size = c.take(8);
    header = 16;
  } else if (size == 0) {
    size = left;
  }
  if (!c.ok() || size < header || size > left) return std::nullopt;
  box.size = static_cast<std::size_t>(size - header);
  box.payload = c.take_span(box.size);
  return box;
}

bool is(const Box& b, const char* type) { return std::memcmp(b.type, type, 4) == 0; }

std::optional<uint32_t> track_id(const Box& tkhd) {
  Cursor c(tkhd.payload, tkhd.size);
  const uint64_t version = c.take(1);
  c.skip(3);
  c.skip(version == 1 ? 16 : 8);  // creation and modification times
  const uint32_t id = static_cast<uint32_t>(c.take(4));
  if (!c.ok()) return std::nullopt;
  return id;
}

std::vector<EditEntry> entries(const Box& elst) {
  Cursor c(elst.payload, elst.size);
  const uint64_t version = c.take(1);
  c.skip(3);
  uint64_t count = c.take(4);
  const std::size_t entry_size = version == 1 ? 20 : 12;
  // Whole entries only: a count from the file does not size the list alone.
  if (count > c.remaining() / entry_size) count = c.remaining() / entry_size;
  std::vector<EditEntry> out;
  out.reserve(static_cast<std::size_t>(count));
  for (uint64_t i = 0; i < count; ++i) {
    EditEntry e;
    if (version == 1) {
      e.segment_duration = c.take(8);
      e.media_time = static_cast<int64_t>(c.take(8));
    } else {
      e.segment_duration = c.take(4);
      e.media_time = static_cast<int32_t>(static_cast<uint32_t>(c.take(4)));
    }
    e.rate_integer = static_cast<int16_t>(static_cast<uint16_t>(c.take(2)));
    e.rate_fraction = static_cast<int16_t>(static_cast<uint16_t>(c.take(2)));
    out.push_back(e);
  }
  return out;
}

void read_trak(const Box& trak, std::map<uint32_t, std::vector<EditEntry>>& lists) {
  Cursor c(trak.payload, trak.size);
  std::optional<uint32_t> id;
  std::optional<std::vector<EditEntry>> edits;
  while (const auto box = next_box(c)) {
    if (is(*box, "tkhd")) id = track_id(*box);
    if (!is(*box, "edts")) continue;
    Cursor e(box->payload, box->size);
    while (const auto inner = next_box(e)) {
      if (is(*inner, "elst")) edits = entries(*inner);
    }
  }
  if (id && edits) lists[*id] = std::move(*edits);
}

}  // namespace

std::map<uint32_t, std::vector<EditEntry>> read_edit_lists(const uint8_t* data, std::size_t size) {
  std::map<uint32_t, std::vector<EditEntry>> lists;
  Cursor file(data, size);
  while (const auto top = next_box(file)) {
    if (!is(*top, "moov")) continue;
    Cursor moov(top->payload, top->size);
    while (const auto box = next_box(moov)) {
      if (is(*box, "trak")) read_trak(*box, lists);
    }
    break;
  }
  return lists;
}

}  // namespace boxlane::tool
