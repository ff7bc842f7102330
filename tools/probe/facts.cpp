// The numbers probe works out from a track's tables, and the checks of one
// table against another that the parser leaves to its callers.
#include "tools/probe/model.hpp"
#include "tools/common/summary_text.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <span>

namespace boxlane::tool {
namespace {

uint64_t saturating_add(uint64_t a, uint64_t b) {
  return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

// ISO/IEC 14496-12 §8.7.4: an stsc entry covers the chunks from its
// first_chunk up to the next entry's; the last runs to the final stco chunk.
void check_chunks(const ProbeTables& t, ProbeFacts& f, bool large_offsets, bool strict) {
  if (f.chunk_count == 0) {
    if (f.sample_count > 0 && large_offsets && strict)
      f.missing.push_back("no chunk offsets: they are 64-bit (co64), which --strict does not read");
    else if (f.sample_count > 0)
      f.notes.push_back(large_offsets ? "no chunk offsets: the co64 table lists none" : "no chunk offsets: the track has no stco");
    return;
  }
  if (t.stsc.empty()) {
    f.problems.push_back("stco lists " + count_text(f.chunk_count, "chunk", "chunks") +
                         " but stsc puts no samples in them");
    return;
  }
  if (t.stsc.front().nValue1 != 1)
    f.problems.push_back("the first stsc entry starts at chunk " + std::to_string(t.stsc.front().nValue1) +
                         ", not 1");
  for (std::size_t i = 0; i < t.stsc.size(); ++i) {
    const uint64_t first = t.stsc[i].nValue1;
    const uint64_t next = i + 1 < t.stsc.size() ? t.stsc[i + 1].nValue1 : f.chunk_count + 1;
    if (first == 0 || next <= first) {
      f.problems.push_back("stsc entry " + std::to_string(i + 1) + " (first chunk " + std::to_string(first) +
                           ") is not followed by a later chunk");
      return;
    }
    if (first > f.chunk_count) {
      f.problems.push_back("stsc entry " + std::to_string(i + 1) + " starts at chunk " + std::to_string(first) +
                           " but stco has only " + count_text(f.chunk_count, "chunk", "chunks"));
      return;
    }
    const uint64_t chunks = std::min(next, f.chunk_count + 1) - first;
    f.chunk_samples = saturating_add(f.chunk_samples, chunks * t.stsc[i].nValue2);
  }
  if (f.chunk_samples != f.sample_count)
    f.problems.push_back("the stco chunks hold " + count_text(f.chunk_samples, "sample", "samples") +
                         " (through stsc) but stts counts " + std::to_string(f.sample_count));
}

void check_sync_samples(const ProbeTables& t, ProbeFacts& f) {
  int64_t previous = 0;
  for (const int32_t number : t.stss) {
    if (number <= previous || static_cast<uint64_t>(number) > f.sample_count) {
      f.problems.push_back("stss names sample " + std::to_string(number) + ", out of order or past the " +
                           count_text(f.sample_count, "sample", "samples"));
      return;
    }
    previous = number;
  }
}

}  // namespace

ProbeFacts derive_facts(const ProbeTrack& track, bool strict) {
  const ProbeTables& t = track.tables;
  ProbeFacts f;
  for (const auto& run : t.stts) {
    f.sample_count = saturating_add(f.sample_count, run.nValue1);
    f.table_duration = saturating_add(f.table_duration, uint64_t{run.nValue1} * run.nValue2);
  }
  for (const uint32_t size : t.stsz) f.sample_bytes += size;
  // One size for every sample: the list stays empty, the index knows it.
  const uint32_t constant = track.index.nConstantSize;
  const bool sized = !t.stsz.empty() || constant;
  f.stsz_count = t.stsz.size();
  if (t.stsz.empty() && constant) {
    f.stsz_count = track.index.nConstantCount;
    f.sample_bytes = uint64_t{constant} * track.index.nConstantCount;
  }
  f.chunk_count = t.stco.size();
  f.all_sync = t.stss.empty();
  f.key_frames = f.all_sync ? f.sample_count : t.stss.size();
  // The samples of the track's fragments come after the moov's.
  for (const IndexSample& s : track.fragments.samples) {
    f.sample_bytes += s.size;
    f.fragment_duration += s.duration;
    f.key_frames += s.sync;
  }
  f.fragment_samples = track.fragments.samples.size();
  f.samples = f.sample_count + f.fragment_samples;

  const double nan = std::numeric_limits<double>::quiet_NaN();
  const uint32_t scale = track.mdhd.nTimeScale;
  f.duration_seconds = scale ? static_cast<double>(track.mdhd.nDuration) / scale : nan;
  // In a fragmented file mdhd covers the moov's samples only (often none):
  // the rates go by what all samples last.
  const uint64_t span = f.fragment_samples ? f.table_duration + f.fragment_duration : track.mdhd.nDuration;
  const double seconds = scale ? static_cast<double>(span) / scale : nan;
  const bool timed = scale && span > 0;
  f.frame_rate = timed ? static_cast<double>(f.samples) / seconds : nan;
  f.bit_rate = timed && (sized || f.fragment_samples) ? 8.0 * static_cast<double>(f.sample_bytes) / seconds : nan;

  // --strict reads no fragment: whether they hold samples is marked apart.
  if (f.samples == 0)
    f.notes.push_back(strict ? "the tables list no samples" : "the tables list no samples, and no fragment holds any");
  if (f.stsz_count > 0 && f.stsz_count != f.sample_count)
    f.problems.push_back("stts counts " + count_text(f.sample_count, "sample", "samples") + " but stsz lists " +
                         count_text(f.stsz_count, "size", "sizes"));
  if (!sized && f.sample_count > 0 && track.index.bCompactSizes && strict)
    f.missing.push_back("no sample sizes: they are in a compact stz2 table, which --strict does not read: "
                        "no byte count or bit rate");
  else if (!sized && f.sample_count > 0)
    f.notes.push_back(track.index.bCompactSizes ? "no sample sizes: the stz2 table lists none the parser can read"
                                                : "no sample sizes: the track has no stsz");
  check_chunks(t, f, track.index.bLargeOffsets, strict);
  if (!t.ctts.empty()) {
    uint64_t covered = 0;
    for (const auto& run : t.ctts) covered = saturating_add(covered, run.nValue1);
    if (covered != f.sample_count)
      f.problems.push_back("ctts covers " + count_text(covered, "sample", "samples") + " but stts counts " +
                           std::to_string(f.sample_count));
  }
  if (!t.sdtp.empty() && t.sdtp.size() != f.sample_count)
    f.problems.push_back("sdtp has " + count_text(t.sdtp.size(), "entry", "entries") + " but stts counts " +
                         count_text(f.sample_count, "sample", "samples"));
  check_sync_samples(t, f);
  if (track.mdhd.nDuration != f.table_duration && f.fragment_samples == 0)
    f.notes.push_back("mdhd gives a duration of " + std::to_string(track.mdhd.nDuration) +
                      " but the stts deltas add up to " + std::to_string(f.table_duration));
  if (!track.codec) f.missing.push_back("the sample description could not be read");
  if ((track.codec && track.codec->bTruncated) || (track.hevc && track.hevc->bTruncated))
    f.missing.push_back("the sample description holds more parameter sets or configuration than the parser keeps");
  for (const QORVANE_HDRSAMPLENFO& entry : t.stsc) {
    if (entry.nValue3 > 1) {
      f.missing.push_back("stsc gives samples sample description " + std::to_string(entry.nValue3) +
                          ", but the parser hands out only the first");
      break;
    }
  }
  return f;
}

ProbeParameterSets split_parameter_sets(const BOXLANE_CODECINFO& codec) {
  ProbeParameterSets sets;
  const std::span<const uint8_t> all(codec.byParamSets);
  std::size_t at = 0;
  bool fits = true;  // once a set overruns, the ones after it have no known start
  auto take = [&](int32_t count, std::span<const uint16_t> lengths, auto& out) {
    const auto n = static_cast<std::size_t>(std::clamp<int32_t>(count, 0, static_cast<int32_t>(lengths.size())));
    for (std::size_t i = 0; i < n && fits; ++i) {
      fits = lengths[i] <= all.size() - at;
      if (!fits) break;
      out.push_back(all.subspan(at, lengths[i]));
      at += lengths[i];
    }
  };
  take(codec.nSPSCount, codec.wSPSLen, sets.sps);
  take(codec.nPPSCount, codec.wPPSLen, sets.pps);
  return sets;
}

ProbeHevcUnits split_hevc_units(const BOXLANE_HEVCINFO& hevc) {
  ProbeHevcUnits units;
  const std::span<const uint8_t> all(hevc.byNalus);
  const auto n = static_cast<std::size_t>(std::clamp<int32_t>(hevc.nNaluCount, 0, BOXLANE_HEVC_MAX_NALUS));
  std::size_t at = 0;
  for (std::size_t i = 0; i < n && hevc.wNaluLen[i] <= all.size() - at; ++i) {
    const auto unit = all.subspan(at, hevc.wNaluLen[i]);
    at += hevc.wNaluLen[i];
    switch (hevc.byNaluType[i]) {
      case 32: units.vps.push_back(unit); break;
      case 33: units.sps.push_back(unit); break;
      case 34: units.pps.push_back(unit); break;
      default: units.other.push_back(unit); break;
    }
  }
  return units;
}

}  // namespace boxlane::tool
