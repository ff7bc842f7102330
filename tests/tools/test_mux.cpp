// `boxlane mux` run as a user runs it, on streams FFmpeg makes and streams
// made by hand: each option's effect judged by ffprobe, mp4box.js or the bytes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <tuple>

#include "support/box_builder.hpp"
#include "support/handmade_h264.hpp"
#include "support/hevc_units.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

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

// Each option and input at the limits it allows, and one step past them: what the run says
// (a regular expression), and no file left behind by a refused one.
TEST(Mux, OptionsAndInputsAtTheirLimits) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Streams src = encode(dir + "in", "160x120", "25", 0.4, "bframes=2");
  const auto video = read_file(src.video), audio = read_file(src.audio);
  const auto input = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    write_file(dir + name, bytes);
    return shell_quote(dir + name);
  };
  const auto hevc = read_file(encode_h265(dir + "a.h265", "176x144", "25", 0.4, "yuv420p", "keyint=25"));
  const auto other_hevc = read_file(encode_h265(dir + "b.h265", "160x96", "25", 0.4, "yuv420p", "keyint=25:slices=2"));
  auto layered = hevc;  // a NAL unit of layer 1 after the base layer's pictures
  layered.insert(layered.end(), {0, 0, 0, 1, 0x02, 0x09, 0xAF, 0x00});
  const std::string other = encode(dir + "other", "176x144", "25", 0.2, "bframes=0").video;
  const std::string taller = encode(dir + "taller", "160x96", "25", 0.04, "bframes=0:sps-id=1").video;
  // x264 writes 1000 frames a second into the VUI as time_scale 2000, num_units_in_tick 1; half a frame as 2, 2.
  const std::string fastest = encode(dir + "1000", "64x48", "1000", 0.02, "bframes=0").video;
  const std::string slowest = encode(dir + "half", "64x48", "1/2", 4, "bframes=0").video;
  auto without_sps = video;  // every SPS NAL header byte turned into a filler NAL
  for (std::size_t i = 0; i + 4 < video.size(); ++i)
    if (!video[i] && !video[i + 1] && video[i + 2] == 1 && (video[i + 3] & 0x1F) == 7) without_sps[i + 3] = 0x0C;
  std::vector<uint8_t> garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t(i * 7 + 1);
  const std::size_t second = adts_length(audio.data());
  // The ADTS stream with `bits` cleared, then `set`, in the byte at `at` (ISO/IEC 14496-3 §1.A.2.2.1).
  const auto adts_with = [&](std::size_t at, uint8_t bits, uint8_t set) {
    auto bytes = audio;
    bytes[at] = uint8_t((bytes[at] & ~bits) | set);
    return bytes;
  };
  auto empty_frame = cat({std::vector<uint8_t>(audio.begin(), audio.begin() + 7), audio});  // a 7-byte frame
  empty_frame[3] &= 0xFC, empty_frame[4] = 0, empty_frame[5] |= 0xE0;                      // frame_length 7
  using P = HandmadePicture;
  const auto with_ids = [](std::vector<uint8_t> stream, uint32_t last, auto set) {  // `set` 1 to `last` after it
    for (uint32_t id = 1; id <= last; ++id) stream = cat({stream, set(id)});
    return stream;
  };
  const auto hevc_pps = [](uint32_t id) { return cat({unhex("00000001"), hand_pps(id)}); };
  const auto one = handmade_h264({{}}), two = handmade_h264({{}, {P::kSkipped}});
  auto headless = other_hevc;  // without its first slice segment (NAL type below 32), its IDR picture's first
  std::vector<long> sc;        // the start codes of that segment and of the unit after it
  for (long i = 0; i + 3 < long(headless.size()) && sc.size() < 2; ++i)
    if (!headless[i] && !headless[i + 1] && headless[i + 2] == 1 && (sc.size() || headless[i + 3] < 64))
      sc.push_back(i);
  headless.erase(headless.begin() + sc[0], headless.begin() + sc[1]);
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i sine=d=0.1 -af aformat=cl=3.0 -f adts " + shell_quote(dir + "30.aac") +
                   " -af aformat=cl=5.1 -f adts " + shell_quote(dir + "51.aac")), 0);
  const std::string v = "--video " + shell_quote(src.video), a = "--audio ";
  const struct {
    std::string args, says;
    bool ok = false, kept = false;  // kept: refused once writing began, and what was written stays
  } runs[] = {
      {v + " --fps 1000", "10 frames at 1000 fps", true},
      {v + " --fps 1000000/40000", "10 frames at 25 fps", true},
      {v + " --fps 12.5 --faststart", "10 frames at 12.500 fps.* \\(faststart\\), written", true},
      // 1.45 ticks a frame, B-frames shifted by two: the movie ends where a 13th frame would, at 17 - 2 ticks.
      {v + " --fps 20 --timescale 29", "10 frames at 20 fps with B-frames; 0.52 s", true},
      {"--video " + shell_quote(fastest), "20 frames at 1000 fps", true},
      {"--video " + shell_quote(slowest), "2 frames at 0.500 fps", true},
      // One frame of 2^31 - 1 ticks, the longest an stts delta holds.
      {"--video " + shell_quote(other) + " --fps 1 --timescale 2147483647", "5 frames at 1 fps", true},
      // Exactly 2^32 - 1 ticks still in version 0 boxes; B-frames shifted by two such frames do not fit ctts.
      {"--video " + input("three.h264", handmade_h264({{}, {P::kSkipped}, {P::kSkipped}})) +
       " --fps 1 --timescale 1431655765", "3 frames at 1 fps", true},
      {v + " --fps 1 --timescale 2147483647", "composition offset does not fit the 32-bit ctts field"},
      // A fragment of audio alone holds at least one frame, however short --fragment is.
      {a + shell_quote(src.audio) + " --fragment 0.000001", "20 frames; .* in 20 fragments", true},
      {v + " --audio " + shell_quote(src.audio) + " --fragment 0.1",
       "160x120, 10 frames at 25 fps with B-frames; audio AAC 48000 Hz stereo, 20 frames; 0.43 s, .* in 2 fragments",
       true},
      {"--video " + input("nosps.h264", without_sps), "no sequence parameter set"},
      {"--video " + input("cut.h264", {video.begin(), video.begin() + 20}), "cut short"},
      {"--video " + input("empty.h264", {}), "is empty"},
      {"--video " + input("garbage.bin", garbage), "neither an H.264 nor an H.265"},
      {"--video " + shell_quote(dir + "missing.h264"), "cannot open"},
      {"--video " + shell_quote(dir) + " --fragment 1", "/' is a directory"},
      {"--video " + input("changing.h264", cat({video, read_file(other)})),
       "sequence parameter set changes at byte " + std::to_string(video.size() + 4)},
      {"--video " + input("no_idr.h264", handmade_h264({{P::kSkipped}, {P::kSkipped}, {P::kIntra}})),
       "no IDR picture or recovery point found, so none of its 3 pictures"},
      // An avcC counts its SPSs in 5 bits (ISO/IEC 14496-15 §5.3.3.1).
      {"--video " + input("sps_31.h264", with_ids(one, 30, handmade_sps)),
       "assuming 25 .set it with --fps.\n.*16x16, 1 frame at 25 fps; 0.04 s", true},
      {"--video " + input("sps_32.h264", with_ids(one, 31, handmade_sps)), "more than 31 SPSs"},
      // A repeated SPS with a byte more at its end is another SPS.
      {"--video " + input("sps_longer.h264", cat({one, handmade_sps(0), unhex("80")})),
       "sequence parameter set changes at byte " + std::to_string(one.size() + 4)},
      {"--video " + input("pps_255.h264", with_ids(one, 254, handmade_pps)), "16x16, 1 frame at 25 fps", true},
      {"--video " + input("pps_256.h264", with_ids(one, 255, handmade_pps)), "or 255 PPSs"},
      {"--video " + shell_quote(dir + "sps_31.h264") + " --fragment 1", "no frame rate in the stream; assuming 25",
       true},
      {"--video " + input("resized.h264", cat({video, handmade_sps(1)})),
       "parameter set at byte " + std::to_string(video.size() + 4) + " gives another picture size .16x16 after 160"},
      {"--video " + input("taller.h264", cat({video, read_file(taller)})), "another picture size .160x96 after 160x120"},
      {"--video " + input("pps_first.h264", cat({one, unhex("00000001 68 A38F20")})),  // PPS 0 of SPS 1
       "SPS. with id 1 was sent before the picture parameter set at byte " + std::to_string(one.size() + 4)},
      {"--video " + shell_quote(dir + "pps_first.h264") + " --fragment 1",
       "picture parameter set changes at byte " + std::to_string(one.size() + 4) + "; one MP4 track holds one PPS"},
      {"--video " + input("same_poc.h264", cat({two, {two.begin() + long(one.size()), two.end()}})),  // P twice
       "two pictures have the same picture order count .the second at byte " + std::to_string(two.size() + 4)},
      {"--video " + input("lead.h264", cat({unhex("4740"), video})), "2 bytes before the first start code"},
      // Data partitions B and C go with the slice before them: 11 MiB of one.
      {"--video " + input("partition.h264", cat({one, unhex("0000000163"), std::vector<uint8_t>(11 << 20, 0xFF)})),
       "1 frame at 25 fps; 0.04 s, 11.0 MiB", true},
      // In fragments a piece waits for the next IDR picture: 128 MiB at most.
      {"--video " + input("long.h264", cat({one, unhex("0000000163"), std::vector<uint8_t>(128 << 20, 0xFF)})) +
           " --fragment 1", "no IDR picture in the 128 MiB from byte 0; fragments start at such pictures"},
      {"--video " + input("sets.h264", handmade_h264({})), "sets.h264: no coded pictures found"},
      {"--video " + shell_quote(dir + "sets.h264") + " --fragment 1", "sets.h264: no coded pictures found"},
      {"--video " + input("changing.h265", cat({hevc, other_hevc})),
       "video parameter set 0 changes at byte " + std::to_string(hevc.size() + 4)},
      {"--video " + shell_quote(dir + "changing.h265") + " --fragment 1",
       "video parameter set 0 changes at byte " + std::to_string(hevc.size() + 4)},
      {"--video " + input("new_pps.h265", cat({with_ids(hevc, 1, hevc_pps), hevc})) + " --fragment 1",
       "a new picture parameter set .id 1. at byte " + std::to_string(hevc.size() + 4) + " after the first fragment",
       false, true},
      // hvcC holds at most 64 sets: the stream's VPS, SPS and PPS and 61 more.
      {"--video " + input("sets_64.h265", with_ids(hevc, 61, hevc_pps)), "H.265 176x144, 10 frames", true},
      {"--video " + input("sets_65.h265", with_ids(hevc, 62, hevc_pps)), "more parameter sets than one sample"},
      {"--video " + input("damaged.h265", cat({hevc, unhex("00000001 8001 AF")})),
       "damaged NAL unit header .forbidden_zero_bit set, or cut short. at byte " + std::to_string(hevc.size() + 4)},
      {"--video " + input("pps_5.h265", cat({hevc, unhex("00000001 0201 9A")})),  // a TRAIL_R slice of PPS 5
       "cannot read the slice segment header at byte " + std::to_string(hevc.size() + 4)},
      {"--video " + input("rsv_irap.h265", cat({hevc, unhex("00000001 2C01 AF")})),  // RSV_IRAP_VCL22: ignored
       "H.265 176x144, 10 frames", true},
      {"--video " + input("headless.h265", headless), "continues a picture whose first segment is missing"},
      // In fragments, the pictures before the first IRAP picture are left out.
      {"--video " + input("late_irap.h265", cat({headless, other_hevc})) + " --fragment 1",
       "160x96, 10 frames at 25 fps with B-frames .9 leading pictures that cannot be decoded dropped", true},
      {"--video " + input("layered.h265", layered), "layered H.265"},
      {"--video " + input("cut.h265", {hevc.begin(), hevc.begin() + 40}), "cut short"},
      {"--video " + shell_quote(other) + " --video-codec hevc", "is this an H.265 stream"},
      {v + " --video-codec h265 --fragment 1", "told that the stream is H.265, but its parameter sets are H.264's"},
      {v + " --video-codec avc", "H.264 160x120, 10 frames", true},
      // The short and long forms, nothing said.
      {"-v " + shell_quote(src.video) + " -a " + shell_quote(src.audio) + " --video-codec h264 --quiet --output " +
       shell_quote(dir + "out.mp4"), "^$", true},
      {v + " --video-codec auto", "H.264 160x120, 10 frames", true},
      {v + " --video-codec vp9", "--video-codec takes h264, h265"},
      {v + " --audio " + input("lost.aac", adts_with(second, 0xFF, 0x12)),  // the second frame's sync word
       "ADTS sync lost at byte " + std::to_string(second)},
      // Stopped inside its last frame: the frames before it stay.
      {a + input("cut.aac", {audio.begin(), audio.end() - 10}), "cut.aac stops in the middle of a frame at byte \\d+; "
       ".*out.mp4 ends with the last whole frames before it", false, true},
      {a + input("garbage.aac", garbage), "not an AAC ADTS stream"},
      // An MPEG-1 layer III header (224 kbit/s, 48 kHz): its bits where ADTS has the rate give 13.
      {a + input("layer_3.aac", cat({unhex("FFFB B4"), audio})), "sync lost at byte 0; this is not an AAC ADTS"},
      {a + input("tag.aac", unhex("49443304 00000000 0000")) + " --fragment 1", "tag.aac: no ADTS frames found"},
      {a + input("explicit_rate.aac", adts_with(2, 0x3C, 15 << 2)),  // sampling_frequency_index
       "at byte 0 gives sampling_frequency_index 15, an explicit sample rate, which ADTS does not allow"},
      {a + input("reserved_rate.aac", adts_with(2, 0x3C, 13 << 2)), "the reserved sampling_frequency_index 13"},
      {a + input("reserved_14.aac", adts_with(2, 0x3C, 14 << 2)), "the reserved sampling_frequency_index 14"},
      {a + input("empty_frame.aac", empty_frame), "empty ADTS frame at byte 0"},
      {a + input("no_pce.aac", adts_with(3, 0xC0, 0)), "does not start with the program_config_element"},
      {a + input("rate_change.aac", adts_with(second + 2, 0x3C, 4 << 2)),
       "the ADTS header at byte " + std::to_string(second) + " changes the sample rate"},
      {a + input("layout_change.aac", adts_with(second + 3, 0xC0, 0x40)), "changes the sample rate, channels"},
      {a + input("profile_change.aac", adts_with(second + 2, 0xC0, 0)), "changes the sample rate, channels or prof"},
      {a + input("blocks.aac", adts_with(6, 0, 1)), "at byte 0 holds several raw data blocks"},  // 2 in frame 1
      {a + shell_quote(dir + "30.aac"), "44100 Hz 3 channels, ", true},
      {a + shell_quote(dir + "51.aac"), "44100 Hz 5.1, ", true},
      {v + " --fps 0", "--fps takes a rate such as 25, 29.97 or 30000/1001, not '0'"},
      {v + " --fps 1001/0", "--fps takes"},
      {v + " --fps 1001/1", "--fps takes"},  // 1000 frames a second at most
      {v + " --fps 1000.5", "--fps takes"},
      {v + " --timescale 20", "time scale 20 is too coarse"},
      {v + " --fps 25 --timescale 24", "time scale 24 is too coarse"},
      {v + " --fps 25 --timescale 24 --fragment 1", "time scale 24 is too coarse"},
      {a + shell_quote(src.audio) + " --timescale 46", "time scale 46 is too coarse"},  // 48000 / 1024
      {v + " --fps 1/100000 --timescale 90000", "too fine"},
      // 90 kHz would make that frame too long: milliseconds do.
      {"--video " + input("one.h264", one) + " --fps 1/100000", "1 frame at 0.000 fps; 100000.00 s", true},
      {v + " --timescale 0", "--timescale takes a whole number from 1 to 2147483647"},
      {v + " --timescale 2147483648", "--timescale takes a whole number from 1 to 2147483647"},
      {v + " --fragment 0", "--fragment takes a number of seconds above 0 and at most 86400"},
      {v + " --fragment 86400.5", "--fragment takes"},
      {v + " --fragment 1 --faststart", "do not go together"},
      {v + " --fsync", "--fsync needs --fragment"},
      {"--video - --audio -", "only one input"},
      {"--video - --fragment 1 < /dev/null", "is empty"},
      {"--video - < /dev/null", "'standard input' is empty"},
      {v + " --bogus", "unknown option"},
      {v + " --fps", "^boxlane mux: --fps needs a value"},
      {"", "give --video, --audio or both"},
      {v + " -o " + shell_quote(dir + "new/"), "names a directory, not a file"},
      {v + " -o " + shell_quote(dir + "."), "output '.*/.' is a directory"},
      {v + " -o " + shell_quote(dir + "no/dir/out.mp4"), "cannot write in '" + dir + "no/dir': "},
  };
  const std::string out = dir + "out.mp4";
  const mode_t umask_now = ::umask(0);
  ::umask(umask_now);
  for (const auto& f : runs) {
    SCOPED_TRACE(f.args);
    const MuxResult r = mux("-o " + shell_quote(out) + " " + f.args);  // a row's own -o comes later and wins
    EXPECT_EQ(r.status == 0, f.ok);
    EXPECT_TRUE(std::regex_search(r.output, std::regex(f.says))) << r.output;
    EXPECT_EQ(fs::exists(out), f.ok || f.kept);
    // The mode a new file gets, not the temporary file's own.
    if (f.ok) {
      EXPECT_EQ(fs::status(out).permissions(), fs::perms(0666 & ~umask_now));
    }
    fs::remove(out);
  }
  // On a terminal, a live input being copied shows each 16 MiB read.
  std::string shown;
  run("script -qec " + shell_quote("head -c 17M /dev/zero | " + shell_quote(tool_path()) + " mux --video - -o " +
                                   shell_quote(out)) + " /dev/null < /dev/null", &shown);
  EXPECT_NE(shown.find("\rboxlane mux: 16 MiB of input read"), std::string::npos) << shown;
  // A failing run leaves an existing target as it was, and no temporary file.
  write_file(out, {'o', 'l', 'd'});
  EXPECT_NE(mux("--audio " + shell_quote(dir + "lost.aac") + " -o " + shell_quote(out)).status, 0);
  EXPECT_EQ(read_file(out), (std::vector<uint8_t>{'o', 'l', 'd'}));
  for (const auto& entry : fs::directory_iterator(dir))
    EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
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
  } cases[] = {
      // Pictures that use two PPS ids by turns: the sample entry holds both.
      {file("turns.h264", handmade_h264(turns)), "", "", "7 frames at 25 fps;", {1, 4, 7}, 0},
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
      {file("eos.h265", eos), "", "", "that cannot be decoded", {1, 18, 35}, 0},
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
      if (c.decodes == kSame) expect_decodes_like(out, c.video, c.audio);
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
      const bool dropped = std::regex_search(r.output, said, std::regex("\\((\\d+) leading picture|skipped (\\d+)"));
      EXPECT_EQ(dropped ? std::stoul(said[1].matched ? said[1] : said[2]) : 0,
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
