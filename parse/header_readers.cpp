// Readers of the file-level and track-level header boxes (ISO/IEC 14496-12
// §4.3, §8.2.2, §8.3.2, §8.4.2, §8.4.3, §12.1.2, §12.2.2, §8.7.1). Each takes
// its fields only when the whole fixed part it reads lies inside the payload;
// a shorter box stores nothing, so no field is ever half taken.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/reader_frame.hpp"
#include "platform/be_reader.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

using boxlane::BeReader;
using boxlane::parse::current_track;
using boxlane::parse::open_track_box;
using boxlane::parse::take_version_flags;

namespace {

// A 4-byte code (brand, handler type) as stored, in an 8-byte zero-padded field.
void take_fourcc(BeReader& r, char (&out)[8]) noexcept {
  std::memset(out, 0, sizeof(out));
  r.copy(out, 4);
}

struct Times {
  uint64_t create = 0;
  uint64_t modify = 0;
  uint32_t timescale = 0;
  uint64_t duration = 0;
};

// mvhd and mdhd share this run. Any version but 0 is the 64-bit layout, not
// only version 1, so a future version is read the way its size suggests.
Times read_media_times(BeReader& r, bool wide) noexcept {
  Times t;
  t.create = wide ? r.u64() : r.u32();
  t.modify = wide ? r.u64() : r.u32();
  t.timescale = r.u32();
  t.duration = wide ? r.u64() : r.u32();
  return t;
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_FTyp(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse) return false;
  BeReader r(lpszMsgBuffer, nMsgLen);
  if (!r.has(8)) return true;
  take_fourcc(r, pSt_MP4Parse->stFTyp.tszMajorBrand);
  pSt_MP4Parse->stFTyp.nMinorVersion = r.u32();
  // A brand cut by the end of the box is not a brand. The list grows by
  // what the box holds, so a client holds no more than it was sent.
  auto& brands = pSt_MP4Parse->stl_ListBrand;
  brands.reserve(brands.size() + r.remaining() / 4);
  while (r.has(4)) {
    std::array<char, 4> brand{};
    r.copy(brand.data(), 4);
    const std::size_t length = ::strnlen(brand.data(), 4);
    std::fill(brand.begin() + static_cast<std::ptrdiff_t>(length), brand.end(), '\0');
    brands.push_back(brand);
  }
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_MVhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse) return false;
  BeReader r(lpszMsgBuffer, nMsgLen);
  take_version_flags(pSt_MSGBuffer, r);
  const bool wide = r.u8() != 0;
  // Up to the rate field: 20 or 32 bytes; from it to the end of next_track_ID: 80.
  if (!r.has((wide ? 32u : 20u) + 80u - 1u)) return true;
  r.skip(3);
  const Times t = read_media_times(r, wide);
  QORVANE_HDRMVHD& out = pSt_MP4Parse->stMVhd;
  out.nCreateTime = t.create;
  out.nModifyTime = t.modify;
  out.nTimeScale = t.timescale;
  out.nDuration = t.duration;
  out.nRate = r.u32();
  out.wVolume = r.u16();
  r.skip(2 + 8 + 36 + 24);  // reserved, matrix, pre_defined
  out.nNextTrackID = r.u32();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_TKhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse || !pSt_MP4Parse->stl_MapTrack) return false;
  BeReader r(lpszMsgBuffer, nMsgLen);
  take_version_flags(pSt_MSGBuffer, r);
  const bool wide = r.u8() != 0;
  // Base B (24 or 36) plus the 60 bytes up to the end of height. A cut tkhd
  // neither makes a track nor switches to one: its track_ID may be whatever
  // bytes came next.
  if (!r.has((wide ? 36u : 24u) + 60u - 1u)) return true;
  r.skip(3);
  QORVANE_HDRTKHD tkhd{};
  tkhd.nCreateTime = wide ? r.u64() : r.u32();
  tkhd.nModifyTime = wide ? r.u64() : r.u32();
  tkhd.nTrackID = r.i32();
  r.skip(4);
  tkhd.nDuration = wide ? r.u64() : r.u32();
  r.skip(8);
  tkhd.wLayer = r.u16();
  tkhd.wAlternateGroup = r.u16();
  tkhd.wVolume = r.u16();
  r.skip(2 + 36);
  // 16.16 fixed point; the shift keeps the sign.
  tkhd.nWidth = r.i32() >> 16;
  tkhd.nHeight = r.i32() >> 16;
  // A repeated track_ID keeps the record it already has, tables included.
  const auto [it, inserted] = pSt_MP4Parse->stl_MapTrack->try_emplace(tkhd.nTrackID);
  if (inserted) it->second.stTKhd = tkhd;
  pSt_MP4Parse->nCurrentTrack = tkhd.nTrackID;
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_MDhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  const bool wide = r.u8() != 0;
  if (!r.has((wide ? 34u : 22u) - 1u)) return true;
  r.skip(3);
  const Times t = read_media_times(r, wide);
  QORVANE_HDRMDHD& out = track->stMDhd;
  out.nCreateTime = t.create;
  out.nModifyTime = t.modify;
  out.nTimeScale = t.timescale;
  out.nDuration = t.duration;
  out.wLanguage = r.u16();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_HDlr(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(24)) return true;
  r.skip(8);
  QORVANE_HDRHDLR& out = track->stHDlr;
  take_fourcc(r, out.tszHandlerType);
  r.skip(12);
  // The name keeps its own terminator when it fits. A longer one is cut and
  // terminated so the field always holds a string; bytes past the copy are
  // left as they were.
  const std::size_t room = sizeof(out.tszName) - 1;
  const std::size_t name_len = r.remaining();
  r.copy(out.tszName, std::min(name_len, room));
  if (name_len > room) out.tszName[room] = '\0';
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_VMhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(12)) return true;
  r.skip(4);
  track->stVMSMhd.wGraphicsMode = r.u16();
  for (uint16_t& colour : track->stVMSMhd.wOpColor) colour = r.u16();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_SMhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(6)) return true;
  r.skip(4);
  track->stVMSMhd.wBalance = r.u16();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_Dinf(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  BOXLANE_TRACKINFO* track = current_track(pSt_MP4Parse);
  if (!track) return false;
  // The payload is taken to open with the dref box (§8.7.2); its size and
  // fourcc are not checked, its version and flags stand for the dinf's.
  BeReader r(lpszMsgBuffer, nMsgLen);
  if (!r.skip(8)) return true;
  take_version_flags(pSt_MSGBuffer, r);
  if (!r.has(8)) return true;
  r.skip(4);
  const int32_t count = r.i32();
  for (int32_t i = 0; i < count; ++i) {
    // An entry that does not fit, or whose size cannot even hold its own
    // header, ends the walk: size 0 would otherwise never advance.
    if (!r.has(4)) break;
    const std::size_t at = r.position();
    const int32_t size = r.i32();
    r.seek(at);
    if (size < 8 || !r.has(uint64_t(size))) break;
    BeReader entry = r.sub(uint64_t(size));
    if (size <= 12) continue;
    entry.skip(12);
    // The location (or a urn's name) ends at its NUL, at the entry's end, or
    // after 1023 bytes, whichever comes first.
    const std::size_t span = std::min<std::size_t>(entry.remaining(), 1023);
    const uint8_t* text = entry.bytes(span);
    const void* nul = std::memchr(text, 0, span);
    const std::size_t len = nul ? std::size_t(static_cast<const uint8_t*>(nul) - text) : span;
    track->stl_ListDinf.emplace_back(reinterpret_cast<const char*>(text), len);
  }
  return true;
}
