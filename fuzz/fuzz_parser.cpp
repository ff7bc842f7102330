// Feeds arbitrary bytes to the stream parser through the public interface,
// cut into pieces chosen by the input, to several clients at once, and asks
// every query of every track found. Every client gets the same stream in a
// different cut, so their header records must agree: a difference is a bug
// in the reassembly, not only a crash.
#include <boxlane/boxlane.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Record {
  uint64_t size;
  int type;
  uint16_t uuid;
  uint8_t version;
  uint8_t flags[3];
  uint64_t offset;  // where the box starts, and its header length
  uint32_t header;
  bool operator==(const Record& o) const {
    return size == o.size && type == o.type && uuid == o.uuid && version == o.version &&
           std::memcmp(flags, o.flags, 3) == 0 && offset == o.offset && header == o.header;
  }
};

constexpr ENUM_QORVANE_MORVALY_BOXLANE_HTYPE kTypes[] = {
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOV,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UUID,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVHD,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAK,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TKHD,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EDTS,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_ELST,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDIA,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDHD,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HDLR,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MINF,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_VMHD,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SMHD,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HMHD,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_NMHD,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_DINF,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STBL,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS,
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS,    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP,
    static_cast<ENUM_QORVANE_MORVALY_BOXLANE_HTYPE>(-1), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_INVALID};

// Touches every byte the library handed out, so a short block is caught.
template <typename T>
void consume(T** array, int count) {
  volatile uint8_t sink = 0;
  for (int i = 0; i < count; ++i) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(array[i]);
    for (std::size_t b = 0; b < sizeof(T); ++b) sink = sink ^ bytes[b];
  }
  (void)sink;
}

void query_tracks(const char* client) {
  QORVANE_HDRFTYP ftyp{};
  if (Boxlane_Parse_GetFTyp(client, &ftyp)) {
    for (int i = 0; i < ftyp.nBrandCount; ++i)
      if (std::strlen(ftyp.pptszCompatibleBrand[i]) > 4) std::abort();
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
  }
  QORVANE_HDRMVHD mvhd;
  Boxlane_Parse_GetMVhd(client, &mvhd);
  int32_t slots[10];
  for (int32_t& s : slots) s = -1;
  Boxlane_Parse_GetTrack(client, slots);
  std::vector<int32_t> ids;
  for (int32_t s : slots)
    if (s >= 0) ids.push_back(s);
  ids.push_back(-1);
  ids.push_back(INT32_MIN);
  for (int32_t id : ids) {
    QORVANE_HDRTKHD tkhd;
    QORVANE_HDRMDHD mdhd;
    QORVANE_HDRHDLR hdlr;
    QORVANE_HDRVMSMHD vmsmhd;
    if (!Boxlane_Parse_GetTrackInfo(client, id, &tkhd, &mdhd, &hdlr, &vmsmhd)) continue;
    for (auto type : kTypes) {
      QORVANE_HDRSAMPLENFO** list = nullptr;
      int32_t count = 0;
      if (Boxlane_Parse_GetTrackList(client, id, &list, &count, type) && list) {
        consume(list, count);
        Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
      }
    }
    int32_t** keys = nullptr;
    int32_t key_count = 0;
    if (Boxlane_Parse_GetTrackKey(client, id, &keys, &key_count)) {
      consume(keys, key_count);
      Fundrel_Memory_Free(reinterpret_cast<void***>(&keys), key_count);
    }
    QORVANE_HDRSDTP** sdtp = nullptr;
    int32_t sdtp_count = 0;
    if (Boxlane_Parse_GetTrackSDtp(client, id, &sdtp, &sdtp_count)) {
      consume(sdtp, sdtp_count);
      Fundrel_Memory_Free(reinterpret_cast<void***>(&sdtp), sdtp_count);
    }
    static BOXLANE_CODECINFO codec;
    if (Boxlane_Parse_GetTrackCodec(client, id, &codec)) {
      if (codec.nSPSCount < 0 || codec.nSPSCount > BOXLANE_CODEC_MAX_PARAMSETS || codec.nPPSCount < 0 ||
          codec.nPPSCount > BOXLANE_CODEC_MAX_PARAMSETS || codec.nAudioCfgLen < 0 ||
          codec.nAudioCfgLen > BOXLANE_CODEC_AUDIOCFG_BYTES)
        std::abort();
      std::size_t total = 0;
      for (int i = 0; i < codec.nSPSCount; ++i) total += codec.wSPSLen[i];
      for (int i = 0; i < codec.nPPSCount; ++i) total += codec.wPPSLen[i];
      if (total > sizeof codec.byParamSets) std::abort();
    }
    static BOXLANE_HEVCINFO hevc;
    if (Boxlane_Parse_GetTrackHEVC(client, id, &hevc)) {
      if (hevc.nNaluCount < 0 || hevc.nNaluCount > BOXLANE_HEVC_MAX_NALUS) std::abort();
      std::size_t total = 0;
      for (int i = 0; i < hevc.nNaluCount; ++i) total += hevc.wNaluLen[i];
      if (total > sizeof hevc.byNalus) std::abort();
    }
  }
}

// Sends the stream in pieces whose sizes come from a small generator seeded
// by the input, skipping mdat payloads as a real sender must, and collects
// the header records.
std::vector<Record> feed(const char* client, const uint8_t* data, std::size_t size, uint32_t seed, uint32_t max_piece,
                         bool& cut_dependent) {
  std::vector<Record> records;
  std::size_t offset = 0;
  while (offset < size) {
    seed = seed * 1103515245u + 12345u;
    const std::size_t piece = std::min<std::size_t>(size - offset, 1 + (seed >> 8) % max_piece);
    const bool sent = Boxlane_Parse_Send(client, data + offset, static_cast<int32_t>(piece));
    offset += piece;
    BOXLANE_BOXINFO box;
    uint64_t position = 0;
    while (Boxlane_Parse_RecvEx(client, &box, &position)) {
      const QORVANE_MP4HDR& hdr = box.stHdr;
      Record r{hdr.nBoxSize, static_cast<int>(hdr.enHType), hdr.wUUIDHead, hdr.byVersion, {}, box.nOffset, box.nHeaderLen};
      std::memcpy(r.flags, hdr.byFlags, 3);
      // Boxes come in stream order, each after the last one's header.
      if ((box.nHeaderLen != 8 && box.nHeaderLen != 16) ||
          (!records.empty() && box.nOffset < records.back().offset + records.back().header))
        std::abort();
      // Size field 0 runs to the end of the piece: a cut-dependent box.
      if (hdr.nBoxSize == 0) cut_dependent = true;
      records.push_back(r);
    }
    if (position > offset) offset = position < size ? static_cast<std::size_t>(position) : size;
    if (!sent && Boxlane_GetLastError(nullptr) == BOXLANE_ERROR_PARSE_NOTSUPPORT) break;
  }
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const bool pool = Boxlane_Parse_Init(2);
  (void)pool;
  if (size < 3) return 0;
  const uint32_t seed = data[0];
  const uint32_t max_piece = 1u + (data[1] % 4 == 0 ? 1u : data[1] * 16u);
  const int clients = 1 + data[2] % 3;
  data += 3;
  size -= 3;

  std::vector<Record> first;
  bool cut_dependent = false;
  for (int c = 0; c < clients; ++c) {
    const std::string client = "fuzz-" + std::to_string(c);
    Boxlane_Parse_Insert(client.c_str());
    // The first client takes the stream whole; the others in pieces.
    const uint32_t piece = c == 0 ? UINT32_MAX / 2 : (c == 1 ? max_piece : 1);
    const std::vector<Record> records = feed(client.c_str(), data, size, seed + c, piece, cut_dependent);
    query_tracks(client.c_str());
    if (c == 0) first = records;
    else if (!cut_dependent && records != first) std::abort();
    Boxlane_Parse_Delete(client.c_str());
  }
  return 0;
}
