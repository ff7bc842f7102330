// What probe says about the stream as a whole: its form (progressive or
// fragmented, 64-bit sizes), where and why the parser stopped reading it,
// and the notes that depend on the client's mode.
#include "tools/probe/model.hpp"
#include "tools/common/names.hpp"


namespace boxlane::tool {
namespace {

std::string plural(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string stop_box(const BOXLANE_STREAMINFO& s) {
  return "box '" + printable_text(s.tszStopType, 4) + "' at offset " +
         std::to_string(s.nStopOffset);
}

// BOXLANE_FRAGMENT_* in words.
std::string fragment_problems(uint32_t problems) {
  static const struct {
    uint32_t bit;
    const char* text;
  } kWords[] = {
      {BOXLANE_FRAGMENT_COUNT_CUT, "a trun declares more samples than it holds"},
      {BOXLANE_FRAGMENT_BAD_OFFSET, "a trun's data lies inside its moof or past 64-bit offsets (its samples are left out)"},
      {BOXLANE_FRAGMENT_OVERLAP, "two trafs of a moof share data"},
      {BOXLANE_FRAGMENT_NO_DEFAULTS, "no trex gives the track's defaults"},
      {BOXLANE_FRAGMENT_SHORT_BOX, "a tfdt or trun is shorter than its fields"},
  };
  std::string text;
  for (const auto& word : kWords) {
    if (!(problems & word.bit)) continue;
    if (!text.empty()) text += "; ";
    text += word.text;
  }
  return text;
}

}  // namespace

std::string file_form(const ProbeReport& report) {
  const BOXLANE_STREAMINFO& s = report.stream;
  std::string form;
  if (s.nFragments == 0) {
    form = s.bMovieExtends ? "fragmented, no fragment read" : "progressive";
  } else {
    bool moov_samples = false;
    for (const ProbeTrack& track : report.tracks) moov_samples = moov_samples || track.facts.sample_count > 0;
    form = "fragmented, " + plural(s.nFragments, "fragment", "fragments");
    if (report.strict) form += " (not read with --strict)";
    else if (moov_samples) form += " after samples in the moov";
  }
  if (s.nLargeBoxes) form += ", " + plural(s.nLargeBoxes, "box", "boxes") + " with a 64-bit size";
  if (s.nStop == BOXLANE_STOP_LARGESIZE) form += ", a box with a 64-bit size (not followed with --strict)";
  return form;
}

std::string stream_stop(const ProbeReport& report) {
  const BOXLANE_STREAMINFO& s = report.stream;
  switch (s.nStop) {
    case BOXLANE_STOP_TOEND:
      return stop_box(s) + " has size 0: it runs to the end of the stream, so probe stopped reading there";
    case BOXLANE_STOP_LARGESIZE:
      return stop_box(s) + " has a 64-bit size, which --strict does not follow: the parser stopped there";
    case BOXLANE_STOP_MALFORMED: return stop_box(s) + " has a size below its own header: the parser stopped there";
    case BOXLANE_STOP_TOOLARGE: return stop_box(s) + " is larger than the parser takes: the parser stopped there";
    default: return {};
  }
}

void note_modes(ProbeReport& report) {
  const BOXLANE_STREAMINFO& s = report.stream;
  for (ProbeTrack& track : report.tracks) {
    auto& notes = track.facts.notes;
    if (report.strict && s.nFragments > 0)
      notes.push_back("the file has " + plural(s.nFragments, "movie fragment (moof)", "movie fragments (moof)") +
                      ", which --strict does not read: their samples are not counted");
    else if (report.strict && s.bMovieExtends)
      notes.push_back("the movie announces fragments (mvex), which --strict does not read");
    if (report.strict && (track.id < 0 || track.id > 9))
      notes.push_back("track id " + std::to_string(static_cast<uint32_t>(track.id)) +
                      " lies outside 0 to 9: Boxlane_Parse_GetTrack does not name it (Boxlane_Parse_GetTrackIDs does)");
    if (track.fragments.problems)
      notes.push_back("in its fragments: " + fragment_problems(track.fragments.problems));
  }
}

}  // namespace boxlane::tool
