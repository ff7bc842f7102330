#include "tools/mux/audio.hpp"

#include <algorithm>

#include "platform/be_reader.hpp"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

namespace {

std::string at(uint64_t offset) { return " at byte " + std::to_string(offset); }

// An ID3v2 tag some tools put before the first ADTS frame (ID3v2.4 §3.1):
// "ID3", version, flags, then a 28-bit size in four 7-bit bytes.
std::size_t id3_tag_size(const uint8_t* data, std::size_t size) {
  BeReader r(data, size);
  if (r.u8() != 'I' || r.u8() != 'D' || r.u8() != '3' || !r.skip(2)) return 0;
  const bool footer = r.u8() & 0x10;
  uint32_t body = 0;
  for (int i = 0; i < 4; ++i) body = (body << 7) | (r.u8() & 0x7F);
  const uint64_t total = 10 + uint64_t{body} + (footer ? 10 : 0);
  return r.ok() && total <= size ? static_cast<std::size_t>(total) : 0;
}

// The sampling_frequency_index of what starts like an ADTS header (sync
// word, layer 0), or 16 for anything else.
uint32_t sampling_index(const uint8_t* data, std::size_t size) {
  BeReader r(data, size);
  const uint32_t head = r.u24();
  if (!r.ok() || (head >> 12) != 0xFFF || ((head >> 9) & 3) != 0) return 16;
  return (head >> 2) & 0x0F;
}

bool has_sync(const uint8_t* data, std::size_t size) { return size >= 2 && adts_sync(data); }

// What is left starts like an ADTS frame (sync word, layer 0) that runs past
// the end: fewer bytes than a header, or a frame_length beyond them.
bool ends_inside_frame(const uint8_t* data, std::size_t left) {
  if (left < 7) return left < 2 ? data[0] == 0xFF : adts_sync(data);
  const std::size_t length = adts_frame_length(data);
  return adts_sync(data) && length >= 7 && length > left;
}

}  // namespace

void scan_audio(const uint8_t* data, std::size_t size, const std::string& name, AudioStream& out,
                const std::function<void(const uint8_t*)>& read_to) {
  std::size_t pos = id3_tag_size(data, size);
  while (pos < size) {
    AdtsHeader h;
    const std::size_t left = size - pos;
    if (!parse_adts(data + pos, left, h)) {
      const uint32_t index = sampling_index(data + pos, left);
      if (index == 15) {
        throw ToolError(name + ": ADTS frame" + at(pos) +
                       " gives sampling_frequency_index 15, an explicit sample rate, which ADTS does not allow "
                       "(ISO/IEC 14496-3 §1.A.2.2.1); the stream is damaged or not ADTS");
      }
      if (index == 13 || index == 14) {
        throw ToolError(name + ": ADTS frame" + at(pos) + " gives the reserved sampling_frequency_index " +
                       std::to_string(index) + "; the stream is damaged or not ADTS");
      }
      // A recording stopped in the middle of its last frame: the frames
      // before it stand.
      if (!out.frames.empty() && ends_inside_frame(data + pos, left)) {
        out.cut_at = pos;
        break;
      }
      if (has_sync(data + pos, left)) {
        throw ToolError(name + ": ADTS frame" + at(pos) + " is cut short or damaged (" + std::to_string(left) +
                       " bytes left)");
      }
      throw ToolError(name + ": ADTS sync lost" + at(pos) +
                     (out.frames.empty() ? "; this is not an AAC ADTS stream" : ""));
    }
    if (out.frames.empty()) {
      out.config = h;
      if (h.channel_config == 0) {
        // The layout is in a program_config_element at the start of the
        // frame; the MP4 configuration carries it instead.
        unsigned channels = 0;
        const std::size_t raw = std::min<std::size_t>(h.frame_length, left) - h.header_length;
        if (!audio_specific_config_with_pce(h, data + pos + h.header_length, raw, out.audio_specific_config,
                                            channels)) {
          throw ToolError(name + ": the first ADTS frame gives channel_configuration 0 but does not start with the "
                         "program_config_element that would lay the channels out");
        }
        out.channels = channels;
      } else {
        out.audio_specific_config.resize(2);
        audio_specific_config(h, out.audio_specific_config.data());
        // ISO/IEC 14496-3 Table 1.19: configuration 7 is 7.1, eight channels.
        out.channels = h.channel_config == 7 ? 8 : h.channel_config;
      }
    } else if (h.sampling_index != out.config.sampling_index || h.channel_config != out.config.channel_config ||
               h.profile != out.config.profile) {
      throw ToolError(name + ": the ADTS header" + at(pos) +
                     " changes the sample rate, channels or profile; one MP4 track holds one configuration");
    }
    if (h.raw_data_blocks != 0) {
      throw ToolError(name + ": ADTS frame" + at(pos) + " holds several raw data blocks, which is not supported");
    }
    if (h.frame_length <= h.header_length) throw ToolError(name + ": empty ADTS frame" + at(pos));
    out.frames.push_back(AudioFrame{data + pos, h.frame_length, h.header_length});
    out.payload_bytes += h.frame_length - h.header_length;
    pos += h.frame_length;
    if (read_to) read_to(data + pos);
  }
  if (out.frames.empty()) throw ToolError(name + ": no ADTS frames found");
}

uint64_t drop_first_frames(AudioStream& s, uint64_t count) {
  const auto n = static_cast<std::ptrdiff_t>(std::min<uint64_t>(count, s.frames.empty() ? 0 : s.frames.size() - 1));
  for (auto f = s.frames.begin(); f != s.frames.begin() + n; ++f) s.payload_bytes -= f->size - f->header_size;
  s.frames.erase(s.frames.begin(), s.frames.begin() + n);
  return static_cast<uint64_t>(n);
}

}  // namespace boxlane::tool
