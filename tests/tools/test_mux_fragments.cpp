// `boxlane mux --fragment` and live inputs, run as a user runs them, on
// streams FFmpeg makes at test time. The fragmented files are read by
// FFmpeg, mp4box.js, GStreamer and headless Chromium through Media Source
// Extensions: the same pictures and AAC frames as the sources, presented
// from 0, every fragment opening with a key frame where the cut rule puts
// it; a run killed part way leaves every whole fragment playable.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"
#include "fragment_checks.hpp"
#include "mux_runner.hpp"
#include "support/readers.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

struct Streams {
  std::string video, audio;
  double fps = 0;
};

// `seconds` of 160x120 H.264 (key frames every `gop` frames) and stereo AAC.
Streams encode(const std::string& prefix, double seconds, int fps, int gop, const std::string& x264, int rate) {
  Streams s{prefix + ".h264", prefix + ".aac", double(fps)};
  std::string log;
  const std::string length = std::to_string(seconds);
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=" + std::to_string(fps) + ":duration=" + length +
                   " -c:v libx264 -preset veryfast -pix_fmt yuv420p -g " + std::to_string(gop) + " -x264-params " +
                   x264 + " -f h264 " + shell_quote(s.video) + " -f lavfi -i sine=frequency=440:sample_rate=" +
                   std::to_string(rate) + ":duration=" + length + " -map 1:a -c:a aac -ac 2 -f adts " +
                   shell_quote(s.audio),
                   &log),
            0)
      << log;
  return s;
}

using Result = MuxResult;

std::string inputs(const Streams& s, bool video = true, bool audio = true) {
  return (video ? " --video " + shell_quote(s.video) : "") + (audio ? " --audio " + shell_quote(s.audio) : "");
}

void expect_fragmented_file(const std::string& file, const Streams& src, bool video, bool audio, double seconds) {
  expect_decodes_like(file, video ? src.video : "", audio ? src.audio : "");
  expect_fragment_layout(file, video ? seconds : 0);

  // Presentation starts at 0 and steps at the frame rate.
  if (audio) {
    const auto packets = probe_packets(file, 'a');
    ASSERT_FALSE(packets.empty());
    EXPECT_NEAR(packets.front().pts, 0.0, 1e-6);
  }
  if (video) {
    std::vector<double> times;
    for (const auto& p : probe_packets(file, 'v')) times.push_back(p.pts);
    std::sort(times.begin(), times.end());
    for (std::size_t i = 0; i < times.size(); ++i) ASSERT_NEAR(times[i], i / src.fps, 2e-4) << "frame " << i;
  }
}

TEST(MuxFragments, ReadersSeeTheSourcesFramesFromZero) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams sources[] = {
      encode(dir + "a", 3, 30, 12, "bframes=2", 48000),
      encode(dir + "b", 2, 25, 10, "bframes=3:b-pyramid=normal:slices=2:aud=1", 44100),
      {source_dir() + "/tests/data/sample.h264", source_dir() + "/tests/data/sample.aac", 25},
  };
  const struct {
    int source;
    bool video, audio;
    double seconds;
    bool browser;  // also played through Media Source Extensions
  } runs[] = {
      {0, true, true, 0.5, true}, {1, true, true, 1, false}, {2, true, true, 2, true},
      {0, true, false, 0.7, false}, {0, false, true, 0.5, true},
  };
  for (const auto& r : runs) {
    const Streams& src = sources[r.source];
    const std::string out = dir + "out.mp4";
    SCOPED_TRACE(inputs(src, r.video, r.audio) + " --fragment " + std::to_string(r.seconds));
    // --fsync changes when bytes reach the disk, never which.
    const Result m = mux(inputs(src, r.video, r.audio) + " --fragment " + std::to_string(r.seconds) +
                         (r.source == 1 ? " --fsync" : "") + " -q -o " + shell_quote(out));
    ASSERT_EQ(m.status, 0) << m.output;
    EXPECT_EQ(m.output, "");
    expect_fragmented_file(out, src, r.video, r.audio, r.seconds);
    const std::size_t frames = r.video ? decoded_md5s(src.video, 'v').size() : 0;
    const std::size_t audio_frames = r.audio ? decoded_md5s(src.audio, 'a').size() : 0;

    if (have_mp4box()) {
      const Mp4BoxReport mp4box = read_with_mp4box(out);
      EXPECT_TRUE(mp4box.fragmented);
      EXPECT_TRUE(mp4box.errors.empty()) << mp4box.errors.front();
      const uint32_t video_track = r.video ? 1 : 0, audio_track = r.video ? 2 : 1;
      if (r.video) {
        EXPECT_EQ(mp4box.count(video_track), frames);
      }
      if (r.audio) {
        EXPECT_EQ(mp4box.count(audio_track), audio_frames);
      }
      // Sync samples are where FFmpeg sees key frames; the index is right.
      std::vector<bool> keys, syncs;
      for (const Packet& p : video_packets(out)) keys.push_back(p.key);
      for (const auto& s : mp4box.samples)
        if (s.track == video_track && r.video) syncs.push_back(s.sync);
      EXPECT_EQ(syncs, keys);
      EXPECT_NEAR(mp4box.duration, double(r.video ? frames / src.fps : audio_frames * 1024.0 / (r.source == 1 ? 44100 : 48000)),
                  0.05);
      // mfra lists every fragment that holds video (audio alone: every one).
      std::vector<uint64_t> moofs, with_video;
      for (const TopBox& b : boxes_of(out))
        if (b.type == "moof") moofs.push_back(b.offset);
      for (const Packet& p : video_packets(out)) {
        const uint64_t moof = *std::prev(std::upper_bound(moofs.begin(), moofs.end(), uint64_t(p.pos)));
        if (with_video.empty() || with_video.back() != moof) with_video.push_back(moof);
      }
      std::vector<uint64_t> indexed;
      for (const auto& [track, offset] : mp4box.tfra)
        if (track == (r.video ? video_track : audio_track)) indexed.push_back(offset);
      EXPECT_EQ(indexed, r.video ? with_video : moofs);
    }
    if (have_gstreamer()) {
      if (r.video) {
        EXPECT_EQ(gstreamer_video_md5(out), ffmpeg_video_md5(src.video));
      }
      if (r.audio) {
        EXPECT_EQ(gstreamer_audio_md5(out), ffmpeg_audio_md5(src.audio));
      }
    }
    if (r.browser && have_chromium()) {
      const MsePlayback p = play_with_mse(out);
      ASSERT_TRUE(p.ran) << p.report;
      EXPECT_FALSE(p.errors) << p.report;
      EXPECT_EQ(p.fragments, int(sequence_numbers(out).size())) << p.report;
      EXPECT_NEAR(p.buffered_start, 0, 1e-3) << p.report;
      if (r.video) {
        EXPECT_EQ(p.shown, int(frames)) << p.report;
        // The first picture is at 0 (the buffered range starts with it);
        // requestVideoFrameCallback may miss the very first one.
        EXPECT_LT(p.first_frame_time, 1.5 / src.fps) << p.report;
      } else {
        EXPECT_NEAR(p.current_time, audio_frames * 1024.0 / 48000, 0.05) << p.report;
      }
    }
  }
}

// H.265 fragments are cut at every IRAP picture. An open group of pictures
// starts at a CRA picture whose RASL pictures refer to the fragment before:
// they stay (a reader that plays on has their references), and so does
// their display order. A stream that starts between key pictures loses the
// pictures before its first IRAP picture, as decoders do.
TEST(MuxFragments, H265OpenAndClosedGroupsCutAtEveryRandomAccessPicture) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const auto encode_h265 = [&](const std::string& name, const std::string& pix_fmt, const std::string& x265) {
    const std::string path = dir + name + ".h265";
    std::string log;
    EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=192x108:rate=25:duration=4.8 -pix_fmt " + pix_fmt +
                         " -c:v libx265 -preset ultrafast -x265-params log-level=error:" + x265 + " -f hevc " +
                         shell_quote(path),
                     &log),
              0)
        << log;
    return path;
  };
  const std::string open = encode_h265("open", "yuv420p", "keyint=24:min-keyint=24:bframes=3:open-gop=1");
  const std::string closed = encode_h265("closed10", "yuv420p10le", "keyint=20:bframes=4:open-gop=0");
  // The open stream from its second picture on: an H.265 decoder starts at
  // the CRA picture a second later and leaves out the RASL pictures of it.
  const std::string late = dir + "late.h265";
  std::size_t late_pictures = 0;
  {
    const auto bytes = read_file(open);
    std::vector<std::size_t> firsts;  // first slice segments of pictures
    std::size_t vps = std::string::npos;
    for (std::size_t i = 0; i + 5 < bytes.size(); ++i) {
      if (bytes[i] || bytes[i + 1] || bytes[i + 2] != 1) continue;
      const int type = (bytes[i + 3] >> 1) & 0x3F;
      if (type == 32 && vps == std::string::npos) vps = i;
      if (type < 32 && (bytes[i + 5] & 0x80)) firsts.push_back(i);
    }
    ASSERT_GT(firsts.size(), 2u);
    std::vector<uint8_t> cut(bytes.begin() + vps, bytes.begin() + firsts[0]);  // VPS, SPS, PPS, SEI
    cut.insert(cut.end(), bytes.begin() + firsts[1], bytes.end());
    late_pictures = firsts.size() - 1;
    write_file(late, cut);
  }

  const Streams audio = encode(dir + "a", 4.8, 25, 25, "bframes=0", 48000);
  const struct {
    std::string video;
    bool from_pipe;
    const char* notice;
  } runs[] = {
      {open, false, ""},
      {open, true, ""},
      {closed, false, ""},
      {late, false, "that cannot be decoded dropped"},
  };
  for (const auto& r : runs) {
    const Streams src{r.video, audio.audio, 25};
    const std::string out = dir + "out.mp4";
    const std::string video = r.from_pipe ? " --video - < " + shell_quote(r.video) : " --video " + shell_quote(r.video);
    SCOPED_TRACE(video);
    const Result m = mux("--audio " + shell_quote(src.audio) + " --fragment 0.5 -o " + shell_quote(out) + video);
    ASSERT_EQ(m.status, 0) << m.output;
    EXPECT_NE(m.output.find("video H.265 192x108"), std::string::npos) << m.output;
    EXPECT_EQ(m.output.find("that cannot be decoded dropped") != std::string::npos, *r.notice != 0) << m.output;
    std::size_t frames = decoded_md5s(src.video, 'v').size();
    if (r.video != late) {
      expect_fragmented_file(out, src, true, true, 0.5);
    } else {
      // FFmpeg conceals what the pictures before the CRA picture lack (and
      // leaves out its RASL pictures); the file holds the pictures from the
      // CRA picture on, and says how many it left out.
      const auto want = decoded_md5s(src.video, 'v');
      const auto got = decoded_md5s(out, 'v');
      ASSERT_LT(got.size(), want.size());
      EXPECT_TRUE(std::equal(got.begin(), got.end(), want.end() - got.size()));
      EXPECT_NE(m.output.find("(" + std::to_string(late_pictures - got.size()) + " leading pictures that cannot"),
                std::string::npos)
          << m.output;
      frames = got.size();
    }
    if (have_mp4box()) {
      const Mp4BoxReport mp4box = read_with_mp4box(out);
      EXPECT_TRUE(mp4box.errors.empty()) << mp4box.errors.front();
      EXPECT_EQ(mp4box.count(1), frames);
    }
  }
}

// Runs `command` in its own process group; returns its pid.
pid_t start(const std::string& command) {
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

int finish(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The exit status of a process writing into a FIFO for a mux that has
// returned. When the mux failed the writer may wait for a reader forever:
// it is killed then, so a failure cannot hang the test.
int finish_writer(pid_t pid, const MuxResult& mux) {
  if (mux.status != 0) kill(-pid, SIGKILL);
  return finish(pid);
}

// A stream written into a FIFO about `rate` bytes a second, as a camera does.
std::string trickle(const std::string& from, const std::string& fifo, int bytes_per_second) {
  return "python3 -c \"import sys,time\nd=open(sys.argv[1],'rb').read()\nout=open(sys.argv[2],'wb')\n"
         "for i in range(0,len(d),2048):\n out.write(d[i:i+2048]); out.flush(); time.sleep(2048/" +
         std::to_string(bytes_per_second) + ")\" " + shell_quote(from) + " " + shell_quote(fifo) + " 2>/dev/null";
}

TEST(MuxFragments, LiveInputsFromStandardInputAndFifos) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", 2, 25, 25, "bframes=2", 48000);
  const std::string vfifo = dir + "v.fifo", afifo = dir + "a.fifo", out = dir + "out.mp4";
  ASSERT_EQ(mkfifo(vfifo.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(afifo.c_str(), 0600), 0);

  for (const char* mode : {"--fragment 0.5", ""}) {
    SCOPED_TRACE(mode);
    // Standard input for video, a FIFO for audio.
    pid_t writer = start("cat " + shell_quote(src.audio) + " > " + shell_quote(afifo));
    Result r = mux("--video - --audio " + shell_quote(afifo) + " " + mode + " -q -o " + shell_quote(out) + " < " +
                   shell_quote(src.video));
    EXPECT_EQ(finish_writer(writer, r), 0);
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    // Two FIFOs filled by one program, audio opened first and written
    // whole before the video: the reader must not wait on the one it opened first.
    writer = start("exec 4>" + shell_quote(afifo) + " 3>" + shell_quote(vfifo) + "; cat " + shell_quote(src.audio) +
                   " >&4; exec 4>&-; cat " + shell_quote(src.video) + " >&3");
    r = mux("--video " + shell_quote(vfifo) + " --audio " + shell_quote(afifo) + " " + mode + " -q -o " + shell_quote(out));
    EXPECT_EQ(finish_writer(writer, r), 0);
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    for (const auto& entry : fs::directory_iterator(dir))
      EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
  }

  // A slow live input shows progress on standard error, and --quiet keeps it silent.
  const auto size = fs::file_size(src.video);
  for (const bool quiet : {false, true}) {
    const pid_t writer = start(trickle(src.video, vfifo, int(size / 3)));
    const Result r = mux("--video " + shell_quote(vfifo) + " --fragment 0.5" + (quiet ? " -q" : "") + " -o " +
                         shell_quote(out));
    EXPECT_EQ(finish_writer(writer, r), 0);
    EXPECT_EQ(r.status, 0) << r.output;
    if (quiet) {
      EXPECT_EQ(r.output, "");
    } else {
      EXPECT_NE(r.output.find(" frames, "), std::string::npos) << r.output;
      EXPECT_NE(r.output.find(" s written"), std::string::npos) << r.output;
    }
  }
}

// A live recording: four seconds of video trickled into a FIFO over about
// four seconds, recorded in fragments of 0.4 s into `out`.
struct Recording {
  Streams src;
  pid_t writer, muxer;
};

Recording record_live(const std::string& dir, const std::string& out) {
  Recording r;
  r.src = encode(dir + "in", 4, 25, 10, "bframes=2", 48000);
  const std::string vfifo = dir + "v.fifo";
  EXPECT_EQ(mkfifo(vfifo.c_str(), 0600), 0);
  r.writer = start(trickle(r.src.video, vfifo, int(fs::file_size(r.src.video) / 4)));
  r.muxer = start("exec " + shell_quote(tool_path()) + " mux -q --fragment 0.4 --video " + shell_quote(vfifo) +
                  " -o " + shell_quote(out));
  return r;
}

// Waits (up to 20 s) until `out` holds `count` whole fragments.
void wait_for_fragments(const std::string& out, long count) {
  const auto written = [&] {
    if (!fs::exists(out)) return 0l;
    const auto boxes = boxes_of(out);
    return long(std::count_if(boxes.begin(), boxes.end(), [](const TopBox& b) { return b.type == "mdat"; }));
  };
  for (int i = 0; i < 1000 && written() < count; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// Killed with SIGKILL part way, the file holds every whole fragment, and
// every reader plays them; a fragment torn in the middle stops no reader.
TEST(MuxFragments, KilledRecordingPlaysToItsLastWholeFragment) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/", out = dir + "killed.mp4";
  const Recording recording = record_live(dir, out);
  const Streams& src = recording.src;
  const pid_t writer = recording.writer, muxer = recording.muxer;
  wait_for_fragments(out, 3);
  ASSERT_EQ(kill(muxer, SIGKILL), 0);
  finish(muxer);
  kill(-writer, SIGKILL);
  finish(writer);

  const auto source = decoded_md5s(src.video, 'v');
  // `pictures_in_whole_fragments`: what a player that skips a torn box shows.
  const auto check = [&](const std::string& file, std::size_t fragments, std::size_t pictures_in_whole_fragments) {
    SCOPED_TRACE(file);
    auto pictures = decoded_md5s(file, 'v');
    ASSERT_GE(pictures.size(), pictures_in_whole_fragments);
    ASSERT_LT(pictures.size(), source.size());
    pictures.resize(pictures_in_whole_fragments);
    EXPECT_EQ(pictures, std::vector<std::string>(source.begin(), source.begin() + long(pictures.size())));
    if (have_gstreamer()) {
      std::string text;
      EXPECT_EQ(run("gst-launch-1.0 -q filesrc location=" + shell_quote(file) +
                    " ! qtdemux ! h264parse ! avdec_h264 ! fakesink 2>&1", &text), 0) << text;
    }
    if (have_chromium()) {
      const MsePlayback p = play_with_mse(file);
      EXPECT_FALSE(p.errors) << p.report;
      EXPECT_EQ(p.fragments, int(fragments)) << p.report;
      EXPECT_EQ(p.shown, int(pictures_in_whole_fragments)) << p.report;
      EXPECT_NEAR(p.buffered_start, 0, 1e-3) << p.report;
    }
  };
  const auto boxes = boxes_of(out);
  const std::size_t whole = std::count_if(boxes.begin(), boxes.end(), [](const TopBox& b) { return b.type == "mdat"; });
  ASSERT_GE(whole, 3u);
  const auto packets = video_packets(out);
  check(out, whole, packets.size());

  // The last fragment cut in the middle of its mdat: readers play the rest.
  auto bytes = read_file(out);
  const TopBox last = boxes.back();
  ASSERT_EQ(last.type, "mdat");
  bytes.resize(last.offset + last.size / 2);
  write_file(dir + "torn.mp4", bytes);
  const uint64_t torn_moof = boxes[boxes.size() - 2].offset;
  check(dir + "torn.mp4", whole - 1,
        std::count_if(packets.begin(), packets.end(), [&](const Packet& p) { return uint64_t(p.pos) < torn_moof; }));
}

// Interrupted (SIGINT), a recording ends cleanly: the whole pieces read so
// far are written and the duration is filled in.
TEST(MuxFragments, InterruptedRecordingEndsCleanly) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/", out = dir + "stopped.mp4";
  const Recording recording = record_live(dir, out);
  const Streams& src = recording.src;
  const pid_t writer = recording.writer, muxer = recording.muxer;
  wait_for_fragments(out, 2);
  ASSERT_EQ(kill(muxer, SIGINT), 0);
  EXPECT_EQ(finish(muxer), 0);
  kill(-writer, SIGKILL);
  finish(writer);
  const auto source = decoded_md5s(src.video, 'v');
  const auto pictures = decoded_md5s(out, 'v');
  ASSERT_GE(pictures.size(), 10u);
  ASSERT_LT(pictures.size(), source.size());
  EXPECT_EQ(pictures, std::vector<std::string>(source.begin(), source.begin() + long(pictures.size())));
  if (have_mp4box()) {
    EXPECT_NEAR(read_with_mp4box(out).duration, pictures.size() / 25.0, 1e-6);
  }
}

TEST(MuxFragments, BrokenAndStoppedInputs) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", 2, 25, 10, "bframes=2", 48000);
  const auto video = read_file(src.video);
  const auto audio = read_file(src.audio);
  const std::string out = dir + "out.mp4";

  // ADTS stopped in the middle of a frame: the whole frames are written,
  // the run says where the input stopped and fails.
  const std::size_t cut = audio.size() - 100;
  write_file(dir + "cut.aac", {audio.begin(), audio.begin() + long(cut)});
  Result r = mux("--audio " + shell_quote(dir + "cut.aac") + " --fragment 0.5 -q -o " + shell_quote(out));
  EXPECT_EQ(r.status, 1);
  std::size_t whole = 0, frame = 0;
  while (frame + 6 < cut) {
    const std::size_t length = ((audio[frame + 3] & 3u) << 11) | (audio[frame + 4] << 3) | (audio[frame + 5] >> 5);
    if (frame + length > cut) break;
    frame += length;
    ++whole;
  }
  EXPECT_NE(r.output.find("stops in the middle of a frame at byte " + std::to_string(frame)), std::string::npos)
      << r.output;
  EXPECT_EQ(probe_packets(out, 'a').size(), whole);

  // H.264 stopped just after the header of its last NAL unit.
  std::size_t last_start = video.size();
  while (last_start > 3 && !(video[last_start - 3] == 0 && video[last_start - 2] == 0 && video[last_start - 1] == 1))
    --last_start;
  write_file(dir + "cut.h264", {video.begin(), video.begin() + long(last_start) + 2});
  r = mux("--video " + shell_quote(dir + "cut.h264") + " --fragment 0.5 -q -o " + shell_quote(out));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("stops in the middle of a frame at byte " + std::to_string(last_start - 3)),
            std::string::npos)
      << r.output;
  const auto source = decoded_md5s(src.video, 'v');
  EXPECT_EQ(decoded_md5s(out, 'v'), std::vector<std::string>(source.begin(), source.end() - 1));

  // A live stream whose SPS changes is refused where it changes; what came
  // before stays in the file.
  ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.4 -c:v libx264 -f h264 " +
                   shell_quote(dir + "other.h264")),
            0);
  write_file(dir + "changing.h264", cat({video, read_file(dir + "other.h264")}));
  r = mux("--video - --fragment 0.5 -q -o " + shell_quote(out) + " < " + shell_quote(dir + "changing.h264"));
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.output.find("sequence parameter set changes at byte " + std::to_string(video.size() + 4)),
            std::string::npos)
      << r.output;
  EXPECT_GE(decoded_md5s(out, 'v').size(), 10u);

  const struct {
    std::string args;
    std::string says;
  } refused[] = {
      {"--video " + shell_quote(src.video) + " --fragment 0", "--fragment takes"},
      {"--video " + shell_quote(src.video) + " --fragment x", "--fragment takes"},
      {"--video " + shell_quote(src.video) + " --fragment 1 --faststart", "do not go together"},
      {"--video " + shell_quote(src.video) + " --fsync", "--fsync needs --fragment"},
      {"--video - --audio -", "only one input"},
      {"--video " + shell_quote(src.video) + " --video-codec h265 --fragment 1", "told that the stream is H.265, but its parameter sets are H.264's"},
      {"--video - --fragment 1 < /dev/null", "is empty"},
      {"--audio - < /dev/null", "is empty"},
  };
  for (const auto& f : refused) {
    SCOPED_TRACE(f.args);
    fs::remove(out);
    const Result bad = mux(f.args + " -o " + shell_quote(out));
    EXPECT_NE(bad.status, 0);
    EXPECT_NE(bad.output.find(f.says), std::string::npos) << bad.output;
    EXPECT_FALSE(fs::exists(out));
  }
}

}  // namespace
}  // namespace boxlane::test
