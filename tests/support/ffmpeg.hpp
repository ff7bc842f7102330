// Running FFmpeg and ffprobe from tests, and reading what they report as plain rows: the independent reader
// our written files are checked against.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace boxlane::test {

// Runs `ffmpeg -nostdin -hide_banner -y <args>`; returns its exit status and stores what it printed (stdout
// and stderr) in *log when given.
int ffmpeg(const std::string& args, std::string* log = nullptr);

// Shell-quotes a path for the argument strings above.
std::string shell_quote(const std::string& path);

// The MD5 of every frame FFmpeg decodes from the first stream of a kind ('v' video, 'a' audio), in output
// order. Timestamps are left out, so two files that decode to the same pictures or samples compare equal.
// Empty when FFmpeg fails.
std::vector<std::string> decoded_md5s(const std::string& path, char kind);

// FFmpeg reads all of `file` without an error or warning, and decodes its video and audio to exactly the
// frames of the sources (an empty source path skips that kind).
void expect_decodes_like(const std::string& file, const std::string& video_source, const std::string& audio_source);

struct ProbedPacket {
  double pts = 0;  // seconds; NaN when ffprobe reports none
  double dts = 0;
  int64_t size = 0;
  int64_t pos = 0;  // in the file
  bool key = false;
};

// The packets of the first stream of a kind, in file (decode) order; as stored ignores the edit lists.
std::vector<ProbedPacket> probe_packets(const std::string& path, char kind, bool as_stored = false);

// A packet as ffprobe -show_packets gives it, in the stream's time base.
struct PacketRow {
  int64_t pts = 0, dts = 0, duration = 0, size = 0, pos = 0;  // INT64_MIN for N/A
  bool key = false;
};
// Every packet of the file in decode order, per stream, keyed by the track id ffprobe reports for the stream.
std::map<int32_t, std::vector<PacketRow>> packets_by_track(const std::string& path);

}  // namespace boxlane::test
