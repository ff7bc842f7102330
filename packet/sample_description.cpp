// The stsd box with its single sample entry: avc1/avcC for H.264
// (ISO/IEC 14496-12 §12.1.3, ISO/IEC 14496-15 §5.3.3) or mp4a/esds for AAC
// (ISO/IEC 14496-14 §5.6, with the descriptors of ISO/IEC 14496-1 §7.2.6).
// Boxlane_Packet_STsdParamSets writes the avc1 entry with every parameter set
// its caller lists, for streams whose pictures use several.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/visual_entry.hpp"
#include "platform/be_writer.hpp"
#include "platform/sanvik.hpp"

#include <array>
#include <cstdint>
#include <span>

namespace {

using boxlane::BeWriter;

constexpr int kCodecH264 = 27;
constexpr uint8_t kNalSps = 7;  // ISO/IEC 14496-10 Table 7-1
constexpr uint8_t kNalPps = 8;
constexpr int kFieldCapacity = 1024;  // tszVideoHdr and tszAudioCfg

// ISO/IEC 14496-1 §8.3.3: the expandable size, 7 bits per byte, most
// significant group first, 0x80 on every byte but the last.
int expandable_size_bytes(uint32_t size) noexcept {
  int bytes = 1;
  while (size >>= 7) ++bytes;
  return bytes;
}

void put_expandable_size(BeWriter& w, uint32_t size) noexcept {
  for (int group = expandable_size_bytes(size) - 1; group >= 0; --group) {
    const auto bits = static_cast<uint8_t>((size >> (7 * group)) & 0x7F);
    w.u8(group > 0 ? static_cast<uint8_t>(bits | 0x80) : bits);
  }
}

// A descriptor's whole size: tag, size field and payload.
uint32_t descriptor_bytes(uint32_t payload) noexcept {
  return 1 + static_cast<uint32_t>(expandable_size_bytes(payload)) + payload;
}

void put_descriptor_head(BeWriter& w, uint8_t tag, uint32_t payload) noexcept {
  w.u8(tag);
  put_expandable_size(w, payload);
}

// The visual sample entry up to its avcC: the fixed fields, with the size of
// the client's latest tkhd. The caller writes avcC and closes the entry.
BeWriter::Box open_avc1(BeWriter& w, const QORVANE_MP4PACKET& record) {
  const auto entry = w.open("avc1");
  boxlane::packet::put_visual_entry_fields(w, static_cast<uint16_t>(record.nWidth), static_cast<uint16_t>(record.nHeight),
                                           "AVC");
  return entry;
}

// A parameter set as avcC lists it: 16-bit length, then the NAL unit.
void put_parameter_set(BeWriter& w, const uint8_t* nal, std::size_t length) {
  w.u16(static_cast<uint16_t>(length));
  w.bytes(nal, length);
}

void write_video_entry(BeWriter& w, const QORVANE_MP4PACKET& record, const tag_Qorvane_AVProtocol& av) {
  const uint8_t* header = av.tszVideoHdr;
  const int header_len = av.nVideoHdrLen;

  std::array<uint8_t, 16> info{};
  Sanvik_Parse_SPSInfo(header, header_len, info.data());
  std::array<uint8_t, SANVIK_PARAMSET_CAPACITY> sps{};
  std::array<uint8_t, SANVIK_PARAMSET_CAPACITY> pps{};
  int sps_len = 0;
  int pps_len = 0;
  // Nothing found leaves both lengths 0: the entry then carries empty sets.
  Sanvik_Parse_VideoHdr(header, header_len, kCodecH264, 0, sps.data(), pps.data(), nullptr, nullptr, &sps_len,
                        &pps_len, nullptr, nullptr);

  const auto entry = open_avc1(w, record);
  const auto config = w.open("avcC");
  w.u8(1);  // configurationVersion
  w.u8(info[0]);
  w.u8(0);  // profile_compatibility
  w.u8(info[1]);
  w.u8(0xFF);  // lengthSizeMinusOne 3: the frame writer emits 4-byte lengths
  w.u8(0xE1);  // one SPS
  put_parameter_set(w, sps.data(), static_cast<std::size_t>(sps_len));
  w.u8(1);  // one PPS
  put_parameter_set(w, pps.data(), static_cast<std::size_t>(pps_len));
  w.close(config);
  w.close(entry);
}

void write_audio_entry(BeWriter& w, const tag_Qorvane_AVProtocol& av) {
  const auto config_len = static_cast<uint32_t>(av.nAudioCfgLen);

  const auto entry = w.open("mp4a");
  w.zeros(6);
  w.u16(1);  // data_reference_index
  w.zeros(8);
  w.u16(static_cast<uint16_t>(av.nAudioChannel));
  w.u16(static_cast<uint16_t>(av.nAudioSampleBit));
  w.zeros(4);
  // 16.16 fixed point; only the low 16 bits of the rate fit the integer part.
  w.u16(static_cast<uint16_t>(av.nAudioSampleRate));
  w.u16(0);

  const auto esds = w.open_full("esds", 0, 0);
  const uint32_t specific = config_len;
  const uint32_t decoder = 13 + descriptor_bytes(specific);
  const uint32_t sl = 1;
  const uint32_t es = 3 + descriptor_bytes(decoder) + descriptor_bytes(sl);

  put_descriptor_head(w, 0x03, es);  // ES_DescrTag
  w.u16(2);                          // ES_ID
  w.u8(0);                           // no dependence, URL or OCR stream; priority 0

  put_descriptor_head(w, 0x04, decoder);  // DecoderConfigDescrTag
  w.u8(0x40);                             // objectTypeIndication: ISO/IEC 14496-3 audio
  w.u8(0x15);                             // streamType 5 (audio), upStream 0, reserved 1
  w.u24(0);                               // bufferSizeDB
  w.u32(0);                               // maxBitrate
  w.u32(0);                               // avgBitrate

  put_descriptor_head(w, 0x05, specific);  // DecSpecificInfoTag
  w.bytes(av.tszAudioCfg, config_len);

  put_descriptor_head(w, 0x06, sl);  // SLConfigDescrTag
  w.u8(2);                           // predefined: reserved for use in MP4 files
  w.close(esds);
  w.close(entry);
}

}  // namespace

bool CBoxlane_Packet::Boxlane_Packet_STsd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          const tag_Qorvane_AVProtocol* pSt_AVProtocol) {
  return boxlane::packet::write_box(
      *this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](const QORVANE_MP4PACKET& record, BeWriter& w) {
        if (!pSt_AVProtocol) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
        const tag_Qorvane_AVProtocol& av = *pSt_AVProtocol;
        const bool video = av.bVideo != 0;
        // Only the block that bVideo selects is read, so only its length is checked.
        const int32_t length = video ? av.nVideoHdrLen : av.nAudioCfgLen;
        if (length < 0 || length > kFieldCapacity) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);

        const auto stsd = w.open_full("stsd", 0, 0);
        w.u32(1);  // entry_count
        if (video)
          write_video_entry(w, record, av);
        else
          write_audio_entry(w, av);
        w.close(stsd);
        return true;
      });
}

bool CBoxlane_Packet::Boxlane_Packet_DescriptorLen(uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int nLen) {
  boxlane::clear_error();
  if (!ptszMsgBuffer || !pInt_MsgLen) return true;
  // A negative length has no meaning here; it is encoded as its 32-bit pattern.
  *pInt_MsgLen = 0;
  BeWriter w(ptszMsgBuffer);
  put_expandable_size(w, static_cast<uint32_t>(nLen));
  *pInt_MsgLen = static_cast<int>(w.size());
  return true;
}

bool CBoxlane_Packet::Boxlane_Packet_STsdParamSets(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                                   const uint8_t* const* pptszParamSet, const int* pInt_ParamSetLen,
                                                   int nParamSetCount) {
  return boxlane::packet::write_box(
      *this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](const QORVANE_MP4PACKET& record, BeWriter& w) {
        if (!pptszParamSet || !pInt_ParamSetLen || nParamSetCount < 1)
          return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
        const std::span sets(pptszParamSet, static_cast<std::size_t>(nParamSetCount));
        const std::span lengths(pInt_ParamSetLen, static_cast<std::size_t>(nParamSetCount));
        // ISO/IEC 14496-15 §5.3.3.1.2: numOfSequenceParameterSets has 5 bits,
        // numOfPictureParameterSets 8, each length 16.
        std::size_t sps_count = 0, pps_count = 0;
        const uint8_t* first_sps = nullptr;
        for (std::size_t i = 0; i < sets.size(); ++i) {
          if (!sets[i] || lengths[i] < 1 || lengths[i] > 0xFFFF) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
          const uint8_t type = sets[i][0] & 0x1F;
          if (type == kNalSps) {
            // profile_idc, the constraint flags and level_idc follow the header byte.
            if (sps_count == 0 && lengths[i] < 4) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
            if (sps_count == 0) first_sps = sets[i];
            ++sps_count;
          } else if (type == kNalPps) {
            ++pps_count;
          } else {
            return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
          }
        }
        if (sps_count < 1 || sps_count > 31 || pps_count > 255) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);

        const auto stsd = w.open_full("stsd", 0, 0);
        w.u32(1);  // entry_count
        const auto entry = open_avc1(w, record);
        const auto config = w.open("avcC");
        w.u8(1);                 // configurationVersion
        w.bytes(first_sps + 1, 3);  // AVCProfileIndication, profile_compatibility, AVCLevelIndication
        w.u8(0xFF);              // lengthSizeMinusOne 3: the frame writers emit 4-byte lengths
        w.u8(static_cast<uint8_t>(0xE0 | sps_count));
        for (const uint8_t wanted : {kNalSps, kNalPps}) {
          if (wanted == kNalPps) w.u8(static_cast<uint8_t>(pps_count));
          for (std::size_t i = 0; i < sets.size(); ++i)
            if ((sets[i][0] & 0x1F) == wanted) put_parameter_set(w, sets[i], static_cast<std::size_t>(lengths[i]));
        }
        w.close(config);
        w.close(entry);
        w.close(stsd);
        return true;
      });
}
