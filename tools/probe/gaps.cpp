// What the parser's rules keep from a report: the stream stopped at a box,
// fragments --strict does not read, fragment answers left out. Each is said
// at the report and at every track it touches, so no partial figure passes
// for the whole file's. Notes that lose nothing stay notes.
#include "tools/probe/model.hpp"
#include "tools/common/names.hpp"

#include <algorithm>

namespace boxlane::tool {
namespace {

std::string plural(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// The parser matches fourccs without regard to case.
bool stopped_at_mdat(const BOXLANE_STREAMINFO& s) {
  static constexpr char kMdat[] = "mdat";
  for (std::size_t i = 0; i < 4; ++i)
    if ((static_cast<uint8_t>(s.tszStopType[i]) | 0x20) != static_cast<uint8_t>(kMdat[i])) return false;
  return true;
}

// Whether the stop fell inside the top-level movie box (or at a movie box
// that runs to the end of the stream): its tracks may then lack boxes.
bool stopped_in_movie(const ProbeReport& report) {
  const RecordSummary& r = report.records;
  if (!r.moov || report.stream.nStop == BOXLANE_STOP_NONE) return false;
  const uint64_t at = report.stream.nStopOffset;
  return at >= r.moov_offset && (r.moov_size == 0 || at < r.moov_offset + r.moov_size);
}

// BOXLANE_FRAGMENT_* in words: those that leave samples out, or the others.
std::string fragment_problems(uint32_t problems, bool losing) {
  static const struct {
    uint32_t bit;
    bool loses;
    const char* text;
  } kWords[] = {
      {BOXLANE_FRAGMENT_COUNT_CUT, true, "a trun declares more samples than it holds (the whole entries are counted)"},
      {BOXLANE_FRAGMENT_BAD_OFFSET, true, "a trun's data lies inside its moof or past 64-bit offsets (its samples are left out)"},
      {BOXLANE_FRAGMENT_SHORT_BOX, true, "a tfdt or trun is shorter than its fields (a short trun is left out)"},
      {BOXLANE_FRAGMENT_OVERLAP, false, "two trafs of a moof share data"},
      {BOXLANE_FRAGMENT_NO_DEFAULTS, false, "no trex gives the track's defaults"},
  };
  std::string text;
  for (const auto& word : kWords) {
    if (!(problems & word.bit) || word.loses != losing) continue;
    if (!text.empty()) text += "; ";
    text += word.text;
  }
  return text;
}

}  // namespace

bool stop_loses_data(const ProbeReport& report) {
  const BOXLANE_STREAMINFO& s = report.stream;
  switch (s.nStop) {
    case BOXLANE_STOP_NONE: return false;
    // ISO/IEC 14496-12 §4.2: an mdat of size 0 is the stream's last box, and
    // an mdat payload is never read: the stop loses nothing.
    case BOXLANE_STOP_TOEND: return !stopped_at_mdat(s) || stopped_in_movie(report);
    // An mdat whose 64-bit size --strict does not follow loses nothing when
    // the input ends with it.
    case BOXLANE_STOP_LARGESIZE: return !stopped_at_mdat(s) || !report.stopped_box_ends_input;
    default: return true;
  }
}

void mark_missing(ProbeReport& report) {
  const BOXLANE_STREAMINFO& s = report.stream;
  const bool loses = stop_loses_data(report);
  const bool in_movie = loses && stopped_in_movie(report);
  const bool strict_fragments = report.strict && s.nFragments > 0;
  if (report.refused_brands)
    report.missing.push_back("the file type box (ftyp) lists " + std::to_string(report.refused_brands) +
                             " compatible brands, more than probe reads (" + std::to_string(kMaxBrands) +
                             "): its brands, major brand and version are not shown");
  if (loses) report.missing.push_back("reading stopped early: " + stream_stop(report) + "; what follows was not read");
  if (strict_fragments)
    report.missing.push_back(plural(s.nFragments, "movie fragment (moof) is", "movie fragments (moof) are") +
                             " not read with --strict: their samples are in no track below");
  if (s.nDroppedFragments)
    report.missing.push_back(plural(s.nDroppedFragments, "track fragment was", "track fragments were") +
                             " released by the parser before probe took them: their samples are in no track below");
  if (s.nSkippedTrafs)
    report.missing.push_back(plural(s.nSkippedTrafs, "traf box was", "traf boxes were") +
                             " left out (no whole tfhd, or a track the movie does not have): their samples are in no "
                             "track below");

  for (ProbeTrack& track : report.tracks) {
    auto& missing = track.facts.missing;
    auto& notes = track.facts.notes;
    if (in_movie)
      missing.insert(missing.begin(), "the parser stopped inside the movie box (at offset " +
                                          std::to_string(s.nStopOffset) +
                                          "): this track may lack boxes that come after it, and tracks after it "
                                          "are not listed");
    else if (loses && s.bMovieExtends && !strict_fragments)
      missing.push_back("movie fragments after offset " + std::to_string(s.nStopOffset) +
                        " are not counted: reading stopped there");
    if (strict_fragments)
      missing.push_back("the file has " + plural(s.nFragments, "movie fragment (moof)", "movie fragments (moof)") +
                        ", which --strict does not read: their samples are not counted");
    else if (report.strict && s.bMovieExtends)
      notes.push_back("the movie announces fragments (mvex), which --strict does not read");
    if (s.nDroppedFragments)
      missing.push_back("track fragments released before probe took them may hold samples of this track");
    if (report.strict && (track.id < 0 || track.id > 9))
      notes.push_back("track id " + std::to_string(track.unsigned_id()) +
                      " lies outside 0 to 9: Boxlane_Parse_GetTrack does not name it (Boxlane_Parse_GetTrackIDs does)");
    if (const std::string lost = fragment_problems(track.fragments.problems, true); !lost.empty())
      missing.push_back("in its fragments: " + lost);
    if (const std::string odd = fragment_problems(track.fragments.problems, false); !odd.empty())
      notes.push_back("in its fragments: " + odd);
  }
}

}  // namespace boxlane::tool
