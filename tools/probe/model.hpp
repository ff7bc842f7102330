// What probe learned about one stream: the parser's answers as they came,
// and the numbers probe works out from them.
#pragma once

#include <boxlane/boxlane.h>

#include "tools/common/audio_config.hpp"
#include "tools/common/box_walk.hpp"
#include "tools/common/parse_samples.hpp"

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace boxlane::tool {

// A header record placed in the tree.
using ProbeBox = PlacedBox;

// An ftyp listing more compatible brands than this is not read: a list that
// long is no file's, and the parser's answer would cost 16 bytes a brand
// more on top of the 4 it keeps.
inline constexpr uint64_t kMaxBrands = 4096;

// A table row kept no wider than the table: an hour of samples is several
// hundred thousand rows, and every byte kept is memory to fault in.
struct ProbeRun {
  uint32_t nValue1;  // sample count
  uint32_t nValue2;  // delta (stts) or composition offset (ctts)
};

struct ProbeTables {
  std::vector<ProbeRun> stts, ctts;
  std::vector<QORVANE_HDRSAMPLENFO> stsc;
  std::vector<uint32_t> stsz, stco;  // sample sizes, chunk offsets
  std::vector<int32_t> stss;
  std::vector<uint8_t> sdtp;
};

// Column i (from 0) of a row of any of the tables above.
inline uint32_t column(uint32_t row, int) { return row; }
inline uint32_t column(const ProbeRun& row, int i) { return i == 0 ? row.nValue1 : row.nValue2; }
inline uint32_t column(const QORVANE_HDRSAMPLENFO& row, int i) {
  return i == 0 ? row.nValue1 : i == 1 ? row.nValue2 : row.nValue3;
}

// Numbers worked out from one track's tables (ISO/IEC 14496-12 §8.6, §8.7).
struct ProbeFacts {
  uint64_t sample_count = 0;     // sum of the stts counts
  uint64_t table_duration = 0;   // sum of count x delta, in the media time scale
  uint64_t stsz_count = 0;
  uint64_t sample_bytes = 0;     // sum of the stsz sizes
  uint64_t chunk_count = 0;
  uint64_t chunk_samples = 0;    // samples that stsc places in the stco chunks
  uint64_t key_frames = 0;
  bool all_sync = false;         // no stss: every sample is a sync sample
  double duration_seconds = 0;   // mdhd duration / time scale
  double frame_rate = 0;         // samples per second; NaN when unknown
  double bit_rate = 0;           // bits per second; NaN when unknown
  std::vector<std::string> problems;  // the tables contradict each other
  std::vector<std::string> notes;     // worth knowing, nothing missing
  // Values the parser's rules left out of this track: while any is listed,
  // the track's figures are not the whole file's.
  std::vector<std::string> missing;
  // Samples of the track's movie fragments (the extended mode reads them).
  uint64_t fragment_samples = 0;
  uint64_t fragment_duration = 0;  // their durations summed, media time scale
  uint64_t samples = 0;            // every sample: the moov's and the fragments'
};

struct ProbeTrack {
  int32_t id = 0;  // as the parser keys it: ids of 2^31 and more are negative
  // The tkhd's track_ID as stored, unsigned (ISO/IEC 14496-12 §8.3.2).
  uint32_t unsigned_id() const { return static_cast<uint32_t>(id); }
  QORVANE_HDRTKHD tkhd{};
  QORVANE_HDRMDHD mdhd{};
  QORVANE_HDRHDLR hdlr{};
  QORVANE_HDRVMSMHD media_header{};
  // Large (17 KiB): a track without a sample description shares one zero
  // record, so a movie of many empty tracks costs no such record per track.
  std::shared_ptr<const BOXLANE_CODECINFO> codec;  // null when the query failed
  std::unique_ptr<BOXLANE_HEVCINFO> hevc;    // for hvc1 and hev1 entries only
  AudioConfig audio;
  ProbeTables tables;
  ProbeFacts facts;
  BOXLANE_TRACKINDEX index{};  // the parser's counts for its per-sample index
  FragmentLog::Track fragments;  // the samples of its track fragments
  // Every sample in decode order, the moov's then the fragments'; filled
  // for --samples only.
  std::vector<IndexSample> samples;

  std::string handler() const;
  std::string handler_name() const;
  std::string codec_fourcc() const;
  bool is_hevc() const;  // an hvc1 or hev1 entry, in any letter case
};

struct ProbeReport {
  uint64_t stream_bytes = 0;
  bool have_ftyp = false;
  std::string major_brand;
  uint32_t minor_version = 0;
  std::vector<std::string> compatible_brands;
  // The ftyp was not read: its declared size lists this many brands, more
  // than kMaxBrands (0 when it was read).
  uint64_t refused_brands = 0;
  bool have_mvhd = false;
  QORVANE_HDRMVHD mvhd{};
  std::vector<ProbeTrack> tracks;
  // Tracks whose id lies outside 0 to 9, which Boxlane_Parse_GetTrack does
  // not name (Boxlane_Parse_GetTrackIDs lists them).
  int unlisted_tracks = 0;
  // Every header record in stream order, listed with --json and --boxes
  // only; walk_boxes places them in the tree.
  std::deque<BOXLANE_BOXINFO> boxes;
  RecordSummary records;        // of every header record, listed or not
  bool strict = false;           // the client was inserted in the basic mode (--strict)
  BOXLANE_STREAMINFO stream{};   // where the parser's reading of the stream stands
  uint64_t stop_code = 0;        // the parser's error code at a stop it refused a box with; 0 for none
  // The parser stopped at a top-level box with a 64-bit size (--strict),
  // and the input ends where that size says the box does.
  bool stopped_box_ends_input = false;
  // What the report as a whole lacks; empty when it is complete.
  std::vector<std::string> missing;

  bool complete() const {
    if (!missing.empty()) return false;
    for (const ProbeTrack& track : tracks)
      if (!track.facts.missing.empty()) return false;
    return true;
  }
};

// Fills boxes (when kept), records and what follows from them.
void place_records(ProbeReport& report, std::deque<BOXLANE_BOXINFO> records, const RecordSummary& summary);
// Calls visit(const ProbeBox&) for each of the report's boxes in order.
template <typename Visit>
void walk_boxes(const ProbeReport& report, Visit visit) {
  BoxWalk walk;
  for (const BOXLANE_BOXINFO& record : report.boxes) visit(walk.place(record));
}
// Asks the parser everything about the client, and joins the fragments the
// workers took to their tracks (with every sample when `samples`), and
// marks what the report lacks (`stop_code` and `stopped_box_ends_input`
// set first); false with error set when a query fails.
bool collect_report(const char* client, ProbeReport& report, FragmentLog fragments, bool samples, std::string& error);
// How the file is laid out: "progressive", "fragmented, N fragments", with
// 64-bit box sizes, and where the stream stopped.
std::string file_form(const ProbeReport& report);
std::string stream_stop(const ProbeReport& report);
// Whether the stop, if any, kept anything from the report: not when the
// stream ends in an mdat the parser stopped at (its payload is never read).
bool stop_loses_data(const ProbeReport& report);
// Marks, at the report and at each track it touches, every value the
// parser's rules kept from it (a stop, fragments --strict does not read,
// co64 and stz2 under --strict, fragment answers left out), and adds the
// notes that depend on the client's mode. Call once the tracks are
// collected and their facts derived.
void mark_missing(ProbeReport& report);
// `strict`: the client was inserted in the basic mode, which reads no co64
// or stz2 table.
ProbeFacts derive_facts(const ProbeTrack& track, bool strict);

// The avcC parameter sets as the codec record holds them: every SPS, then
// every PPS, back to back. Sets that would reach past the record are left out.
struct ProbeParameterSets {
  std::vector<std::span<const uint8_t>> sps, pps;
};
ProbeParameterSets split_parameter_sets(const BOXLANE_CODECINFO& codec);

// The hvcC units by kind (ISO/IEC 23008-2 Table 7-1: 32 VPS, 33 SPS, 34 PPS;
// SEI and the rest in other). Units that would reach past the record are
// left out.
struct ProbeHevcUnits {
  std::vector<std::span<const uint8_t>> vps, sps, pps, other;
};
ProbeHevcUnits split_hevc_units(const BOXLANE_HEVCINFO& hevc);

}  // namespace boxlane::tool
