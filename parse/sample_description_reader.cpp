// The stsd reader (ISO/IEC 14496-12 §8.5.2) and the MPEG-4 descriptor size
// decoder. Of the first sample entry the track keeps what a decoder needs:
// for avc1 the picture size and the avcC record (ISO/IEC 14496-15 §5.3.3.1),
// for hvc1 and hev1 the picture size and the hvcC record (§8.3.3.1),
// for mp4a the audio fields and the esds decoder configuration
// (ISO/IEC 14496-1 §7.2.6.5 to §7.2.6.7), for anything else the fourcc.
// Every field is read through a cursor bounded by the box it sits in.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/reader_frame.hpp"
#include "platform/be_reader.hpp"

#include <algorithm>
#include <cctype>
#include <vector>

using boxlane::BeReader;
using boxlane::parse::open_track_box;

namespace {

// The parser matches fourccs without regard to letter case.
bool same_fourcc(const uint8_t (&code)[4], const char* want) noexcept {
  for (int i = 0; i < 4; ++i) {
    if (std::tolower(code[i]) != std::tolower(static_cast<unsigned char>(want[i]))) return false;
  }
  return true;
}

// The payload of the first child box with the given fourcc, walking the boxes
// that fill the cursor. A child that claims more than is left, or less than
// its own header, ends the walk.
bool find_child(BeReader r, const char* fourcc, BeReader& payload) noexcept {
  while (r.has(8)) {
    const uint32_t size = r.u32();
    uint8_t code[4];
    r.copy(code, 4);
    if (size < 8 || !r.has(size - 8)) return false;
    BeReader body = r.sub(size - 8);
    if (same_fourcc(code, fourcc)) {
      payload = body;
      return true;
    }
  }
  return false;
}

// ISO/IEC 14496-1 §8.3.3: seven bits per byte while the top bit is set, at
// most four bytes. A field that runs on past four bytes or past the cursor
// is refused.
bool descriptor_size(BeReader& r, uint32_t& size) noexcept {
  size = 0;
  for (int i = 0; i < 4; ++i) {
    if (!r.has(1)) return false;
    const uint8_t b = r.u8();
    size = (size << 7) | (b & 0x7Fu);
    if (!(b & 0x80u)) return true;
  }
  return false;
}

// The body of the first descriptor with the given tag among those that fill
// the cursor. A body longer than what is left is cut at the end of the box:
// the fields it does hold are still read, each one bounded.
bool find_descriptor(BeReader& r, uint8_t tag, BeReader& body) noexcept {
  while (r.has(2)) {
    const uint8_t this_tag = r.u8();
    uint32_t size = 0;
    if (!descriptor_size(r, size)) return false;
    BeReader inner = r.sub(std::min<uint64_t>(size, r.remaining()));
    if (this_tag == tag) {
      body = inner;
      return true;
    }
  }
  return false;
}

// A run of parameter sets, each a 16-bit length and its bytes. A set that
// does not fit ends the run; the sets before it are kept.
bool read_param_sets(BeReader& r, unsigned count, std::vector<std::vector<uint8_t>>& out) {
  for (unsigned i = 0; i < count; ++i) {
    if (!r.has(2)) return false;
    const uint16_t len = r.u16();
    const uint8_t* bytes = r.bytes(len);
    if (!bytes && len) return false;
    out.emplace_back(bytes, bytes + len);
  }
  return true;
}

void read_avcc(BeReader r, BOXLANE_TRACKCODEC& codec) {
  if (!r.has(6)) return;
  r.skip(1);  // configurationVersion
  codec.byProfile = r.u8();
  codec.byCompatibility = r.u8();
  codec.byLevel = r.u8();
  codec.byNALLengthSize = static_cast<uint8_t>((r.u8() & 0x03u) + 1);
  const unsigned sps_count = r.u8() & 0x1Fu;
  if (!read_param_sets(r, sps_count, codec.stl_ListSPS) || !r.has(1)) return;
  const unsigned pps_count = r.u8();
  read_param_sets(r, pps_count, codec.stl_ListPPS);
}

// §8.3.3.1. Arrays and units are taken while whole ones remain; a unit that
// runs past the box ends the reading, the ones before it are kept. Empty
// units are no parameter sets and are passed over.
void read_hvcc(BeReader r, BOXLANE_HEVCCONFIG& hevc) {
  if (!r.has(23)) return;
  hevc.byConfigurationVersion = r.u8();
  const uint8_t profile = r.u8();
  hevc.byProfileSpace = static_cast<uint8_t>(profile >> 6);
  hevc.byTier = static_cast<uint8_t>((profile >> 5) & 1u);
  hevc.byProfile = static_cast<uint8_t>(profile & 0x1Fu);
  hevc.nCompatibilityFlags = r.u32();
  hevc.nConstraintFlags = uint64_t{r.u16()} << 32;
  hevc.nConstraintFlags |= r.u32();
  hevc.byLevel = r.u8();
  hevc.wMinSpatialSegmentation = static_cast<uint16_t>(r.u16() & 0x0FFFu);
  hevc.byParallelismType = static_cast<uint8_t>(r.u8() & 0x03u);
  hevc.byChromaFormat = static_cast<uint8_t>(r.u8() & 0x03u);
  hevc.byBitDepthLuma = static_cast<uint8_t>((r.u8() & 0x07u) + 8);
  hevc.byBitDepthChroma = static_cast<uint8_t>((r.u8() & 0x07u) + 8);
  hevc.wAvgFrameRate = r.u16();
  const uint8_t layers = r.u8();
  hevc.byConstantFrameRate = static_cast<uint8_t>(layers >> 6);
  hevc.byNumTemporalLayers = static_cast<uint8_t>((layers >> 3) & 0x07u);
  hevc.byTemporalIdNested = static_cast<uint8_t>((layers >> 2) & 1u);
  hevc.byNALLengthSize = static_cast<uint8_t>((layers & 0x03u) + 1);
  const unsigned arrays = r.u8();
  for (unsigned a = 0; a < arrays && r.has(3); ++a) {
    const uint8_t kind = r.u8();
    const unsigned units = r.u16();
    for (unsigned i = 0; i < units; ++i) {
      if (!r.has(2)) return;
      const uint16_t len = r.u16();
      const uint8_t* bytes = r.bytes(len);
      if (!bytes && len) return;
      if (len == 0) continue;
      if (hevc.stl_ListNalu.size() == BOXLANE_HEVC_MAX_NALUS) {
        hevc.bMore = true;
        return;
      }
      hevc.stl_ListNalu.push_back({static_cast<uint8_t>(kind & 0x3Fu), (kind & 0x80u) != 0, {bytes, bytes + len}});
    }
  }
}

void read_esds(BeReader r, BOXLANE_TRACKCODEC& codec) {
  BeReader es;
  if (!r.skip(4) || !find_descriptor(r, 0x03, es)) return;  // version and flags, ES_DescrTag
  if (!es.has(3)) return;
  es.skip(2);  // ES_ID
  const uint8_t flags = es.u8();
  if (flags & 0x80u) es.skip(2);  // dependsOn_ES_ID
  if (flags & 0x40u) {
    uint8_t url_len = 0;
    if (!es.peek(0, url_len)) return;
    es.skip(1 + uint64_t{url_len});  // URLlength, URLstring
  }
  if (flags & 0x20u) es.skip(2);  // OCR_ES_Id
  BeReader config;
  if (!es.ok() || !find_descriptor(es, 0x04, config)) return;  // DecoderConfigDescrTag
  if (!config.has(13)) return;
  codec.byObjectType = config.u8();
  codec.byStreamType = config.u8();
  codec.nBufferSizeDB = config.u24();
  codec.nMaxBitrate = config.u32();
  codec.nAvgBitrate = config.u32();
  BeReader specific;
  if (!find_descriptor(config, 0x05, specific)) return;  // DecSpecificInfoTag
  const std::size_t len = specific.remaining();
  const uint8_t* bytes = specific.bytes(len);
  if (bytes) codec.stl_AudioCfg.assign(bytes, bytes + len);
}

// VisualSampleEntry (§12.1.3): 78 bytes after the 8-byte entry header that
// this cursor starts behind, then child boxes, which the returned cursor
// covers (empty when the fixed fields are cut short).
BeReader read_visual(BeReader entry, BOXLANE_TRACKCODEC& codec) {
  if (!entry.has(78)) return {};
  entry.skip(8 + 16);  // SampleEntry fields, pre_defined and reserved
  codec.wWidth = entry.u16();
  codec.wHeight = entry.u16();
  entry.skip(4 + 4 + 4 + 2 + 32 + 2 + 2);
  return entry;
}

// AudioSampleEntry (§12.2.3): 28 bytes after the entry header, then child
// boxes. A QuickTime-style sound description of version 1 or 2 inserts 16 or
// 36 more bytes before the children; some muxers write those into mp4 too.
void read_audio(BeReader entry, BOXLANE_TRACKCODEC& codec) {
  if (!entry.has(28)) return;
  entry.skip(8);
  const uint16_t sound_version = entry.u16();
  entry.skip(6);
  codec.wChannelCount = entry.u16();
  codec.wSampleSize = entry.u16();
  entry.skip(4);
  codec.nSampleRate = entry.u32() >> 16;
  const uint64_t extension = sound_version == 1 ? 16 : sound_version == 2 ? 36 : 0;
  if (!entry.skip(extension)) return;
  BeReader esds;
  if (find_child(entry, "esds", esds)) read_esds(esds, codec);
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_STsd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  BOXLANE_TRACKCODEC& codec = track->stCodec;
  // The first description read stays: a repeated trak for the same track id
  // must not change what a caller may already have configured a decoder with.
  if (codec.bKept || !r.has(8 + 16)) return true;
  r.skip(4);
  if (r.i32() < 1) return true;
  const uint32_t size = r.u32();
  if (size < 16) return true;
  uint8_t type[4];
  r.copy(type, 4);
  // An entry that claims more than the box holds is read as far as the box goes.
  BeReader entry = r.sub(std::min<uint64_t>(size - 8, r.remaining()));
  BeReader header = entry;
  header.skip(6);
  codec = BOXLANE_TRACKCODEC{};
  codec.bKept = true;
  std::copy(type, type + 4, codec.tszCodec);
  codec.wDataRefIndex = header.u16();
  BeReader config;
  if (same_fourcc(type, "avc1")) {
    if (find_child(read_visual(entry, codec), "avcC", config)) read_avcc(config, codec);
  } else if (same_fourcc(type, "hvc1") || same_fourcc(type, "hev1")) {
    if (find_child(read_visual(entry, codec), "hvcC", config)) read_hvcc(config, codec.stHEVC);
  } else if (same_fourcc(type, "mp4a")) {
    read_audio(entry, codec);
  }
  return true;
}

int CBoxlane_Parse::Boxlane_Parse_DescriptorLen(const uint8_t* lpszMsgBuffer, int* pInt_Count) {
  boxlane::clear_error();
  if (!lpszMsgBuffer || !pInt_Count) {
    boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
    return 0;
  }
  // The caller guarantees four readable bytes: the field's longest form. A
  // fourth byte with its top bit set still ends the read; the count of 5
  // tells the caller that the field runs on.
  BeReader r(lpszMsgBuffer, 4);
  int value = 0;
  int count = 0;
  while (r.has(1)) {
    const uint8_t b = r.u8();
    value = (value << 7) | (b & 0x7F);
    ++count;
    if (!(b & 0x80)) break;
    if (count == 4) count = 5;
  }
  *pInt_Count = count;
  return value;
}
