// The receiving loop: reads the input piece by piece and hands every byte to
// the parser except the payload of each mdat.
//
// The parser takes an mdat header and then expects the next piece to start a
// new box, so the loop has to know where each mdat payload begins without
// waiting for the worker to report the header record. It therefore follows
// the top-level boxes itself: it reads each top-level box header out of the
// bytes as they pass (a header split across pieces is collected first), sends
// a box's bytes as they arrive, and at an mdat header ends the current Send
// right after the header and skips the payload (seek on a regular file, read
// and discard on a pipe). Nested boxes are the parser's business alone. The
// loop also knows at the end of input whether a box was cut short, and by
// how much.
#pragma once

#include "tools/common/parse_input.hpp"
#include "tools/common/parse_session.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace boxlane::tool {

class ParseFeed {
 public:
  // `extended`: the client follows 64-bit box sizes (Boxlane_Parse_InsertEx).
  // `drain` takes the header records waiting in the parser: a piece holding
  // many top-level boxes is sent in runs of about kDrainEvery bytes or
  // kDrainBoxes boxes, each ending where a top-level box does, with a drain
  // after each, so that the parser never queues the records of a whole 64 MiB
  // piece at once, nor more track fragments than it keeps (it releases the
  // oldest past 4096 answers, however fast the workers would have been).
  ParseFeed(const char* client, ParseInput& input, bool extended, std::function<void()> drain = {})
      : client_(client), input_(input), extended_(extended), drain_(std::move(drain)) {}

  static constexpr std::size_t kDrainEvery = 1 << 20;
  static constexpr std::size_t kDrainBoxes = 256;

  // Reads the whole input; false with error() set on the first failure.
  // When the parser stops the stream at a box (a rule of the parser, not a
  // fault of the input), the run ends there and is true, with stop_code()
  // the code the parser refused the box with (0 when it took it).
  bool run(PieceSizes sizes);

  const std::string& error() const { return error_; }
  uint64_t stop_code() const { return stop_code_; }
  // The parser stopped at a top-level box with a 64-bit size, and the input
  // ends where that size says the box ends.
  bool stopped_box_ends_input() const { return stopped_box_ends_input_; }
  // The bytes of input the run covered: a regular file's whole size, even
  // where a stop left the rest unread; other input up to the end of the last
  // piece read, or, where reading stopped at a box that runs to the end (size
  // 0) or after a box --strict passed over, up to where that rule stopped it:
  // the rest of that piece depends on the piece size and on a pipe's timing.
  uint64_t stream_bytes() const;
  uint64_t sent_bytes() const { return sent_; }

 private:
  enum class Mode {
    kHeader,       // collecting the 8 (16 for a 64-bit size) header bytes of the next top-level box
    kBody,         // sending the rest of a box
    kSkip,         // passing over an mdat payload
    kPassThrough,  // a box whose end is unknown: everything left is sent
    kToEnd,        // a box of size 0, or a stop: reading stops after this piece
    // --strict stops at a 64-bit size; the loop alone reads that size and
    // passes over the box, to learn whether the input ends with it.
    kStopSize,     // collecting the 8 bytes of the 64-bit size, not sent
    kStopBody,     // passing over the rest of that box, not sent
    kStopEnd,      // at its end: any byte now means more follows
  };

  bool take(const uint8_t* piece, std::size_t size);
  // Reads the collected header; true when the Send must end right after it.
  bool on_header();
  bool send(const uint8_t* data, std::size_t size, uint64_t offset);
  // Passes over the part of an mdat payload that lies beyond the piece.
  void skip_outside_piece();
  bool finish();
  void next_box();
  // Reading stops with this piece (a box of size 0, or more after a box
  // --strict passed over); what follows in it is an mdat's, or the box's.
  void read_to_end(bool mdat);
  std::string box_label() const;

  // Ends the run at a refusal of the parser when it stopped the stream;
  // false when the refusal was no stop.
  bool stopped(uint64_t code);

  const char* client_;
  ParseInput& input_;
  std::string error_;
  uint64_t stop_code_ = 0;
  bool stopped_box_ends_input_ = false;
  Mode mode_ = Mode::kHeader;
  uint64_t position_ = 0;   // stream offset of the next byte to be looked at
  uint64_t to_end_at_ = 0;  // where kToEnd began: reading stops there by rule
  uint64_t sent_ = 0;
  uint64_t box_start_ = 0;  // offset of the current top-level box
  bool extended_;
  std::function<void()> drain_;
  uint8_t header_[16] = {};
  std::size_t header_have_ = 0;
  std::size_t header_want_ = 8;
  uint64_t box_size_ = 0;   // the current box's size, 64-bit sizes followed
  bool to_end_is_mdat_ = false;
  uint32_t size_field_ = 0;
  uint64_t left_ = 0;       // bytes of the current box still to come
  std::size_t boxes_since_drain_ = 0;
};

}  // namespace boxlane::tool
