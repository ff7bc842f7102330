#include "tools/common/parse_feed.hpp"

#include "tools/common/library_gate.hpp"
#include "tools/common/names.hpp"

#include <algorithm>
#include <limits>
#include <span>

namespace boxlane::tool {
namespace {

uint32_t be32(std::span<const uint8_t, 4> b) {
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

uint64_t be64(std::span<const uint8_t, 8> b) {
  return uint64_t{be32(b.first<4>())} << 32 | be32(b.last<4>());
}

bool is_mdat(std::span<const uint8_t, 4> type) {
  static constexpr char kMdat[] = "mdat";
  // The parser matches fourccs without regard to case, so the loop must too.
  for (std::size_t i = 0; i < 4; ++i)
    if ((type[i] | 0x20) != static_cast<uint8_t>(kMdat[i])) return false;
  return true;
}

}  // namespace

bool ParseFeed::run(PieceSizes sizes) {
  if (input_.mapped()) {
    for (;;) {
      const std::span<const uint8_t> piece = input_.view(sizes.next());
      if (piece.empty()) return finish();
      if (!take(piece.data(), piece.size())) return stop_code_ != 0;
      if (mode_ == Mode::kToEnd) return finish();
      skip_outside_piece();
    }
  }
  std::vector<uint8_t> buffer;
  for (;;) {
    const uint32_t want = sizes.next();
    if (buffer.size() < want) buffer.resize(want);
    const long got = input_.read(buffer.data(), want);
    if (got < 0) {
      error_ = input_.error();
      return false;
    }
    if (got == 0) return finish();
    if (!take(buffer.data(), static_cast<std::size_t>(got))) return stop_code_ != 0;
    if (mode_ == Mode::kToEnd) return finish();
    skip_outside_piece();
  }
}

bool ParseFeed::take(const uint8_t* piece_data, std::size_t size) {
  const std::span<const uint8_t> piece(piece_data, size);
  const uint64_t piece_offset = position_;
  std::size_t at = 0;
  std::size_t run = 0;  // start of the bytes not yet sent
  auto flush = [&]() {
    const bool ok = send(piece.data() + run, at - run, piece_offset + run);
    run = at;
    return ok;
  };
  while (at < size) {
    std::size_t n = 0;
    switch (mode_) {
      case Mode::kHeader:
      case Mode::kStopSize:
        n = std::min(header_want_ - header_have_, size - at);
        std::copy_n(piece.subspan(at, n).begin(), n, std::span(header_).subspan(header_have_).begin());
        header_have_ += n;
        break;
      case Mode::kBody:
      case Mode::kSkip:
      case Mode::kStopBody:
        n = static_cast<std::size_t>(std::min<uint64_t>(left_, size - at));
        left_ -= n;
        break;
      case Mode::kPassThrough:
      case Mode::kToEnd:
        n = size - at;
        break;
      case Mode::kStopEnd:
        // A byte after the box: the parser has not read what follows.
        read_to_end(true);
        n = size - at;
        break;
    }
    const bool unsent = mode_ == Mode::kSkip || mode_ == Mode::kStopSize || mode_ == Mode::kStopBody ||
                        (mode_ == Mode::kToEnd && to_end_is_mdat_);
    if (unsent) run = at + n;
    at += n;
    position_ += n;

    if (mode_ == Mode::kStopSize && header_have_ == header_want_) {
      const uint64_t declared = be64(std::span(header_).subspan<8, 8>());
      left_ = declared >= 16 ? declared - 16 : 0;
      if (declared >= 16) mode_ = Mode::kStopBody;
      else read_to_end(true);
    }
    if (mode_ == Mode::kStopBody && left_ == 0) mode_ = Mode::kStopEnd;

    if (mode_ == Mode::kHeader && header_have_ == header_want_) {
      // ISO/IEC 14496-12 §4.2: size field 1 puts a 64-bit size after the
      // fourcc, which a client in the extended mode follows.
      if (header_want_ == 8 && extended_ && be32(std::span(header_).first<4>()) == 1) {
        header_want_ = 16;
        continue;
      }
      if (on_header() && !flush()) return false;
    }
    if ((mode_ == Mode::kBody || mode_ == Mode::kSkip) && left_ == 0) {
      next_box();
      if (drain_ && (at - run >= kDrainEvery || ++boxes_since_drain_ >= kDrainBoxes)) {
        if (!flush()) return false;
        drain_();
        boxes_since_drain_ = 0;
      }
    }
  }
  return flush();
}

bool ParseFeed::on_header() {
  bool flush_here;
  size_field_ = be32(std::span(header_).first<4>());
  const bool mdat = is_mdat(std::span(header_).subspan<4, 4>());
  const uint64_t size = header_want_ == 16 ? be64(std::span(header_).subspan<8, 8>()) : size_field_;
  if (header_want_ == 16 && size >= 16) {
    box_size_ = size;
    left_ = size - 16;
    mode_ = mdat ? Mode::kSkip : Mode::kBody;
    flush_here = mdat;
  } else if (size_field_ == 1 && !extended_) {
    // The basic mode stops at a 64-bit size: the header goes to the
    // parser, which notes where and why; nothing more is sent.
    mode_ = Mode::kStopSize;
    header_want_ = 16;
    flush_here = true;
  } else if (size_field_ == 1 || (size_field_ >= 2 && size_field_ < 8)) {
    // The parser refuses these; what follows goes in a Send of its own so
    // that the refusal is reported at the same place for any piece size.
    mode_ = Mode::kPassThrough;
    flush_here = true;
  } else if (size_field_ == 0) {
    // ISO/IEC 14496-12 §4.2: size 0 means the box runs to the end of the
    // file. The parser takes all that follows as the box's, so reading stops
    // with this piece: the rest of it goes to the parser (or, for an mdat,
    // is skipped), and no more is read, however long the input goes on.
    read_to_end(mdat);
    flush_here = mdat;
  } else {
    box_size_ = size_field_;
    left_ = size_field_ - 8;
    mode_ = mdat ? Mode::kSkip : Mode::kBody;
    // The parser reads no further than an mdat header within one piece.
    flush_here = mdat;
  }
  return flush_here;
}

void ParseFeed::read_to_end(bool mdat) {
  mode_ = Mode::kToEnd;
  to_end_is_mdat_ = mdat;
  to_end_at_ = position_;
}

uint64_t ParseFeed::stream_bytes() const {
  // A regular file counts whole: what a stop leaves unread is still its own.
  if (input_.file_size()) return position_ + input_.unread();
  return mode_ == Mode::kToEnd ? to_end_at_ : position_;
}

void ParseFeed::skip_outside_piece() {
  if ((mode_ != Mode::kSkip && mode_ != Mode::kStopBody) || left_ == 0) return;
  const uint64_t skipped = input_.skip(left_);
  position_ += skipped;
  left_ -= skipped;
  if (left_ != 0) return;
  if (mode_ == Mode::kSkip) next_box();
  else mode_ = Mode::kStopEnd;
}

void ParseFeed::next_box() {
  mode_ = Mode::kHeader;
  header_have_ = 0;
  header_want_ = 8;
  box_start_ = position_;
}

bool ParseFeed::send(const uint8_t* data, std::size_t size, uint64_t offset) {
  if (size == 0) return true;
  uint64_t code;
  {
    std::lock_guard gate(library_gate());
    const uint64_t before = Boxlane_GetLastError(nullptr);
    const bool ok = Boxlane_Parse_Send(client_, data, static_cast<int32_t>(size));
    code = Boxlane_GetLastError(nullptr);
    // A failure while a pending box is being completed leaves Send true but
    // a code set. The flag is no help: a worker entering WaitEvent clears it
    // at any moment. A new code is the reliable sign (no failure of Send
    // sets the NODATA or NOTREADY code that a worker's Recv leaves behind).
    if (ok && code == before) {
      sent_ += size;
      input_.release(std::span(data, size));
      return true;
    }
  }
  if (stopped(code)) return false;
  error_ = "parser error " + hex_code(code) + " " + error_name(code) + ": piece of " + std::to_string(size) +
           (size == 1 ? " byte" : " bytes") + " at offset " + std::to_string(offset) + ", " + box_label();
  if (mode_ == Mode::kBody || mode_ == Mode::kSkip) error_ += " declaring " + std::to_string(size_field_) + " bytes";
  return false;
}

bool ParseFeed::stopped(uint64_t code) {
  if (code != BOXLANE_ERROR_PARSE_NOTSUPPORT && code != BOXLANE_ERROR_PARSE_MALFORMED &&
      code != BOXLANE_ERROR_PARSE_LIMIT)
    return false;
  BOXLANE_STREAMINFO stream{};
  {
    std::lock_guard gate(library_gate());
    if (!Boxlane_Parse_GetStream(client_, &stream)) return false;
  }
  // These are the parser declining a box by its rules (a 64-bit size, a
  // size below its header, a box over its limit or the client's bound): it reads nothing more of
  // this stream, and what it read before stands. The report says where.
  if (stream.nStop == BOXLANE_STOP_NONE) return false;
  stop_code_ = code;
  return true;
}

bool ParseFeed::finish() {
  const uint64_t present = position_ - box_start_;
  switch (mode_) {
    case Mode::kHeader:
      if (header_have_ == 0) return true;
      error_ = "truncated: box header at offset " + std::to_string(box_start_) + " has " +
               std::to_string(header_have_) + " of its " + std::to_string(header_want_) + " bytes";
      return false;
    case Mode::kBody:
    case Mode::kSkip:
      error_ = "truncated: " + box_label() + " declares " + std::to_string(box_size_) + " bytes, " +
               std::to_string(present) + " present";
      return false;
    case Mode::kPassThrough:
      if (size_field_ == 1) {
        error_ = box_label() + " has a 64-bit size (size field 1), which the parser does not read";
        return false;
      }
      if (size_field_ != 0) {
        error_ = "malformed: " + box_label() + " declares " + std::to_string(size_field_) +
                 " bytes, less than its own 8-byte header";
        return false;
      }
      return true;
    case Mode::kToEnd:
      return true;
    case Mode::kStopSize:
    case Mode::kStopBody:
      return true;  // cut short, but the parser had stopped at its header
    case Mode::kStopEnd:
      stopped_box_ends_input_ = true;
      return true;
  }
  return true;
}

std::string ParseFeed::box_label() const {
  const std::string where = "at offset " + std::to_string(box_start_);
  if (mode_ == Mode::kHeader && header_have_ < 8) return "box " + where;
  const auto type = std::span(header_).subspan<4, 4>();
  std::string label = "box '" + printable_text(reinterpret_cast<const char*>(type.data())) + "' " + where;
  if (mode_ == Mode::kPassThrough || mode_ == Mode::kToEnd)
    label += " (size field " + std::to_string(size_field_) + ")";
  if (std::any_of(type.begin(), type.end(), [](uint8_t c) { return c < 0x20 || c >= 0x7F; }))
    label += " (not an MP4 stream?)";
  return label;
}

}  // namespace boxlane::tool
