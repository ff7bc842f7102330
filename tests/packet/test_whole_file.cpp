// Whole files written through the flat API, read back by FFmpeg: it must
// decode them without complaint to exactly the pictures and samples of the
// elementary streams they were made from, with the source's packets.
#include <gtest/gtest.h>

#include "support/ffmpeg.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"

#include <cmath>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

constexpr int kFrameRate = 30;

struct Recording {
  bool b_frames;
  int sample_rate;
  int channels;
};

class WholeFileTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = temp_dir(); }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Two seconds of 160x120 test pattern with one slice per picture, kept in
  // an MP4 (for its timestamps) and as the Annex B stream we mux.
  void make_video(bool b_frames) {
    std::string log;
    ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -c:v libx264 -preset ultrafast -threads 1 "
                     "-x264-params slices=1 -g 30 -pix_fmt yuv420p -bf " +
                         std::string(b_frames ? "2" : "0") + " " + quoted(path("source.mp4")),
                     &log),
              0)
        << log;
    ASSERT_EQ(ffmpeg("-i " + quoted(path("source.mp4")) + " -c copy -bsf:v h264_mp4toannexb -f h264 " +
                         quoted(path("source.h264")),
                     &log),
              0)
        << log;
  }

  void make_audio(int sample_rate, int channels) {
    // Different tones per channel, so a channel mix-up changes the samples.
    const std::string tones = channels == 2 ? "sin(440*2*PI*t)|sin(660*2*PI*t)" : "sin(440*2*PI*t)";
    std::string log;
    ASSERT_EQ(ffmpeg("-f lavfi -i 'aevalsrc=" + tones + ":s=" + std::to_string(sample_rate) +
                         ":d=2' -c:a aac -b:a 64k -f adts " + quoted(path("source.aac")),
                     &log),
              0)
        << log;
  }

  void prove(const Recording& recording) {
    BOXLANE_REQUIRE_FFMPEG();
    ASSERT_NO_FATAL_FAILURE(make_video(recording.b_frames));
    ASSERT_NO_FATAL_FAILURE(make_audio(recording.sample_rate, recording.channels));
    const auto source_video = probe_packets(path("source.mp4"), 'v');
    ASSERT_EQ(source_video.size(), 60u);

    Mp4VideoInput video;
    video.annexb = read_file(path("source.h264"));
    video.frame_rate = kFrameRate;
    video.width = 160;
    video.height = 120;
    // Presentation index minus decode index: B-frames come out negative,
    // which the writer's caller has to shift.
    if (recording.b_frames)
      for (std::size_t i = 0; i < source_video.size(); ++i)
        video.composition_frames.push_back(int(std::lround(source_video[i].pts * kFrameRate)) - int(i));
    Mp4AudioInput audio;
    audio.adts = read_file(path("source.aac"));

    const Mp4WriteResult written = write_mp4("writer/whole-file", &video, &audio);
    ASSERT_FALSE(HasFailure());
    const std::string out = path("written.mp4");
    write_file(out, written.file);
    EXPECT_EQ(written.composition_shift, recording.b_frames ? 2 : 0);

    // A strict read: any error or warning fails.
    std::string complaints;
    EXPECT_EQ(run("ffmpeg -nostdin -v warning -xerror -i " + quoted(out) + " -f null - 2>&1", &complaints), 0);
    EXPECT_EQ(complaints, "");

    const auto video_md5s = decoded_md5s(out, 'v');
    EXPECT_EQ(video_md5s.size(), 60u);
    EXPECT_EQ(video_md5s, decoded_md5s(path("source.h264"), 'v'));
    const auto audio_md5s = decoded_md5s(out, 'a');
    EXPECT_FALSE(audio_md5s.empty());
    EXPECT_EQ(audio_md5s, decoded_md5s(path("source.aac"), 'a'));

    const auto ours = probe_packets(out, 'v');
    ASSERT_EQ(ours.size(), source_video.size());
    ASSERT_EQ(written.video_sizes.size(), ours.size());
    const double dts_shift = ours[0].dts - source_video[0].dts;
    for (std::size_t i = 0; i < ours.size(); ++i) {
      SCOPED_TRACE("video packet " + std::to_string(i));
      EXPECT_EQ(ours[i].key, source_video[i].key);
      EXPECT_EQ(ours[i].key, written.video_keys[i]);
      EXPECT_NEAR(ours[i].pts, source_video[i].pts, 1e-4);
      EXPECT_NEAR(ours[i].dts - source_video[i].dts, dts_shift, 1e-4);
      EXPECT_EQ(ours[i].size, written.video_sizes[i]);
      // Both files carry the same length-prefixed NAL units per sample.
      EXPECT_EQ(ours[i].size, source_video[i].size);
    }

    const auto our_audio = probe_packets(out, 'a');
    ASSERT_EQ(our_audio.size(), probe_packets(path("source.aac"), 'a').size());
    ASSERT_EQ(our_audio.size(), written.audio_sizes.size());
    for (std::size_t i = 0; i < our_audio.size(); ++i) {
      SCOPED_TRACE("audio packet " + std::to_string(i));
      EXPECT_EQ(our_audio[i].size, written.audio_sizes[i]);
      EXPECT_NEAR(our_audio[i].pts, double(i) * 1024 / recording.sample_rate, 1e-5);
    }
  }

  std::string dir_;
};

TEST_F(WholeFileTest, VideoWithoutBFramesAndStereoAacAt48k) { prove({false, 48000, 2}); }

TEST_F(WholeFileTest, VideoWithBFramesAndMonoAacAt44k1) { prove({true, 44100, 1}); }

}  // namespace
}  // namespace boxlane::test
