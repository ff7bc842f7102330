// `boxlane mux --fragment` and live inputs, run as a user runs them. FFmpeg,
// mp4box.js, GStreamer and Chromium (Media Source Extensions) read the same
// frames as the sources, from 0, in fragments cut where the rule says.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/box_builder.hpp"
#include "support/readers.hpp"
#include "fragment_checks.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

// The duration in mehd, in seconds of the mvhd's time scale (ISO/IEC
// 14496-12 §8.2.2, §8.8.2), read from the bytes; -1 without a mehd.
double mehd_seconds(const std::string& file) {
  const auto bytes = read_file(file);
  const std::string text(bytes.begin(), bytes.end());
  const std::size_t mvhd = text.find("mvhd"), mehd = text.find("mehd");
  if (mvhd == std::string::npos || mehd == std::string::npos) return -1;
  const auto field = [&](std::size_t at, int size) {
    uint64_t v = 0;
    for (int i = 0; i < size; ++i) v = v << 8 | bytes.at(at + i);
    return v;
  };
  const uint64_t timescale = field(mvhd + (bytes.at(mvhd + 4) == 1 ? 24 : 16), 4);
  return double(field(mehd + 8, bytes.at(mehd + 4) == 1 ? 8 : 4)) / double(timescale);
}

TEST(MuxFragments, ReadersSeeTheSourcesFramesFromZero) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams sources[] = {
      encode(dir + "a", "160x120", "30", 3, "keyint=12:bframes=2"),
      encode(dir + "b", "160x120", "25", 2, "keyint=10:bframes=3:b-pyramid=normal:slices=2:aud=1", 44100),
      // H.265 is cut at every IRAP picture. An open GOP starts at a CRA
      // picture whose RASL pictures refer to the fragment before: they stay
      // (a reader that plays on has their references), and so does their
      // display order.
      {encode_h265(dir + "open.h265", "192x108", "25", 3, "yuv420p", "keyint=24:min-keyint=24:bframes=3:open-gop=1"),
       dir + "a.aac", 25},
      {encode_h265(dir + "closed.h265", "192x108", "25", 3, "yuv420p10le", "keyint=20:bframes=4:open-gop=0"),
       dir + "a.aac", 25, "yuv420p10le"},
  };
  const struct {
    int source;
    bool video, audio;
    std::string seconds;
    bool browser;  // also played through Media Source Extensions
  } runs[] = {
      {0, true, true, "0.5", true},
      // Key frames exactly 0.8 s apart start fragments; --fsync changes when
      // bytes reach the disk, never which.
      {1, true, true, "0.8 --fsync", false},
      {0, true, false, "86400", false},  // the longest fragment: one
      {0, false, true, "0.5", true},
      {2, true, true, "0.5", false},
      {3, true, true, "0.5", false},
  };
  const std::string out = dir + "out.mp4";
  for (const auto& r : runs) {
    const Streams& src = sources[r.source];
    SCOPED_TRACE(inputs(src, r.video, r.audio) + " --fragment " + r.seconds);
    const MuxResult m = mux(inputs(src, r.video, r.audio) + " --fragment " + r.seconds + " -q -o " + shell_quote(out));
    ASSERT_EQ(m.status, 0) << m.output;
    EXPECT_EQ(m.output, "");
    expect_decodes_like(out, r.video ? src.video : "", r.audio ? src.audio : "");
    expect_fragment_layout(out, r.video ? std::stod(r.seconds) : 0);
    if (r.audio) {
      EXPECT_NEAR(probe_packets(out, 'a').at(0).pts, 0.0, 1e-6);
    }
    const auto packets = probe_packets(out, 'v');
    std::vector<double> times;
    for (const auto& p : packets) times.push_back(p.pts);
    std::sort(times.begin(), times.end());
    for (std::size_t i = 0; i < times.size(); ++i) ASSERT_NEAR(times[i], i / src.fps, 2e-4) << "frame " << i;
    const std::size_t audio_frames = r.audio ? decoded_md5s(src.audio, 'a').size() : 0;
    const double seconds = std::max(r.video ? packets.size() / src.fps : 0,
                                    audio_frames * 1024.0 / (r.source == 1 ? 44100 : 48000));
    std::vector<uint64_t> moofs;
    for (const TopBox& b : boxes_of(out))
      if (b.type == "moof") moofs.push_back(b.offset);
    const auto fragment_of = [&](const ProbedPacket& p) {
      return std::upper_bound(moofs.begin(), moofs.end(), uint64_t(p.pos)) - moofs.begin() - 1;
    };
    if (r.video && r.audio) {
      // Every audio frame that starts before the video ends goes with the
      // video it starts under, by stored times: one that starts exactly at a
      // cut (1.6 s in source 0) opens the next fragment.
      std::vector<double> cuts;
      for (const ProbedPacket& p : probe_packets(out, 'v', true))
        if (fragment_of(p) == long(cuts.size())) cuts.push_back(p.dts);
      for (const ProbedPacket& p : probe_packets(out, 'a', true)) {
        if (p.pts >= packets.size() / src.fps) break;
        EXPECT_EQ(fragment_of(p), std::upper_bound(cuts.begin(), cuts.end(), p.pts) - cuts.begin() - 1) << p.pts;
      }
    }

    // mp4box.js: sync samples where FFmpeg sees key frames, every audio
    // frame, and mfra listing every fragment that holds video (audio alone:
    // every one); mehd: the duration of the longer track.
    const Mp4BoxReport mp4box = read_with_mp4box(out);
    EXPECT_TRUE(mp4box.fragmented);
    EXPECT_EQ(mp4box.errors, std::vector<std::string>{});
    std::vector<bool> keys, syncs;
    std::vector<uint64_t> with_video, indexed;
    for (const ProbedPacket& p : packets) {
      keys.push_back(p.key);
      if (with_video.empty() || with_video.back() != moofs[fragment_of(p)]) with_video.push_back(moofs[fragment_of(p)]);
    }
    for (const auto& s : mp4box.samples)
      if (s.track == 1 && r.video) syncs.push_back(s.sync);
    for (const auto& [track, offset] : mp4box.tfra)
      if (track == 1) indexed.push_back(offset);  // the video track, or audio alone
    EXPECT_EQ(syncs, keys);
    EXPECT_EQ(mp4box.count(r.video ? 2 : 1), audio_frames);
    EXPECT_NEAR(mehd_seconds(out), seconds, 1e-6);
    EXPECT_EQ(indexed, r.video ? with_video : moofs);
    if (have_gstreamer()) {
      if (r.video) expect_gstreamer_shows(out, src);
      if (r.audio) {
        EXPECT_EQ(gstreamer_audio_md5(out, r.video), ffmpeg_audio_md5(src.audio));
      }
    }
    if (r.browser && have_chromium()) {
      const MsePlayback p = play_with_mse(out);
      ASSERT_TRUE(p.ran) << p.report;
      EXPECT_FALSE(p.errors) << p.report;
      EXPECT_EQ(p.fragments, int(sequence_numbers(out).size())) << p.report;
      EXPECT_NEAR(p.buffered_start, 0, 1e-3) << p.report;
      // requestVideoFrameCallback may miss the very first picture.
      EXPECT_LT(p.first_frame_time, r.video ? 1.5 / src.fps : 1e9) << p.report;
      EXPECT_NEAR(r.video ? p.shown : p.current_time, r.video ? packets.size() : seconds, 0.05) << p.report;
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

// The exit status; -1 when killed. With `mux` failed, the writer into a
// FIFO is killed first, as it may wait for a reader forever.
int finish(pid_t pid, const MuxResult& mux = {0, ""}) {
  if (mux.status != 0) kill(-pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(MuxFragments, LiveInputsFromStandardInputAndFifos) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", "160x120", "25", 2, "keyint=25:bframes=2");
  const std::string vfifo = shell_quote(dir + "v.fifo"), afifo = shell_quote(dir + "a.fifo"), out = dir + "out.mp4";
  ASSERT_EQ(mkfifo((dir + "v.fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((dir + "a.fifo").c_str(), 0600), 0);
  for (const char* mode : {"--fragment 0.5", ""}) {
    SCOPED_TRACE(mode);
    // Standard input for video, a FIFO for audio.
    pid_t writer = start("cat " + shell_quote(src.audio) + " > " + afifo);
    MuxResult r = mux("--video - --audio " + afifo + " " + mode + " -q -o " + shell_quote(out) + " < " +
                      shell_quote(src.video));
    EXPECT_EQ(finish(writer, r), 0);
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    EXPECT_TRUE(!*mode || boxes_of(out).back().type == "mdat");  // no mfra: an input was live
    // Two FIFOs filled by one program, audio opened first and written whole
    // before the video: the reader must not wait on the one it opened first.
    writer = start("exec 4>" + afifo + " 3>" + vfifo + "; cat " + shell_quote(src.audio) + " >&4; exec 4>&-; cat " +
                   shell_quote(src.video) + " >&3");
    r = mux("--video " + vfifo + " --audio " + afifo + " " + mode + " -q -o " + shell_quote(out));
    EXPECT_EQ(finish(writer, r), 0);
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    for (const auto& entry : fs::directory_iterator(dir))
      EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
  }
}

// Two live recordings of four seconds of video trickled into FIFOs, in
// fragments of 0.4 s: one killed with SIGKILL part way (and quiet), which
// leaves every whole fragment playable in every reader; one interrupted
// (SIGINT), which shows progress and ends cleanly with its duration filled in.
TEST(MuxFragments, KilledAndInterruptedRecordings) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", "160x120", "25", 4, "keyint=10:bframes=2");
  const auto source = decoded_md5s(src.video, 'v');
  pid_t writers[2], muxers[2];
  const std::string outs[2] = {dir + "killed.mp4", dir + "stopped.mp4"};
  for (int i = 0; i < 2; ++i) {
    const std::string fifo = dir + std::to_string(i) + ".fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // About a quarter of the stream a second, as a camera sends it.
    writers[i] = start("python3 -c \"import sys,time\nd=open(sys.argv[1],'rb').read()\nout=open(sys.argv[2],'wb')\n"
                       "for i in range(0,len(d),2048):\n out.write(d[i:i+2048]); out.flush(); time.sleep(2048/" +
                       std::to_string(fs::file_size(src.video) / 4) + ")\" " + shell_quote(src.video) + " " +
                       shell_quote(fifo) + " 2>/dev/null");
    muxers[i] = start("exec " + shell_quote(tool_path()) + " mux" + (i ? "" : " -q") + " --fragment 0.4 --video " +
                      shell_quote(fifo) + " -o " + shell_quote(outs[i]) + " 2>" + shell_quote(outs[i] + ".log"));
  }
  const auto mdats = [](const std::string& file) {
    if (!fs::exists(file)) return 0l;
    const auto boxes = boxes_of(file);
    return long(std::count_if(boxes.begin(), boxes.end(), [](const TopBox& b) { return b.type == "mdat"; }));
  };
  for (int i = 0; i < 1000 && (mdats(outs[0]) < 3 || mdats(outs[1]) < 6); ++i)  // past 2 s: progress shown
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(kill(muxers[0], SIGKILL), 0);
  ASSERT_EQ(kill(muxers[1], SIGINT), 0);
  EXPECT_EQ(finish(muxers[0]), -1);
  EXPECT_EQ(finish(muxers[1]), 0);
  for (const pid_t writer : writers) finish(writer, {1, ""});
  const auto log = [](const std::string& file) {
    const auto bytes = read_file(file + ".log");
    return std::string(bytes.begin(), bytes.end());
  };
  EXPECT_EQ(log(outs[0]), "");
  EXPECT_NE(log(outs[1]).find(" frames, "), std::string::npos) << log(outs[1]);
  // Every picture in whole fragments, as the source has them.
  auto decoded = decoded_md5s(outs[0], 'v');
  const std::size_t pictures = probe_packets(outs[0], 'v').size();
  ASSERT_GE(mdats(outs[0]), 3);
  ASSERT_GE(decoded.size(), pictures);
  ASSERT_LT(decoded.size(), source.size());
  decoded.resize(pictures);
  EXPECT_EQ(decoded, std::vector<std::string>(source.begin(), source.begin() + long(pictures)));
  if (have_chromium()) {
    const MsePlayback p = play_with_mse(outs[0]);
    EXPECT_FALSE(p.errors) << p.report;
    EXPECT_EQ(p.fragments, mdats(outs[0])) << p.report;
    EXPECT_EQ(p.shown, int(pictures)) << p.report;
    EXPECT_NEAR(p.buffered_start, 0, 1e-3) << p.report;
  }

  const auto stopped = decoded_md5s(outs[1], 'v');
  ASSERT_GE(stopped.size(), 10u);
  ASSERT_LT(stopped.size(), source.size());
  EXPECT_EQ(stopped, std::vector<std::string>(source.begin(), source.begin() + long(stopped.size())));
  EXPECT_NEAR(mehd_seconds(outs[1]), stopped.size() / 25.0, 1e-6);
  EXPECT_EQ(mehd_seconds(outs[0]), -1);  // killed: room for it, but no mehd
}

TEST(MuxFragments, InputsThatStopOrChangeKeepWhatCameBefore) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/", out = dir + "out.mp4";
  const Streams src = encode(dir + "in", "160x120", "25", 2, "keyint=10:bframes=2");
  const auto video = read_file(src.video), audio = read_file(src.audio);
  const auto source = decoded_md5s(src.video, 'v');

  // ADTS stopped in the middle of a frame: the whole frames are written,
  // the run says where the input stopped and fails.
  const std::size_t cut = audio.size() - 100;
  write_file(dir + "cut.aac", {audio.begin(), audio.begin() + long(cut)});
  MuxResult r = mux("--audio " + shell_quote(dir + "cut.aac") + " --fragment 0.5 -q -o " + shell_quote(out));
  EXPECT_EQ(r.status, 1);
  std::size_t whole = 0, frame = 0;
  for (std::size_t length; frame + 6 < cut; frame += length, ++whole) {
    length = ((audio[frame + 3] & 3u) << 11) | (audio[frame + 4] << 3) | (audio[frame + 5] >> 5);
    if (frame + length > cut) break;
  }
  EXPECT_NE(r.output.find("stops in the middle of a frame at byte " + std::to_string(frame)), std::string::npos)
      << r.output;
  EXPECT_EQ(probe_packets(out, 'a').size(), whole);

  // H.264 stopped just after the header of its last NAL unit.
  std::size_t last = video.size();
  while (last > 3 && !(video[last - 3] == 0 && video[last - 2] == 0 && video[last - 1] == 1)) --last;
  write_file(dir + "cut.h264", {video.begin(), video.begin() + long(last) + 2});
  r = mux("--video " + shell_quote(dir + "cut.h264") + " --fragment 0.5 -q -o " + shell_quote(out));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("stops in the middle of a frame at byte " + std::to_string(last - 3)), std::string::npos)
      << r.output;
  EXPECT_EQ(decoded_md5s(out, 'v'), std::vector<std::string>(source.begin(), source.end() - 1));

  // A live stream whose SPS changes is refused where it changes; what came
  // before stays in the file.
  const std::string other = encode(dir + "other", "176x144", "25", 0.4, "bframes=0").video;
  write_file(dir + "changing.h264", cat({video, read_file(other)}));
  r = mux("--video - --fragment 0.5 -q -o " + shell_quote(out) + " < " + shell_quote(dir + "changing.h264"));
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.output.find("sequence parameter set changes at byte " + std::to_string(video.size() + 4)),
            std::string::npos)
      << r.output;
  const auto kept = decoded_md5s(out, 'v');
  EXPECT_GE(kept.size(), 10u);
  EXPECT_EQ(kept, std::vector<std::string>(source.begin(), source.begin() + long(std::min(kept.size(), source.size()))));
}

}  // namespace
}  // namespace boxlane::test
