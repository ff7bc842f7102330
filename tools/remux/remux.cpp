// `boxlane remux`: any MP4 file the parser reads, progressive or
// fragmented, written again as a progressive file (moov after the media, or
// before it with --faststart) or as a fragmented one, without decoding: the
// samples are copied by offset, and their timing, sync flags, edit lists and
// codec configuration come over.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/commands.hpp"
#include "tools/common/audio_config.hpp"
#include "tools/common/mapped_file.hpp"
#include "tools/common/summary_text.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/remux/job.hpp"
#include "tools/remux/source.hpp"
#include "tools/remux/timeline.hpp"

namespace boxlane::tool {
namespace {

constexpr const char* kUsage =
    "usage: boxlane remux IN.mp4 -o OUT.mp4 [--fragment SECONDS | --faststart] [options]\n"
    "\n"
    "Writes the H.264, H.265 and AAC tracks of an MP4 file (progressive or\n"
    "fragmented, 32- or 64-bit offsets) into a new MP4 file without re-encoding:\n"
    "the samples are copied, with their timing, composition offsets, sync samples,\n"
    "edit list and codec configuration. By default OUT is a progressive file with\n"
    "the movie header (moov) after the media data.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE    the MP4 file to write (replaced only when the remux\n"
    "                       succeeds; never IN itself)\n"
    "      --fragment SECONDS\n"
    "                       write a fragmented MP4: the init segment, then\n"
    "                       fragments that each start at a video sync sample at\n"
    "                       least SECONDS after the start of the one before (audio\n"
    "                       alone: every SECONDS), then a random access index\n"
    "      --faststart      a progressive file with the movie header before the\n"
    "                       media data, so playback over a network can start early\n"
    "      --skip-unsupported\n"
    "                       leave out tracks the writer cannot describe (another\n"
    "                       codec, a second video or audio track) with a notice,\n"
    "                       instead of stopping\n"
    "  -q, --quiet          print nothing but errors\n"
    "  -h, --help           show this help\n"
    "\n"
    "One video and one audio track at most; the output's tracks share one time\n"
    "scale, the least common multiple of the input tracks' time scales.\n";

struct Options {
  std::string input, output;
  double fragment = 0;
  bool faststart = false;
  bool skip_unsupported = false;
  bool quiet = false;
};

// 0: run; 1: usage error (printed); -1: help printed.
int parse_args(int argc, char** argv, Options& o) {
  const auto usage_error = [](const std::string& message) {
    std::fprintf(stderr, "boxlane remux: %s\n\n%s", message.c_str(), kUsage);
    return 2;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string text;
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      return -1;
    } else if (arg == "-o" || arg == "--output") {
      if (!value(o.output)) return usage_error("-o needs a file name");
    } else if (arg == "--fragment") {
      char* end = nullptr;
      if (!value(text)) return usage_error("--fragment needs a length in seconds");
      o.fragment = std::strtod(text.c_str(), &end);
      if (end == text.c_str() || *end || !(o.fragment > 0) || o.fragment > 3600) {
        return usage_error("--fragment needs a length in seconds, above 0 and at most 3600");
      }
    } else if (arg == "--faststart") {
      o.faststart = true;
    } else if (arg == "--skip-unsupported") {
      o.skip_unsupported = true;
    } else if (arg == "-q" || arg == "--quiet") {
      o.quiet = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usage_error("unknown option " + std::string(arg));
    } else if (o.input.empty()) {
      o.input = arg;
    } else {
      return usage_error("one input only");
    }
  }
  if (o.input.empty()) return usage_error("no input file given");
  if (o.output.empty()) return usage_error("no output file given (-o)");
  if (o.fragment > 0 && o.faststart) return usage_error("--fragment and --faststart exclude each other");
  return 0;
}

// The output must not be the input under another name: it is written to a
// temporary file and renamed over its target, which would replace the
// input while its samples are still being read, and lose it on failure.
void refuse_same_file(const Options& o) {
  struct stat in {}, out {};
  if (::stat(o.input.c_str(), &in) != 0) return;  // the mapping says why
  if (::stat(o.output.c_str(), &out) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
    throw ToolError("'" + o.output + "' is the input file '" + o.input + "'; write the remux to another file");
  }
}

std::string track_text(const SourceTrack& t) {
  std::string text = t.video() ? "video " : "audio ";
  text += codec_name(t);
  char facts[96];
  if (t.video()) {
    std::snprintf(facts, sizeof facts, " %ux%u", t.width, t.height);
  } else {
    // What the AudioSpecificConfig says, where it says it: the mp4a entry's
    // rate is 0 from 65536 Hz on, and FFmpeg gives mono 2 channels there.
    const AudioConfig config = read_audio_config(*t.config);
    const uint32_t rate = config.valid && config.sample_rate ? config.sample_rate : t.config->nSampleRate;
    const unsigned channels = config.channels_or(t.config->wChannelCount);
    std::snprintf(facts, sizeof facts, " %u Hz %s", rate,
                  channels == 1 ? "mono" : channels == 2 ? "stereo" : "multichannel");
  }
  text += facts;
  return text += ", " + count_text(t.samples.size(), "frame", "frames");
}

int run(const Options& o) {
  const auto started = std::chrono::steady_clock::now();
  refuse_same_file(o);
  MappedFile input(o.input);
  const Source source = [&] {
    try {
      return read_source(o.input, input.data(), input.size());
    } catch (const ToolError& e) {
      throw ToolError(o.input + ": " + e.what());
    }
  }();

  const SourceTrack* video = nullptr;
  const SourceTrack* audio = nullptr;
  for (const SourceTrack& t : source.tracks) {
    std::string why = t.unsupported;
    if (why.empty() && t.samples.empty()) {
      if (!o.quiet) std::fprintf(stderr, "boxlane remux: %s: track %u has no samples; left out\n", o.input.c_str(), t.unsigned_id());
      continue;
    }
    if (why.empty() && t.video() && video) why = "a second video track; the writer takes one video and one audio track";
    if (why.empty() && !t.video() && audio) why = "a second audio track; the writer takes one video and one audio track";
    if (!why.empty()) {
      const std::string what = "track " + std::to_string(t.unsigned_id()) + " (" + (t.handler.empty() ? "?" : t.handler) + ", " +
                               codec_name(t) + ") cannot be written: " + why;
      if (!o.skip_unsupported) throw ToolError(what + " (--skip-unsupported leaves it out)");
      if (!o.quiet) std::fprintf(stderr, "boxlane remux: %s: %s; left out\n", o.input.c_str(), what.c_str());
      continue;
    }
    (t.video() ? video : audio) = &t;
  }
  if (!video && !audio) throw ToolError("'" + o.input + "' has no track to write");

  std::vector<const SourceTrack*> chosen;
  if (video) chosen.push_back(video);
  if (audio) chosen.push_back(audio);
  const Timeline timeline = plan_timeline(chosen, source.movie_timescale);
  for (const TrackTimeline& t : timeline.tracks) {
    if (o.quiet) continue;
    if (!t.edit_notice.empty()) {
      std::fprintf(stderr, "boxlane remux: %s: track %u: %s\n", o.input.c_str(), t.track->unsigned_id(), t.edit_notice.c_str());
    }
    if (t.zero_durations) {
      std::fprintf(stderr, "boxlane remux: %s: track %u: %s one tick of %u\n", o.input.c_str(), t.track->unsigned_id(),
                   count_text(t.zero_durations, "sample without a duration lasts", "samples without a duration last").c_str(),
                   timeline.timescale);
    }
  }

  RemuxJob job;
  job.input = &input;
  job.video = video ? &timeline.tracks[0] : nullptr;
  job.audio = audio ? &timeline.tracks[video ? 1 : 0] : nullptr;
  job.timescale = timeline.timescale;
  job.output = o.output;
  job.faststart = o.faststart;
  job.fragment_seconds = o.fragment;
  int last_percent = -1;
  if (!o.quiet && ::isatty(STDERR_FILENO) && input.size() >= (64u << 20)) {
    job.progress = [&](uint64_t done, uint64_t total) {
      const int percent = total ? static_cast<int>(done * 100 / total) : 100;
      if (percent == last_percent) return;
      last_percent = percent;
      std::fprintf(stderr, "\rboxlane remux: writing %s: %3d%%", o.output.c_str(), percent);
      if (done == total) std::fputs("\r\033[K", stderr);
      std::fflush(stderr);
    };
  }
  const RemuxResult result = o.fragment > 0 ? write_fragments(job) : write_progressive(job);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (!o.quiet) {
    std::string tracks;
    for (const SourceTrack* t : chosen) tracks += (tracks.empty() ? "" : "; ") + track_text(*t);
    std::string form = o.fragment > 0 ? " in " + count_text(result.fragments, "fragment", "fragments")
                                      : o.faststart ? " (faststart)" : "";
    std::printf("%s: %s; %.2f s, %s%s, written in %.2f s\n", o.output.c_str(), tracks.c_str(),
                static_cast<double>(result.duration) / timeline.timescale, size_text(result.file_size).c_str(),
                form.c_str(), seconds);
  }
  return 0;
}

}  // namespace

int remux_main(int argc, char** argv) {
  try {
    Options o;
    const int parsed = parse_args(argc, argv, o);
    if (parsed < 0) return 0;
    if (parsed > 0) return parsed;
    return run(o);
  } catch (const ToolError& e) {
    std::fprintf(stderr, "boxlane remux: %s\n", e.what());
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "boxlane remux: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "boxlane remux: %s\n", e.what());
  }
  return 1;
}

}  // namespace boxlane::tool
