// The per-sample index of the moov's tables (ISO/IEC 14496-12 §8.6, §8.7):
// each sample's decode and composition time, duration, size, stream offset
// and flags, worked out from stts, ctts, stsc, stco/co64, stsz/stz2, stss
// and sdtp, into the caller's array. A track's walk is kept in its record,
// so a caller reading window after window pays for each window only. Also
// the queries that go with it: the track's index counts and its track ids.
#include "parse/sample_index.hpp"

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/client_lookup.hpp"
#include "platform/byte_order.hpp"

#include <algorithm>
#include <limits>

namespace boxlane::parse {
namespace {

uint64_t saturating_add(uint64_t a, uint64_t b) noexcept {
  return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

// Field f of entry i of a table kept as stored.
template <std::size_t N>
uint32_t field(const BOXLANE_TABLE<N>& table, std::size_t i, std::size_t f) noexcept {
  return Olbrant_Endain_ntohl(table.fields[i * N + f]);
}

uint64_t chunk_count(const BOXLANE_TRACKINFO& t) noexcept { return t.stl_ListSTco.size() + t.stl_ListCO64.size(); }

// The stco chunks first, then the co64 ones.
uint64_t chunk_offset(const BOXLANE_TRACKINFO& t, uint64_t chunk) noexcept {
  const std::size_t narrow = t.stl_ListSTco.size();
  if (chunk < narrow) return field(t.stl_ListSTco, static_cast<std::size_t>(chunk), 0);
  const auto i = static_cast<std::size_t>(chunk - narrow);
  return uint64_t{field(t.stl_ListCO64, i, 0)} << 32 | field(t.stl_ListCO64, i, 1);
}

uint32_t sample_size(const BOXLANE_TRACKINFO& t, uint64_t i) noexcept {
  return t.stl_ListSTsz.empty() ? t.nConstantSize : field(t.stl_ListSTsz, static_cast<std::size_t>(i), 0);
}

// The chunks [first, end) of stsc entry e, from 0 (§8.7.4: an entry runs
// to the next entry's first_chunk, the last to the final chunk). False for
// an entry whose first_chunk is 0, not above the previous one, or past the
// chunks: the walk ends there.
bool entry_chunks(const BOXLANE_TRACKINFO& t, std::size_t e, uint64_t& first, uint64_t& end) noexcept {
  const uint64_t chunks = chunk_count(t);
  const uint64_t start = field(t.stl_ListSTsc, e, 0);
  const uint64_t next = e + 1 < t.stl_ListSTsc.size() ? field(t.stl_ListSTsc, e + 1, 0) : chunks + 1;
  if (start == 0 || start > chunks || next <= start) return false;
  first = start - 1;
  end = std::min(next - 1, chunks);
  return true;
}

struct Counts {
  uint64_t sizes = 0;     // samples stsz/stz2 give a size
  uint64_t timed = 0;     // samples stts gives a time
  uint64_t placed = 0;    // samples stsc puts in the chunks
  uint64_t duration = 0;  // sum of the stts deltas
  uint64_t samples() const noexcept { return std::min({sizes, timed, placed, uint64_t{UINT32_MAX}}); }
};

Counts count(const BOXLANE_TRACKINFO& t) noexcept {
  Counts c;
  c.sizes = t.stl_ListSTsz.empty() ? (t.nConstantSize ? t.nConstantCount : 0) : t.stl_ListSTsz.size();
  for (std::size_t i = 0; i < t.stl_ListSTts.size(); ++i) {
    const uint64_t n = field(t.stl_ListSTts, i, 0);
    c.timed = saturating_add(c.timed, n);
    c.duration = saturating_add(c.duration, n * field(t.stl_ListSTts, i, 1));
  }
  uint64_t first = 0, end = 0;
  for (std::size_t e = 0; e < t.stl_ListSTsc.size() && entry_chunks(t, e, first, end); ++e)
    c.placed = saturating_add(c.placed, (end - first) * field(t.stl_ListSTsc, e, 1));
  return c;
}

// A table of runs (count, value), stts or ctts, from its start: puts the run
// cursor (next run, samples left of the current one, its value) on sample k
// and returns the sum of count times value before it.
uint64_t seek_runs(const BOXLANE_TABLE<2>& runs, uint64_t k, std::size_t& next, uint32_t& left, uint32_t& value) {
  uint64_t sum = 0;
  while (next < runs.size()) {
    const uint32_t n = field(runs, next, 0);
    value = field(runs, next, 1);
    ++next;
    if (k < n) {
      left = static_cast<uint32_t>(n - k);
      return sum + k * value;
    }
    sum += uint64_t{n} * value;
    k -= n;
  }
  return sum;
}

// Takes one sample from the run cursor; false once the runs are used up.
bool take_run(const BOXLANE_TABLE<2>& runs, std::size_t& next, uint32_t& left, uint32_t& value) {
  while (left == 0 && next < runs.size()) {
    left = field(runs, next, 0);
    value = field(runs, next, 1);
    ++next;
  }
  if (left == 0) return false;
  --left;
  return true;
}

// Walks a track's tables sample by sample from where its cursor stands.
// Only samples below the track's count are asked for, so every table the
// count bounds covers them.
class SampleWalk {
 public:
  SampleWalk(const BOXLANE_TRACKINFO& track, BOXLANE_SAMPLECURSOR& cursor) : t_(track), c_(cursor) {}

  // Puts the cursor on sample `index`, walking whole runs and entries.
  void seek(uint64_t index) {
    c_ = BOXLANE_SAMPLECURSOR{};
    c_.nVersion = t_.nTablesVersion;
    c_.nIndex = index;
    c_.nDecode = seek_runs(t_.stl_ListSTts, index, c_.nSttsNext, c_.nSttsLeft, c_.nSttsDelta);
    (void)seek_runs(t_.stl_ListCTts, index, c_.nCttsNext, c_.nCttsLeft, c_.nCttsOffset);
    uint64_t k = index;
    uint64_t first = 0, end = 0;
    for (std::size_t e = 0; e < t_.stl_ListSTsc.size() && entry_chunks(t_, e, first, end); ++e) {
      const uint32_t per_chunk = field(t_.stl_ListSTsc, e, 1);
      const uint64_t held = (end - first) * per_chunk;
      if (k >= held) {
        k -= held;
        continue;
      }
      const uint64_t within = k % per_chunk;
      c_.nStscNext = e + 1;
      c_.nChunk = first + k / per_chunk;
      c_.nChunkEnd = end;
      c_.nChunkLeft = static_cast<uint32_t>(per_chunk - within);
      c_.nOffset = chunk_offset(t_, c_.nChunk);
      for (uint64_t i = index - within; i < index; ++i) c_.nOffset += sample_size(t_, i);
      break;
    }
    // Where the walk from the first sample would stand: at the first entry
    // not below the sample's number. For a sorted stss that is the usual
    // search; an unsorted one (no file has it) gets the same answer as the
    // walk, so every window agrees.
    const auto& stss = t_.stl_ListSTss;
    c_.nStssPos = static_cast<std::size_t>(
        std::find_if(stss.begin(), stss.end(), [&](int32_t n) { return int64_t{n} >= int64_t(index); }) - stss.begin());
  }

  void next(BOXLANE_SAMPLEINFO& out) {
    const uint64_t i = c_.nIndex++;
    const bool timed = take_run(t_.stl_ListSTts, c_.nSttsNext, c_.nSttsLeft, c_.nSttsDelta);
    if (!timed) c_.nSttsDelta = 0;
    // Samples past the ctts runs have no offset.
    const uint32_t raw_offset = take_run(t_.stl_ListCTts, c_.nCttsNext, c_.nCttsLeft, c_.nCttsOffset) ? c_.nCttsOffset : 0;
    while (c_.nChunkLeft == 0 && next_chunk()) {
    }
    if (c_.nChunkLeft) --c_.nChunkLeft;

    const uint32_t size = sample_size(t_, i);
    // §8.6.1.3: ctts offsets are unsigned in version 0, signed in version 1.
    const uint64_t offset = t_.byCttsVersion == 0 ? uint64_t{raw_offset}
                                                  : static_cast<uint64_t>(int64_t{static_cast<int32_t>(raw_offset)});
    out.nDecodeTime = c_.nDecode;
    out.nCompositionTime = static_cast<int64_t>(c_.nDecode + offset);
    out.nOffset = c_.nOffset;
    out.nDuration = c_.nSttsDelta;
    out.nSize = size;
    c_.nDecode += c_.nSttsDelta;
    c_.nOffset += size;

    // §8.6.2: without stss every sample is a sync sample.
    const auto& stss = t_.stl_ListSTss;
    bool sync = stss.empty();
    while (c_.nStssPos < stss.size() && int64_t{stss[c_.nStssPos]} < int64_t(i + 1)) ++c_.nStssPos;
    if (c_.nStssPos < stss.size() && int64_t{stss[c_.nStssPos]} == int64_t(i + 1)) sync = true;
    // §8.6.4: the sdtp byte holds the four two-bit fields that bits 27 to 20
    // of the sample flags hold (§8.8.3.1).
    const bool known = i < t_.stl_ListSDtp.size();
    const uint32_t depends = known ? uint32_t{t_.stl_ListSDtp[static_cast<std::size_t>(i)].bySampleFlags} << 20 : 0;
    out.nFlags = depends | (sync ? 0 : 0x00010000u);
    out.bSync = sync;
    out.bDependsKnown = known;
    out.byReserved[0] = out.byReserved[1] = 0;
  }

 private:
  // Moves to the next chunk, or to the first chunk of the next stsc entry.
  bool next_chunk() {
    if (c_.nStscNext > 0 && c_.nChunk + 1 < c_.nChunkEnd) {
      ++c_.nChunk;
    } else {
      uint64_t first = 0, end = 0;
      if (c_.nStscNext >= t_.stl_ListSTsc.size() || !entry_chunks(t_, c_.nStscNext, first, end)) return false;
      ++c_.nStscNext;
      c_.nChunk = first;
      c_.nChunkEnd = end;
    }
    c_.nChunkLeft = field(t_.stl_ListSTsc, c_.nStscNext - 1, 1);
    c_.nOffset = chunk_offset(t_, c_.nChunk);
    return true;
  }

  const BOXLANE_TRACKINFO& t_;
  BOXLANE_SAMPLECURSOR& c_;
};

template <typename Work>
bool with_track(CBoxlane_Parse& self, const char* client, int track_id, Work&& work) noexcept {
  return with_client(self, client, [&](QORVANE_MP4PARSE& record) {
    BOXLANE_TRACKINFO* track = find_track(*record.stl_MapTrack, track_id);
    if (!track) return fail(BOXLANE_ERROR_PARSE_NOTFOUND);
    return work(record, *track);
  });
}

bool bad_pointer() noexcept {
  clear_error();
  return fail(BOXLANE_ERROR_PARSE_PARAMETER);
}

}  // namespace

uint64_t table_duration(const BOXLANE_TRACKINFO& track) noexcept { return count(track).duration; }

}  // namespace boxlane::parse

using boxlane::parse::with_track;

bool CBoxlane_Parse::Boxlane_Parse_GetTrackSamples(const char* lpszClient, int nTrackID, uint32_t nFirst, BOXLANE_SAMPLEINFO* pSt_Samples, int nCapacity, int* pInt_Count) {
  if (!pInt_Count || nCapacity < 0 || (!pSt_Samples && nCapacity > 0)) return boxlane::parse::bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](QORVANE_MP4PARSE&, BOXLANE_TRACKINFO& track) {
    const uint64_t total = boxlane::parse::count(track).samples();
    const uint64_t n = nFirst < total ? std::min<uint64_t>(total - nFirst, static_cast<uint64_t>(nCapacity)) : 0;
    boxlane::parse::SampleWalk walk(track, track.stCursor);
    if (n && (track.stCursor.nVersion != track.nTablesVersion || track.stCursor.nIndex != nFirst)) walk.seek(nFirst);
    for (uint64_t i = 0; i < n; ++i) walk.next(pSt_Samples[i]);
    *pInt_Count = static_cast<int>(n);
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackIndex(const char* lpszClient, int nTrackID, BOXLANE_TRACKINDEX* pSt_TrackIndex) {
  if (!pSt_TrackIndex) return boxlane::parse::bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](QORVANE_MP4PARSE& record, const BOXLANE_TRACKINFO& track) {
    const boxlane::parse::Counts counts = boxlane::parse::count(track);
    BOXLANE_TRACKINDEX out{};
    out.nTableSamples = counts.samples();
    out.nTableDuration = counts.duration;
    out.nConstantSize = track.nConstantSize;
    out.nConstantCount = track.nConstantCount;
    out.nSizeCount = static_cast<uint32_t>(track.stl_ListSTsz.size());
    out.nChunkCount = static_cast<uint32_t>(boxlane::parse::chunk_count(track));
    out.bLargeOffsets = track.bLargeOffsets;
    out.bCompactSizes = track.bCompactSizes;
    out.byCompactFieldSize = track.byCompactFieldSize;
    if (const auto trex = record.stl_MapTrex.find(nTrackID); trex != record.stl_MapTrex.end()) {
      out.bHasTrex = 1;
      out.nTrexDescriptionIndex = trex->second.nDescriptionIndex;
      out.nTrexDuration = trex->second.nDuration;
      out.nTrexSize = trex->second.nSize;
      out.nTrexFlags = trex->second.nFlags;
    }
    out.nTrackFragments = track.nTrackFragments;
    out.nFragmentSamples = track.nFragmentSamples;
    out.nFragmentEnd = track.nFragmentEnd;
    *pSt_TrackIndex = out;
    return true;
  });
}
