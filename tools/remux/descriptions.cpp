#include "tools/remux/descriptions.hpp"

#include <cstring>
#include <vector>

#include "boxlane/boxlane.h"
#include "platform/be_reader.hpp"

namespace boxlane::tool {
namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};  // before each of the hvcC's sets

Bytes avc1(const char* client, const BOXLANE_CODECINFO& c) {
  // Every SPS and PPS of the source's avcC (the source checked that the
  // record holds them whole), back to back in byParamSets.
  std::vector<const uint8_t*> sets;
  std::vector<int32_t> lengths;
  std::size_t at = 0;
  for (int32_t i = 0; i < c.nSPSCount + c.nPPSCount; ++i) {
    const std::size_t len = i < c.nSPSCount ? c.wSPSLen[i] : c.wPPSLen[i - c.nSPSCount];
    if (at + len > sizeof c.byParamSets) break;
    sets.push_back(c.byParamSets + at);
    lengths.push_back(static_cast<int32_t>(len));
    at += len;
  }
  // The entry's 117 bytes, then each set with its 2-byte length.
  return call_box("the video stsd", 117 + 2 * sets.size() + at, [&](uint8_t* p, int32_t* l) {
    return Boxlane_Packet_STsdParamSets(client, p, l, sets.data(), lengths.data(), static_cast<int32_t>(sets.size()));
  });
}

// hev1 lets the samples carry parameter sets of their own; hvc1 does not
// (ISO/IEC 14496-15 §8.4.1.1.2: array_completeness is 1 in every array of
// hvc1, and 1 means none of the type is in the stream). A source's hev1
// entry stays hev1: the writer's hvc1 entry is renamed and each array marked
// 0, as the samples are copied with whatever sets they hold.
void as_hev1(Bytes& stsd) {
  // stsd's header, version and entry count; the entry's header and its 78
  // bytes of VisualSampleEntry fields, then its boxes.
  constexpr std::size_t kEntry = 16, kEntryBoxes = kEntry + 86;
  BeReader boxes(stsd.data(), stsd.size());
  if (!boxes.seek(kEntryBoxes)) throw ToolError("internal: the writer's hvc1 entry is cut short");
  std::memcpy(&stsd[kEntry + 4], "hev1", 4);
  while (boxes.has(8)) {
    const std::size_t payload = boxes.position() + 8;
    const uint32_t size = boxes.u32();
    const bool hvcc = std::memcmp(boxes.bytes(4), "hvcC", 4) == 0;
    if (size < 8 || !boxes.skip(size - 8)) break;
    if (!hvcc) continue;
    // HEVCDecoderConfigurationRecord: 22 bytes, numOfArrays, then each
    // array: array_completeness and the NAL unit type in one byte, the
    // count, and each unit with its 16-bit length.
    BeReader record(stsd.data() + payload, size - 8);
    record.skip(22);
    for (uint8_t arrays = record.u8(); arrays > 0 && record.ok() && record.has(3); --arrays) {
      stsd[payload + record.position()] &= 0x7F;
      record.skip(1);
      for (uint16_t units = record.u16(); units > 0 && record.ok(); --units) record.skip(record.u16());
    }
    return;
  }
  throw ToolError("internal: no hvcC in the writer's hvc1 entry");
}

Bytes hvc1(const char* client, const BOXLANE_HEVCINFO& h) {
  std::vector<uint8_t> sets;
  std::size_t at = 0;
  for (int32_t i = 0; i < h.nNaluCount && i < BOXLANE_HEVC_MAX_NALUS; ++i) {
    const std::size_t len = h.wNaluLen[i];
    if (at + len > sizeof h.byNalus) break;
    sets.insert(sets.end(), kStartCode, kStartCode + 4);
    sets.insert(sets.end(), h.byNalus + at, h.byNalus + at + len);
    at += len;
  }
  return call_box("the video stsd", 142 + sets.size() + 64, [&](uint8_t* p, int32_t* l) {
    return Boxlane_Packet_STsdHEVC(client, p, l, sets.data(), static_cast<int32_t>(sets.size()));
  });
}

Bytes mp4a(const char* client, const BOXLANE_CODECINFO& c) {
  tag_Qorvane_AVProtocol desc{};
  desc.bAudio = 1;
  desc.nAudioChannel = c.wChannelCount;
  desc.nAudioSampleRate = static_cast<int32_t>(c.nSampleRate);
  desc.nAudioSampleBit = c.wSampleSize ? c.wSampleSize : 16;
  desc.nAudioFrameSize = 1024;
  desc.nAudioCfgLen = c.nAudioCfgLen;
  std::memcpy(desc.tszAudioCfg, c.byAudioCfg, static_cast<std::size_t>(c.nAudioCfgLen));
  return call_box("the audio stsd", 256 + static_cast<std::size_t>(c.nAudioCfgLen),
                  [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STsd(client, p, l, &desc); });
}

}  // namespace

Bytes write_stsd(const char* client, const SourceTrack& t) {
  switch (t.codec) {
    case SourceCodec::kH264: return avc1(client, *t.config);
    case SourceCodec::kH265: {
      Bytes stsd = hvc1(client, *t.hevc);
      if (t.sets_in_samples) as_hev1(stsd);
      return stsd;
    }
    case SourceCodec::kAac: return mp4a(client, *t.config);
    case SourceCodec::kOther: break;
  }
  throw ToolError("internal: no sample description for track " + std::to_string(t.id));
}

}  // namespace boxlane::tool
