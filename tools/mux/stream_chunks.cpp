#include "tools/mux/stream_chunks.hpp"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "platform/h264.hpp"
#include "platform/hevc.hpp"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

namespace {

// What the cutter needs to know of a NAL unit.
struct NalFacts {
  bool slice = false;          // a slice (H.265: a slice segment) of a picture
  bool first_slice = false;    // ... that begins its picture
  bool random_access = false;  // ... of a picture a piece may start at
  bool opens_unit = false;     // opens an access unit after a picture's last slice
  bool ends_sequence = false;  // H.265: an end of sequence or of bitstream
};

// H.264 §7.4.1.2.3: `b` holds the NAL header and, for a slice, the byte with
// first_mb_in_slice, whose ue(v) is the single bit 1 when it is 0.
NalFacts h264_facts(const uint8_t* b) {
  const uint8_t type = b[0] & 0x1F;
  NalFacts f;
  f.slice = type >= 1 && type <= 5;
  f.first_slice = f.slice && (b[1] & 0x80);
  f.random_access = f.first_slice && type == h264::kNalIdrSlice;
  f.opens_unit = type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18);
  return f;
}

// H.265 §7.4.2.4.4: `b` holds the two header bytes and, for a slice segment,
// the byte with first_slice_segment_in_pic_flag. The reserved VCL types are
// no pictures (decoders ignore them), as for scan_hevc.
NalFacts h265_facts(const uint8_t* b) {
  const uint8_t type = (b[0] >> 1) & 0x3F;
  NalFacts f;
  f.slice = type <= hevc::kRaslR || (type >= hevc::kBlaWLp && type <= hevc::kCra);
  f.first_slice = f.slice && (b[2] & 0x80);
  f.random_access = f.first_slice && hevc::is_irap(type);
  f.opens_unit = (type >= hevc::kVps && type <= hevc::kAud) || type == hevc::kPrefixSei || (type >= 41 && type <= 44) ||
                 (type >= 48 && type <= 55);
  f.ends_sequence = type == hevc::kEos || type == hevc::kEob;
  return f;
}

// The parameter set types, in the order a piece repeats them.
constexpr uint8_t kH264Sets[] = {h264::kNalSps, h264::kNalPps};
constexpr uint8_t kH265Sets[] = {hevc::kVps, hevc::kSps, hevc::kPps};
const char* const kSetKinds[] = {"video", "sequence", "picture"};

constexpr std::string_view kAtByte = "at byte ";

std::optional<uint64_t> first_offset(const std::string& message) {
  const std::size_t at = message.find(kAtByte);
  if (at == std::string::npos) return std::nullopt;
  uint64_t value = 0;
  std::size_t i = at + kAtByte.size();
  if (i >= message.size() || message[i] < '0' || message[i] > '9') return std::nullopt;
  for (; i < message.size() && message[i] >= '0' && message[i] <= '9'; ++i) value = value * 10 + (message[i] - '0');
  return value;
}

// A parameter set's id (H.264 §7.3.2.1.1 and §7.3.2.2, H.265 §7.3.2.1 to
// §7.3.2.3), or nothing when it cannot be read (the scan then says so).
std::optional<uint32_t> parameter_set_id(VideoCodec codec, uint8_t type, const uint8_t* nal, std::size_t size) {
  if (codec == VideoCodec::kH265) {
    hevc::Vps vps;
    hevc::Sps sps;
    hevc::Pps pps;
    if (type == hevc::kVps && hevc::parse_vps(nal, size, vps)) return vps.id;
    if (type == hevc::kSps && hevc::parse_sps(nal, size, sps)) return sps.id;
    if (type == hevc::kPps && hevc::parse_pps(nal, size, pps)) return pps.id;
  } else if (type == h264::kNalSps) {
    h264::Sps sps;
    if (h264::parse_sps(nal, size, sps)) return sps.id;
  } else {
    h264::Pps pps;
    if (h264::parse_pps(nal, size, pps)) return pps.id;
  }
  return std::nullopt;
}

// ID3v2.4 §3.1: "ID3", version, flags, then a 28-bit size in four 7-bit
// bytes. How many bytes the stream must hold before its first ADTS frame
// can be looked for (0 without a tag), or nothing while unknown.
std::optional<std::size_t> id3_bytes(const uint8_t* data, std::size_t size, bool eof) {
  if (size < 10) {
    if (!eof && (size == 0 || std::memcmp(data, "ID3", std::min<std::size_t>(size, 3)) == 0)) return std::nullopt;
    return 0;
  }
  if (std::memcmp(data, "ID3", 3) != 0) return 0;
  uint32_t body = 0;
  for (int i = 6; i < 10; ++i) body = (body << 7) | (data[i] & 0x7F);
  return 10 + std::size_t{body} + ((data[5] & 0x10) ? 10 : 0);
}

}  // namespace

std::string shift_offsets(const std::string& message, int64_t shift) {
  std::string out;
  std::size_t from = 0;
  for (std::size_t at; (at = message.find(kAtByte, from)) != std::string::npos;) {
    std::size_t end = at + kAtByte.size();
    int64_t value = 0;
    bool digits = false;
    for (; end < message.size() && message[end] >= '0' && message[end] <= '9'; ++end) {
      value = value * 10 + (message[end] - '0');
      digits = true;
    }
    out.append(message, from, at + kAtByte.size() - from);
    if (digits) out += std::to_string(value + shift);
    from = end;
  }
  return out.append(message, from, std::string::npos);
}

bool VideoChunker::next(VideoChunk& out) {
  for (;;) {
    std::size_t boundary = 0;
    if (scan_to_boundary(boundary)) {
      if (emit(boundary, false, out)) return true;
      continue;
    }
    if (!in_.eof()) {
      // A piece is held whole until the next picture it may end at: a
      // stream without them would otherwise be held whole.
      if (in_.size() > kMaxPiece) {
        const char* what = h265() ? "IRAP picture (IDR, CRA or BLA)" : "IDR picture";
        throw ToolError(in_.name() + ": no " + what + " in the " + std::to_string(kMaxPiece >> 20) + " MiB from byte " +
                        std::to_string(in_.offset()) + "; fragments start at such pictures, so the stream needs them " +
                        "more often");
      }
      return false;
    }
    if (in_.size() == 0) {
      done_ = true;
      return false;
    }
    if (nal_ != kNone) complete_nal(in_.size());
    nal_ = kNone;
    const bool got = emit(in_.size(), true, out);
    done_ = true;
    return got;
  }
}

// Finds start codes from scan_ on. True with `boundary` at the start of the
// access unit of a picture a piece may start at (H.264: IDR; H.265: IRAP)
// that follows the slices of the piece.
bool VideoChunker::scan_to_boundary(std::size_t& boundary) {
  const uint8_t* d = in_.data();
  const std::size_t size = in_.size();
  const std::size_t header = h265() ? 2 : 1;
  std::size_t i = std::max<std::size_t>(scan_, 2);
  while (i < size) {
    const auto* hit = static_cast<const uint8_t*>(std::memchr(d + i, 1, size - i));
    if (!hit) {
      i = size;
      break;
    }
    const auto one = static_cast<std::size_t>(hit - d);
    if (d[one - 1] != 0 || d[one - 2] != 0) {
      i = one + 1;
      continue;
    }
    const std::size_t start = one - 2;
    // The NAL header and the byte after it, which a slice begins with.
    if (size - one <= header + 1) {
      if (in_.eof()) {
        i = size;
        break;
      }
      scan_ = start;
      return false;
    }
    if (nal_ != kNone) complete_nal(start);
    nal_ = kNone;
    const NalFacts nal = h265() ? h265_facts(d + one + 1) : h264_facts(d + one + 1);
    if (nal.slice) {
      if (nal.random_access && vcl_ > 0) {
        boundary = candidate_ != kNone ? candidate_ : start;
        // The zero_byte of a 4-byte start code opens the access unit too (Annex B.1.2).
        if (boundary > 0 && d[boundary - 1] == 0) --boundary;
        scan_ = start;
        return true;
      }
      ++vcl_;
      if (nal.first_slice) ++pictures_;
      random_access_ = random_access_ || nal.random_access;
      candidate_ = kNone;
    } else if (nal.opens_unit && candidate_ == kNone) {
      candidate_ = start;
    }
    // Only an end of sequence that no picture follows in the piece starts the next one anew.
    ends_sequence_ = nal.ends_sequence || (ends_sequence_ && !nal.slice);
    nal_ = one + 1;
    last_nal_sc_ = start;
    i = one + 1;
  }
  scan_ = i;
  return false;
}

// Parameter sets are checked as soon as they are whole: one that changes
// is refused where it stands in the input.
void VideoChunker::complete_nal(std::size_t end) {
  const uint8_t* d = in_.data();
  while (end > nal_ && d[end - 1] == 0) --end;
  if (end <= nal_) return;
  const uint8_t type = h265() ? (d[nal_] >> 1) & 0x3F : d[nal_] & 0x1F;
  const bool set = h265() ? type >= hevc::kVps && type <= hevc::kPps : type == h264::kNalSps || type == h264::kNalPps;
  if (!set) return;
  const auto id = parameter_set_id(codec_, type, d + nal_, end - nal_);
  if (!id) return;
  const uint64_t offset = in_.offset() + nal_;
  for (const ParameterSet& kept : sets_) {
    if (kept.type != type || kept.id != *id) continue;
    if (kept.nal.size() == end - nal_ && std::memcmp(kept.nal.data(), d + nal_, kept.nal.size()) == 0) return;
    if (h265()) {
      throw ToolError(in_.name() + ": the " + kSetKinds[type - hevc::kVps] + " parameter set " + std::to_string(*id) +
                      " changes at byte " + std::to_string(offset) +
                      "; an hvc1 track describes each parameter set once, so split the stream there");
    }
    const bool sps = type == h264::kNalSps;
    throw ToolError(in_.name() + ": the " + (sps ? "sequence" : "picture") + " parameter set changes at byte " +
                    std::to_string(offset) + "; one MP4 track holds one " + (sps ? "SPS" : "PPS") +
                    ", so split the stream there");
  }
  sets_.push_back(ParameterSet{type, *id, offset, std::vector<uint8_t>(d + nal_, d + end)});
}

void VideoChunker::scan(VideoChunk& out) const {
  if (h265()) {
    scan_hevc(out.bytes.data(), out.bytes.size(), in_.name(), out.stream, {}, emitted_ > 0 && !after_eos_);
  } else {
    scan_video(out.bytes.data(), out.bytes.size(), in_.name(), out.stream, {}, options_);
  }
}

void VideoChunker::left_out(uint32_t pictures) noexcept {
  dropped_ += pictures;
  if (emitted_ > 0) since_last_piece_ += pictures;
}

void VideoChunker::counted(VideoChunk& out) noexcept {
  left_out(out.stream.pictures_left_out());
  if (emitted_ == 0) at_start_ = dropped_;
  out.left_out_before = std::exchange(since_last_piece_, 0);
  dropped_ += out.stream.gap_pictures();
  dropped_fields_ += out.stream.dropped_fields;
  ++emitted_;
}

bool VideoChunker::emit(std::size_t end, bool last, VideoChunk& out) {
  const uint64_t offset = in_.offset();
  const uint32_t slices = vcl_;
  const uint32_t pictures = pictures_;
  const std::size_t last_nal = last_nal_sc_;
  // The piece leaves the input whatever becomes of it.
  struct Consume {
    VideoChunker& self;
    std::size_t end;
    ~Consume() {
      self.in_.consume(end);
      self.scan_ = self.scan_ >= end ? self.scan_ - end : 0;
      self.nal_ = kNone;
      self.candidate_ = kNone;
      self.vcl_ = 0;
      self.pictures_ = 0;
      self.random_access_ = false;
      self.last_nal_sc_ = 0;
      self.after_eos_ = self.ends_sequence_;
      self.ends_sequence_ = false;
    }
  } consume{*this, end};

  // Trailing parameter sets or SEI with no picture after them.
  if (slices == 0) return false;
  bool sets_before = false, sets_inside = false;
  // Sets past the piece's end belong to the next piece.
  for (const ParameterSet& set : sets_) {
    if (set.offset < offset) sets_before = true;
    else if (set.offset < offset + end) sets_inside = true;
  }
  if (!sets_before && !sets_inside) {
    left_out(pictures);
    return false;
  }
  if (h265() && !random_access_) {
    // Pictures before the first IRAP picture: nothing to decode them from.
    left_out(pictures);
    return false;
  }
  if (h265() && emitted_ > 0) {
    // The init segment's hvc1 entry holds the sets of the first piece.
    for (const ParameterSet& set : sets_) {
      if (set.offset < offset) continue;
      throw ToolError(in_.name() + ": a new " + kSetKinds[set.type - hevc::kVps] + " parameter set (id " +
                      std::to_string(set.id) + ") at byte " + std::to_string(set.offset) +
                      " after the first fragment; the hvc1 track describes the sets sent before it, so split the "
                      "stream there");
    }
  }
  out = VideoChunk{};
  out.bytes = std::move(spare_);
  out.bytes.clear();
  spare_ = std::vector<uint8_t>();
  out.input_offset = offset;
  // A piece after the first starts with the parameter sets sent so far:
  // scan_video reads it alone, and repeats of them inside are ignored.
  const std::span<const uint8_t> order = h265() ? std::span<const uint8_t>(kH265Sets) : std::span<const uint8_t>(kH264Sets);
  for (const uint8_t type : order) {
    for (const ParameterSet& set : sets_) {
      if (set.type != type || set.offset >= offset) continue;
      out.bytes.insert(out.bytes.end(), {0, 0, 0, 1});
      out.bytes.insert(out.bytes.end(), set.nal.begin(), set.nal.end());
    }
  }
  const std::size_t prefix = out.bytes.size();
  out.bytes.insert(out.bytes.end(), in_.data(), in_.data() + end);
  const int64_t shift = static_cast<int64_t>(offset) - static_cast<int64_t>(prefix);
  try {
    scan(out);
    counted(out);
    return true;
  } catch (const ToolError& e) {
    // The first piece of a stream cut in the middle of a group of pictures
    // ends where the first IDR picture begins: none of its pictures can be
    // shown, and it is left out as the movie path leaves them out. A stream
    // with no IDR picture at all is one last piece, refused as there.
    if (out.stream.only_leading && !emitted_ && !last) {
      left_out(out.stream.dropped_leading);
      dropped_fields_ += out.stream.dropped_fields;
      return false;
    }
    const std::string message = shift_offsets(e.what(), shift);
    // At the end of the input, a last NAL unit that cannot be read was cut
    // short: the pictures before it are kept.
    const auto at = first_offset(message);
    if (!last || last_nal == 0 || !at || *at < offset + last_nal) throw ToolError(message);
    cut_short_ = true;
    cut_at_ = offset + last_nal;
    out.bytes.resize(prefix + last_nal);
    out.stream = VideoStream{};
    try {
      scan(out);
    } catch (const ToolError&) {
      return false;
    }
    counted(out);
    return true;
  }
}

bool AudioChunker::next(AudioChunk& out) {
  const uint8_t* d = in_.data();
  const std::size_t size = in_.size();
  std::size_t pos = 0;
  if (first_) {
    const auto tag = id3_bytes(d, size, in_.eof());
    if (!tag || (*tag > size && !in_.eof())) return false;
    pos = std::min(*tag, size);
  }
  const std::size_t frames_from = pos;
  while (size - pos >= 7) {
    // The sync word and frame_length (ISO/IEC 14496-3 §1.A.2.2.1); anything
    // else is handed to scan_audio whole, which says what is wrong.
    const std::size_t length = adts_frame_length(d + pos);
    if (!adts_sync(d + pos) || length < 7) {
      pos = size;
      break;
    }
    if (length > size - pos) break;
    pos += length;
  }
  std::size_t taken = pos;
  if (in_.eof() && pos < size) {
    cut_short_ = true;
    cut_at_ = in_.offset() + pos;
    taken = size;
  }
  if (pos == frames_from) {
    if (in_.eof()) in_.consume(size);
    return false;
  }
  out = AudioChunk{};
  out.input_offset = in_.offset();
  out.bytes.assign(d, d + pos);
  in_.consume(taken);
  try {
    scan_audio(out.bytes.data(), out.bytes.size(), in_.name(), out.stream);
  } catch (const ToolError& e) {
    throw ToolError(shift_offsets(e.what(), static_cast<int64_t>(out.input_offset)));
  }
  const AdtsHeader& h = out.stream.config;
  if (!have_config_) {
    config_ = h;
    have_config_ = true;
  } else if (h.sampling_index != config_.sampling_index || h.channel_config != config_.channel_config ||
             h.profile != config_.profile) {
    throw ToolError(in_.name() + ": the ADTS header at byte " + std::to_string(out.input_offset) +
                    " changes the sample rate, channels or profile; one MP4 track holds one configuration");
  }
  first_ = false;
  return true;
}

}  // namespace boxlane::tool
