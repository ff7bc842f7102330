// Readers of the sample tables (ISO/IEC 14496-12 §8.6.1.2 stts, §8.6.1.3 ctts,
// §8.7.4 stsc, §8.7.3.2 stsz, §8.7.5 stco, §8.6.2 stss, §8.6.4 sdtp). Each
// appends the box's entries, as stored, to its list in the current track.
// Nothing is compared across tables.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/reader_frame.hpp"
#include "platform/be_reader.hpp"

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

// Version 1 offsets are signed (§8.6.1.3); both versions keep the raw 32 bits.
bool CBoxlane_Parse::Boxlane_Parse_CTts(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  return read_counted(pSt_MP4Parse, pSt_MSGBuffer, lpszMsgBuffer, nMsgLen, &BOXLANE_TRACKINFO::stl_ListCTts);
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
// follows; that constant is not kept.
bool CBoxlane_Parse::Boxlane_Parse_STsz(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  BeReader r(lpszMsgBuffer, nMsgLen);
  BOXLANE_TRACKINFO* track = open_track_box(pSt_MP4Parse, pSt_MSGBuffer, r);
  if (!track) return false;
  if (!r.has(12)) return true;
  r.skip(4);
  if (r.u32() != 0) return true;
  append(r, track->stl_ListSTsz, whole_entries(r, r.i32(), 4));
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
