// Readers of the sample tables (ISO/IEC 14496-12 §8.6.1.2 stts, §8.6.1.3 ctts,
// §8.7.4 stsc, §8.7.3.2 stsz, §8.7.5 stco, §8.6.2 stss, §8.6.4 sdtp). Each
// appends the box's entries, as stored, to its list in the current track.
// Nothing is compared across tables.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/reader_frame.hpp"
#include "platform/be_reader.hpp"
#include "platform/byte_order.hpp"

#include <algorithm>
#include <vector>

using boxlane::BeReader;
using boxlane::parse::open_track_box;

namespace {

// The count a box declares, cut to the entries that lie whole inside the
// payload, so a hostile count can neither read past the box nor reserve
// memory the box does not back. A count below 1 (top bit set included)
// gives nothing.
uint32_t whole_entries(const BeReader& r, int32_t count, std::size_t entry_size) noexcept {
  if (count < 1) return 0;
  return static_cast<uint32_t>(std::min<uint64_t>(uint64_t(count), r.remaining() / entry_size));
}

// Room for n more elements. A list filled by one box is sized exactly; when
// many boxes append to one list it grows by at least a quarter, so a stream of
// tiny boxes stays linear and a 12-byte element never costs more than 15.
template <typename List>
void make_room(List& list, std::size_t n) {
  const std::size_t needed = list.size() + n;
  if (needed > list.capacity()) list.reserve(std::max(needed, list.size() + list.size() / 4));
}

// Appends n entries of N fields from the cursor to the table in one pass.
template <std::size_t N>
void append(BeReader& r, BOXLANE_TABLE<N>& table, uint32_t n) {
  auto& fields = table.fields;
  const std::size_t old = fields.size();
  make_room(fields, std::size_t{n} * N);
  fields.resize(old + std::size_t{n} * N);
  (void)r.copy(fields.data() + old, std::size_t{n} * N * 4);  // n was bounded by the payload
}

// Version, flags and entry_count at 0 and 4; the entries from 8 on.
template <std::size_t N>
bool read_counted(QORVANE_MP4PARSE* record, BOXLANE_MSGBUFFER* entry, const uint8_t* payload, uint64_t length,
                  BOXLANE_TABLE<N> BOXLANE_TRACKINFO::*list) {
  BeReader r(payload, length);
  BOXLANE_TRACKINFO* track = open_track_box(record, entry, r);
  if (!track) return false;
  if (!r.has(8)) return true;
  r.skip(4);
  append(r, track->*list, whole_entries(r, r.i32(), 4 * N));
  return true;
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_STts(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  return read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListSTts);
}

// Version 1 offsets are signed (§8.6.1.3); both versions keep the raw 32
// bits, and the version is kept for the per-sample index.
bool CBoxlane_Parse::Boxlane_Parse_CTts(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  if (!read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListCTts)) return false;
  if (nMsgLen > 0) boxlane::parse::current_track(pSt_MP4Parse)->byCttsVersion = lpszMsgBuffer[0];
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_STsc(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  return read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListSTsc);
}

bool CBoxlane_Parse::Boxlane_Parse_STco(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  return read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListSTco);
}

bool CBoxlane_Parse::Boxlane_Parse_STss(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(8)) return true;
  r.skip(4);
  const uint32_t n = whole_entries(r, r.i32(), 4);
  std::vector<int32_t>& out = track->stl_ListSTss;
  make_room(out, n);
  for (uint32_t i = 0; i < n; ++i) out.push_back(r.i32());
  return true;
}

// A non-zero sample_size means every sample has that size and no table
// follows. The size list stays empty; the constant and its count are kept
// for the per-sample index only.
bool CBoxlane_Parse::Boxlane_Parse_STsz(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(12)) return true;
  r.skip(4);
  if (const uint32_t constant = r.u32(); constant != 0) {
    track->nConstantSize = constant;
    track->nConstantCount = r.u32();
    return true;
  }
  append(r, track->stl_ListSTsz, whole_entries(r, r.i32(), 4));
  return true;
}

// §8.7.5: co64 is stco with 64-bit offsets. Its entries are kept as stored,
// high half first, after the track's stco entries.
bool CBoxlane_Parse::Boxlane_Parse_CO64(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  if (!read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListCO64)) return false;
  boxlane::parse::current_track(pSt_MP4Parse)->bLargeOffsets = true;
  return true;
}

// §8.7.3.3: stz2 packs the sizes in fields of 4, 8 or 16 bits (4-bit fields
// two to a byte, the first in the high nibble). They join the stsz sizes,
// stored as stsz stores them. Another field size stores nothing.
bool CBoxlane_Parse::Boxlane_Parse_STz2(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  track->bCompactSizes = true;
  if (!r.has(12)) return true;
  r.skip(7);
  const uint8_t field = r.u8();
  track->byCompactFieldSize = field;
  if (field != 4 && field != 8 && field != 16) return true;
  const int32_t declared = r.i32();
  if (declared < 1) return true;
  // Whole fields only: a count past the payload is cut to what it holds.
  const uint64_t fits = field == 4 ? r.remaining() * 2 : r.remaining() / (field / 8);
  const auto n = static_cast<uint32_t>(std::min<uint64_t>(uint64_t(declared), fits));
  auto& fields = track->stl_ListSTsz.fields;
  make_room(fields, n);
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t size;
    if (field == 16) {
      size = r.u16();
    } else if (field == 8) {
      size = r.u8();
    } else {
      uint8_t pair = 0;
      (void)r.peek(0, pair);
      size = i % 2 == 0 ? pair >> 4 : pair & 0x0F;
      if (i % 2 == 1 || i + 1 == n) r.skip(1);
    }
    fields.push_back(Olbrant_Endain_htonl(size));
  }
  return true;
}

// sdtp carries no count: one byte per sample to the end of the box (§8.6.4.2).
bool CBoxlane_Parse::Boxlane_Parse_SDtp(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.skip(4)) return true;
  auto& out = track->stl_ListSDtp;
  const std::size_t old = out.size(), n = r.remaining();
  static_assert(sizeof(QORVANE_HDRSDTP) == 1);
  make_room(out, n);
  out.resize(old + n);
  (void)r.copy(out.data() + old, n);
  return true;
}
