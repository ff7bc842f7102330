#include "platform/adts.hpp"

#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"

#include <array>
#include <utility>

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
  // ISO/IEC 14496-3 §1.A.2.2.1: adts_fixed_header and adts_variable_header, 56 bits. The first 32 are read in a
  // statement of their own: the two operands of | may be evaluated in either order.
  const uint64_t first = r.u32();
  const uint64_t header = (first << 24) | r.u24();
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

namespace {

// Most significant bit first, with nothing read past `size`.
class Bits {
 public:
  Bits(const uint8_t* data, std::size_t size) noexcept : in_(data, size) {}
  uint32_t read(unsigned n) noexcept {
    uint32_t v = 0;
    for (unsigned i = 0; i < n; ++i) {
      if (left_ == 0) {
        if (!in_.has(1)) {
          ok_ = false;
          return 0;
        }
        cur_ = in_.u8();
        left_ = 8;
      }
      --left_;
      v = (v << 1) | ((cur_ >> left_) & 1u);
    }
    return v;
  }
  void align() noexcept { left_ = 0; }
  bool ok() const noexcept { return ok_; }

 private:
  BeReader in_;
  uint8_t cur_ = 0;
  unsigned left_ = 0;
  bool ok_ = true;
};

class BitSink {
 public:
  explicit BitSink(std::vector<uint8_t>& out) : out_(out) {}
  void write(uint32_t v, unsigned n) {
    for (unsigned i = n; i-- > 0;) {
      if (used_ == 0) out_.push_back(0);
      if ((v >> i) & 1u) out_.back() = static_cast<uint8_t>(out_.back() | (0x80u >> used_));
      used_ = (used_ + 1) % 8;
    }
  }
  void align() { used_ = 0; }

 private:
  std::vector<uint8_t>& out_;
  unsigned used_ = 0;  // bits of the last byte in use
};

constexpr uint32_t kIdPce = 5;  // id_syn_ele of a program_config_element (Table 4.85)

}  // namespace

bool audio_specific_config_with_pce(const AdtsHeader& header, const uint8_t* raw, std::size_t size,
                                    std::vector<uint8_t>& out, unsigned& channels) {
  Bits in(raw, size);
  if (in.read(3) != kIdPce) return false;
  std::vector<uint8_t> config;
  BitSink sink(config);
  // §1.6.2.1 with GASpecificConfig (§4.4.1): frameLengthFlag,
  // dependsOnCoreCoder and extensionFlag 0, then the PCE.
  sink.write((header.profile & 0x03u) + 1u, 5);
  sink.write(header.sampling_index & 0x0Fu, 4);
  sink.write(0, 4);
  sink.write(0, 3);
  const auto copy = [&](unsigned bits) {
    const uint32_t v = in.read(bits);
    sink.write(v, bits);
    return v;
  };
  copy(4 + 2 + 4);  // element_instance_tag, object_type, sampling_frequency_index
  const uint32_t front = copy(4), side = copy(4), back = copy(4), lfe = copy(2), assoc = copy(3), cc = copy(4);
  if (copy(1)) copy(4);  // mono_mixdown_element_number
  if (copy(1)) copy(4);  // stereo_mixdown_element_number
  if (copy(1)) copy(3);  // matrix_mixdown_idx, pseudo_surround_enable
  unsigned count = 0;
  for (uint32_t i = 0; i < front + side + back; ++i) {
    count += copy(1) ? 2 : 1;  // *_element_is_cpe: a channel pair
    copy(4);
  }
  count += lfe;
  for (uint32_t i = 0; i < lfe + assoc; ++i) copy(4);  // lfe_ and assoc_data_element_tag_select
  for (uint32_t i = 0; i < cc; ++i) copy(5);           // cc_element_is_ind_sw, valid_cc_element_tag_select
  in.align();
  sink.align();
  const uint32_t comment = copy(8);
  for (uint32_t i = 0; i < comment; ++i) copy(8);
  if (!in.ok()) return false;
  out = std::move(config);
  channels = count;
  return true;
}

}  // namespace boxlane
