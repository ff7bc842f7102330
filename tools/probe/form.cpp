// What probe says about the stream as a whole: its form (progressive or
// fragmented, 64-bit sizes), and where and why the parser stopped reading it.
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
  // The refusals come with the parser's code, as its other errors do.
  std::string code;
  if (report.stop_code) {
    const std::string name = error_name(report.stop_code);
    code = " (" + hex_code(report.stop_code) + " " + name.substr(0, name.find(' ')) + ")";
  }
  switch (s.nStop) {
    case BOXLANE_STOP_TOEND:
      return stop_box(s) + " has size 0: it runs to the end of the stream, so probe stopped reading there";
    case BOXLANE_STOP_LARGESIZE:
      return stop_box(s) + " has a 64-bit size, which --strict does not follow: the parser stopped there";
    case BOXLANE_STOP_MALFORMED: return stop_box(s) + " has a size below its own header: the parser stopped there" + code;
    case BOXLANE_STOP_TOOLARGE: return stop_box(s) + " is larger than the parser takes: the parser stopped there" + code;
    case BOXLANE_STOP_LIMIT:
      return stop_box(s) + " would take the client past its memory bound: the parser stopped there" + code;
    default: return {};
  }
}

}  // namespace boxlane::tool
