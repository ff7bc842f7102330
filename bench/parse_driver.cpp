#include "bench/parse_driver.hpp"

#include <boxlane/boxlane.h>

#include <algorithm>
#include <iterator>
#include <cstdio>

namespace boxlane::bench {

namespace {

uint32_t take_list(const char* client, int32_t track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE type) {
  QORVANE_HDRSAMPLENFO** list = nullptr;
  int32_t count = 0;
  if (!Boxlane_Parse_GetTrackList(client, track_id, &list, &count, type)) return 0;
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return static_cast<uint32_t>(count);
}

std::string differs(const char* track, const char* table, uint32_t got, uint32_t want) {
  if (got == want) return {};
  char text[128];
  std::snprintf(text, sizeof text, "%s track %s: parser handed out %u entries, the movie has %u", track, table, got,
                want);
  return text;
}

}  // namespace

bool send_in_pieces(const char* client, const uint8_t* data, std::size_t size, std::size_t piece) {
  if (piece == 0) piece = size;
  for (std::size_t at = 0; at < size; at += piece) {
    const auto n = static_cast<int32_t>(std::min(piece, size - at));
    if (!Boxlane_Parse_Send(client, data + at, n)) return false;
  }
  return true;
}

int drain_headers(const char* client) {
  QORVANE_MP4HDR header;
  uint64_t position = 0;
  int count = 0;
  while (Boxlane_Parse_Recv(client, &header, &position)) ++count;
  return count;
}

TableCounts take_track_tables(const char* client, int32_t track_id) {
  TableCounts counts;
  QORVANE_HDRTKHD tkhd;
  QORVANE_HDRMDHD mdhd;
  QORVANE_HDRHDLR hdlr;
  QORVANE_HDRVMSMHD vmsmhd;
  if (!Boxlane_Parse_GetTrackInfo(client, track_id, &tkhd, &mdhd, &hdlr, &vmsmhd)) return counts;
  static thread_local BOXLANE_CODECINFO codec;  // 17 KiB: kept off the stack
  Boxlane_Parse_GetTrackCodec(client, track_id, &codec);

  counts.stts = take_list(client, track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS);
  counts.ctts = take_list(client, track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS);
  counts.stsc = take_list(client, track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC);
  counts.stsz = take_list(client, track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ);
  counts.stco = take_list(client, track_id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO);

  int32_t** keys = nullptr;
  int32_t key_count = 0;
  if (Boxlane_Parse_GetTrackKey(client, track_id, &keys, &key_count)) {
    Fundrel_Memory_Free(reinterpret_cast<void***>(&keys), key_count);
    counts.stss = static_cast<uint32_t>(key_count);
  }
  QORVANE_HDRSDTP** sdtp = nullptr;
  int32_t sdtp_count = 0;
  if (Boxlane_Parse_GetTrackSDtp(client, track_id, &sdtp, &sdtp_count)) {
    Fundrel_Memory_Free(reinterpret_cast<void***>(&sdtp), sdtp_count);
    counts.sdtp = static_cast<uint32_t>(sdtp_count);
  }
  return counts;
}

uint64_t take_everything(const char* client) {
  QORVANE_HDRFTYP ftyp{};
  if (Boxlane_Parse_GetFTyp(client, &ftyp))
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
  QORVANE_HDRMVHD mvhd;
  Boxlane_Parse_GetMVhd(client, &mvhd);
  int32_t tracks[10];
  std::fill(std::begin(tracks), std::end(tracks), -1);
  Boxlane_Parse_GetTrack(client, tracks);
  uint64_t entries = 0;
  for (int32_t id : tracks) {
    if (id >= 0) entries += take_track_tables(client, id).total();
  }
  return entries;
}

std::string check_tables(const char* client, const SyntheticMovie& movie) {
  QORVANE_HDRFTYP ftyp{};
  if (!Boxlane_Parse_GetFTyp(client, &ftyp)) return "GetFTyp failed";
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
  int32_t tracks[10] = {};
  if (!Boxlane_Parse_GetTrack(client, tracks)) return "GetTrack failed";
  if (tracks[1] != 1 || tracks[2] != 2) return "the parser did not list tracks 1 and 2";

  const struct {
    const char* name;
    int32_t id;
    const TableCounts& want;
  } expected[] = {{"video", 1, movie.video}, {"audio", 2, movie.audio}};
  for (const auto& track : expected) {
    const TableCounts got = take_track_tables(client, track.id);
    for (std::string error : {differs(track.name, "stts", got.stts, track.want.stts),
                              differs(track.name, "ctts", got.ctts, track.want.ctts),
                              differs(track.name, "stsc", got.stsc, track.want.stsc),
                              differs(track.name, "stsz", got.stsz, track.want.stsz),
                              differs(track.name, "stco", got.stco, track.want.stco),
                              differs(track.name, "stss", got.stss, track.want.stss),
                              differs(track.name, "sdtp", got.sdtp, track.want.sdtp)}) {
      if (!error.empty()) return error;
    }
  }
  return {};
}

}  // namespace boxlane::bench
