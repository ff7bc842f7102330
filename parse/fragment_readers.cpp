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

// tf_flags (§8.8.7.1) and tr_flags (§8.8.8.1).
constexpr uint32_t kBaseDataOffset = 0x000001;
constexpr uint32_t kDescriptionIndex = 0x000002;
constexpr uint32_t kDefaultDuration = 0x000008;
constexpr uint32_t kDefaultSize = 0x000010;
constexpr uint32_t kDefaultFlags = 0x000020;
constexpr uint32_t kBaseIsMoof = 0x020000;
constexpr uint32_t kDataOffset = 0x000001;
constexpr uint32_t kFirstSampleFlags = 0x000004;
constexpr uint32_t kSampleDuration = 0x000100;
constexpr uint32_t kSampleSize = 0x000200;
constexpr uint32_t kSampleFlags = 0x000400;
constexpr uint32_t kSampleCompositionOffset = 0x000800;
// sample_is_non_sync_sample (§8.8.3.1).
constexpr uint32_t kNonSync = 0x00010000;

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
  uint32_t default_duration = 0;
  uint32_t default_size = 0;
  uint32_t default_flags = 0;
  bool flags_known = false;   // default_flags came from the tfhd or the trex
  uint64_t base = 0;          // the data base of its truns' data_offset
  uint64_t data = 0;          // where the next trun's data starts without one
  uint64_t decode = 0;        // decode time of the next sample
  uint64_t range_start = UINT64_MAX;
  uint64_t range_end = 0;
  std::size_t first = 0;      // its first sample in the queue's array
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
  info.nTrackID = track_id;
  info.nSequence = sequence;
  info.nMoofOffset = moof_offset;
  info.nMoofSize = moof_end - moof_offset;
  info.nTrafIndex = index;
  info.nTfhdFlags = tf_flags;
  const auto trex = record.stl_MapTrex.find(track_id);
  if (trex != record.stl_MapTrex.end()) {
    info.nDescriptionIndex = trex->second.nDescriptionIndex;
    traf.default_duration = trex->second.nDuration;
    traf.default_size = trex->second.nSize;
    traf.default_flags = trex->second.nFlags;
    traf.flags_known = true;
  } else {
    info.nProblems |= BOXLANE_FRAGMENT_NO_DEFAULTS;
  }
  // §8.8.7.1: the data base is the explicit offset, else the moof when
  // default-base-is-moof is set or for the first traf, else the end of the
  // previous traf's data.
  traf.base = tf_flags & kBaseIsMoof ? moof_offset : previous_end;
  if (tf_flags & kBaseDataOffset) traf.base = tfhd.u64();
  if (tf_flags & kDescriptionIndex) info.nDescriptionIndex = tfhd.u32();
  if (tf_flags & kDefaultDuration) traf.default_duration = tfhd.u32();
  if (tf_flags & kDefaultSize) traf.default_size = tfhd.u32();
  if (tf_flags & kDefaultFlags) traf.default_flags = tfhd.u32(), traf.flags_known = true;
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
  traf.first = parse::open_fragment(queue);
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
  info.nSampleCount = static_cast<uint32_t>(queue.stl_ListSample.size() - traf.first);
  track->nFragmentEnd = traf.decode;
  track->nFragmentSamples += info.nSampleCount;
  ++track->nTrackFragments;
  stream.nDroppedFragments += parse::close_fragment(queue, info, traf.first);
}

void MoofReader::read_trun(BeReader r, Traf& traf) {
  BOXLANE_FRAGMENTINFO& info = traf.info;
  if (!r.has(8)) {
    info.nProblems |= BOXLANE_FRAGMENT_SHORT_BOX;
    return;
  }
  const uint8_t version = r.u8();
  const uint32_t flags = r.u24();
  uint64_t count = r.u32();
  if (!r.has((flags & kDataOffset ? 4 : 0) + (flags & kFirstSampleFlags ? 4 : 0))) {
    info.nProblems |= BOXLANE_FRAGMENT_SHORT_BOX;
    return;
  }
  const int32_t data_offset = flags & kDataOffset ? r.i32() : 0;
  const bool have_first_flags = flags & kFirstSampleFlags;
  const uint32_t first_flags = have_first_flags ? r.u32() : 0;

  // Whole entries only, and no more than one answer takes.
  const uint32_t per_sample = flags & (kSampleDuration | kSampleSize | kSampleFlags | kSampleCompositionOffset);
  const auto entry = static_cast<uint64_t>(4 * std::popcount(per_sample));
  auto& samples = record.stFragments.stl_ListSample;
  const std::size_t before = samples.size();
  const uint64_t room = parse::kMaxFragmentSamples - (before - traf.first);
  const uint64_t fits = entry ? std::min<uint64_t>(r.remaining() / entry, room) : room;
  if (count > fits) {
    count = fits;
    info.nProblems |= BOXLANE_FRAGMENT_COUNT_CUT;
  }

  // §8.8.8.2: data_offset counts from the traf's data base; without it the
  // run's data follows the previous run's.
  uint64_t start = traf.data;
  bool bad = false;
  if (flags & kDataOffset) {
    const int64_t offset = data_offset;
    bad = offset < 0 ? traf.base < static_cast<uint64_t>(-offset)
                     : traf.base > UINT64_MAX - static_cast<uint64_t>(offset);
    start = traf.base + static_cast<uint64_t>(offset);
  }

  samples.resize(before + static_cast<std::size_t>(count));
  BOXLANE_SAMPLEINFO* out = samples.data() + before;
  uint64_t at = start;
  uint64_t decode = traf.decode;
  const bool has_duration = per_sample & kSampleDuration, has_size = per_sample & kSampleSize;
  const bool has_flags = per_sample & kSampleFlags, has_offset = per_sample & kSampleCompositionOffset;
  for (uint64_t i = 0; i < count; ++i, ++out) {
    const uint32_t duration = has_duration ? r.u32() : traf.default_duration;
    const uint32_t size = has_size ? r.u32() : traf.default_size;
    uint32_t sample_flags = traf.default_flags;
    bool known = traf.flags_known;
    if (has_flags) {
      sample_flags = r.u32();
      known = true;
    } else if (i == 0 && have_first_flags) {
      sample_flags = first_flags;
      known = true;
    }
    const uint32_t raw_offset = has_offset ? r.u32() : 0;
    // §8.8.8.3: composition offsets are unsigned in version 0, signed in 1.
    const uint64_t composition_offset =
        version == 0 ? uint64_t{raw_offset} : static_cast<uint64_t>(int64_t{static_cast<int32_t>(raw_offset)});
    out->nDecodeTime = decode;
    out->nCompositionTime = static_cast<int64_t>(decode + composition_offset);
    out->nOffset = at;
    out->nDuration = duration;
    out->nSize = size;
    out->nFlags = sample_flags;
    out->bSync = (sample_flags & kNonSync) == 0;
    out->bDependsKnown = known;
    out->byReserved[0] = out->byReserved[1] = 0;
    bad = bad || at > UINT64_MAX - size;
    at += size;
    decode += duration;
  }
  // Sample data never lies inside the moof itself: such a run, or one
  // whose offsets leave 64 bits, is left out whole.
  bad = bad || (at > start && start < moof_end && at > moof_offset);
  if (bad) {
    samples.resize(before);
    info.nProblems |= BOXLANE_FRAGMENT_BAD_OFFSET;
    return;
  }
  traf.data = at;
  traf.decode = decode;
  if (at > start) {
    traf.range_start = std::min(traf.range_start, start);
    traf.range_end = std::max(traf.range_end, at);
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
