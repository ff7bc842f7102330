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

bool has_sync(const uint8_t* data, std::size_t size) {
  BeReader r(data, size);
  return (r.u16() & 0xFFF6) == 0xFFF0 && r.ok();
}

}  // namespace

void scan_audio(const uint8_t* data, std::size_t size, const std::string& name, AudioStream& out,
                const std::function<void(const uint8_t*)>& read_to) {
  std::size_t pos = id3_tag_size(data, size);
  while (pos < size) {
    AdtsHeader h;
    const std::size_t left = size - pos;
    if (!parse_adts(data + pos, left, h)) {
      if (has_sync(data + pos, left)) {
        throw ToolError(name + ": ADTS frame" + at(pos) + " is cut short or damaged (" + std::to_string(left) +
                       " bytes left)");
      }
      throw ToolError(name + ": ADTS sync lost" + at(pos) +
                     (out.frames.empty() ? "; this is not an AAC ADTS stream" : ""));
    }
    if (out.frames.empty()) {
      if (h.channel_config == 0) {
        throw ToolError(name + ": the channel layout is given in the stream (channel_configuration 0), which is not supported");
      }
      out.config = h;
      audio_specific_config(h, out.audio_specific_config);
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
    out.max_frame_size = std::max<uint32_t>(out.max_frame_size, h.frame_length);
    pos += h.frame_length;
    if (read_to) read_to(data + pos);
  }
  if (out.frames.empty()) throw ToolError(name + ": no ADTS frames found");
}

}  // namespace boxlane::tool
