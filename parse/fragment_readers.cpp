// Readers of movie fragments (ISO/IEC 14496-12 §8.8): trex and mehd in the
// moov's mvex, and a whole moof, read when its header record is queued into
// one answer per traf, with each sample's decode and composition time,
// duration, size, stream offset and flags worked out. Every field is read
// through a cursor bounded by its box, and no count from the file decides an
// allocation alone.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/box_table.hpp"
#include "parse/fragment_queue.hpp"
#include "parse/reader_frame.hpp"
#include "parse/sample_index.hpp"
#include "platform/be_reader.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>
#include <vector>

using boxlane::BeReader;
namespace parse = boxlane::parse;

namespace {

// tf_flags (§8.8.7.1).
constexpr uint32_t kBaseDataOffset = 0x000001;
constexpr uint32_t kDescriptionIndex = 0x000002;
constexpr uint32_t kDefaultDuration = 0x000008;
constexpr uint32_t kDefaultSize = 0x000010;
constexpr uint32_t kDefaultFlags = 0x000020;
constexpr uint32_t kBaseIsMoof = 0x020000;
using parse::kTrunDataOffset;
using parse::kTrunFirstSampleFlags;
using parse::kTrunSampleCompositionOffset;
using parse::kTrunSampleDuration;
using parse::kTrunSampleFlags;
using parse::kTrunSampleSize;

// The next box among those that fill a parent, its fourcc folded to lower
// case. A box that claims less than its own header or more than the parent
// holds ends the walk; size 0 runs to the parent's end.
bool next_child(BeReader& parent, uint32_t& type, BeReader& payload) noexcept {
  if (!parent.has(8)) return false;
  uint64_t size = parent.u32();
  type = parse::fold_fourcc(parent.u32());
  uint64_t header = 8;
  if (size == 1) {
    if (!parent.has(8)) return false;
    size = parent.u64();
    header = 16;
  } else if (size == 0) {
    size = header + parent.remaining();
  }
  if (size < header || !parent.has(size - header)) return false;
  payload = parent.sub(size - header);
  return true;
}

// One traf as it is read: what its truns leave out, where its data and time
// stand, and the answer it makes.
struct Traf {
  BOXLANE_FRAGMENTINFO info{};
  BOXLANE_FRAGMENTRUN defaults;  // the fields every run of the traf starts from
  uint64_t base = 0;             // the data base of its truns' data_offset
  uint64_t data = 0;             // where the next trun's data starts without one
  uint64_t decode = 0;           // decode time of the next sample
  uint64_t range_start = UINT64_MAX;
  uint64_t range_end = 0;
};

// The moof being read.
struct MoofReader {
  QORVANE_MP4PARSE& record;
  uint64_t moof_offset;
  uint64_t moof_end;
  uint32_t sequence = 0;
  uint32_t traf_index = 0;
  uint64_t previous_end;  // where the previous traf's data ended; the moof for the first

  void read_traf(BeReader traf);
  void read_trun(BeReader r, Traf& traf);
};

void MoofReader::read_traf(BeReader box) {
  // §8.8.7: the tfhd comes first; the first tfhd and the first tfdt count.
  BeReader tfhd, tfdt;
  bool have_tfhd = false, have_tfdt = false;
  {
    BeReader walk = box;
    uint32_t type;
    BeReader payload;
    while (next_child(walk, type, payload)) {
      if (type == parse::fourcc("tfhd") && !have_tfhd) tfhd = payload, have_tfhd = true;
      if (type == parse::fourcc("tfdt") && !have_tfdt) tfdt = payload, have_tfdt = true;
    }
  }
  const uint32_t index = traf_index++;
  BOXLANE_STREAMINFO& stream = record.stStream;
  if (!have_tfhd || !tfhd.has(8)) {
    ++stream.nSkippedTrafs;
    return;
  }
  const uint32_t tf_flags = tfhd.u32() & 0xFFFFFF;
  const int32_t track_id = tfhd.i32();
  const uint64_t optional = (tf_flags & kBaseDataOffset ? 8 : 0) + (tf_flags & kDescriptionIndex ? 4 : 0) +
                            (tf_flags & kDefaultDuration ? 4 : 0) + (tf_flags & kDefaultSize ? 4 : 0) +
                            (tf_flags & kDefaultFlags ? 4 : 0);
  BOXLANE_TRACKINFO* track = parse::find_track(*record.stl_MapTrack, track_id);
  if (!track || !tfhd.has(optional)) {
    ++stream.nSkippedTrafs;
    return;
  }

  Traf traf;
  BOXLANE_FRAGMENTINFO& info = traf.info;
  BOXLANE_FRAGMENTRUN& defaults = traf.defaults;
  info.nTrackID = track_id;
  info.nSequence = sequence;
  info.nMoofOffset = moof_offset;
  info.nMoofSize = moof_end - moof_offset;
  info.nTrafIndex = index;
  info.nTfhdFlags = tf_flags;
  const auto trex = record.stl_MapTrex.find(track_id);
  if (trex != record.stl_MapTrex.end()) {
    info.nDescriptionIndex = trex->second.nDescriptionIndex;
    defaults.nDuration = trex->second.nDuration;
    defaults.nSize = trex->second.nSize;
    defaults.nFlags = trex->second.nFlags;
    defaults.bFlagsKnown = true;
  } else {
    info.nProblems |= BOXLANE_FRAGMENT_NO_DEFAULTS;
  }
  // §8.8.7.1: the data base is the explicit offset, else the moof when
  // default-base-is-moof is set or for the first traf, else the end of the
  // previous traf's data.
  traf.base = tf_flags & kBaseIsMoof ? moof_offset : previous_end;
  if (tf_flags & kBaseDataOffset) traf.base = tfhd.u64();
  if (tf_flags & kDescriptionIndex) info.nDescriptionIndex = tfhd.u32();
  if (tf_flags & kDefaultDuration) defaults.nDuration = tfhd.u32();
  if (tf_flags & kDefaultSize) defaults.nSize = tfhd.u32();
  if (tf_flags & kDefaultFlags) defaults.nFlags = tfhd.u32(), defaults.bFlagsKnown = true;
  traf.data = traf.base;

  // §8.8.12: tfdt gives the decode time of the first sample; without it the
  // track goes on where its earlier samples end, the moov's and then the
  // fragments'.
  traf.decode = track->nTrackFragments ? track->nFragmentEnd : parse::table_duration(*track);
  if (have_tfdt) {
    const uint8_t version = tfdt.u8();
    tfdt.skip(3);
    if (tfdt.has(version == 1 ? 8 : 4)) {
      traf.decode = version == 1 ? tfdt.u64() : tfdt.u32();
      info.bHasTfdt = 1;
    } else {
      info.nProblems |= BOXLANE_FRAGMENT_SHORT_BOX;
    }
  }
  info.nBaseDecodeTime = traf.decode;

  BOXLANE_FRAGMENTQUEUE& queue = record.stFragments;
  const std::size_t first_run = parse::open_fragment(queue);
  BeReader walk = box;
  uint32_t type;
  BeReader payload;
  while (next_child(walk, type, payload))
    if (type == parse::fourcc("trun")) read_trun(payload, traf);

  if (traf.range_start < traf.range_end) {
    for (const auto& [start, end] : record.stl_ListMoofData)
      if (traf.range_start < end && start < traf.range_end) info.nProblems |= BOXLANE_FRAGMENT_OVERLAP;
    record.stl_ListMoofData.emplace_back(traf.range_start, traf.range_end);
    info.nDataStart = traf.range_start;
    info.nDataEnd = traf.range_end;
  } else {
    info.nDataStart = info.nDataEnd = traf.data;
  }
  previous_end = traf.data;
  track->nFragmentEnd = traf.decode;
  track->nFragmentSamples += info.nSampleCount;
  ++track->nTrackFragments;
  stream.nDroppedFragments += parse::close_fragment(queue, info, first_run);
}

void MoofReader::read_trun(BeReader r, Traf& traf) {
  BOXLANE_FRAGMENTINFO& info = traf.info;
  if (!r.has(8)) {
    info.nProblems |= BOXLANE_FRAGMENT_SHORT_BOX;
    return;
  }
  BOXLANE_FRAGMENTRUN run = traf.defaults;
  run.byVersion = r.u8();
  run.nTrunFlags = r.u24();
  const uint32_t flags = run.nTrunFlags;
  uint64_t count = r.u32();
  if (!r.has((flags & kTrunDataOffset ? 4 : 0) + (flags & kTrunFirstSampleFlags ? 4 : 0))) {
    info.nProblems |= BOXLANE_FRAGMENT_SHORT_BOX;
    return;
  }
  const int32_t data_offset = flags & kTrunDataOffset ? r.i32() : 0;
  if (flags & kTrunFirstSampleFlags) run.nFirstFlags = r.u32();

  // Whole entries only, and no more than one answer takes.
  const uint32_t per_sample = flags & (kTrunSampleDuration | kTrunSampleSize | kTrunSampleFlags | kTrunSampleCompositionOffset);
  const auto entry = static_cast<uint64_t>(4 * std::popcount(per_sample));
  const uint64_t room = parse::kMaxFragmentSamples - info.nSampleCount;
  const uint64_t fits = entry ? std::min<uint64_t>(r.remaining() / entry, room) : room;
  if (count > fits) {
    count = fits;
    info.nProblems |= BOXLANE_FRAGMENT_COUNT_CUT;
  }
  BeReader entries = r.sub(count * entry);

  // §8.8.8.2: data_offset counts from the traf's data base; without it the
  // run's data follows the previous run's.
  uint64_t start = traf.data;
  bool bad = false;
  if (flags & kTrunDataOffset) {
    const int64_t offset = data_offset;
    bad = offset < 0 ? traf.base < static_cast<uint64_t>(-offset)
                     : traf.base > UINT64_MAX - static_cast<uint64_t>(offset);
    start = traf.base + static_cast<uint64_t>(offset);
  }
  // The entries are kept as stored: one bounded copy, a stretch at a time,
  // each stretch summed while it is still in the first-level cache for what
  // the run's samples span in bytes and in time (durations come first in an
  // entry, sizes next, §8.8.8.2). Sizes are 32-bit and a run has at most
  // 2^20 samples, so no sum can overflow.
  auto& stored = record.stFragments.stl_ListByte;
  const std::size_t kept_at = stored.size();
  stored.resize(kept_at + static_cast<std::size_t>(count * entry));
  const bool has_duration = per_sample & kTrunSampleDuration, has_size = per_sample & kTrunSampleSize;
  const uint64_t second = has_duration && has_size ? 4 : 0;  // a column the run lacks is summed as the first
  constexpr uint64_t kStretch = 1024;
  BeReader::Sums sums;
  for (uint64_t done = 0; done < count;) {
    const uint64_t n = std::min(kStretch, count - done);
    uint8_t* copied = stored.data() + kept_at + done * entry;
    (void)entries.copy(copied, n * entry);  // count was cut to the entries the payload holds
    if (has_duration || has_size) {
      const BeReader::Sums part = BeReader(copied, n * entry).sum32(n, entry, 0, second);
      sums.first += part.first;
      sums.second += part.second;
    }
    done += n;
  }
  const uint64_t duration = has_duration ? sums.first : count * run.nDuration;
  const uint64_t bytes = has_size ? (has_duration ? sums.second : sums.first) : count * run.nSize;
  // Sample data never lies inside the moof itself: such a run, or one
  // whose offsets leave 64 bits, is left out whole.
  bad = bad || start > UINT64_MAX - bytes || (bytes > 0 && start < moof_end && start + bytes > moof_offset);
  if (bad) {
    stored.resize(kept_at);
    info.nProblems |= BOXLANE_FRAGMENT_BAD_OFFSET;
    return;
  }
  run.nDataStart = start;
  run.nDecodeStart = traf.decode;
  run.nCount = static_cast<uint32_t>(count);
  run.nBytesAt = kept_at;
  record.stFragments.stl_ListRun.push_back(run);
  info.nSampleCount += run.nCount;

  traf.data = start + bytes;
  traf.decode += duration;
  if (bytes > 0) {
    traf.range_start = std::min(traf.range_start, start);
    traf.range_end = std::max(traf.range_end, start + bytes);
  }
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_TRex(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse) return false;
  BeReader r(lpszMsgBuffer, nMsgLen);
  parse::take_version_flags(pSt_MSGBuffer, r);
  // §8.8.3: track_ID and the four defaults; a shorter box stores nothing.
  if (!r.has(24)) return true;
  r.skip(4);
  const int32_t track_id = r.i32();
  BOXLANE_TREX& trex = pSt_MP4Parse->stl_MapTrex[track_id];
  trex.nDescriptionIndex = r.u32();
  trex.nDuration = r.u32();
  trex.nSize = r.u32();
  trex.nFlags = r.u32();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_MEhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse) return false;
  BeReader r(lpszMsgBuffer, nMsgLen);
  parse::take_version_flags(pSt_MSGBuffer, r);
  // §8.8.2: fragment_duration, 64 bits in version 1.
  if (!r.has(4)) return true;
  const bool wide = r.u8() == 1;
  r.skip(3);
  if (!r.has(wide ? 8 : 4)) return true;
  pSt_MP4Parse->stStream.nFragmentDuration = wide ? r.u64() : r.u32();
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_MOof(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse) return false;
  QORVANE_MP4PARSE& record = *pSt_MP4Parse;
  const uint64_t header = pSt_MSGBuffer ? pSt_MSGBuffer->byHeaderLen : 8;
  MoofReader moof{record, record.nParsePos, record.nParsePos + header + nMsgLen, 0, 0, record.nParsePos};
  record.stl_ListMoofData.clear();
  // §8.8.5: the mfhd's sequence_number labels every answer of the moof.
  BeReader walk(lpszMsgBuffer, nMsgLen);
  uint32_t type;
  BeReader payload;
  while (next_child(walk, type, payload)) {
    if (type == parse::fourcc("mfhd") && payload.has(8)) {
      payload.skip(4);
      moof.sequence = payload.u32();
      break;
    }
  }
  walk = BeReader(lpszMsgBuffer, nMsgLen);
  while (next_child(walk, type, payload))
    if (type == parse::fourcc("traf")) moof.read_traf(payload);
  return true;
}
