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

TEST(WholeFile, FfmpegReadsBackWhatTheFlatApiWrote) {
  BOXLANE_REQUIRE_FFMPEG();
  const struct {
    bool b_frames;
    int sample_rate;
    const char* tones;  // one per channel, so a channel mix-up changes the samples
  } recordings[] = {{false, 48000, "sin(440*2*PI*t)|sin(660*2*PI*t)"}, {true, 44100, "sin(440*2*PI*t)"}};
  for (const auto& recording : recordings) {
    SCOPED_TRACE(recording.tones);
    const std::string dir = temp_dir() + "/", mp4 = dir + "source.mp4", h264 = dir + "source.h264",
                      aac = dir + "source.aac", out = dir + "written.mp4";
    // Two seconds of 160x120 test pattern with one slice per picture, kept in
    // an MP4 (for its timestamps) and as the Annex B stream we mux.
    std::string log;
    ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -c:v libx264 -preset ultrafast -threads 1 "
                     "-x264-params slices=1 -g 30 -pix_fmt yuv420p -bf " + std::string(recording.b_frames ? "2 " : "0 ") +
                         shell_quote(mp4), &log), 0) << log;
    ASSERT_EQ(ffmpeg("-i " + shell_quote(mp4) + " -c copy -bsf:v h264_mp4toannexb -f h264 " + shell_quote(h264), &log), 0) << log;
    ASSERT_EQ(ffmpeg("-f lavfi -i 'aevalsrc=" + std::string(recording.tones) + ":s=" +
                         std::to_string(recording.sample_rate) + ":d=2' -c:a aac -b:a 64k -f adts " + shell_quote(aac), &log),
              0) << log;
    const auto source_video = probe_packets(mp4, 'v');
    ASSERT_EQ(source_video.size(), 60u);

    Mp4VideoInput video{read_file(h264), 30, 160, 120, {}};
    // Presentation index minus decode index: B-frames come out negative,
    // which the writer's caller has to shift.
    if (recording.b_frames)
      for (std::size_t i = 0; i < source_video.size(); ++i)
        video.composition_frames.push_back(int(std::lround(source_video[i].pts * 30)) - int(i));
    const Mp4AudioInput audio{read_file(aac)};
    const Mp4WriteResult written = write_mp4("writer/whole-file", &video, &audio);
    ASSERT_FALSE(HasFailure());
    write_file(out, written.file);
    EXPECT_EQ(written.composition_shift, recording.b_frames ? 2 : 0);
    expect_decodes_like(out, h264, aac);
    EXPECT_EQ(decoded_md5s(out, 'v').size(), 60u);

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
    ASSERT_EQ(our_audio.size(), probe_packets(aac, 'a').size());
    ASSERT_EQ(our_audio.size(), written.audio_sizes.size());
    for (std::size_t i = 0; i < our_audio.size(); ++i) {
      SCOPED_TRACE("audio packet " + std::to_string(i));
      EXPECT_EQ(our_audio[i].size, written.audio_sizes[i]);
      EXPECT_NEAR(our_audio[i].pts, double(i) * 1024 / recording.sample_rate, 1e-5);
    }
  }
}

}  // namespace
}  // namespace boxlane::test
