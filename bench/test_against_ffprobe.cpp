// What the benchmarks rely on, checked by an independent reader, ffprobe:
// the synthetic movie the parse benchmarks measure against, and
// boxlane_parse_index's reading of FFmpeg-made files.
#include "bench/synthetic_movie.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using boxlane::bench::build_movie;
using boxlane::bench::SyntheticMovie;

bool have_ffmpeg() {
  return std::system("ffprobe -version >/dev/null 2>&1") == 0 && std::system("ffmpeg -version >/dev/null 2>&1") == 0;
}

std::string run(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    pclose(pipe);
  }
  return out;
}

void put_u32(std::ofstream& out, uint32_t v) {
  const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
  out.write(b, 4);
}

// ftyp and moov, a free box up to where the chunk offsets point, and an mdat
// of zeros there, so that a demuxer can read every sample.
std::string write_playable(const SyntheticMovie& movie, const std::string& name) {
  const std::string path = testing::TempDir() + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(movie.bytes.data()), static_cast<std::streamsize>(movie.bytes.size()));
  const uint64_t gap = movie.media_start - 8 - movie.bytes.size();
  put_u32(out, static_cast<uint32_t>(gap));
  out.write("free", 4);
  out.write(std::string(gap - 8, '\0').data(), static_cast<std::streamsize>(gap - 8));
  put_u32(out, static_cast<uint32_t>(movie.media_bytes + 8));
  out.write("mdat", 4);
  out.close();
  EXPECT_EQ(truncate(path.c_str(), static_cast<off_t>(movie.media_start + movie.media_bytes)), 0);
  return path;
}

struct Packet {
  long long pts;
  long long dts;
};

std::map<int, std::vector<Packet>> probe_packets(const std::string& path) {
  std::map<int, std::vector<Packet>> packets;
  std::istringstream lines(
      run("ffprobe -v quiet -show_entries packet=stream_index,pts,dts -of csv=p=0 '" + path + "' 2>/dev/null"));
  std::string line;
  while (std::getline(lines, line)) {
    int stream = 0;
    long long pts = 0, dts = 0;
    if (std::sscanf(line.c_str(), "%d,%lld,%lld", &stream, &pts, &dts) == 3) packets[stream].push_back({pts, dts});
  }
  return packets;
}

// ffprobe must see every picture once, in a gap-free presentation order, with
// the sample counts the movie claims. (Key frames are not compared: the
// samples are zeros, and FFmpeg's H.264 parser, finding no IDR slice in them,
// clears the flag.)
TEST(SyntheticMovie, FfprobeSeesEveryPictureOnceWithTheClaimedTables) {
  if (!have_ffmpeg()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
  // Four seconds: two GOPs of 60 pictures, 187 AAC frames.
  const SyntheticMovie movie = build_movie({4, 30, 48000});
  auto packets = probe_packets(write_playable(movie, "synthetic_4s.mp4"));

  const std::vector<Packet>& video = packets[0];
  ASSERT_EQ(video.size(), 120u);
  EXPECT_EQ(movie.video.stsz, 120u);
  EXPECT_EQ(movie.video.stco, 120u);
  EXPECT_EQ(movie.video.sdtp, 120u);
  // I, then B B P ... in decode order: two composition offsets per three pictures.
  EXPECT_EQ(movie.video.ctts, 80u);
  std::vector<long long> shown;
  for (std::size_t i = 0; i < video.size(); ++i) {
    EXPECT_GE(video[i].pts, video[i].dts) << "picture " << i << " shown before it is decoded";
    shown.push_back(video[i].pts);
  }
  EXPECT_EQ(movie.video.stss, 2u);
  std::sort(shown.begin(), shown.end());
  for (std::size_t i = 1; i < shown.size(); ++i) {
    ASSERT_EQ(shown[i] - shown[i - 1], shown[1] - shown[0]) << "presentation times repeat or leave a gap at " << i;
  }
  EXPECT_GT(shown[1] - shown[0], 0);

  const std::vector<Packet>& audio = packets[1];
  ASSERT_EQ(audio.size(), 187u);
  EXPECT_EQ(movie.audio.stsz, 187u);
  EXPECT_EQ(movie.audio.stco, 187u);
  EXPECT_EQ(audio[1].dts - audio[0].dts, 1024);
}

TEST(SyntheticMovie, OneHourKeepsTheSampleCountsTheBenchmarksReport) {
  const SyntheticMovie movie = build_movie();
  EXPECT_EQ(movie.video.stsz, 108000u);
  EXPECT_EQ(movie.audio.stsz, 168750u);
  EXPECT_EQ(movie.video.stss, 1800u);
  // Chunk offsets are 32-bit: the whole hour must fit below 4 GiB.
  EXPECT_LT(movie.media_start + movie.media_bytes, uint64_t{1} << 32);
  // A moov this size is still reassembled whole when it arrives in pieces.
  EXPECT_LT(movie.bytes.size(), std::size_t{10485760});
}

// compare.sh times boxlane_parse_index on an FFmpeg-made file; it must read
// the whole index whether the moov comes before the media or after it.
TEST(ParseIndex, ReadsTheSampleCountsFfprobeReadsWhereverTheMoovStands) {
  if (!have_ffmpeg()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
  for (const std::string flags : {"", "-movflags +faststart"}) {
    const std::string path = testing::TempDir() + "parse_index" + (flags.empty() ? "_moov_last" : "_moov_first") + ".mp4";
    ASSERT_EQ(std::system(("ffmpeg -hide_banner -nostdin -loglevel error -y -f lavfi -i testsrc2=size=160x120:rate=30 "
                           "-f lavfi -i sine=sample_rate=48000 -t 2 -c:v libx264 -preset ultrafast -bf 2 -c:a aac " +
                           flags + " '" + path + "'")
                              .c_str()),
              0);
    const std::string counts = run("ffprobe -v error -show_entries stream=nb_frames -of csv=p=0 '" + path + "'");
    unsigned video = 0, audio = 0;
    ASSERT_EQ(std::sscanf(counts.c_str(), "%u %u", &video, &audio), 2) << counts;
    const std::string report = run(std::string(BOXLANE_PARSE_INDEX_PATH) + " '" + path + "' --queries");
    EXPECT_NE(report.find("track 1: " + std::to_string(video) + " samples"), std::string::npos) << flags << report;
    EXPECT_NE(report.find("track 2: " + std::to_string(audio) + " samples"), std::string::npos) << flags << report;
  }
}

}  // namespace
