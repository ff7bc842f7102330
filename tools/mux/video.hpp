// Reading an H.264 or H.265 Annex B elementary stream for muxing: NAL units
// grouped into access units, the parameter sets for the sample description,
// key frames, and the display order that picture order counts give.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/annexb.hpp"
#include "platform/h264.hpp"

namespace boxlane::tool {

// A NAL unit that goes into a sample, as a slice of the mapped input.
struct SampleNal {
  const uint8_t* data;
  uint32_t size;
};

// One sample: an access unit, or the two access units of a field pair.
struct AccessUnit {
  uint32_t first_nal = 0;  // index into VideoStream::nals
  uint32_t nal_count = 0;
  uint64_t sample_size = 0;  // each NAL unit with its 4-byte length
  uint64_t input_offset = 0;  // byte offset of its first slice in the input
  int64_t poc = 0;
  bool key = false;
  // The first picture, an IDR or a picture with mmco 5: pictures before it
  // are all shown before it and after it counting starts again.
  bool restart = false;
};

enum class VideoCodec { kUnknown, kH264, kH265 };

struct FrameRate {
  uint32_t num = 25;
  uint32_t den = 1;
};

struct VideoScanOptions {
  // Keep the pictures before the first random access point, which no
  // decoder can show correctly (those before the first parameter sets are
  // dropped all the same: they cannot even be read).
  bool keep_leading = false;
  // Leave SEI NAL units (captions, timing, encoder notes) out of the samples.
  bool strip_sei = false;
};

struct VideoStream {
  VideoCodec codec = VideoCodec::kH264;
  uint32_t width = 0;  // shown picture size, from the first SPS
  uint32_t height = 0;
  // H.265: every distinct VPS, SPS and PPS in the order they first appear,
  // without start codes, for the hvcC record.
  std::vector<std::vector<uint8_t>> hevc_sets;
  h264::Sps sps;  // the first one: the picture size and frame rate come from it
  // H.264: every distinct SPS and PPS, in the order they first appear,
  // without start codes: pictures may use several by turns.
  std::vector<std::vector<uint8_t>> sps_nals;
  std::vector<std::vector<uint8_t>> pps_nals;
  std::vector<SampleNal> nals;
  std::vector<AccessUnit> units;  // decoding order
  // Display position of every access unit (a permutation of 0..n-1).
  std::vector<uint32_t> display;
  bool reordered = false;  // some unit is shown out of decoding order
  // The most pictures that may precede a picture in decoding order and
  // follow it in display order, as the SPS allows (H.264 §E.2.1
  // max_num_reorder_frames, else none in the Baseline profile and 16
  // beyond, the largest picture buffer of §A.3.1; H.265 §7.4.3.2.1
  // sps_max_num_reorder_pics).
  uint32_t reorder_limit = 16;
  uint32_t max_nals_per_unit = 0;
  uint64_t max_sample_size = 0;
  uint64_t payload_bytes = 0;  // sum of sample sizes
  uint32_t skipped_before_parameter_sets = 0;
  // H.265: the pictures among those left out after the start (the RASL
  // pictures of a CRA picture after an end of sequence, or of a BLA
  // picture), by the kept picture they come before in decoding order: `at`
  // is its index in units. They keep their time on the frame grid (see
  // Slots), so the pictures after them stay in step with the audio.
  struct Gap {
    uint32_t at;
    uint32_t pictures;
  };
  std::vector<Gap> gaps;
  // H.264: pictures left out before the first random access point (and,
  // when it is not an IDR picture, those shown before it that need the
  // pictures before it), counted by their first slice.
  uint32_t dropped_leading = 0;
  // Of those, the ones read as single fields: each lasted half a frame.
  uint32_t dropped_fields = 0;
  // The pictures left out before decoding can start, as the stream's codec
  // counts them.
  uint32_t pictures_left_out() const noexcept {
    return codec == VideoCodec::kH265 ? skipped_before_parameter_sets - gap_pictures() : dropped_leading;
  }
  // The pictures in gaps.
  uint32_t gap_pictures() const noexcept {
    uint32_t pictures = 0;
    for (const Gap& gap : gaps) pictures += gap.pictures;
    return pictures;
  }
  // Set when the scan is refused because every picture was left out that
  // way: none comes at or after a random access point.
  bool only_leading = false;
  bool has_vui_rate = false;
  FrameRate vui_rate;
};

// Throws ToolError with the byte offset of the first thing it cannot accept.
// `name` is the path, for messages.
// `read_to`, when given, is told how far the scan has read.
void scan_video(const uint8_t* data, std::size_t size, const std::string& name, VideoStream& out,
                const std::function<void(const uint8_t*)>& read_to = {}, VideoScanOptions options = {});

// The same for H.265 (ISO/IEC 23008-2): a sample per picture, IRAP pictures
// (IDR, CRA, BLA) as key frames, the parameter sets in hevc_sets and none in
// the samples. Pictures before the first IRAP picture, and the RASL pictures
// of a CRA or BLA picture that starts decoding, cannot be decoded and are
// left out (counted in skipped_before_parameter_sets; those after kept
// pictures, at an end of sequence or a BLA picture, also in gaps). A piece
// that `continues` a stream (cut at an IRAP picture) keeps the RASL pictures
// of the CRA picture it starts with: their references are in the piece before.
void scan_hevc(const uint8_t* data, std::size_t size, const std::string& name, VideoStream& out,
               const std::function<void(const uint8_t*)>& read_to = {}, bool continues = false);

// Which codec an Annex B stream holds, told by the first parameter set that
// reads as one of either kind; kUnknown when none does.
VideoCodec detect_codec(const uint8_t* data, std::size_t size) noexcept;

// Puts the units in display order (VideoStream::display, reordered): by
// picture order count between two restarts, everything before a restart
// first. Throws ToolError on two pictures with the same count.
void order_for_display(const std::string& name, VideoStream& v);

// What both scanners share: hands every NAL unit of an Annex B stream to
// `take` in order, telling `read_to` how far it has read. Throws ToolError
// when the stream holds no start code or something other than zero bytes
// before the first.
void walk_annexb(const uint8_t* data, std::size_t size, const std::string& name,
                 const std::function<void(const NalUnit&)>& take, const std::function<void(const uint8_t*)>& read_to);

// §7.4.1.2.4: whether `cur` is the first slice of a new primary picture
// rather than another slice of the picture `prev` began (a redundant
// picture's slices never are).
bool starts_new_picture(const h264::SliceHeader& prev, const h264::SliceHeader& cur, const h264::Sps& sps) noexcept;

// num/den frames per second in lowest terms, when it is a plausible rate.
bool plausible_rate(uint64_t num, uint64_t den, FrameRate& out) noexcept;

// The frame rate the SPS's timing information gives (frames, not fields),
// when it is present and plausible.
bool vui_frame_rate(const h264::Sps& sps, FrameRate& out) noexcept;

}  // namespace boxlane::tool
