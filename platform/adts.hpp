// ADTS headers of AAC elementary streams (ISO/IEC 14496-3 §1.A.2.2) and the
// AudioSpecificConfig that an MP4 mp4a entry carries instead (§1.6.2.1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace boxlane {

struct AdtsHeader {
  uint8_t profile = 0;            // profile_ObjectType: audioObjectType - 1 (1 is AAC-LC)
  uint8_t sampling_index = 0;     // sampling_frequency_index, below 13
  uint32_t sample_rate = 0;       // Hz, from the index
  uint8_t channel_config = 0;     // channel_configuration
  bool protection_absent = true;  // false: a 16-bit CRC follows the header
  uint16_t frame_length = 0;      // header included
  uint8_t header_length = 7;      // 7, or 9 with the CRC
  uint8_t raw_data_blocks = 0;    // number_of_raw_data_blocks_in_frame
};

// Parses the header at the start of `data`. Accepts it only when the sync
// word is 0xFFF, layer is 0, the sampling index is below 13 and frame_length
// is at least the header length and no more than `size`. Reads nothing past
// `size`.
bool parse_adts(const uint8_t* data, std::size_t size, AdtsHeader& out) noexcept;

// The two-byte AudioSpecificConfig for the header's object type, sampling
// index and channel configuration.
void audio_specific_config(const AdtsHeader& header, uint8_t out[2]) noexcept;

// For channel_configuration 0, where a program_config_element gives the
// channel layout (ISO/IEC 14496-3 §4.4.1.1, Table 4.2): the AudioSpecificConfig
// that carries the PCE found at the start of `raw`, a frame's raw_data_block
// of `size` bytes. The PCE is copied field by field, because its
// byte_alignment() is relative to the block in a frame and to the
// configuration in the AudioSpecificConfig. `channels` gets the number of
// channels it lays out. False when the block does not start with a whole PCE.
bool audio_specific_config_with_pce(const AdtsHeader& header, const uint8_t* raw, std::size_t size,
                                    std::vector<uint8_t>& out, unsigned& channels);

}  // namespace boxlane
