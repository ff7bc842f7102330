#include "platform/adts.hpp"

#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"

#include <array>

namespace boxlane {
namespace {

// ISO/IEC 14496-3 §1.6.3.4, Table 1.18; indices 13 to 15 are reserved or escape.
constexpr std::array<uint32_t, 13> kSampleRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};

// Extracts `bits` bits starting `from` bits after the first of a 56-bit field.
constexpr uint32_t field(uint64_t header, unsigned from, unsigned bits) noexcept {
  return static_cast<uint32_t>((header >> (56 - from - bits)) & ((uint64_t{1} << bits) - 1));
}

}  // namespace

bool parse_adts(const uint8_t* data, std::size_t size, AdtsHeader& out) noexcept {
  BeReader r(data, size);
  // ISO/IEC 14496-3 §1.A.2.2.1: adts_fixed_header and adts_variable_header, 56 bits.
  const uint64_t header = (uint64_t{r.u32()} << 24) | r.u24();
  if (!r.ok()) return false;

  if (field(header, 0, 12) != 0xFFF || field(header, 13, 2) != 0) return false;
  const uint32_t sampling_index = field(header, 18, 4);
  if (sampling_index >= kSampleRates.size()) return false;

  const bool protection_absent = field(header, 15, 1) != 0;
  const uint8_t header_length = protection_absent ? 7 : 9;
  const uint32_t frame_length = field(header, 30, 13);
  if (frame_length < header_length || frame_length > size) return false;

  out.profile = static_cast<uint8_t>(field(header, 16, 2));
  out.sampling_index = static_cast<uint8_t>(sampling_index);
  out.sample_rate = kSampleRates[sampling_index];
  out.channel_config = static_cast<uint8_t>(field(header, 23, 3));
  out.protection_absent = protection_absent;
  out.frame_length = static_cast<uint16_t>(frame_length);
  out.header_length = header_length;
  out.raw_data_blocks = static_cast<uint8_t>(field(header, 54, 2));
  return true;
}

void audio_specific_config(const AdtsHeader& header, uint8_t out[2]) noexcept {
  // ISO/IEC 14496-3 §1.6.2.1: audioObjectType (5 bits), samplingFrequencyIndex
  // (4), channelConfiguration (4), then GASpecificConfig's three zero flags.
  const unsigned object_type = (header.profile & 0x03u) + 1u;
  const unsigned value = (object_type << 11) | ((header.sampling_index & 0x0Fu) << 7) |
                         ((header.channel_config & 0x0Fu) << 3);
  BeWriter w(out, 2);
  w.u16(static_cast<uint16_t>(value));
}

}  // namespace boxlane
