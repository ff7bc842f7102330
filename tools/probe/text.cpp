#include "tools/common/names.hpp"
#include "tools/probe/report.hpp"

#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace boxlane::tool {
namespace {

[[gnu::format(printf, 2, 3)]] void add(std::string& out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (n > 0) {
    const std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(n) + 1);
    std::vsnprintf(out.data() + at, static_cast<std::size_t>(n) + 1, format, again);
    out.resize(at + static_cast<std::size_t>(n));
  }
  va_end(again);
}

using ull = unsigned long long;

std::string seconds(double value) {
  if (!std::isfinite(value)) return "unknown";
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", value);
  return text;
}

std::string kind(const std::string& handler) {
  if (handler == "vide") return "video";
  if (handler == "soun") return "audio";
  if (handler == "hint") return "hint";
  if (handler == "meta") return "metadata";
  if (handler == "text" || handler == "sbtl") return "text";
  return "unknown kind";
}

std::string codec_line(const ProbeTrack& track) {
  if (!track.codec) return "unknown (no sample description)";
  const BOXLANE_CODECINFO& c = *track.codec;
  const std::string fourcc = track.codec_fourcc();
  std::string line = printable_text(fourcc.data(), fourcc.size());
  if (fourcc == "avc1") {
    const ProbeParameterSets sets = split_parameter_sets(c);
    add(line, ", H.264 %s profile, level %s, %ux%u, %u-byte NAL lengths, %zu SPS, %zu PPS",
        avc_profile_name(c.byProfile, c.byCompatibility).c_str(),
        avc_level_name(c.byLevel, c.byProfile, c.byCompatibility).c_str(), c.wWidth, c.wHeight, c.byNALLengthSize,
        sets.sps.size(), sets.pps.size());
  } else if (track.hevc && track.hevc->byConfigurationVersion) {
    const BOXLANE_HEVCINFO& h = *track.hevc;
    const ProbeHevcUnits units = split_hevc_units(h);
    add(line, ", H.265 %s profile, %s tier, level %s, %s, %u-bit, %ux%u, %u-byte NAL lengths, %zu VPS, %zu SPS, %zu PPS",
        hevc_profile_name(h.byProfile, h.nCompatibilityFlags).c_str(), h.byTier ? "High" : "Main",
        hevc_level_name(h.byLevel).c_str(), chroma_format_name(h.byChromaFormat).c_str(), unsigned{h.byBitDepthLuma},
        unsigned{h.wWidth}, unsigned{h.wHeight}, unsigned{h.byNALLengthSize}, units.vps.size(), units.sps.size(),
        units.pps.size());
    if (h.bTruncated) line += " (description longer than the parser keeps)";
  } else if (fourcc == "mp4a") {
    // The AudioSpecificConfig is what a decoder goes by; writers often put
    // 2 channels in the sample entry whatever the stream holds.
    if (track.audio.valid) {
      const unsigned channels = track.audio.channels_or(c.wChannelCount);
      add(line, ", %s, %u channel%s, %u Hz", aac_object_name(track.audio.object_type).c_str(), channels,
          channels == 1 ? "" : "s", track.audio.sample_rate);
    } else {
      add(line, ", object type 0x%02X, %u channel%s, %u Hz", c.byObjectType, unsigned{c.wChannelCount},
          c.wChannelCount == 1 ? "" : "s", c.nSampleRate);
    }
  }
  if (c.bTruncated) line += " (description longer than the parser keeps)";
  return line;
}

void track_block(std::string& out, const ProbeTrack& track) {
  const ProbeFacts& f = track.facts;
  const std::string handler = track.handler();
  const std::string name = track.handler_name();
  add(out, "\ntrack %u: %s (handler '%s', \"%s\")%s\n", track.unsigned_id(), kind(handler).c_str(),
      printable_text(handler.data(), handler.size()).c_str(), printable_text(name.data(), name.size()).c_str(),
      f.missing.empty() ? "" : ", INCOMPLETE");
  for (const auto& gap : f.missing) add(out, "  missing:     %s\n", gap.c_str());
  add(out, "  codec:       %s\n", codec_line(track).c_str());
  if (track.tkhd.nWidth || track.tkhd.nHeight)
    add(out, "  dimensions:  %dx%d\n", track.tkhd.nWidth, track.tkhd.nHeight);
  add(out, "  time scale:  %u\n", track.mdhd.nTimeScale);
  add(out, "  duration:    %s (%llu), language %s\n", seconds(f.duration_seconds).c_str(),
      ull{track.mdhd.nDuration}, language_text(track.mdhd.wLanguage).c_str());
  add(out, "  samples:     %llu, %llu key frame%s%s\n", ull{f.samples}, ull{f.key_frames},
      f.key_frames == 1 ? "" : "s", f.all_sync && !f.fragment_samples ? " (no stss: every sample is a sync sample)" : "");
  if (f.fragment_samples)
    add(out, "  fragments:   %llu sample%s in %u track fragment%s, %llu in the moov\n", ull{f.fragment_samples},
        f.fragment_samples == 1 ? "" : "s", track.fragments.fragments, track.fragments.fragments == 1 ? "" : "s",
        ull{f.sample_count});
  if (std::isfinite(f.frame_rate)) add(out, "  frame rate:  %.3f frames/s\n", f.frame_rate);
  if (std::isfinite(f.bit_rate))
    add(out, "  bit rate:    %.1f kbit/s (%llu bytes of samples)\n", f.bit_rate / 1000, ull{f.sample_bytes});
  if (f.problems.empty()) {
    add(out, "  tables:      agree: %llu samples timed (stts), %llu sized (stsz), %llu placed in %llu chunk%s (stsc, stco)\n",
        ull{f.sample_count}, ull{f.stsz_count}, ull{f.chunk_samples}, ull{f.chunk_count},
        f.chunk_count == 1 ? "" : "s");
  } else {
    add(out, "  tables:      DISAGREE, this file is inconsistent:\n");
    for (const auto& problem : f.problems) add(out, "    ! %s\n", problem.c_str());
  }
  for (const auto& note : f.notes) add(out, "  note:        %s\n", note.c_str());
}

template <typename Rows>
void table_rows(std::string& out, const char* name, const char* columns, const Rows& rows, int width) {
  add(out, "  %s: %zu entr%s (%s)\n", name, rows.size(), rows.size() == 1 ? "y" : "ies", columns);
  std::size_t index = 0;
  for (const auto& row : rows) {
    add(out, "    %6zu: %u", ++index, column(row, 0));
    for (int i = 1; i < width; ++i) add(out, " %u", column(row, i));
    out += '\n';
  }
}

void track_tables(std::string& out, const ProbeTrack& track) {
  const ProbeTables& t = track.tables;
  add(out, "\ntrack %u tables:\n", track.unsigned_id());
  table_rows(out, "stts", "sample_count sample_delta", t.stts, 2);
  table_rows(out, "ctts", "sample_count sample_offset", t.ctts, 2);
  table_rows(out, "stsc", "first_chunk samples_per_chunk sample_description_index", t.stsc, 3);
  // One size for every sample: stsz lists none, so say it with its count.
  if (t.stsz.empty() && track.index.nConstantSize)
    add(out, "  stsz: sample_size %u for each of %u samples\n", track.index.nConstantSize, track.index.nConstantCount);
  else
    table_rows(out, "stsz", "entry_size", t.stsz, 1);
  table_rows(out, "stco", "chunk_offset", t.stco, 1);
  add(out, "  stss: %zu entr%s (sample_number)\n", t.stss.size(), t.stss.size() == 1 ? "y" : "ies");
  std::size_t index = 0;
  for (const int32_t number : t.stss) add(out, "    %6zu: %d\n", ++index, number);
  add(out, "  sdtp: %zu entr%s (flags byte)\n", t.sdtp.size(), t.sdtp.size() == 1 ? "y" : "ies");
  index = 0;
  for (const uint8_t flags : t.sdtp) add(out, "    %6zu: 0x%02X\n", ++index, flags);
}

// Every sample in decode order: times in the track's time scale,
// composition before any edit list.
void track_samples(std::string& out, const ProbeTrack& track) {
  add(out, "\ntrack %u samples: %zu (decode_time composition_time duration size offset, K: sync)\n", track.unsigned_id(),
      track.samples.size());
  std::size_t index = 0;
  for (const IndexSample& s : track.samples)
    add(out, "    %6zu: %llu %lld %u %u %llu%s\n", ++index, ull{s.decode}, static_cast<long long>(s.composition),
        s.duration, s.size, ull{s.offset}, s.sync ? " K" : "");
}

void box_tree(std::string& out, const ProbeReport& report) {
  add(out, "\nboxes, as the parser walked them:\n  %10s  %10s  box (type code)\n", "offset", "size");
  walk_boxes(report, [&](const ProbeBox& box) {
    const QORVANE_MP4HDR& h = box.header;
    const std::string_view name = box_name(h.enHType);
    add(out, "  %10llu  %10llu  %*s%s (%d)", ull{box.offset}, ull{h.nBoxSize}, 2 * box.depth, "",
        name.empty() ? "?" : std::string(name).c_str(), static_cast<int>(h.enHType));
    if (is_full_box(h.enHType))
      add(out, "  version %u flags %02X%02X%02X", h.byVersion, h.byFlags[0], h.byFlags[1], h.byFlags[2]);
    if (name.empty()) out += "  not read by the parser";
    out += '\n';
  });
}

}  // namespace

std::string text_report(const ProbeReport& report, const std::string& source, TextOptions options) {
  std::string out;
  add(out, "%s: %llu bytes\n", source.c_str(), ull{report.stream_bytes});
  if (report.refused_brands) {
    add(out, "file type:   not read: its ftyp lists %llu compatible brands, more than probe reads\n",
        ull{report.refused_brands});
  } else if (report.have_ftyp) {
    add(out, "file type:   %s, minor version %u", printable_text(report.major_brand.data(), report.major_brand.size()).c_str(),
        report.minor_version);
    if (!report.compatible_brands.empty()) {
      out += ", compatible with";
      for (const auto& brand : report.compatible_brands) {
        out += ' ';
        out += printable_text(brand.data(), brand.size());
      }
    }
    out += '\n';
  } else {
    out += "file type:   none (no ftyp box)\n";
  }
  if (report.have_mvhd) {
    const QORVANE_HDRMVHD& m = report.mvhd;
    add(out, "movie:       %s (duration %llu at time scale %u), %zu track%s\n",
        seconds(m.nTimeScale ? static_cast<double>(m.nDuration) / m.nTimeScale : NAN).c_str(), ull{m.nDuration},
        m.nTimeScale, report.tracks.size(), report.tracks.size() == 1 ? "" : "s");
  } else {
    out += "movie:       none (no mvhd box)\n";
  }
  add(out, "form:        %s\n", file_form(report).c_str());
  // A stop that kept something from the report is said among the gaps.
  if (const std::string stop = stream_stop(report); !stop.empty() && !stop_loses_data(report))
    add(out, "stream:      %s\n", stop.c_str());
  for (const auto& gap : report.missing) add(out, "INCOMPLETE:  %s\n", gap.c_str());
  if (report.strict && report.unlisted_tracks > 0)
    add(out, "note:        %d track%s with ids outside 0 to 9, which Boxlane_Parse_GetTrack does not name\n",
        report.unlisted_tracks, report.unlisted_tracks == 1 ? "" : "s");
  for (const auto& track : report.tracks) track_block(out, track);
  if (options.tables)
    for (const auto& track : report.tracks) track_tables(out, track);
  if (options.samples)
    for (const auto& track : report.tracks) track_samples(out, track);
  if (options.boxes) box_tree(out, report);
  return out;
}

}  // namespace boxlane::tool
