// `boxlane mux` run as a user runs it, on streams FFmpeg makes and streams
// made by hand: each option's effect judged by ffprobe, mp4box.js or the bytes.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <tuple>

#include "support/box_builder.hpp"
#include "support/handmade_h264.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

// The top-level boxes; each stream as ffprobe reads it; the channelcount, samplesize and 16-bit
// samplerate of the mp4a entry (ISO/IEC 14496-12 §12.2.3); the codecs mp4box.js names, its errors.
std::string facts(const std::string& file) {
  const auto bytes = read_file(file);
  std::string text, moov;
  for (const TopBox& box : top_boxes(bytes)) {
    text += (text.empty() ? "" : " ") + box.type;
    if (box.type == "moov") moov.assign(bytes.begin() + long(box.offset), bytes.begin() + long(box.offset + box.size));
  }
  std::string streams;
  run("ffprobe -v error -show_entries stream=codec_type,time_base,avg_frame_rate,sample_rate,channels,duration_ts,"
      "nb_frames:stream_tags=language -of csv=p=0 " + shell_quote(file), &streams);
  text += "\n" + streams;
  const std::size_t at = moov.find("mp4a");
  const auto u16 = [&](std::size_t i) { return std::to_string(uint8_t(moov.at(i)) << 8 | uint8_t(moov.at(i + 1))); };
  if (at != std::string::npos) text += "mp4a " + u16(at + 20) + " " + u16(at + 22) + " " + u16(at + 28) + "\n";
  const Mp4BoxReport mp4box = read_with_mp4box(file);
  text += "mp4box";
  for (const std::string& codec : mp4box.codecs) text += " " + codec;
  for (const std::string& error : mp4box.errors) text += " (" + error + ")";
  return text + "\n";
}

TEST(Mux, EveryOptionAsReadersSeeIt) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  Streams big{dir + "big.h264", dir + "big.aac", 25};  // pictures past the output's write block
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=1280x720:rate=25:duration=0.4,noise=alls=40:allf=t+u -map 0:v "
                   "-c:v libx264 -preset ultrafast -qp 0 -g 5 -bf 0 -f h264 " + shell_quote(big.video) +
                   " -f lavfi -i sine=sample_rate=48000:duration=0.4 -map 1:a -c:a aac -f adts " + shell_quote(big.audio)),
            0);
  const Streams sources[] = {
      encode(dir + "p30", "160x120", "30", 3, "bframes=1", 44100),
      // AUDs and SEI, a B-pyramid, four slices a picture; the VUI says 30000/1001.
      encode(dir + "ntsc", "160x120", "30000/1001", 1, "bframes=3:b-pyramid=normal:slices=4:aud=1", 44100),
      encode(dir + "71", "64x48", "25", 0.5, "bframes=0", 48000, 8),  // 7.1: eight channels
      big,
      // H.265 Main, closed GOPs; Main 10, open GOPs (CRA with leading pictures), slices, a conformance window.
      {encode_h265(dir + "main.h265", "176x144", "25", 2, "yuv420p", "bframes=4:keyint=30:open-gop=0"),
       dir + "71.aac", 25},
      {encode_h265(dir + "main10.h265", "320x180", "30000/1001", 2, "yuv420p10le",
                   "bframes=3:b-pyramid=1:keyint=24:open-gop=1:slices=3"),
       dir + "big.aac", 30000.0 / 1001, "yuv420p10le"},
  };
  const struct {
    int source;
    bool video, audio;
    std::string options, says, facts;
  } runs[] = {
      {0, true, true, "",
       "video H.264 160x120, 90 frames at 30 fps with B-frames; audio AAC 44100 Hz stereo, 131 frames; 3.04 s, ",
       "ftyp mdat moov\nvideo,30/1,1/44100,132300,90,und\naudio,44100,2,0/0,1/44100,134144,131,und\n"
       "mp4a 2 16 44100\nmp4box avc1.64000b mp4a.40.2\n"},
      // lcm(44100, 30000): 147147 ticks a frame, 102400 an AAC frame.
      {1, true, true, "--faststart", "30 frames at 29.970 fps with B-frames; audio AAC 44100 Hz stereo",
       "ftyp moov mdat\nvideo,30000/1001,1/4410000,4414410,30,und\naudio,44100,2,0/0,1/4410000,4608000,45,und\n"
       "mp4a 2 16 44100\nmp4box avc1.64000b mp4a.40.2\n"},
      // --fps wins over the stream's timing; video alone on 90 kHz when it divides the frame duration.
      {0, true, false, "--fps 29.97 -q", "", "ftyp mdat moov\nvideo,30000/1001,1/90000,270270,90,und\nmp4box avc1.64000b\n"},
      {1, true, false, "--fps 24000/1001 -q", "",
       "ftyp mdat moov\nvideo,24000/1001,1/360000,450450,30,und\nmp4box avc1.64000b\n"},
      // One tick a frame: the coarsest time scale allowed.
      {1, true, false, "--fps 25 --timescale 25 -q", "", "ftyp mdat moov\nvideo,25/1,1/25,30,30,und\nmp4box avc1.64000b\n"},
      // A millisecond clock divides neither duration: times are rounded down, 45 x 1024 / 44.1 = 1044.9 ms.
      {1, true, true, "--timescale 1000 -q", "",
       "ftyp mdat moov\nvideo,30000/1001,1/1000,1001,30,und\naudio,44100,2,0/0,1/1000,1044,45,und\n"
       "mp4a 2 16 44100\nmp4box avc1.64000b mp4a.40.2\n"},
      {2, false, true, "--faststart -q", "",
       "ftyp moov mdat\naudio,48000,8,0/0,1/48000,25600,25,und\nmp4a 8 16 48000\nmp4box mp4a.40.2\n"},
      // Three seconds pass 2^32 ticks (64-bit durations); the finest time scale allowed.
      {0, true, true, "--timescale 1920000000 --faststart -q", "",
       "ftyp moov mdat\nvideo,30/1,1/1920000000,5760000000,90,und\n"
       "audio,44100,2,0/0,1/1920000000,5840282993,131,und\nmp4a 2 16 44100\n"
       "mp4box avc1.64000b mp4a.40.2\n"},
      {0, false, true, "--timescale 2147483647 -q", "",
       "ftyp mdat moov\naudio,44100,2,0/0,1/2147483647,6532245948,131,und\nmp4a 2 16 44100\n"
       "mp4box mp4a.40.2\n"},
      {3, true, true, "-q", "",
       "ftyp mdat moov\nvideo,25/1,1/48000,19200,10,und\naudio,48000,1,0/0,1/48000,20480,20,und\n"
       "mp4a 1 16 48000\nmp4box avc1.f4001f mp4a.40.2\n"},
      {4, true, true, "", "video H.265 176x144, 50 frames at 25 fps with B-frames; audio AAC 48000 Hz",
       "ftyp mdat moov\nvideo,25/1,1/48000,96000,50,und\naudio,48000,8,0/0,1/48000,25600,25,und\n"
       "mp4a 8 16 48000\nmp4box hvc1.1.6.L60.90 mp4a.40.2\n"},
      {5, true, false, "--faststart --video-codec hevc -q", "",
       "ftyp moov mdat\nvideo,30000/1001,1/90000,180180,60,und\nmp4box hvc1.2.4.L60.90\n"},
  };
  const std::string out = dir + "out.mp4";
  for (const auto& r : runs) {
    const Streams& src = sources[r.source];
    SCOPED_TRACE(inputs(src, r.video, r.audio) + " " + r.options);
    const MuxResult m = mux(inputs(src, r.video, r.audio) + " " + r.options + " -o " + shell_quote(out));
    ASSERT_EQ(m.status, 0) << m.output;
    EXPECT_TRUE(r.says.empty() ? m.output.empty() : m.output.find(r.says) != std::string::npos) << m.output;
    EXPECT_EQ(facts(out), r.facts);
    // The mvhd lasts as long as the longer track (ISO/IEC 14496-12 §8.2.2).
    std::string durations;
    run("ffprobe -v error -show_entries stream=duration:format=duration -of csv=p=0 " + shell_quote(out), &durations);
    std::istringstream lines(durations);
    std::vector<double> seconds;  // each stream's, then the file's
    for (std::string line; std::getline(lines, line);) seconds.push_back(std::stod(line));
    EXPECT_NEAR(seconds.back(), *std::max_element(seconds.begin(), seconds.end() - 1), 1e-6) << durations;
    // Samples lie in the file by decoding time (video's from minus its shift), audio first on a tie.
    std::vector<std::tuple<int64_t, double, bool>> order;  // position, decoding time, video
    for (const char kind : {'v', 'a'})
      for (const ProbedPacket& p : probe_packets(out, kind)) order.emplace_back(p.pos, p.dts, kind == 'v');
    std::sort(order.begin(), order.end());
    for (std::size_t i = 1; i < order.size(); ++i)
      EXPECT_LE(std::tie(std::get<1>(order[i - 1]), std::get<2>(order[i - 1])),
                std::tie(std::get<1>(order[i]), std::get<2>(order[i]))) << "sample " << i << " in the file";
    const double fps = r.options.rfind("--fps ", 0) == 0 ? rate_of(r.options.substr(6)) : src.fps;
    const bool past_2_30 = r.facts.find(",1/19") != std::string::npos;  // a track GStreamer's qtdemux leaves out
    expect_sources_shown(out, src, r.video, r.audio, fps, 1.001e-3, !past_2_30);
  }
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// On a terminal (`script` gives the run one, standard output sent elsewhere), a live input being copied shows each
// 16 MiB read, and the line goes before what follows; a run of --fragment past 2 s rewrites its count of frames
// written, ends it with a line break, and with -q shows none; mux and remux of inputs of 64 MiB together clear their
// last progress line before the summary. Not on a terminal, the count comes at most every 10 s, and at the end.
TEST(Mux, ProgressOnATerminal) {
  const std::string out = temp_dir() + "/out.mp4", tool = shell_quote(tool_path());
  const std::string mux = tool + " mux --video - -o " + shell_quote(out);
  const auto on_terminal = [](const std::string& command) {
    std::string shown;
    run("script -qec " + shell_quote(command + " > /dev/null") + " /dev/null < /dev/null", &shown);
    return shown;
  };
  std::string shown = on_terminal("head -c 17M /dev/zero | " + mux);
  EXPECT_NE(shown.find("\rboxlane mux: 16 MiB of input read\r\033[K"), std::string::npos) << shown;
  const std::string sample = source_dir() + "/tests/data/sample.h264", video = shell_quote(sample);
  shown = on_terminal("{ cat " + video + "; sleep 2.5; } | " + mux + " --fragment 1");
  EXPECT_NE(shown.find(" s written\r\n"), std::string::npos) << shown;
  shown = on_terminal("{ cat " + video + "; sleep 2.5; } | " + mux + " --fragment 1 -q");
  EXPECT_EQ(shown.find("written"), std::string::npos) << shown;
  // Audio alone: its seconds, 236 frames of 1024 at 48 kHz.
  const std::string audio_path = shell_quote(source_dir() + "/tests/data/sample.aac");
  shown = on_terminal("{ cat " + audio_path + "; sleep 2.5; } | " + tool + " mux --audio - --fragment 1 -o " +
                      shell_quote(out));
  EXPECT_NE(shown.find("\rboxlane mux: " + out + ": 236 frames, 5.0 s written\r\n"), std::string::npos) << shown;
  // The input trickles in over 4 s, a fragment every half second.
  run("for i in 0 1 2 3 4 5 6 7; do dd if=" + video + " bs=20000 skip=$i count=1 status=none; sleep 0.5; done | " +
      mux + " --fragment 0.2 2> " + shell_quote(out + ".log"));
  const std::string log = read_text(out + ".log");
  EXPECT_EQ(count(log, " s written\n"), 2) << log;
  // 64 MiB: for mux, a filler unit after the pictures (less alone), with the audio ten times over (2360 frames, so
  // the share shows between the ends: it counts video and audio frames alike and never passes 100), with -q from a
  // pipe too; for remux, a free box after the movie.
  write_file(out + ".h264", cat({read_file(sample), {0, 0, 0, 1, 0x0C}, std::vector<uint8_t>(127 << 19, 0xFF)}));
  const std::vector<uint8_t> aac = read_file(source_dir() + "/tests/data/sample.aac");
  std::vector<uint8_t> audio;
  for (int i = 0; i < 10; ++i) audio.insert(audio.end(), aac.begin(), aac.end());
  write_file(out + ".aac", audio);
  shown = on_terminal(tool + " mux --video " + shell_quote(out + ".h264") + " --audio " + shell_quote(out + ".aac") +
                      " -o " + shell_quote(out + ".filled.mp4"));
  EXPECT_NE(shown.find("100%\r\033[K"), std::string::npos) << shown;
  const std::string quiet = " mux -q -v - -a " + shell_quote(out + ".aac") + " -o " + shell_quote(out + ".q.mp4");
  EXPECT_EQ(on_terminal("cat " + shell_quote(out + ".h264") + " | " + tool + quiet), "");
  const std::regex percent(R"((\d+)%)");
  int shares = 0;
  for (std::sregex_iterator it(shown.begin(), shown.end(), percent), end; it != end; ++it, ++shares)
    EXPECT_LE(std::stoi((*it)[1]), 100) << shown;
  EXPECT_GE(shares, 3) << shown;
  write_file(out + ".big", cat({read_file(out), box("free", std::vector<uint8_t>(64 << 20))}));
  shown = on_terminal(tool + " remux " + shell_quote(out + ".big") + " -o " + shell_quote(out + ".remuxed"));
  EXPECT_NE(shown.find("100%\r\033[K"), std::string::npos) << shown;
  EXPECT_EQ(on_terminal(tool + " remux -q " + shell_quote(out + ".big") + " -o " + shell_quote(out + ".remuxed")), "");
}

// By hand (no encoder here codes fields): a 32x32 Main SPS with frame_mbs_only_flag 0, a PPS,
// eight field slices in decoding order: IDR top + P bottom (frame_num 0, POC 0/1), P top + P
// bottom (frame_num 1, POC 12/13), two non-reference B pairs (POC 4/5, 8/9). A pair is a sample.
TEST(Mux, FieldPairsBecomeOneSampleEach) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  write_file(dir + "/fields.h264",
             unhex("00000001674d001ee5294a1000000300100000030328400000000168ce3c8000000001658885002088804000000001"
                   "419a18088088804000000001419a30608088804000000001419a38688088804000000001019e5024408880400000"
                   "0001019e582c4088804000000001019e50444088804000000001019e584c40888040"));
  ASSERT_EQ(mux("--video " + shell_quote(dir + "/fields.h264") + " -q -o " + shell_quote(dir + "/out.mp4")).status, 0);
  std::string packets;
  run("ffprobe -v quiet -show_entries packet=pts_time,size,flags -of csv=p=0 " + shell_quote(dir + "/out.mp4"), &packets);
  EXPECT_EQ(packets, "0.000000,24,K_\n0.120000,24,__\n0.040000,24,__\n0.080000,24,__\n");
  // Labelled Baseline (profile_idc 66), which reorders nothing: fragments delay by the reordering the pictures show.
  auto baseline = read_file(dir + "/fields.h264");
  baseline[5] = 66;
  write_file(dir + "/baseline.h264", baseline);
  ASSERT_EQ(mux("-v " + shell_quote(dir + "/baseline.h264") + " --fragment 1 -q -o " + shell_quote(dir + "/f.mp4")).status, 0);
  run("ffprobe -v quiet -show_entries packet=pts_time,size,flags -of csv=p=0 " + shell_quote(dir + "/f.mp4"), &packets);
  EXPECT_EQ(packets, "0.000000,24,K_\n0.120000,24,__\n0.040000,24,__\n0.080000,24,__\n");
  // The P pair before the IDR picture as well: two fields go, and with them the audio of one frame (not of two):
  // at 48 kHz, 2 AAC frames of 1024 samples.
  write_file(dir + "/late.h264", cat({unhex("00000001674d001ee5294a1000000300100000030328400000000168ce3c80"
                                            "00000001419a306080888040 00000001419a386880888040"),
                                      read_file(dir + "/fields.h264")}));
  for (const char* layout : {"", "--fragment 1 "}) {
    const MuxResult r = mux("--video " + shell_quote(dir + "/late.h264") + " --audio " +
                            shell_quote(source_dir() + "/tests/data/sample.aac") + " " + layout + "-o " + shell_quote(dir + "/out.mp4"));
    EXPECT_NE(r.output.find("(2 leading pictures that cannot be decoded dropped); audio AAC 48000 Hz stereo, 234 frames "
                            "(2 before the first picture dropped"), std::string::npos) << r.output;
  }
}

// The elementary stream from its `packet`-th access unit on (from 0), where FFmpeg's parser
// puts the unit's start: a recording that began there.
std::vector<uint8_t> cut_at(const std::string& stream, int packet) {
  std::string positions;
  run("ffprobe -v error -show_entries packet=pos -of csv=p=0 " + shell_quote(stream), &positions);
  std::istringstream rows(positions);
  std::string row;
  for (int i = 0; i <= packet; ++i) std::getline(rows, row);
  const auto bytes = read_file(stream);
  return {bytes.begin() + std::stol(row), bytes.end()};
}

// A recording cut in the middle of a GOP, its audio from the same moment: the audio that went with the pictures
// left out goes too. A flash and a 1 kHz tone that start together (2.2 s after the cut, 0.6 s after the first IDR
// picture) are shown and heard together in both layouts, where FFmpeg's signalstats and astats find them.
TEST(Mux, AudioOfTheDroppedLeadingPicturesGoesWithThem) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/", video = dir + "flash.h264", audio = dir + "tone.aac", out = dir + "sync.mp4";
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i \"color=size=64x64:rate=25:duration=4,geq=lum='if(gte(T,2.6),235,16)':cb=128:cr=128\" "
                   "-f lavfi -i \"aevalsrc='if(gte(t,2.2),sin(2*PI*1000*t),0)':s=48000:d=3.6\" -map 0:v -c:v libx264 -g 50 "
                   "-bf 2 -x264-params scenecut=0 -f h264 " + shell_quote(dir + "whole.h264") + " -map 1:a -c:a aac -f adts " +
                   shell_quote(audio)), 0);
  write_file(video, cut_at(dir + "whole.h264", 10));  // 0.4 s in: 40 pictures before the IDR picture at 2 s
  // The time of the first frame whose statistic, printed by `filter`, matches `value`.
  const auto first = [&](const char* map, const std::string& filter, const std::string& value) {
    std::string log;
    run("ffmpeg -nostdin -v info -i " + shell_quote(out) + " -map " + map + " -" + map[2] + "f " + filter + " -f null - 2>&1", &log);
    std::smatch m;
    return std::regex_search(log, m, std::regex("pts_time:([0-9.]+)\\n[^\\n]*" + value)) ? std::stod(m[1]) : -1.0;
  };
  for (const char* layout : {"", "--fragment 1 "}) {
    SCOPED_TRACE(layout);
    const MuxResult r = mux("-v " + shell_quote(video) + " -a " + shell_quote(audio) + " " + layout + "-o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("(40 leading pictures that cannot be decoded dropped); audio AAC 48000 Hz mono, 95 frames "
                            "(75 before the first picture dropped, to stay in sync)"), std::string::npos) << r.output;
    const double flash = first("0:v", "signalstats,metadata=print:key=lavfi.signalstats.YAVG", "YAVG=2\\d\\d");
    EXPECT_NEAR(flash, 0.6, 1e-6);
    // Within a frame of 1024 samples, and the encoder's 1024 samples of priming.
    EXPECT_NEAR(first("0:a", "astats=metadata=1:reset=1,ametadata=print:key=lavfi.astats.Overall.RMS_level",
                      "RMS_level=-1?\\d\\."), flash, 0.025);
  }
}

// Streams in the shapes other encoders and broadcast gear write, whole and fragmented: FFmpeg
// decodes the frames it decodes from the elementary stream; the sync samples as mp4box.js reads
// them (ISO/IEC 14496-12 §8.6.2), the frames with A/53 captions, what the summary says was dropped.
TEST(Mux, StreamsFromOtherEncoders) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const auto file = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    write_file(dir + name, bytes);
    return dir + name;
  };
  std::string log;
  for (const char* shape : {"intra-refresh=1:keyint=25:slices=2 -bf 0", "open-gop=1:keyint=20 -bf 3"})
    ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -c:v libx264 -preset veryfast "
                     "-x264-params " + std::string(shape) + " -f h264 " +
                         shell_quote(dir + (shape[0] == 'i' ? "refresh.h264" : "open.h264")), &log), 0) << log;
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i sine=frequency=440:sample_rate=96000:duration=1 -f lavfi -i "
                   "sine=frequency=440:sample_rate=48000:duration=1 -map 0:a -c:a aac -f adts " + shell_quote(dir + "96k.aac") +
                   " -map 1:a -af 'pan=5.1|c0=c0|c1=0.5*c0|c2=0.3*c0|c3=0.2*c0|c4=0.1*c0|c5=0.7*c0' -c:a aac -f adts " +
                   shell_quote(dir + "51.aac"), &log), 0) << log;
  const auto surround = read_file(dir + "51.aac");
  // An ID3v2.4 tag of 200 bytes (syncsafe size 01 48) and its footer before the first frame.
  auto id3 = unhex("49 44 33 04 00 10 00 00 01 48");
  id3.resize(210);
  id3 = cat({id3, unhex("33 44 49 04 00 10 00 00 01 48"), read_file(dir + "96k.aac")});

  // H.265 with open GOPs, two slices a picture, the parameter sets at every random access point, a picture
  // hash SEI after each (a suffix SEI) and no prefix SEI; cut before a CRA picture, or with an end of sequence before the
  // second one: decoding starts there and leaves out its RASL pictures.
  encode_h265(dir + "open.h265", "160x96", "25", 2, "yuv420p",
              "bframes=3:keyint=20:min-keyint=20:open-gop=1:repeat-headers=1:slices=2:hash=1:info=0");
  const std::vector<uint8_t> vps = unhex("00000001 4001");
  auto eos = read_file(dir + "open.h265");
  eos.insert(std::search(eos.begin() + 1, eos.end(), vps.begin(), vps.end()), {0, 0, 0, 1, 0x48, 0x01});
  // A prefix SEI (user data unregistered: a UUID and a byte) before each picture's first slice segment.
  const auto sei_each_picture = [](const std::vector<uint8_t>& in) {
    std::vector<uint8_t> sei = unhex("00000001 4E01 0511"), out;
    sei.resize(sei.size() + 17, 'u');
    sei.push_back(0x80);
    for (std::size_t at = 0; at < in.size(); out.push_back(in[at++]))
      if (at + 5 < in.size() && !in[at] && !in[at + 1] && in[at + 2] == 1 && in[at + 3] >> 1 < 32 && in[at + 5] & 0x80)
        out.insert(out.end(), sei.begin(), sei.end());
    return out;
  };

  using P = HandmadePicture;
  // The last picture an IDR picture: a sync sample on the last sample, a piece of one picture.
  const std::vector<P> turns = {{P::kIdr, 0, 0x40}, {P::kSkipped, 1}, {P::kSkipped, 0}, {P::kIdr, 1, 0xC0},
                                {P::kSkipped, 0}, {P::kSkipped, 1}, {P::kIdr, 0, 0x50}};
  std::vector<P> mid_gop = {{P::kSkipped, 0}, {P::kSkipped, 1}, {P::kIdr, 0, 0x50},
                            {P::kSkipped, 1}, {P::kIntra, 0, 0x90}, {P::kSkipped, 0}};
  // A later recovery point is no sync sample; the IDR picture after it is, with all that follows.
  const std::vector<P> recovery = {{P::kSkipped, 0}, {P::kIntra, 0, 0x60, true}, {P::kSkipped, 1},
                                   {P::kIntra, 1, 0xA0, true}, {P::kSkipped, 0}, {P::kIdr, 1, 0x70}, {P::kSkipped, 0}};
  std::vector<uint8_t> main_profile = handmade_h264(turns);
  main_profile[5] = 77;  // the SPS's profile_idc
  std::vector<P> captioned = turns;
  for (std::vector<P>* pictures : {&captioned, &mid_gop})
    for (P& p : *pictures) p.captions = true;
  enum Decodes { kSame, kLast, kAny };  // to the source's frames, to its last ones, to any
  const struct {
    std::string video, audio, options, says;
    std::vector<uint32_t> sync;  // the sync samples
    int captions;                // frames with A/53 captions
    std::string audio_facts = "";  // the facts() of audio: ffprobe's, the mp4a entry's
    Decodes decodes = kSame;
    bool keeps_time = false;  // pictures left out mid-stream keep their time: the last is shown when the source shows it
  } cases[] = {
      // Pictures that use two PPS ids by turns: the sample entry holds both.
      {file("turns.h264", handmade_h264(turns)), "", "", "7 frames at 25 fps;", {1, 4, 7}, 0},
      // Main profile without VUI: up to 16 pictures may be reordered (ITU-T H.264 §E.2.1), so fragments delay
      // every time by 16 frames and take them back in an edit list, though no picture here is reordered.
      {file("main.h264", main_profile), "", "", "7 frames at 25 fps;", {1, 4, 7}, 0},
      // A recording cut in the middle of a GOP starts at its first IDR picture ...
      {file("mid_gop.h264", handmade_h264(mid_gop)), "", "",
       "4 frames at 25 fps (2 leading pictures that cannot be decoded dropped)", {1}, 4},
      {dir + "mid_gop.h264", "", "--keep-leading", "6 frames at 25 fps;", {3}, 4, "", kAny},
      // ... or at a recovery point SEI.
      {file("recovery.h264", handmade_h264(recovery)), "", "",
       "6 frames at 25 fps (1 leading picture that cannot be decoded dropped)", {1, 5}, 0},
      // Before the first parameter sets nothing can be kept.
      {file("no_sets_first.h264", cat({handmade_h264({{P::kSkipped}, {P::kSkipped}, {P::kSkipped}}, false),
                                       handmade_h264(turns)})),
       "", "--keep-leading", "7 frames at 25 fps (3 leading pictures", {1, 4, 7}, 0},
      // A recovery point whose picture came before the sets lets no later picture start there, the IDR picture
      // does (FFmpeg, which finds the sets first, shows the two pictures before it too).
      {file("late_sets.h264", cat({handmade_h264({{P::kIntra, 0, 0x60, true}}, false),
                                   handmade_h264({{P::kSkipped}, {P::kIdr, 0, 0x70}, {P::kSkipped}})})),
       "", "", "2 frames at 25 fps (2 leading pictures", {1}, 0, "", kLast},
      // Caption SEI stays in its picture's sample, unless stripped.
      {file("captions.h264", handmade_h264(captioned)), "", "", "7 frames", {1, 4, 7}, 7},
      {dir + "captions.h264", "", "--strip-sei", "7 frames", {1, 4, 7}, 0},
      {dir + "recovery.h264", "", "--strip-sei", "6 frames at 25 fps (1 leading", {1, 5}, 0},
      // x264 with intra refresh (recovery points, one IDR) and with open GOPs, each cut after its first IDR.
      {file("refresh_cut.h264", cut_at(dir + "refresh.h264", 7)), "", "",
       "leading pictures that cannot be decoded dropped", {1}, 0},
      {file("open_cut.h264", cut_at(dir + "open.h264", 7)), "", "", "with B-frames (13 leading pictures", {1}, 0},
      // FFmpeg shows the RASL pictures (concealed, before the CRA picture in display order), then ours.
      {file("cut.h265", sei_each_picture(cut_at(dir + "open.h265", 14))), "", "", "that cannot be decoded", {1, 18}, 0, "", kLast},
      {file("eos.h265", eos), "", "", "that cannot be decoded", {1, 18, 35}, 0, "", kSame, true},
      // 96 kHz AAC: the 16-bit samplerate field 0 (the rate is in the AudioSpecificConfig); after ID3.
      {"", dir + "96k.aac", "", "96000 Hz mono", {}, 0, "audio,96000,1,.*\nmp4a 1 16 0\n"},
      {"", file("id3.aac", id3), "", "96000 Hz mono", {}, 0, "audio,96000,1,.*\nmp4a 1 16 0\n"},
      // 5.1 laid out by a PCE, carried in the AudioSpecificConfig: with no comment, and with the longest.
      {"", file("pce.aac", with_pce(surround, 0)), "", "48000 Hz 6 channels (program_config_element)", {}, 0,
       "audio,48000,6,.*\nmp4a 6 16 48000\n"},
      {"", file("pce255.aac", with_pce(surround, 255)), "", "48000 Hz 6 channels", {}, 0, "audio,48000,6,.*\nmp4a 6 16 48000\n"},
      // With a CRC after each header: the PCE after it, the header and CRC left out of the samples.
      {"", file("pce_crc.aac", with_pce(surround, 3, true)), "", "48000 Hz 6 channels", {}, 0, "audio,48000,6,"},
  };
  const std::string out = dir + "out.mp4";
  for (const auto& c : cases) {
    for (const bool fragmented : {false, true}) {
      SCOPED_TRACE(c.video + c.audio + (fragmented ? " --fragment 1 " : " ") + c.options);
      const MuxResult r = mux((c.video.empty() ? "--audio " + shell_quote(c.audio) : "--video " + shell_quote(c.video)) +
                              " --fps 25 " + (fragmented ? "--fragment 1 " : "") + c.options + " -o " + shell_quote(out));
      ASSERT_EQ(r.status, 0) << r.output;
      EXPECT_NE(r.output.find(c.says), std::string::npos) << c.says << " in " << r.output;
      if (c.decodes == kSame) {
        expect_decodes_like(out, c.video, c.audio);
        // So does what remux writes of it: every SPS and PPS, the 96 kHz rate, the configuration with its PCE.
        ASSERT_EQ(run(shell_quote(tool_path()) + " remux -q " + shell_quote(out) + " -o " + shell_quote(dir + "re.mp4")), 0);
        expect_decodes_like(dir + "re.mp4", c.video, c.audio);
      }
      if (!c.video.empty()) {
        // The first picture shown at 0, whatever delay the composition times carry.
        const auto shown = probe_packets(out, 'v');
        const auto [first, last] = std::minmax_element(shown.begin(), shown.end(), [](auto& a, auto& b) { return a.pts < b.pts; });
        EXPECT_NEAR(first->pts, 0, 1e-6);
        if (c.keeps_time) {
          EXPECT_NEAR(last->pts, double(probe_packets(c.video, 'v').size() - 1) / 25, 1e-6);
        }
      }
      if (c.video.empty()) {
        const std::string text = facts(out);
        EXPECT_TRUE(std::regex_search(text, std::regex(c.audio_facts))) << text;
        continue;
      }
      std::vector<uint32_t> sync;
      const auto samples = read_with_mp4box(out).samples;
      for (std::size_t i = 0; i < samples.size(); ++i)
        if (samples[i].sync) sync.push_back(uint32_t(i + 1));
      EXPECT_EQ(sync, c.sync);
      std::string frames;
      run("ffprobe -v error -select_streams v -show_frames -show_entries frame_side_data=side_data_type -of csv=p=0 " +
              shell_quote(out), &frames);
      EXPECT_EQ(count(frames, "A53"), c.captions);
      // Where there are captions, one caption SEI in each sample: none of a dropped picture rides into a kept one.
      std::string trace;
      ASSERT_EQ(run("ffmpeg -nostdin -hide_banner -i " + shell_quote(out) +
                    " -c copy -copyinkf -bsf:v trace_headers -f null - 2>&1", &trace), 0);
      const std::regex caption_sei("payload_type_byte +00000100 = 4");  // user_data_registered_itu_t_t35
      EXPECT_EQ(std::distance(std::sregex_iterator(trace.begin(), trace.end(), caption_sei), std::sregex_iterator()),
                c.captions ? long(probe_packets(out, 'v').size()) : 0);
      // The pictures said to be dropped are those missing from the file.
      std::smatch said;
      const bool dropped = std::regex_search(r.output, said, std::regex("\\((\\d+) leading picture"));
      EXPECT_EQ(dropped ? std::stoul(said[1]) : 0,
                probe_packets(c.video, 'v').size() - probe_packets(out, 'v').size());
      if (c.decodes == kLast) {
        const auto want = decoded_md5s(c.video, 'v'), got = decoded_md5s(out, 'v');
        ASSERT_LT(got.size(), want.size());
        EXPECT_EQ(got, std::vector<std::string>(want.end() - long(got.size()), want.end()));
      }
      if (c.video.ends_with(".h265") && !fragmented) {
        // The repeated parameter sets are in the sample description once, and none in the samples.
        for (const char* set : {"Video Parameter Set", "Sequence Parameter Set", "Picture Parameter Set"})
          EXPECT_EQ(count(trace, set), 1) << set;
        EXPECT_EQ(count(trace, "Suffix Supplemental"), int(probe_packets(out, 'v').size()));
        // cut.h265 has a prefix SEI in each picture, and none of a dropped picture may ride into a kept one.
        EXPECT_EQ(count(trace, "Prefix Supplemental"),
                  c.video.ends_with("cut.h265") ? int(probe_packets(out, 'v').size()) : 0);
      }
    }
  }
  // The configuration's length goes into the esds descriptors' size fields, a byte longer past 127
  // (ISO/IEC 14496-1 §8.3.3): each side of the lengths where the entry grows.
  for (const int comment : {94, 95, 102, 103, 117, 118}) {
    SCOPED_TRACE(comment);
    const std::string pce = file("pce.aac", with_pce(surround, uint8_t(comment)));
    const MuxResult r = mux("--audio " + shell_quote(pce) + " -q -o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    expect_decodes_like(out, "", pce);
  }
}

}  // namespace
}  // namespace boxlane::test
