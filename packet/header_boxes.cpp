// Box headers and the boxes of a movie that carry no per-sample data:
// ftyp, mvhd, tkhd, mdhd, hdlr, vmhd, smhd, dinf and edts. Layouts are
// version 0 of ISO/IEC 14496-12, 32-bit sizes and times throughout.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <array>
#include <climits>
#include <cstdint>
#include <ctime>
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

void media_header(BeWriter& out, const QORVANE_MP4PACKET& record, uint16_t language, uint32_t duration) {
  const auto box = out.open_full("mdhd", 0, 0);
  out.u32(record.nCreateTime);
  out.u32(record.nCreateTime);
  out.u32(static_cast<uint32_t>(record.nTimeScale));
  out.u32(duration);
  out.u16(language);
  out.u16(0);
  out.close(box);
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
    record.nCreateTime = static_cast<uint32_t>(static_cast<uint64_t>(std::time(nullptr)) + kEpoch1904);
    record.nTimeScale = nTimeScale;
    const auto box = out.open_full("mvhd", 0, 0);
    out.u32(record.nCreateTime);
    out.u32(record.nCreateTime);
    out.u32(static_cast<uint32_t>(nTimeScale));
    out.u32(header_duration(*this, record, nDuration));
    out.u32(0x00010000);
    out.u16(0x0100);
    out.zeros(10);
    unity_matrix(out);
    out.zeros(24);
    out.u32(2);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_TKhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          int nVolume, int nWidth, int nHeight, int nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const uint32_t track_id = record.nTrackID++;
    const uint32_t duration = header_duration(*this, record, nDuration);
    const auto volume = static_cast<uint16_t>(nVolume);
    record.nVolume = volume;
    record.nWidth = nWidth;
    record.nHeight = nHeight;
    // A volume marks a sound track; only a visual track's duration feeds MDhd.
    (volume != 0 ? record.nAudioDuration : record.nVideoDuration) = duration;

    // Flags 3: track_enabled | track_in_movie (ISO/IEC 14496-12 §8.3.2.2).
    const auto box = out.open_full("tkhd", 0, 3);
    out.u32(record.nCreateTime);
    out.u32(record.nCreateTime);
    out.u32(track_id);
    out.u32(0);
    out.u32(duration);
    out.zeros(8);
    out.u16(0);
    out.u16(0);
    out.u16(volume);
    out.u16(0);
    unity_matrix(out);
    out.u32(static_cast<uint32_t>(nWidth) << 16);
    out.u32(static_cast<uint32_t>(nHeight) << 16);
    out.close(box);
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
    // One edit that starts presentation at nMediaTime (ISO/IEC 14496-12 §8.6.6).
    const auto edts = out.open("edts");
    const auto elst = out.open_full("elst", 0, 0);
    out.u32(1);
    out.u32(nSegmentDuration);
    out.u32(static_cast<uint32_t>(nMediaTime));
    out.u16(1);
    out.u16(0);
    out.close(elst);
    out.close(edts);
    return true;
  });
}
