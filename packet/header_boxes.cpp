// Box headers and the boxes of a movie that carry no per-sample data:
// ftyp, mvhd, tkhd, mdhd, hdlr, vmhd, smhd, dinf and edts (ISO/IEC 14496-12).
// The first writers take 32-bit durations and always write version 0 with
// 32-bit sizes; the *64 writers take 64-bit values and write version 1, or a
// 64-bit box size, only when a value does not fit the 32-bit form.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string_view>

namespace {

using boxlane::BeWriter;
using boxlane::packet::write_box;

// Seconds from 1904-01-01 to 1970-01-01: MP4 times count from 1904
// (ISO/IEC 14496-12 §8.2.2.3).
constexpr uint64_t kEpoch1904 = 2082844800;

void unity_matrix(BeWriter& out) {
  constexpr std::array<uint32_t, 9> matrix{0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
  for (const uint32_t v : matrix) out.u32(v);
}

// The duration a header box writes: the caller's, or the one frame time in
// time-scale units when the caller passes 0.
uint32_t header_duration(CBoxlane_Packet& self, QORVANE_MP4PACKET& record, int duration) {
  if (duration != 0) return static_cast<uint32_t>(duration);
  return static_cast<uint32_t>(self.Boxlane_Packet_TimeCount(&record));
}

// MVhd stamps the creation time and the time scale that the track and media
// headers written after it copy.
void stamp(QORVANE_MP4PACKET& record, int time_scale) {
  record.nCreateTime = static_cast<uint32_t>(static_cast<uint64_t>(std::time(nullptr)) + kEpoch1904);
  record.nTimeScale = time_scale;
}

// Version 1 of mvhd, tkhd and mdhd widens the two times and the duration to
// 64 bits (ISO/IEC 14496-12 §8.2.2, §8.3.2, §8.4.2); it is chosen only when
// the duration needs it, so a value that fits keeps the version 0 bytes.
uint8_t version_for(uint64_t duration) { return duration > std::numeric_limits<uint32_t>::max() ? 1 : 0; }

void time_field(BeWriter& out, uint8_t version, uint64_t value) {
  if (version == 1) {
    out.u64(value);
  } else {
    out.u32(static_cast<uint32_t>(value));
  }
}

void movie_header(BeWriter& out, const QORVANE_MP4PACKET& record, uint64_t duration) {
  const uint8_t version = version_for(duration);
  const auto box = out.open_full("mvhd", version, 0);
  time_field(out, version, record.nCreateTime);
  time_field(out, version, record.nCreateTime);
  out.u32(static_cast<uint32_t>(record.nTimeScale));
  time_field(out, version, duration);
  out.u32(0x00010000);
  out.u16(0x0100);
  out.zeros(10);
  unity_matrix(out);
  out.zeros(24);
  out.u32(2);
  out.close(box);
}

struct TrackSize {
  int volume, width, height;
};

// Numbers the track and keeps its size and duration in the record; a
// duration past 32 bits reaches a later MDhd as 0xFFFFFFFF.
void track_header(BeWriter& out, QORVANE_MP4PACKET& record, TrackSize size, uint64_t duration) {
  const uint32_t track_id = record.nTrackID++;
  const auto volume = static_cast<uint16_t>(size.volume);
  record.nVolume = volume;
  record.nWidth = size.width;
  record.nHeight = size.height;
  // A volume marks a sound track; only a visual track's duration feeds MDhd.
  (volume != 0 ? record.nAudioDuration : record.nVideoDuration) =
      static_cast<uint32_t>(std::min<uint64_t>(duration, std::numeric_limits<uint32_t>::max()));

  // Flags 3: track_enabled | track_in_movie (ISO/IEC 14496-12 §8.3.2.2).
  const uint8_t version = version_for(duration);
  const auto box = out.open_full("tkhd", version, 3);
  time_field(out, version, record.nCreateTime);
  time_field(out, version, record.nCreateTime);
  out.u32(track_id);
  out.u32(0);
  time_field(out, version, duration);
  out.zeros(8);
  out.u16(0);
  out.u16(0);
  out.u16(volume);
  out.u16(0);
  unity_matrix(out);
  out.u32(static_cast<uint32_t>(size.width) << 16);
  out.u32(static_cast<uint32_t>(size.height) << 16);
  out.close(box);
}

void media_header(BeWriter& out, const QORVANE_MP4PACKET& record, uint16_t language, uint64_t duration) {
  const uint8_t version = version_for(duration);
  const auto box = out.open_full("mdhd", version, 0);
  time_field(out, version, record.nCreateTime);
  time_field(out, version, record.nCreateTime);
  out.u32(static_cast<uint32_t>(record.nTimeScale));
  time_field(out, version, duration);
  out.u16(language);
  out.u16(0);
  out.close(box);
}

// One edit that presents segment_duration movie ticks from media_time on
// (ISO/IEC 14496-12 §8.6.6). Version 1 widens both to 64 bits; it is chosen
// only when one of them does not fit its 32-bit field.
void edit_list(BeWriter& out, uint64_t segment_duration, int64_t media_time) {
  const bool wide = segment_duration > std::numeric_limits<uint32_t>::max() ||
                    media_time > std::numeric_limits<int32_t>::max();
  const uint8_t version = wide ? 1 : 0;
  const auto edts = out.open("edts");
  const auto elst = out.open_full("elst", version, 0);
  out.u32(1);
  time_field(out, version, segment_duration);
  time_field(out, version, static_cast<uint64_t>(media_time));
  out.u16(1);  // media_rate 1.0
  out.u16(0);
  out.close(elst);
  out.close(edts);
}

struct Handler {
  const char* type;
  std::string_view name;
};
constexpr std::array<Handler, 5> kHandlers{{
    {"vide", "VideoHandler"},
    {"soun", "SoundHandler"},
    {"hint", "HintHandler"},
    {"meta", "MetaHandler"},
    {"text", "TextHandler"},
}};

}  // namespace

bool CBoxlane_Packet::Boxlane_Packet_HDRBox(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            const char* lpszBoxType, const uint8_t* lpszPayload, int nPayloadLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    if (!lpszBoxType || nPayloadLen < 0 || nPayloadLen > INT_MAX - 8)
      return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // Without a payload the size still covers it: the caller appends the
    // children (or the mdat samples) after this header.
    out.u32(static_cast<uint32_t>(nPayloadLen) + 8);
    out.fourcc(lpszBoxType);
    if (lpszPayload) out.bytes(lpszPayload, static_cast<std::size_t>(nPayloadLen));
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_FTyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [](QORVANE_MP4PACKET&, BeWriter& out) {
    const auto box = out.open("ftyp");
    out.fourcc("isom");
    out.u32(0x200);
    for (const char* brand : {"isom", "iso2", "avc1", "mp41"}) out.fourcc(brand);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MVhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          int nDuration, int nTimeScale) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    stamp(record, nTimeScale);
    movie_header(out, record, header_duration(*this, record, nDuration));
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_TKhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          int nVolume, int nWidth, int nHeight, int nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    track_header(out, record, {nVolume, nWidth, nHeight}, header_duration(*this, record, nDuration));
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MDhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          uint16_t wLanguage) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    media_header(out, record, wLanguage, record.nVideoDuration);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MDhdEx(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            uint16_t wLanguage, uint32_t nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    media_header(out, record, wLanguage, nDuration);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_HDlr(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          uint8_t byHandlerType) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    if (byHandlerType >= kHandlers.size()) return boxlane::fail(BOXLANE_ERROR_PACKET_NOTSUPPORT);
    const Handler& handler = kHandlers[byHandlerType];
    const auto box = out.open_full("hdlr", 0, 0);
    out.u32(0);
    out.fourcc(handler.type);
    out.zeros(12);
    out.bytes(handler.name.data(), handler.name.size());
    out.u8(0);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_VMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [](QORVANE_MP4PACKET&, BeWriter& out) {
    // Flags 1 is required for vmhd (ISO/IEC 14496-12 §12.1.2.2).
    const auto box = out.open_full("vmhd", 0, 1);
    out.u16(0);
    out.zeros(6);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_SMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          int16_t wBalance) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    const auto box = out.open_full("smhd", 0, 0);
    out.u16(static_cast<uint16_t>(wBalance));
    out.u16(0);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_DInf(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [](QORVANE_MP4PACKET&, BeWriter& out) {
    const auto dinf = out.open("dinf");
    const auto dref = out.open_full("dref", 0, 0);
    out.u32(1);
    // Flags 1: the media data is in this file, so no location follows
    // (ISO/IEC 14496-12 §8.7.2.2).
    out.close(out.open_full("url ", 0, 1));
    out.close(dref);
    out.close(dinf);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_EDts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          uint32_t nSegmentDuration, int nMediaTime) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    edit_list(out, nSegmentDuration, nMediaTime);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_HDRBox64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                              const char* lpszBoxType, uint64_t nPayloadLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    constexpr uint64_t kHeader = 16;
    if (!lpszBoxType || nPayloadLen > std::numeric_limits<uint64_t>::max() - kHeader)
      return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // Size field 1: the 64-bit largesize after the type holds the box size
    // (ISO/IEC 14496-12 §4.2).
    out.u32(1);
    out.fourcc(lpszBoxType);
    out.u64(nPayloadLen + kHeader);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MVhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            uint64_t nDuration, int nTimeScale) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    stamp(record, nTimeScale);
    movie_header(out, record, nDuration);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_TKhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            int nVolume, int nWidth, int nHeight, uint64_t nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    track_header(out, record, {nVolume, nWidth, nHeight}, nDuration);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MDhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            uint16_t wLanguage, uint64_t nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    media_header(out, record, wLanguage, nDuration);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_EDts64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            uint64_t nSegmentDuration, int64_t nMediaTime) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET&, BeWriter& out) {
    // -1 is the empty edit; no other negative media time means anything
    // (ISO/IEC 14496-12 §8.6.6.3).
    if (nMediaTime < -1) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    edit_list(out, nSegmentDuration, nMediaTime);
    return true;
  });
}
