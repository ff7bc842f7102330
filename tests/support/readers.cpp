#include "support/readers.hpp"

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"

#include <filesystem>
#include <sstream>

namespace boxlane::test {
namespace {

// Where scripts/test.sh installs the npm packages.
std::string npm_dir() { return binary_dir() + "/npm"; }

std::string node(const std::string& script, const std::string& file) {
  std::string out;
  run("BOXLANE_NPM=" + shell_quote(npm_dir()) + " node " +
          shell_quote(source_dir() + "/tests/support/" + script) + " " + shell_quote(file) + " 2>&1",
      &out);
  return out;
}

bool has_package(const std::string& name) {
  return have_command("node") && std::filesystem::exists(npm_dir() + "/node_modules/" + name + "/package.json");
}

// A number after "key": in a flat JSON object; `fallback` when absent.
double json_number(const std::string& json, const std::string& key, double fallback = -1) {
  const std::size_t at = json.find("\"" + key + "\":");
  if (at == std::string::npos) return fallback;
  const char* start = json.c_str() + at + key.size() + 3;
  char* end = nullptr;
  const double v = std::strtod(start, &end);
  return end == start ? fallback : v;
}

// The MD5 of what a command writes; empty when it writes nothing.
std::string md5_of(const std::string& command) {
  std::string out;
  if (run(command + " | md5sum", &out) != 0 || out.size() < 32) return {};
  const std::string md5 = out.substr(0, 32);
  return md5 == "d41d8cd98f00b204e9800998ecf8427e" ? std::string() : md5;
}

}  // namespace

bool have_chromium() { return has_package("playwright-core") && std::filesystem::exists("/usr/bin/chromium"); }
bool have_gstreamer() {
  return have_command("gst-inspect-1.0") &&
         run("gst-inspect-1.0 qtdemux >/dev/null 2>&1 && gst-inspect-1.0 h264parse >/dev/null 2>&1 && "
             "gst-inspect-1.0 avdec_h264 >/dev/null 2>&1 && gst-inspect-1.0 avdec_aac >/dev/null 2>&1") == 0;
}

Mp4BoxReport read_with_mp4box(const std::string& file) {
  Mp4BoxReport r;
  std::istringstream lines(node("node/mp4box_read.mjs", file));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream in(line);
    std::string what;
    in >> what;
    std::string id, codec;
    Mp4BoxSample s;
    uint64_t time = 0, offset = 0;
    if (what == "fragmented") {
      in >> r.fragmented;
    } else if (what == "track" && in >> id >> codec) {
      r.codecs.push_back(codec);
    } else if (what == "sample" && in >> s.track >> s.dts >> s.cts >> s.size >> s.sync) {
      r.samples.push_back(s);
    } else if (what == "tfra" && in >> s.track >> time >> offset) {
      r.tfra.emplace_back(s.track, offset);
    } else {
      r.errors.push_back(line);
    }
  }
  return r;
}

MsePlayback play_with_mse(const std::string& file) {
  MsePlayback p;
  p.report = node("browser/mse_play.mjs", file);
  const std::size_t brace = p.report.rfind("{\"mime\"");
  if (brace == std::string::npos) return p;
  const std::string json = p.report.substr(brace);
  p.ran = true;
  p.errors = json.find("\"errors\":[]") == std::string::npos;
  p.fragments = static_cast<int>(json_number(json, "fragments"));
  p.shown = static_cast<int>(json_number(json, "totalVideoFrames"));
  p.first_frame_time = json_number(json, "firstFrameTime");
  p.current_time = json_number(json, "currentTime");
  const std::size_t ranges = json.find("\"buffered\":[[");
  if (ranges != std::string::npos) p.buffered_start = std::strtod(json.c_str() + ranges + 13, nullptr);
  return p;
}

std::string gstreamer_video_md5(const std::string& file, const std::string& pix_fmt) {
  return md5_of("gst-launch-1.0 -q filesrc location=" + shell_quote(file) +
                " ! qtdemux ! decodebin ! videoconvert ! video/x-raw,format=" +
                (pix_fmt == "yuv420p" ? "I420" : "I420_10LE") + " ! fdsink fd=1");
}

std::string ffmpeg_video_md5(const std::string& source, const std::string& pix_fmt) {
  return md5_of("ffmpeg -nostdin -v error -i " + shell_quote(source) + " -pix_fmt " + pix_fmt +
                " -f rawvideo -");
}

// With video, its pad goes to a fakesink that needs no preroll: left unlinked, it may stop qtdemux
// (not-linked) before the audio pad is linked, and gst-launch then can hang instead of failing.
std::string gstreamer_audio_md5(const std::string& file, bool with_video) {
  return md5_of("timeout 300 gst-launch-1.0 -q filesrc location=" + shell_quote(file) +
                " ! qtdemux name=d d.audio_0 ! queue ! aacparse ! avdec_aac ! audioconvert ! "
                "audio/x-raw,format=F32LE,layout=interleaved ! fdsink fd=1" +
                (with_video ? " d.video_0 ! queue ! fakesink async=false" : ""));
}

std::string ffmpeg_audio_md5(const std::string& source) {
  return md5_of("ffmpeg -nostdin -v error -i " + shell_quote(source) + " -f f32le -");
}

}  // namespace boxlane::test
