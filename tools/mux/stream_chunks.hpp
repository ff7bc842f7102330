// Live elementary streams cut into pieces that are read on their own, as the
// input arrives: H.264 at the start of every access unit of an IDR picture
// (each piece is a closed group of pictures that scan_video reads alone),
// H.265 at every IRAP picture (IDR, CRA or BLA; scan_hevc reads each piece
// as the continuation of the ones before it), ADTS at whole frames (for
// scan_audio). A piece holds a copy of its bytes,
// so the input keeps only what is not yet cut.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/live_input.hpp"
#include "tools/mux/audio.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::tool {

struct VideoChunk {
  std::vector<uint8_t> bytes;  // the parameter sets sent before it, then its input bytes
  VideoStream stream;          // units and NAL units point into bytes
  uint64_t input_offset = 0;   // of its first input byte
  // Pictures left out since the piece before (none for the first piece):
  // their time is kept in front of this piece's first picture.
  uint32_t left_out_before = 0;
};

class VideoChunker {
 public:
  // The most input held while the next IDR (H.265: IRAP) picture is awaited.
  static constexpr std::size_t kMaxPiece = std::size_t{128} << 20;

  // `options` as for scan_video, which reads every H.264 piece with them.
  explicit VideoChunker(LiveInput& in, VideoScanOptions options = {}) : in_(in), options_(options) {}
  // What the input holds; H.264 until told, and told before the first next().
  void set_codec(VideoCodec codec) noexcept { codec_ = codec; }
  // Cuts the next piece from what has been read: true when one is complete
  // (the next IDR picture has begun, or the input has ended). Throws
  // ToolError with offsets in the input, also when a parameter set changes.
  bool next(VideoChunk& out);
  // The input has ended and every piece has been taken.
  bool finished() const noexcept { return in_.eof() && in_.size() == 0 && done_; }
  // Pictures left out because no decoder can show them: those before the
  // first parameter sets, and those the scan drops before the first random
  // access point (H.264 unless options.keep_leading; H.265 also the RASL
  // pictures of a BLA picture, of the CRA picture decoding starts at, or of
  // one after an end of sequence). A stream cut in the middle of a group of
  // pictures starts with a piece of such pictures alone, left out whole.
  uint32_t dropped_leading() const noexcept { return dropped_; }
  // Of those, the ones before the first piece's pictures are shown: no time
  // of theirs is kept. Final once the first piece has been taken.
  uint32_t dropped_at_start() const noexcept { return at_start_; }
  // Of those, the H.264 single fields (half a frame each).
  uint32_t dropped_fields() const noexcept { return dropped_fields_; }
  // Where the input stopped in the middle of a NAL unit that could not be
  // read, when it did; the pictures before it are kept.
  bool cut_short() const noexcept { return cut_short_; }
  uint64_t cut_at() const noexcept { return cut_at_; }
  // Hands back the bytes of a piece that was written, for the next piece to
  // use: a recording then allocates nothing per group of pictures.
  void recycle(std::vector<uint8_t>&& bytes) noexcept {
    if (bytes.capacity() > spare_.capacity()) spare_ = std::move(bytes);
  }

 private:
  struct ParameterSet {
    uint8_t type;
    uint32_t id;
    uint64_t offset;  // in the input
    std::vector<uint8_t> nal;
  };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  bool scan_to_boundary(std::size_t& boundary);
  void complete_nal(std::size_t end);
  bool emit(std::size_t end, bool last, VideoChunk& out);
  void scan(VideoChunk& out) const;
  void counted(VideoChunk& out) noexcept;
  void left_out(uint32_t pictures) noexcept;
  bool h265() const noexcept { return codec_ == VideoCodec::kH265; }

  LiveInput& in_;
  const VideoScanOptions options_;
  // Positions in in_.data(), which starts at the piece being cut.
  std::size_t scan_ = 0;
  std::size_t nal_ = kNone;        // start of the NAL unit whose end is not known yet
  std::size_t candidate_ = kNone;  // start code where the next access unit would begin
  std::size_t last_nal_sc_ = 0;    // start code of the last NAL unit seen
  uint32_t vcl_ = 0;               // slices in the piece so far
  uint32_t pictures_ = 0;          // of them, the first slices of a picture
  bool random_access_ = false;     // H.265: the piece holds an IRAP picture
  bool ends_sequence_ = false;     // H.265: the piece holds an end of sequence or bitstream
  bool after_eos_ = false;         // ... the piece before did: decoding starts anew (§8.1.3)
  VideoCodec codec_ = VideoCodec::kH264;
  uint64_t emitted_ = 0;           // pieces with pictures handed out
  bool done_ = false;
  uint32_t dropped_ = 0;
  uint32_t at_start_ = 0;
  uint32_t since_last_piece_ = 0;  // left out after the first piece
  uint32_t dropped_fields_ = 0;
  bool cut_short_ = false;
  uint64_t cut_at_ = 0;
  std::vector<ParameterSet> sets_;
  std::vector<uint8_t> spare_;
};

struct AudioChunk {
  std::vector<uint8_t> bytes;
  AudioStream stream;  // frames point into bytes
  uint64_t input_offset = 0;
};

class AudioChunker {
 public:
  explicit AudioChunker(LiveInput& in) : in_(in) {}
  // The whole ADTS frames read so far; true when there is at least one.
  bool next(AudioChunk& out);
  bool finished() const noexcept { return in_.eof() && in_.size() == 0; }
  bool cut_short() const noexcept { return cut_short_; }
  uint64_t cut_at() const noexcept { return cut_at_; }

 private:
  LiveInput& in_;
  bool first_ = true;
  bool have_config_ = false;
  AdtsHeader config_;
  bool cut_short_ = false;
  uint64_t cut_at_ = 0;
};

// scan_video and scan_audio give offsets within the bytes they were handed
// ("at byte N"); this moves every such N by `shift`.
std::string shift_offsets(const std::string& message, int64_t shift);

}  // namespace boxlane::tool
