// `boxlane mux --fragment` and live inputs, run as a user runs them: FFmpeg, mp4box.js, GStreamer and Chromium
// (Media Source Extensions) read the sources' frames from 0, in fragments cut where the rule says.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/box_builder.hpp"
#include "support/handmade_h264.hpp"
#include "fragment_checks.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

TEST(MuxFragments, ReadersSeeTheSourcesFramesFromZero) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams sources[] = {
      encode(dir + "a", "160x120", "30", 3, "keyint=12:bframes=2"),
      encode(dir + "b", "160x120", "25", 2, "keyint=10:bframes=3:b-pyramid=normal:slices=2:aud=1", 44100),
      // H.265 is cut at every IRAP picture; the RASL pictures of a CRA picture (referring back) stay.
      {encode_h265(dir + "open.h265", "192x108", "25", 3, "yuv420p", "keyint=24:min-keyint=24:bframes=3:open-gop=1"),
       dir + "a.aac", 25},
      {encode_h265(dir + "closed.h265", "192x108", "25", 3, "yuv420p10le", "keyint=20:bframes=4:open-gop=0"),
       dir + "a.aac", 25, "yuv420p10le"},
  };
  const struct {
    int source;
    bool video, audio;
    std::string seconds, says;  // --fragment and other options; the summary up to its size
    bool browser;               // also played through Media Source Extensions
  } runs[] = {
      {0, true, true, "0.5", "video H.264 160x120, 90 frames at 30 fps with B-frames; audio AAC 48000 Hz stereo, "
       "142 frames; 3.03 s, ", true},
      // Key frames exactly 0.8 s apart start fragments; --fsync changes when bytes reach the disk, never which.
      {1, true, true, "0.8 --fsync", "50 frames at 25 fps with B-frames; audio AAC 44100 Hz stereo, 88 frames; 2.04 s",
       false},
      {0, true, false, "86400", "video H.264 160x120, 90 frames at 30 fps with B-frames; 3.00 s, ", false},  // one
      {0, false, true, "0.5", "audio AAC 48000 Hz stereo, 142 frames; 3.03 s, ", true},
      // Past 2^32 ticks: mehd takes its 64-bit form.
      {0, false, true, "0.5 --timescale 2147483647", "142 frames; 3.03 s, ", false},
      // 166.7 ticks a frame: the rounding runs on from one group of 12 pictures to the next.
      {0, true, false, "0.5 --timescale 5001", "90 frames at 30 fps with B-frames; 3.00 s, ", false},
      {2, true, true, "0.5", "video H.265 192x108, 75 frames at 25 fps with B-frames; audio", false},
      {3, true, true, "0.5", "video H.265 192x108, 75 frames at 25 fps with B-frames; audio", false},
  };
  const std::string out = dir + "out.mp4";  // each run writes over a longer file
  for (const auto& r : runs) {
    const Streams& src = sources[r.source];
    SCOPED_TRACE(inputs(src, r.video, r.audio) + " --fragment " + r.seconds);
    const MuxResult m = mux(inputs(src, r.video, r.audio) + " --fragment " + r.seconds + " -o " + shell_quote(out));
    ASSERT_EQ(m.status, 0) << m.output;
    EXPECT_NE(m.output.find(r.says), std::string::npos) << m.output;
    const std::size_t fragments = sequence_numbers(out).size();
    EXPECT_NE(m.output.find(" in " + std::to_string(fragments) + (fragments == 1 ? " fragment," : " fragments,")),
              std::string::npos);
    expect_sources_shown(out, src, r.video, r.audio, src.fps, 2e-4);
    expect_fragment_layout(out, r.video ? std::stod(r.seconds) : 0);
    const auto packets = probe_packets(out, 'v');
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
      // Every audio frame that starts before the video ends goes with the video it starts under, by stored
      // times: one that starts exactly at a cut (1.6 s in source 0) opens the next fragment.
      std::vector<double> cuts;
      for (const ProbedPacket& p : probe_packets(out, 'v', true))
        if (fragment_of(p) == long(cuts.size())) cuts.push_back(p.dts);
      for (const ProbedPacket& p : probe_packets(out, 'a', true)) {
        if (p.pts >= packets.size() / src.fps) break;
        EXPECT_EQ(fragment_of(p), std::upper_bound(cuts.begin(), cuts.end(), p.pts) - cuts.begin() - 1) << p.pts;
      }
    }
    // mp4box.js: every audio frame, and mfra listing every fragment that holds video (audio
    // alone: every one); mehd: the duration of the longer track.
    const Mp4BoxReport mp4box = read_with_mp4box(out);
    EXPECT_TRUE(mp4box.fragmented);
    EXPECT_EQ(mp4box.errors, std::vector<std::string>{});
    std::vector<uint64_t> with_video, indexed;
    for (const ProbedPacket& p : packets)
      if (with_video.empty() || with_video.back() != moofs[fragment_of(p)]) with_video.push_back(moofs[fragment_of(p)]);
    for (const auto& [track, offset] : mp4box.tfra)
      if (track == 1) indexed.push_back(offset);  // the video track, or audio alone
    EXPECT_EQ(mp4box.count(r.video ? 2 : 1), audio_frames);
    EXPECT_NEAR(mehd_seconds(out), seconds, 1e-6);
    EXPECT_EQ(indexed, r.video ? with_video : moofs);
    // Frame k starts at k / rate seconds (AAC: k x 1024 / sample rate) rounded down to a tick, in every fragment alike.
    for (const char kind : {'v', 'a'}) {
      if (!(kind == 'v' ? r.video : r.audio)) continue;
      std::string base;
      run("ffprobe -v error -show_entries stream=time_base -of csv=p=0 -select_streams " + std::string(1, kind) + " " +
          shell_quote(out), &base);
      const uint64_t ticks = std::stoull(base.substr(base.find('/') + 1)), per = kind == 'v' ? 1 : 1024;
      const uint64_t rate = kind == 'v' ? uint64_t(src.fps) : r.source == 1 ? 44100 : 48000;
      const auto rows = packets_by_track(out).at(kind == 'a' && r.video ? 2 : 1);
      for (std::size_t k = 0; k < rows.size(); ++k)
        ASSERT_EQ(uint64_t(rows[k].dts - rows[0].dts), k * per * ticks / rate) << kind << " frame " << k;
    }
    if (r.audio && have_gstreamer() && r.seconds.find("timescale") == std::string::npos) {  // qtdemux: at most 2^30
      EXPECT_EQ(gstreamer_audio_md5(out, r.video), ffmpeg_audio_md5(src.audio));
    }
    if (r.browser && have_chromium()) {
      const MsePlayback p = play_with_mse(out);
      ASSERT_TRUE(p.ran) << p.report;
      EXPECT_FALSE(p.errors) << p.report;
      EXPECT_EQ(p.fragments, int(moofs.size())) << p.report;
      EXPECT_NEAR(p.buffered_start, 0, 1e-3) << p.report;
      EXPECT_LT(p.first_frame_time, r.video ? 1.5 / src.fps : 1e9) << p.report;  // the first may be missed
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

// The exit status; -1 when killed. With `mux` failed, a writer into a FIFO is killed first.
int finish(pid_t pid, const MuxResult& mux = {0, ""}) {
  if (mux.status != 0) kill(-pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Standard input and FIFOs, whole and fragmented (no mfra when an input is live); then live
// recordings trickled into FIFOs in fragments of 0.4 s: one killed (SIGKILL, quiet) leaves every
// whole fragment playable, one interrupted (SIGINT) shows progress and ends cleanly.
TEST(MuxFragments, LiveInputs) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", "160x120", "25", 4, "keyint=10:bframes=2");
  const std::string vfifo = shell_quote(dir + "v.fifo"), afifo = shell_quote(dir + "a.fifo"), out = dir + "out.mp4";
  ASSERT_EQ(mkfifo((dir + "v.fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((dir + "a.fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((dir + "out.fifo").c_str(), 0600), 0);
  for (const char* mode : {"--fragment 0.5", ""}) {
    SCOPED_TRACE(mode);
    pid_t writer = start("cat " + shell_quote(src.audio) + " > " + afifo);
    MuxResult r = mux("--video - --audio " + afifo + " " + mode + " -q -o " + shell_quote(out) + " < " +
                      shell_quote(src.video));
    EXPECT_EQ(finish(writer, r), 0);
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    EXPECT_TRUE(!*mode || boxes_of(out).back().type == "mdat");
    // Two FIFOs from one program, audio opened first and written whole before the video. Fragments go into a
    // pipe as they are cut, each synced, which a pipe takes as done.
    writer = start("exec 4>" + afifo + " 3>" + vfifo + "; cat " + shell_quote(src.audio) + " >&4; exec 4>&-; cat " +
                   shell_quote(src.video) + " >&3");
    const pid_t reader = *mode ? start("cat " + shell_quote(dir + "out.fifo") + " > " + shell_quote(out)) : 0;
    r = mux("--video " + vfifo + " --audio " + afifo + " " + mode + " -q -o " +
            (*mode ? shell_quote(dir + "out.fifo") + " --fsync" : shell_quote(out)));
    EXPECT_EQ(finish(writer, r), 0);
    if (reader) {
      EXPECT_EQ(finish(reader, r), 0);
    }
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, src.video, src.audio);
    for (const auto& entry : fs::directory_iterator(dir))
      EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
  }
  // Without --fragment, a run stopped (by a signal) while it writes the file leaves no temporary file: 64 MiB of a
  // data partition keep it writing long enough to be caught at it.
  write_file(dir + "long.h264", cat({read_file(src.video), unhex("0000000163"), std::vector<uint8_t>(64 << 20, 0xFF)}));
  const auto temp_of_long = [&] {
    for (const auto& entry : fs::directory_iterator(dir))
      if (entry.path().filename().string().starts_with(".long.mp4.boxlane-")) return true;
    return false;
  };
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {  // also a terminal that closes
    bool interrupted = false;
    for (int attempt = 0; attempt < 5 && !interrupted; ++attempt) {
      const pid_t pid = start("exec " + shell_quote(tool_path()) + " mux -q --video " + shell_quote(dir + "long.h264") +
                              " -o " + shell_quote(dir + "long.mp4"));
      int status = 0;
      while (!interrupted && waitpid(pid, &status, WNOHANG) == 0) {
        interrupted = temp_of_long() && kill(pid, signal) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (interrupted)
        interrupted = waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) && WTERMSIG(status) == signal;
    }
    EXPECT_TRUE(interrupted) << signal;
    EXPECT_FALSE(temp_of_long()) << signal;
  }
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
    int n = 0;
    for (const TopBox& box : fs::exists(file) ? boxes_of(file) : std::vector<TopBox>{}) n += box.type == "mdat";
    return n;
  };
  for (int i = 0; i < 1000 && (mdats(outs[0]) < 3 || mdats(outs[1]) < 6); ++i)  // past 2 s: progress shown
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(kill(muxers[0], SIGKILL), 0);
  ASSERT_EQ(kill(muxers[1], SIGINT), 0);
  EXPECT_EQ(finish(muxers[0]), -1);
  EXPECT_EQ(finish(muxers[1]), 0);
  for (const pid_t writer : writers) finish(writer, {1, ""});
  EXPECT_EQ(read_text(outs[0] + ".log"), "");
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
  char written[64];
  std::snprintf(written, sizeof written, " %zu frames, %.1f s written", stopped.size(), stopped.size() / 25.0);
  const std::string log = read_text(outs[1] + ".log");
  EXPECT_NE(log.find(written), std::string::npos) << log;
}

// Inputs that stop in the middle of a frame, or whose SPS changes, keep what came before; the run
// says where and fails.
TEST(MuxFragments, InputsThatStopOrChangeKeepWhatCameBefore) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/", out = dir + "out.mp4";
  const Streams src = encode(dir + "in", "160x120", "25", 2, "keyint=10:bframes=2");
  const auto video = read_file(src.video), audio = read_file(src.audio);
  const auto source = decoded_md5s(src.video, 'v');
  const auto run_on = [&](const std::string& args, const std::string& says) {
    const MuxResult r = mux(args + " --fragment 0.5 -q -o " + shell_quote(out));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find(says), std::string::npos) << r.output;
  };
  // ADTS stopped in the middle of a frame: the whole frames are written.
  const std::size_t cut = audio.size() - 100;
  write_file(dir + "cut.aac", {audio.begin(), audio.begin() + long(cut)});
  std::size_t whole = 0, frame = 0;
  for (std::size_t length; frame + 6 < cut; frame += length, ++whole) {
    length = adts_length(&audio[frame]);
    if (frame + length > cut) break;
  }
  run_on("--audio " + shell_quote(dir + "cut.aac"), "stops in the middle of a frame at byte " + std::to_string(frame) +
                                                     "; " + out + " ends with the last whole frames before it");
  EXPECT_EQ(probe_packets(out, 'a').size(), whole);
  // H.264 stopped just after the header of its last NAL unit.
  std::size_t last = video.size();
  while (last > 3 && !(video[last - 3] == 0 && video[last - 2] == 0 && video[last - 1] == 1)) --last;
  write_file(dir + "cut.h264", {video.begin(), video.begin() + long(last) + 2});
  run_on("--video " + shell_quote(dir + "cut.h264"), "stops in the middle of a frame at byte " + std::to_string(last - 3));
  EXPECT_EQ(decoded_md5s(out, 'v'), std::vector<std::string>(source.begin(), source.end() - 1));
  run_on("--video " + shell_quote(dir + "cut.h264") + " --audio " + shell_quote(dir + "cut.aac"),
         "cut.h264 stops in the middle of a frame at byte " + std::to_string(last - 3) + "; " + dir +
             "cut.aac stops in the middle of a frame at byte " + std::to_string(frame) + "; ");
  // A live stream whose SPS changes is refused where it changes.
  const std::string other = encode(dir + "other", "176x144", "25", 0.4, "bframes=0").video;
  write_file(dir + "changing.h264", cat({video, read_file(other)}));
  run_on("--video - < " + shell_quote(dir + "changing.h264"),
         "sequence parameter set changes at byte " + std::to_string(video.size() + 4));
  const auto kept = decoded_md5s(out, 'v');
  EXPECT_GE(kept.size(), 10u);
  EXPECT_EQ(kept, std::vector<std::string>(source.begin(), source.begin() + long(std::min(kept.size(), source.size()))));
  // Also when the audio ends before a stream shorter than 4 KiB is known to be H.264, its whole frames untaken.
  write_file(dir + "one.h264", handmade_h264({{}}));
  run_on("--video " + shell_quote(dir + "one.h264") + " --audio " + shell_quote(dir + "cut.aac"),
         "cut.aac stops in the middle of a frame at byte " + std::to_string(frame) + "; ");
}

}  // namespace
}  // namespace boxlane::test
