// `boxlane mux`: H.264 or H.265 (Annex B) and AAC (ADTS) elementary streams
// into an MP4 file.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>
#include <string>

#include "tools/commands.hpp"
#include "tools/mux/audio.hpp"
#include "tools/common/summary_text.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/common/live_input.hpp"
#include "tools/common/mapped_file.hpp"
#include "tools/mux/fragmented.hpp"
#include "tools/mux/movie.hpp"
#include "tools/mux/timing.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::tool {

namespace {

constexpr const char* kUsage =
    "usage: boxlane mux [--video IN.h264|IN.h265] [--audio IN.aac] [options] -o OUT.mp4\n"
    "\n"
    "Writes an H.264 or H.265 Annex B stream and/or an AAC ADTS stream into one MP4\n"
    "file, without re-encoding. At least one of --video and --audio is needed.\n"
    "\n"
    "options:\n"
    "  -v, --video FILE     H.264 or H.265 elementary stream (Annex B, 3- or 4-byte\n"
    "                       start codes); '-' reads standard input, and a FIFO is\n"
    "                       read as it is written\n"
    "      --video-codec C  h264, h265 (or hevc), or auto (default: told by the\n"
    "                       stream's first parameter set)\n"
    "  -a, --audio FILE     AAC elementary stream with ADTS headers (also '-' or a FIFO)\n"
    "  -o, --output FILE    the MP4 file to write (replaced only when muxing succeeds)\n"
    "      --fragment SECONDS\n"
    "                       write a fragmented MP4 as the input arrives: the init\n"
    "                       segment first, then each fragment as soon as it is whole.\n"
    "                       A fragment starts at the first video key frame at least\n"
    "                       SECONDS after the start of the one before (audio alone:\n"
    "                       every SECONDS). OUT is written in place: a run that is\n"
    "                       stopped or killed leaves every whole fragment playable\n"
    "      --fsync          with --fragment: each fragment reaches the disk before\n"
    "                       the next is cut (safe against power loss)\n"
    "      --fps RATE       video frame rate: 25, 29.97 or 30000/1001 (default: the\n"
    "                       stream's VUI timing, else 25)\n"
    "      --timescale N    ticks per second of the movie (default: chosen so frame\n"
    "                       and AAC durations are whole numbers)\n"
    "      --faststart      put the movie header before the media data, so playback\n"
    "                       over a network can start before the whole file arrives\n"
    "      --keep-leading   H.264: keep the pictures before the first IDR picture or\n"
    "                       recovery point, which no decoder can show correctly\n"
    "                       (by default they are dropped, and counted in the summary,\n"
    "                       with the audio that went with them, to keep sync)\n"
    "      --strip-sei      H.264: leave SEI NAL units (captions, timing, encoder\n"
    "                       notes) out of the samples (by default each stays in its\n"
    "                       picture's sample)\n"
    "  -q, --quiet          print nothing but errors\n"
    "  -h, --help           show this help\n"
    "\n"
    "B-frames are ordered by the slices' picture order count and the video track\n"
    "gets an edit list, so video and audio start together. An access unit of several\n"
    "slices becomes one sample, and so do the two fields of a frame coded as fields.\n"
    "Every H.264 SPS and PPS the pictures use goes into the sample description; one\n"
    "with an id seen before must not change, nor may the picture size. AAC with its\n"
    "channel layout in a program_config_element (channel_configuration 0) keeps the\n"
    "layout in the MP4 configuration. H.265 goes into an hvc1 track with\n"
    "its VPS, SPS and PPS in the sample description; IDR, CRA and BLA pictures are\n"
    "its key frames.\n"
    "\n"
    "Without --fragment, input from a pipe or FIFO is copied to a temporary file\n"
    "beside OUT as it arrives, and the file appears when the input ends. With\n"
    "--fragment, memory holds about one fragment, however long the input runs;\n"
    "an mfra index for seeking ends the file when every input is a regular file,\n"
    "and a finished file gets its duration in mvex. H.265 fragments start at IRAP\n"
    "pictures (IDR, CRA, BLA); the leading pictures of a CRA picture stay in its\n"
    "fragment.\n"
    "An input that stops in the middle of a frame ends the file with the last\n"
    "whole frames, a message, and exit status 1.\n"
    "\n"
    "example:\n"
    "  boxlane mux --video tests/data/sample.h264 --audio tests/data/sample.aac -o demo.mp4\n"
    "  camera | boxlane mux --video - --fragment 2 -o live.mp4\n";

struct Options {
  std::string video;
  std::string audio;
  std::string output;
  VideoCodec video_codec = VideoCodec::kUnknown;  // kUnknown: detect
  std::optional<FrameRate> fps;
  uint32_t timescale = 0;
  bool faststart = false;
  VideoScanOptions scan;
  bool quiet = false;
  double fragment = 0;  // seconds; 0: one movie
  bool fsync = false;
};

[[noreturn]] void usage_error(const std::string& message) {
  throw ToolError(message + " (see 'boxlane mux --help')");
}

// "25", "30000/1001", "29.97" (the NTSC rates become their exact fractions).
std::optional<FrameRate> parse_rate(const std::string& text) {
  char* end = nullptr;
  const std::size_t slash = text.find('/');
  if (slash != std::string::npos) {
    const unsigned long long num = std::strtoull(text.c_str(), &end, 10);
    if (end != text.c_str() + slash) return std::nullopt;
    const unsigned long long den = std::strtoull(text.c_str() + slash + 1, &end, 10);
    if (*end || num == 0 || den == 0 || num > 1000000 || den > 1000000) return std::nullopt;
    const unsigned long long g = std::gcd(num, den);
    if (num / g > (den / g) * 1000) return std::nullopt;
    return FrameRate{static_cast<uint32_t>(num / g), static_cast<uint32_t>(den / g)};
  }
  const double fps = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end || !(fps > 0) || fps > 1000) return std::nullopt;
  const double ntsc = std::round(fps * 1.001);
  // A rate below 0.005 is near no NTSC rate but 0 itself, which is none.
  if (ntsc > 0 && std::fabs(fps - std::round(fps)) > 1e-9 && std::fabs(fps - ntsc / 1.001) < 0.005) {
    return FrameRate{static_cast<uint32_t>(ntsc) * 1000, 1001};
  }
  const unsigned long long num = std::llround(fps * 1000);
  if (num == 0) return std::nullopt;
  const unsigned long long g = std::gcd(num, 1000ull);
  return FrameRate{static_cast<uint32_t>(num / g), static_cast<uint32_t>(1000 / g)};
}

// Returns false when only help was asked for.
bool parse_args(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage_error(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") return false;
    if (arg == "-v" || arg == "--video") {
      o.video = value();
    } else if (arg == "-a" || arg == "--audio") {
      o.audio = value();
    } else if (arg == "-o" || arg == "--output") {
      o.output = value();
    } else if (arg == "--video-codec") {
      const std::string text = value();
      if (text == "h264" || text == "avc") {
        o.video_codec = VideoCodec::kH264;
      } else if (text == "h265" || text == "hevc") {
        o.video_codec = VideoCodec::kH265;
      } else if (text == "auto") {
        o.video_codec = VideoCodec::kUnknown;
      } else {
        usage_error("--video-codec takes h264, h265 (or hevc) or auto, not '" + text + "'");
      }
    } else if (arg == "--fps") {
      const std::string text = value();
      o.fps = parse_rate(text);
      if (!o.fps) usage_error("--fps takes a rate such as 25, 29.97 or 30000/1001, not '" + text + "'");
    } else if (arg == "--timescale") {
      const std::string text = value();
      char* end = nullptr;
      const unsigned long long ts = std::strtoull(text.c_str(), &end, 10);
      if (text.empty() || *end || ts == 0 || ts > INT32_MAX) {
        usage_error("--timescale takes a whole number from 1 to 2147483647, not '" + text + "'");
      }
      o.timescale = static_cast<uint32_t>(ts);
    } else if (arg == "--faststart") {
      o.faststart = true;
    } else if (arg == "--fragment") {
      const std::string text = value();
      char* end = nullptr;
      const double seconds = std::strtod(text.c_str(), &end);
      if (text.empty() || *end || !(seconds > 0) || seconds > 86400) {
        usage_error("--fragment takes a number of seconds above 0 and at most 86400, not '" + text + "'");
      }
      o.fragment = seconds;
    } else if (arg == "--fsync") {
      o.fsync = true;
    } else if (arg == "--keep-leading") {
      o.scan.keep_leading = true;
    } else if (arg == "--strip-sei") {
      o.scan.strip_sei = true;
    } else if (arg == "-q" || arg == "--quiet") {
      o.quiet = true;
    } else {
      usage_error("unknown option '" + arg + "'");
    }
  }
  if (o.video.empty() && o.audio.empty()) usage_error("give --video, --audio or both");
  if (o.output.empty()) usage_error("give the output file with -o");
  if (o.fragment > 0 && o.faststart) usage_error("--faststart and --fragment do not go together");
  if (o.fsync && o.fragment == 0) usage_error("--fsync needs --fragment");
  if (o.video == "-" && o.audio == "-") usage_error("only one input can be standard input");
  return true;
}

std::string rate_text(const FrameRate& r) {
  char text[32];
  if (r.den == 1) {
    std::snprintf(text, sizeof text, "%u", r.num);
  } else {
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(r.num) / r.den);
  }
  return text;
}

// Pictures no decoder can show, left out: those before the first random
// access point and, in H.265, the RASL pictures of a CRA picture after an end
// of sequence or of a BLA picture (leading pictures too, ISO/IEC 23008-2 §3).
std::string dropped_text(uint32_t dropped) {
  if (dropped == 0) return {};
  return " (" + std::to_string(dropped) + " leading picture" + (dropped == 1 ? "" : "s") + " that cannot be decoded dropped)";
}

// Audio frames left out with those pictures.
std::string dropped_audio_text(uint64_t dropped) {
  if (dropped == 0) return {};
  return " (" + std::to_string(dropped) + " before the first picture dropped, to stay in sync)";
}

// A path that is standard input, a pipe or a FIFO: read as it arrives.
bool is_live(const std::string& path) {
  if (path == "-") return true;
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
}

// The inputs that are live, copied whole into temporary files: the movie is
// written from them as from any file, and only the copy's block of a few
// hundred KiB is in memory while the input arrives.
struct Spooled {
  std::unique_ptr<SpoolFile> video, audio;
};

Spooled spool_live_inputs(const Options& o) {
  Spooled s;
  std::unique_ptr<LiveInput> inputs[2];
  LiveInput* live[2];
  SpoolFile* files[2];
  std::size_t n = 0;
  for (const auto& [path, file] : {std::pair{&o.video, &s.video}, std::pair{&o.audio, &s.audio}}) {
    if (path->empty() || !is_live(*path)) continue;
    inputs[n] = std::make_unique<LiveInput>(*path);
    *file = std::make_unique<SpoolFile>(o.output);
    live[n] = inputs[n].get();
    files[n] = file->get();
    ++n;
  }
  if (n == 0) return s;
  const bool show = !o.quiet && ::isatty(STDERR_FILENO);
  void (*progress)(uint64_t, void*) = [](uint64_t bytes, void*) {
    std::fprintf(stderr, "\rboxlane mux: %.0f MiB of input read", bytes / (1024.0 * 1024.0));
    std::fflush(stderr);
  };
  spool_inputs(std::span(live, n), std::span(files, n), show ? progress : nullptr);
  if (show) std::fputs("\r\033[K", stderr);
  for (std::size_t i = 0; i < n; ++i) {
    if (files[i]->size() == 0) throw ToolError("'" + live[i]->name() + "' is empty");
  }
  return s;
}

int run_fragmented(const Options& o) {
  const auto started = std::chrono::steady_clock::now();
  FragmentedInput in;
  in.video = o.video;
  in.audio = o.audio;
  in.output = o.output;
  in.seconds = o.fragment;
  in.fps = o.fps;
  in.scan = o.scan;
  in.forced_timescale = o.timescale;
  in.fsync = o.fsync;
  in.quiet = o.quiet;
  in.video_codec = o.video_codec;
  const FragmentedResult r = write_fragmented(in);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (!o.quiet) {
    std::string tracks;
    if (!o.video.empty()) {
      tracks += std::string("video ") + (r.video_codec == VideoCodec::kH265 ? "H.265 " : "H.264 ") + std::to_string(r.width) + "x" + std::to_string(r.height) + ", " +
                count_text(r.video_frames, "frame", "frames") + " at " + rate_text(r.fps) + " fps";
      if (r.reordered) tracks += " with B-frames";
      tracks += dropped_text(r.dropped_leading);
    }
    if (!o.audio.empty()) {
      if (!tracks.empty()) tracks += "; ";
      tracks += "audio AAC " + std::to_string(r.sample_rate) + " Hz " + channels_text(r.channel_config, r.channels) + ", " +
                count_text(r.audio_frames, "frame", "frames") + dropped_audio_text(r.audio_dropped);
    }
    std::printf("%s: %s; %.2f s, %s in %s, written in %.2f s\n", o.output.c_str(), tracks.c_str(),
                static_cast<double>(r.duration) / r.timescale, size_text(r.file_size).c_str(),
                count_text(r.fragments, "fragment", "fragments").c_str(), seconds);
  }
  if (!r.problem.empty()) {
    std::fflush(stdout);
    std::fprintf(stderr, "boxlane mux: %s\n", r.problem.c_str());
    return 1;
  }
  return 0;
}

int run(const Options& o) {
  if (o.fragment > 0) return run_fragmented(o);
  const auto started = std::chrono::steady_clock::now();
  const Spooled spooled = spool_live_inputs(o);
  std::unique_ptr<MappedFile> video_file, audio_file;
  VideoStream video;
  AudioStream audio;
  MovieInput in;
  if (!o.video.empty()) {
    video_file = std::make_unique<MappedFile>(spooled.video ? spooled.video->path() : o.video);
    // The inputs are read front to back twice (scan, then write); pages
    // behind the reader are let go so a long recording never stays resident.
    in.video_read = [&](const uint8_t* p) { video_file->release_before(p); };
    const VideoCodec codec = o.video_codec != VideoCodec::kUnknown ? o.video_codec
                                                                    : detect_codec(video_file->data(), video_file->size());
    // A stream that reads as neither goes to the H.264 reader, which says
    // what it misses.
    if (codec == VideoCodec::kH265) {
      scan_hevc(video_file->data(), video_file->size(), o.video, video, in.video_read);
    } else {
      scan_video(video_file->data(), video_file->size(), o.video, video, in.video_read, o.scan);
    }
    in.video = &video;
    in.fps = o.fps ? *o.fps : (video.has_vui_rate ? video.vui_rate : FrameRate{});
    if (!o.quiet && !o.fps && !video.has_vui_rate) {
      std::fprintf(stderr, "boxlane mux: %s: no frame rate in the stream; assuming 25 (set it with --fps)\n",
                   o.video.c_str());
    }
  }
  if (!o.audio.empty()) {
    audio_file = std::make_unique<MappedFile>(spooled.audio ? spooled.audio->path() : o.audio);
    in.audio_read = [&](const uint8_t* p) { audio_file->release_before(p); };
    scan_audio(audio_file->data(), audio_file->size(), o.audio, audio, in.audio_read);
    in.audio = &audio;
  }
  // Both inputs start at the same moment: the audio that went with the
  // pictures left out at the start goes too, so the first picture shown
  // comes with the sound recorded with it.
  uint64_t audio_dropped = 0;
  if (in.video && in.audio && video.pictures_left_out()) {
    audio_dropped = drop_first_frames(audio, audio_frames_during(video.pictures_left_out(), video.dropped_fields,
                                                                 in.fps.num, in.fps.den, audio.config.sample_rate));
  }
  in.forced_timescale = o.timescale;
  in.faststart = o.faststart;
  in.output = o.output;
  const uint64_t input_bytes = (video_file ? video_file->size() : 0) + (audio_file ? audio_file->size() : 0);
  const bool show_progress = !o.quiet && ::isatty(STDERR_FILENO) && input_bytes >= (64u << 20);
  int last_percent = -1;
  if (show_progress) {
    in.progress = [&](uint64_t done, uint64_t total) {
      const int percent = total ? static_cast<int>(done * 100 / total) : 100;
      if (percent == last_percent) return;
      last_percent = percent;
      std::fprintf(stderr, "\rboxlane mux: writing %s: %3d%%", o.output.c_str(), percent);
      if (done == total) std::fputs("\r\033[K", stderr);
      std::fflush(stderr);
    };
  }

  const MovieResult result = write_movie(in);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (!o.quiet) {
    std::string tracks;
    if (in.video) {
      tracks += std::string("video ") + (video.codec == VideoCodec::kH265 ? "H.265 " : "H.264 ") +
                std::to_string(video.width) + "x" + std::to_string(video.height) + ", " +
                count_text(video.units.size(), "frame", "frames") + " at " + rate_text(in.fps) + " fps";
      if (video.reordered) tracks += " with B-frames";
      tracks += dropped_text(video.pictures_left_out() + video.gap_pictures());
    }
    if (in.audio) {
      if (!tracks.empty()) tracks += "; ";
      tracks += "audio AAC " + std::to_string(audio.config.sample_rate) + " Hz " +
                channels_text(audio.config.channel_config, audio.channels) + ", " +
                count_text(audio.frames.size(), "frame", "frames") + dropped_audio_text(audio_dropped);
    }
    std::printf("%s: %s; %.2f s, %s%s, written in %.2f s\n", o.output.c_str(), tracks.c_str(),
                static_cast<double>(result.duration) / result.timescale, size_text(result.file_size).c_str(),
                o.faststart ? " (faststart)" : "", seconds);
  }
  if (audio.cut_at) {
    std::fflush(stdout);
    std::fprintf(stderr, "boxlane mux: %s; %s\n", stopped_inside_frame_text(o.audio, *audio.cut_at).c_str(),
                 kept_whole_frames_text(o.output).c_str());
    return 1;
  }
  return 0;
}

}  // namespace

int mux_main(int argc, char** argv) {
  try {
    Options o;
    if (!parse_args(argc, argv, o)) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    return run(o);
  } catch (const ToolError& e) {
    std::fprintf(stderr, "boxlane mux: %s\n", e.what());
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "boxlane mux: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "boxlane mux: %s\n", e.what());
  }
  return 1;
}

}  // namespace boxlane::tool
