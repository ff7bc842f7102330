// `boxlane mux` run as a user runs it, on streams FFmpeg makes at test time.
// Every file it writes must decode in FFmpeg without a message, to the same
// frames as the source elementary streams, with presentation times that
// step at the frame rate; every broken input must fail with a message and
// leave no file behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/handmade_h264.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

struct Source {
  std::string video, audio;
};

// A second of 160x120 video and stereo AAC from FFmpeg's test sources, at
// `prefix`.h264 and `prefix`.aac.
Source make_source(const std::string& prefix, const std::string& rate, int bframes, const std::string& x264,
                   int sample_rate) {
  const Source s{prefix + ".h264", prefix + ".aac"};
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=" + rate + ":duration=1 -map 0:v -c:v libx264 "
                   "-preset veryfast -pix_fmt yuv420p -bf " + std::to_string(bframes) +
                       (x264.empty() ? "" : " -x264-params " + x264) + " -f h264 " + shell_quote(s.video) +
                       " -f lavfi -i sine=frequency=330:sample_rate=" + std::to_string(sample_rate) +
                       ":duration=1 -map 1:a -c:a aac -ac 2 -f adts " + shell_quote(s.audio), &log), 0) << log;
  return s;
}

using Result = MuxResult;

TEST(Mux, WrittenFilesDecodeLikeTheirSources) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Source sources[] = {
      make_source(dir + "p30", "30", 0, "", 44100),
      make_source(dir + "slices", "30000/1001", 2, "slices=4", 44100),
      make_source(dir + "aud", "25", 3, "aud=1:b-pyramid=normal", 48000),  // AUDs and SEI, B-pyramid
      {source_dir() + "/tests/data/sample.h264", source_dir() + "/tests/data/sample.aac"},  // committed demo
  };
  const struct {
    int source;
    bool video, audio;
    const char* options;
    double fps;        // what presentation times must step at
    double tolerance;  // seconds
    std::vector<std::string> says;
  } runs[] = {
      {0, true, true, "", 30, 2e-4, {"frames"}},
      {1, true, true, "--faststart", 30000.0 / 1001, 2e-4, {"frames"}},
      {2, true, true, "--faststart", 25, 2e-4, {"frames"}},
      {3, true, true, "--faststart", 25, 2e-4, {"320x240", "125 frames at 25 fps with B-frames", "48000 Hz stereo", "5.03 s"}},
      {1, true, false, "-q", 30000.0 / 1001, 2e-4, {}},
      {1, false, true, "--faststart -q", 0, 0, {}},
      // --fps wins over the stream's timing; a time scale that divides
      // neither duration still gives frame times that do not drift.
      {1, true, true, "--fps 50 -q", 50, 2e-4, {}},
      {1, true, true, "--timescale 1000 -q", 30000.0 / 1001, 1e-3 + 1e-9, {}},
  };
  for (const auto& m : runs) {
    const Source src{m.video ? sources[m.source].video : "", m.audio ? sources[m.source].audio : ""};
    SCOPED_TRACE(src.video + " " + src.audio + " " + m.options);
    const std::string out = dir + "out.mp4";
    const Result r = mux((m.video ? "--video " + shell_quote(src.video) : "") +
                         (m.audio ? " --audio " + shell_quote(src.audio) : "") + " " + m.options + " -o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    if (m.says.empty()) {
      EXPECT_EQ(r.output, "");
    }
    for (const auto& says : m.says) EXPECT_NE(r.output.find(says), std::string::npos) << says << " in " << r.output;
    expect_decodes_like(out, src.video, src.audio);

    std::string layout;
    for (const auto& box : top_boxes(read_file(out))) layout += box.type + " ";
    EXPECT_EQ(layout, std::string(m.options).find("--faststart") != std::string::npos ? "ftyp moov mdat " : "ftyp mdat moov ");
    // Video and audio both start at 0; video frames in display order step at the frame rate.
    if (m.audio) {
      const auto audio = probe_packets(out, 'a');
      ASSERT_FALSE(audio.empty());
      EXPECT_NEAR(audio.front().pts, 0.0, 1e-6);
    }
    if (!m.video) continue;
    std::vector<double> times;
    for (const auto& packet : probe_packets(out, 'v')) times.push_back(packet.pts);
    std::sort(times.begin(), times.end());
    ASSERT_EQ(times.size(), decoded_md5s(src.video, 'v').size());
    for (std::size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(times[i], i / m.fps, m.tolerance) << "frame " << i;
  }
}

TEST(Mux, BrokenInputFailsAndLeavesNoFile) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Source src = make_source(dir + "in", "25", 2, "", 48000);
  const auto video = read_file(src.video);
  const auto audio = read_file(src.audio);

  auto without_sps = video;  // every SPS NAL header byte turned into a filler NAL
  for (std::size_t i = 0; i + 4 < without_sps.size(); ++i)
    if (without_sps[i] == 0 && without_sps[i + 1] == 0 && without_sps[i + 2] == 1 && (without_sps[i + 3] & 0x1F) == 7)
      without_sps[i + 3] = 0x0C;
  std::vector<uint8_t> garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t(i * 7 + 1);
  auto lost = audio;
  const std::size_t second_frame = ((lost[3] & 3u) << 11) | (lost[4] << 3) | (lost[5] >> 5);
  lost[second_frame] = 0x12;  // the second frame's sync word
  // A second stream of another size appended: the SPS changes.
  ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.2 -c:v libx264 -f h264 " +
                   shell_quote(dir + "other.h264")), 0);
  const auto input = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    write_file(dir + name, bytes);
    return shell_quote(dir + name);
  };
  // The first ADTS header with another sampling_frequency_index or channel_configuration.
  const auto adts_with = [&](int index, int channels) {
    auto bytes = audio;
    if (index >= 0) bytes[2] = static_cast<uint8_t>((bytes[2] & 0xC3) | index << 2);
    if (channels >= 0) {
      bytes[2] = static_cast<uint8_t>((bytes[2] & 0xFE) | channels >> 2);
      bytes[3] = static_cast<uint8_t>((bytes[3] & 0x3F) | (channels & 3) << 6);
    }
    return bytes;
  };
  using P = HandmadePicture;

  const std::string out = dir + "out.mp4";
  const struct {
    std::string args;
    std::string says;
  } failures[] = {
      {"--video " + input("nosps.h264", without_sps), "no sequence parameter set"},
      {"--video " + input("cut.h264", {video.begin(), video.begin() + 20}), "cut short"},
      {"--video " + input("empty.h264", {}), "is empty"},
      {"--video " + input("garbage.h264", garbage), "neither an H.264 nor an H.265"},
      {"--video " + shell_quote(dir + "missing.h264"), "cannot open"},
      {"--video " + input("changing.h264", cat({video, read_file(dir + "other.h264")})),
       "sequence parameter set changes at byte " + std::to_string(video.size() + 4)},
      {"--audio " + input("lost.aac", lost), "ADTS sync lost at byte " + std::to_string(second_frame)},
      {"--audio " + input("cut.aac", {audio.begin(), audio.end() - 10}), "cut short"},
      {"--audio " + input("garbage.aac", garbage), "not an AAC ADTS stream"},
      {"--audio " + input("explicit_rate.aac", adts_with(15, -1)), "at byte 0 gives sampling_frequency_index 15, an explicit"},
      {"--audio " + input("reserved_rate.aac", adts_with(13, -1)), "the reserved sampling_frequency_index 13"},
      {"--audio " + input("no_pce.aac", adts_with(-1, 0)), "does not start with the program_config_element"},
      {"--video " + input("no_idr.h264", handmade_h264({{P::kSkipped}, {P::kSkipped}, {P::kIntra}})),
       "no IDR picture or recovery point found, so none of its 3 pictures can be decoded"},
      {"--video " + shell_quote(src.video) + " --audio " + shell_quote(dir + "lost.aac"), "sync lost"},
      {"--video " + shell_quote(src.video) + " --fps 0", "--fps"},
      {"--video " + shell_quote(src.video) + " --timescale 20", "too coarse"},
      {"--video " + shell_quote(src.video) + " --fps 1/100000 --timescale 90000", "too fine"},
      {"--video " + shell_quote(src.video) + " --bogus", "unknown option"},
      {"", "give --video, --audio or both"},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.args);
    const Result r = mux(f.args + " -o " + shell_quote(out));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find(f.says), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(out));
  }

  // A failing run leaves an existing target as it was, and no temporary file.
  write_file(out, {'o', 'l', 'd'});
  EXPECT_NE(mux("--audio " + shell_quote(dir + "lost.aac") + " -o " + shell_quote(out)).status, 0);
  EXPECT_EQ(read_file(out), (std::vector<uint8_t>{'o', 'l', 'd'}));
  const Result unwritable = mux("--audio " + shell_quote(src.audio) + " -o " + shell_quote(dir + "no/such/dir/out.mp4"));
  EXPECT_NE(unwritable.output.find("cannot write"), std::string::npos);
  for (const auto& entry : fs::directory_iterator(dir))
    EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
}

// Three seconds on a clock of 1.92 GHz pass 2^32 ticks: the movie, track and
// media headers and the edit list take their 64-bit form, and FFmpeg reads
// the same durations and times from them as from a file on a 48 kHz clock.
TEST(Mux, DurationsPastTwoToThe32TicksGetVersionOneHeaders) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Source src{dir + "in.h264", dir + "in.aac"};
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=30:duration=3 -map 0:v -c:v libx264 -preset veryfast "
                   "-pix_fmt yuv420p -bf 2 -f h264 " + shell_quote(src.video) +
                   " -f lavfi -i sine=frequency=330:sample_rate=48000:duration=3 -map 1:a -c:a aac -ac 2 -f adts " +
                   shell_quote(src.audio)), 0);
  const auto durations = [](const std::string& file) {
    std::string text;
    run("ffprobe -v error -show_entries format=duration:stream=duration,start_time -of csv=p=0 " + shell_quote(file), &text);
    return text;
  };
  const std::string inputs = "--video " + shell_quote(src.video) + " --audio " + shell_quote(src.audio) + " -q ";
  ASSERT_EQ(mux(inputs + "-o " + shell_quote(dir + "short.mp4")).status, 0);
  const std::string expected = durations(dir + "short.mp4");
  EXPECT_NE(expected.find("3.000000"), std::string::npos) << expected;  // the video track

  for (const std::string options : {"", "--faststart "}) {
    SCOPED_TRACE(options);
    const std::string out = dir + "long.mp4";
    ASSERT_EQ(mux(inputs + options + "--timescale 1920000000 -o " + shell_quote(out)).status, 0);
    expect_decodes_like(out, src.video, src.audio);
    EXPECT_EQ(durations(out), expected);
    const auto packets = probe_packets(out, 'v');
    ASSERT_EQ(packets.size(), 90u);
    EXPECT_NEAR(packets.back().dts, 89 / 30.0 - 2 / 30.0, 1e-9);  // decoding starts two frames early

    const auto file = read_file(out);
    const auto boxes = top_boxes(file);
    const auto moov = std::find_if(boxes.begin(), boxes.end(), [](const TopBox& b) { return b.type == "moov"; });
    ASSERT_NE(moov, boxes.end());
    const std::string header(file.begin() + moov->offset, file.begin() + moov->offset + moov->size);
    for (const char* type : {"mvhd", "tkhd", "mdhd", "elst"}) {
      std::size_t found = 0;
      for (std::size_t at = header.find(type); at != std::string::npos; at = header.find(type, at + 4)) {
        EXPECT_EQ(header[at + 4], 1) << type << " at " << at << " is not version 1";
        ++found;
      }
      EXPECT_EQ(found, std::string(type) == "mvhd" || std::string(type) == "elst" ? 1u : 2u) << type;
    }
  }
}

// Lossless pictures of noise, over a megabyte each, between small AAC
// frames: samples larger than the output's write block land whole and in
// place.
TEST(Mux, SamplesLargerThanTheWriteBlock) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const Source src{dir + "big.h264", dir + "big.aac"};
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=1280x720:rate=25:duration=0.4,noise=alls=40:allf=t+u -map 0:v "
                   "-c:v libx264 -preset ultrafast -qp 0 -g 5 -bf 0 -f h264 " + shell_quote(src.video) +
                   " -f lavfi -i sine=sample_rate=48000:duration=0.4 -map 1:a -c:a aac -f adts " + shell_quote(src.audio)),
            0);
  for (const std::string options : {"", "--faststart "}) {
    SCOPED_TRACE(options);
    const std::string out = dir + "big.mp4";
    ASSERT_EQ(mux("--video " + shell_quote(src.video) + " --audio " + shell_quote(src.audio) + " -q " + options + "-o " +
                  shell_quote(out)).status, 0);
    expect_decodes_like(out, src.video, src.audio);
    const auto packets = probe_packets(out, 'v');
    ASSERT_EQ(packets.size(), 10u);
    for (const auto& packet : packets) EXPECT_GT(packet.size, 1 << 20);
  }
}

TEST(Mux, FieldPairsBecomeOneSampleEach) {
  BOXLANE_REQUIRE_FFMPEG();
  // Made by hand (no encoder here codes separate fields): a 32x32 Main SPS
  // with frame_mbs_only_flag 0 and 25 fps timing, a PPS, then eight field
  // slices in decoding order, each a header and three filler bytes:
  // IDR top + P bottom (frame_num 0, POC 0/1), P top + P bottom (frame_num 1,
  // POC 12/13), two non-reference B pairs (POC 4/5 and 8/9).
  const std::string dir = temp_dir();
  write_file(dir + "/fields.h264",
             unhex("00000001674d001ee5294a1000000300100000030328400000000168ce3c8000000001658885002088804000000001"
                   "419a18088088804000000001419a30608088804000000001419a38688088804000000001019e5024408880400000"
                   "0001019e582c4088804000000001019e50444088804000000001019e584c40888040"));
  ASSERT_EQ(mux("--video " + shell_quote(dir + "/fields.h264") + " -q -o " + shell_quote(dir + "/out.mp4")).status, 0);
  std::string packets;
  run("ffprobe -v quiet -show_entries packet=pts_time,size,flags -of csv=p=0 " + shell_quote(dir + "/out.mp4"), &packets);
  EXPECT_EQ(packets,
            "0.000000,24,K_\n"
            "0.120000,24,__\n"
            "0.040000,24,__\n"
            "0.080000,24,__\n");
}

// What a written file says, read from its bytes: the entries of its stss
// and the samplerate field of its mp4a entry (ISO/IEC 14496-12 §8.6.2,
// §12.2.3). The small files here hold each fourcc once.
std::vector<uint32_t> sync_samples(const std::vector<uint8_t>& file) {
  const std::string text(file.begin(), file.end());
  const std::size_t at = text.find("stss");
  std::vector<uint32_t> numbers;
  if (at == std::string::npos) return numbers;
  const auto u32 = [&](std::size_t i) {
    return uint32_t{file.at(i)} << 24 | uint32_t{file.at(i + 1)} << 16 | uint32_t{file.at(i + 2)} << 8 | file.at(i + 3);
  };
  for (uint32_t i = 0, n = u32(at + 8); i < n; ++i) numbers.push_back(u32(at + 12 + 4 * i));
  return numbers;
}

std::string samplerate_field(const std::vector<uint8_t>& file) {
  const std::string text(file.begin(), file.end());
  const std::size_t at = text.find("mp4a");
  return at == std::string::npos ? "" : hex(file.data() + at + 28, 4);
}

// Frames FFmpeg decodes with A/53 captions attached.
int caption_frames(const std::string& file) {
  std::string frames;
  run("ffprobe -v error -select_streams v -show_frames -show_entries frame_side_data=side_data_type -of csv=p=0 " +
          shell_quote(file),
      &frames);
  int count = 0;
  for (std::size_t at = 0; (at = frames.find("A53", at)) != std::string::npos; ++at) ++count;
  return count;
}

// The elementary stream from its `packet`-th access unit on (from 0), where
// FFmpeg's own parser puts the unit's start: a recording that began there.
std::vector<uint8_t> cut_at(const std::string& stream, int packet) {
  std::string positions;
  run("ffprobe -v error -show_entries packet=pos -of csv=p=0 " + shell_quote(stream), &positions);
  std::istringstream rows(positions);
  std::string row;
  for (int i = 0; i <= packet; ++i) std::getline(rows, row);
  const auto bytes = read_file(stream);
  return {bytes.begin() + std::stol(row), bytes.end()};
}

// 5.1 AAC whose frames give channel_configuration 0 and lay the channels out
// in a program_config_element at the start of each raw_data_block, as
// broadcast encoders write it, made from FFmpeg's 5.1 ADTS stream.
std::vector<uint8_t> with_pce(const std::vector<uint8_t>& adts) {
  // ISO/IEC 14496-3 Table 4.2 for 48 kHz (index 3): ID_PCE, tag 0, object
  // type LC, front: SCE 0 and CPE 0, back: CPE 1, LFE 0; byte aligned, no
  // comment. 64 bits.
  const auto pce = unhex("A0 99 00 A0 00 21 10 00");
  std::vector<uint8_t> out;
  for (std::size_t at = 0; at + 7 <= adts.size();) {
    const std::size_t length = ((adts[at + 3] & 3u) << 11) | (adts[at + 4] << 3) | (adts[at + 5] >> 5);
    const std::size_t header = (adts[at + 1] & 1) ? 7 : 9, grown = length + pce.size();
    std::vector<uint8_t> head(adts.begin() + at, adts.begin() + at + header);
    head[2] &= 0xFE;  // channel_configuration 0: its top bit,
    head[3] = static_cast<uint8_t>((head[3] & 0x3C) | (grown >> 11));  // its low two bits, frame_length
    head[4] = static_cast<uint8_t>(grown >> 3);
    head[5] = static_cast<uint8_t>((head[5] & 0x1F) | (grown << 5));
    out.insert(out.end(), head.begin(), head.end());
    out.insert(out.end(), pce.begin(), pce.end());
    out.insert(out.end(), adts.begin() + at + header, adts.begin() + at + length);
    at += length;
  }
  return out;
}

// ffprobe's view of each stream of a file: key=value, tags as TAG:key.
std::vector<std::map<std::string, std::string>> ffprobe_streams(const std::string& file) {
  std::string text;
  run("ffprobe -v error -show_entries stream=codec_type,time_base,avg_frame_rate,sample_rate,channels,duration_ts,"
      "nb_frames:stream_tags=language -of default=nw=1 " + shell_quote(file), &text);
  std::vector<std::map<std::string, std::string>> streams;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    if (line.rfind("codec_type=", 0) == 0) streams.emplace_back();
    if (!streams.empty()) streams.back()[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return streams;
}

// Every option and every value mux works out, as ffprobe reads them: the
// time base each track gets, frame rates given as 25, 29.97 or 30000/1001
// or taken from the stream, durations, the language, and the channel count
// of 7.1 AAC in the sample entry.
TEST(Mux, OptionsAndDerivedValuesAsFfprobeReadsThem) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  std::string log;
  // Half a second of video whose VUI says 30000/1001, and AAC at 44.1 kHz stereo and 48 kHz 7.1.
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=64x48:rate=30000/1001:duration=0.5 -c:v libx264 -preset "
                   "ultrafast -bf 2 -f h264 " + shell_quote(dir + "v.h264") +
                   " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.5 -map 1:a -c:a aac -ac 2 -f adts " +
                   shell_quote(dir + "a44.aac") + " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.5 "
                   "-map 2:a -c:a aac -ac 8 -f adts " + shell_quote(dir + "a71.aac"), &log), 0) << log;
  const std::string v = " --video " + shell_quote(dir + "v.h264"), a44 = " --audio " + shell_quote(dir + "a44.aac"),
                    a71 = " --audio " + shell_quote(dir + "a71.aac");
  const struct {
    std::string args;
    std::string video;  // time_base avg_frame_rate duration_ts nb_frames
    std::string audio;  // time_base sample_rate channels duration_ts nb_frames
  } runs[] = {
      {v, "1/90000 30000/1001 45045 15", ""},                       // the VUI's rate; 90 kHz alone
      {v + " --fps 25", "1/90000 25/1 54000 15", ""},
      {v + " --fps 29.97", "1/90000 30000/1001 45045 15", ""},
      {v + " --fps 24000/1001", "1/360000 24000/1001 225225 15", ""},  // lcm(90000, 24000)
      {v + " --fps 25 --timescale 25", "1/25 25/1 15 15", ""},      // one tick a frame: the coarsest allowed
      {v + " --fps 50 --timescale 1000", "1/1000 50/1 300 15", ""},
      // 33.3667 ms a frame on a millisecond clock: 15 frames end at 500.5, rounded down.
      {v + " --fps 30000/1001 --timescale 1000", "1/1000 30/1 500 15", ""},
      // lcm(44100, 30000): 147147 ticks a frame, 102400 an AAC frame.
      {v + a44, "1/4410000 30000/1001 2207205 15", "1/4410000 44100 2 2355200 23"},
      {a44, "", "1/44100 44100 2 23552 23"},
      {a71 + " --timescale 1000", "", "1/1000 48000 8 533 25"},  // 25 x 1024 / 48, rounded down
  };
  for (const auto& r : runs) {
    SCOPED_TRACE(r.args);
    const std::string out = dir + "out.mp4";
    const Result m = mux(r.args + " -q -o " + shell_quote(out));
    ASSERT_EQ(m.status, 0) << m.output;
    for (const auto& stream : ffprobe_streams(out)) {
      const bool video = stream.at("codec_type") == "video";
      EXPECT_EQ(stream.at("TAG:language"), "und");
      EXPECT_EQ(video ? stream.at("time_base") + " " + stream.at("avg_frame_rate") + " " + stream.at("duration_ts") +
                            " " + stream.at("nb_frames")
                      : stream.at("time_base") + " " + stream.at("sample_rate") + " " + stream.at("channels") + " " +
                            stream.at("duration_ts") + " " + stream.at("nb_frames"),
                video ? r.video : r.audio);
    }
    // The sample entry's own channel count: 8 for configuration 7.
    if (r.args.find("a71") != std::string::npos) {
      EXPECT_NE(hex(read_file(out)).find("6D 70 34 61 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00 08"), std::string::npos);
    }
  }
  // Time scales that cannot time a frame, and bad rates, are refused.
  for (const std::string& bad : {v + " --fps 25 --timescale 24", v + " --timescale 0", v + " --fps 0", v + " --fps 1001/0",
                                 v + " --fps abc", a44 + " --timescale 43"}) {
    const Result m = mux(bad + " -o " + shell_quote(dir + "bad.mp4"));
    EXPECT_NE(m.status, 0) << bad;
    EXPECT_FALSE(fs::exists(dir + "bad.mp4")) << bad;
  }
}

// Streams in the shapes other encoders and broadcast gear write. Each is
// muxed, and the file must decode in FFmpeg without a message to exactly
// the frames FFmpeg decodes from the elementary streams themselves (which
// shows nothing before the first point decoding can start either).
TEST(Mux, StreamsFromOtherEncoders) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  using P = HandmadePicture;
  const auto file = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    write_file(dir + name, bytes);
    return dir + name;
  };
  std::string log;
  for (const char* shape : {"intra-refresh=1:keyint=25 -bf 0", "open-gop=1:keyint=20 -bf 3"}) {
    ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -c:v libx264 -preset veryfast "
                     "-x264-params " + std::string(shape) + " -f h264 " +
                         shell_quote(dir + (shape[0] == 'i' ? "refresh.h264" : "open.h264")), &log), 0) << log;
  }
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i sine=frequency=440:sample_rate=96000:duration=1 -c:a aac -f adts " +
                   shell_quote(dir + "96k.aac"), &log), 0) << log;
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i sine=frequency=440:sample_rate=48000:duration=1 -af "
                   "'pan=5.1|c0=c0|c1=0.5*c0|c2=0.3*c0|c3=0.2*c0|c4=0.1*c0|c5=0.7*c0' -c:a aac -f adts " +
                   shell_quote(dir + "51.aac"), &log), 0) << log;

  const std::vector<P> turns = {{P::kIdr, 0, 0x40}, {P::kSkipped, 1}, {P::kSkipped, 0},
                                {P::kIdr, 1, 0xC0}, {P::kSkipped, 0}, {P::kSkipped, 1}};
  const std::vector<P> mid_gop = {{P::kSkipped, 0}, {P::kSkipped, 1}, {P::kIdr, 0, 0x50},
                                  {P::kSkipped, 1}, {P::kIntra, 0, 0x90}, {P::kSkipped, 0}};
  const std::vector<P> recovery = {{P::kSkipped, 0}, {P::kIntra, 0, 0x60, true}, {P::kSkipped, 1},
                                   {P::kIntra, 1, 0xA0, true}, {P::kSkipped, 0}};
  std::vector<P> captioned = turns;
  for (P& p : captioned) p.captions = true;
  const struct {
    std::string video, audio, options;
    std::vector<std::string> says;
    std::vector<uint32_t> sync;  // the stss entries
    int captions;                // frames with A/53 captions
    bool decodes_like_source = true;
  } cases[] = {
      // Pictures that use two PPS ids by turns: the sample entry holds both.
      {file("turns.h264", handmade_h264(turns)), "", "", {"6 frames"}, {1, 4}, 0},
      // A recording cut in the middle of a GOP starts at its first IDR picture.
      {file("mid_gop.h264", handmade_h264(mid_gop)), "", "",
       {"4 frames at 25 fps (2 leading pictures that cannot be decoded dropped)"}, {1}, 0},
      {dir + "mid_gop.h264", "", "--keep-leading", {"6 frames at 25 fps;"}, {3}, 0, false},
      // ... or at a recovery point SEI, which then is a sync sample.
      {file("recovery.h264", handmade_h264(recovery)), "", "", {"4 frames", "(1 leading picture that"}, {1}, 0},
      // Before the first parameter sets nothing can be kept.
      {file("no_sets_first.h264", cat({handmade_h264({{P::kSkipped}, {P::kSkipped}, {P::kSkipped}}, false),
                                       handmade_h264(turns)})),
       "", "--keep-leading", {"6 frames at 25 fps (3 leading pictures"}, {1, 4}, 0},
      // Caption SEI stays in its picture's sample, unless stripped.
      {file("captions.h264", handmade_h264(captioned)), "", "", {"6 frames"}, {1, 4}, 6},
      {dir + "captions.h264", "", "--strip-sei", {"6 frames"}, {1, 4}, 0},
      // x264 with intra refresh (recovery points, one IDR) and with open GOPs,
      // each cut after its first IDR picture.
      {file("refresh_cut.h264", cut_at(dir + "refresh.h264", 7)), "", "", {"leading pictures that cannot be decoded dropped"}, {1}, 0},
      {file("open_cut.h264", cut_at(dir + "open.h264", 7)), "", "", {"with B-frames (13 leading pictures"}, {1}, 0},
      // 96 kHz AAC: the 16-bit samplerate field is 0; 5.1 laid out by a PCE.
      {"", dir + "96k.aac", "", {"96000 Hz mono"}, {}, 0},
      {"", file("pce.aac", with_pce(read_file(dir + "51.aac"))), "", {"48000 Hz 6 channels (program_config_element)"}, {}, 0},
  };
  // The fragmented layout reads the streams with the same options and
  // says the same of them.
  for (const auto& c : cases)
  for (const std::string layout : {"", "--fragment 1 "}) {
    SCOPED_TRACE(c.video + c.audio + " " + layout + c.options);
    const std::string out = dir + "out.mp4";
    const Result r = mux((c.video.empty() ? "" : "--video " + shell_quote(c.video)) +
                         (c.audio.empty() ? "" : " --audio " + shell_quote(c.audio)) + " --fps 25 " + layout +
                         c.options + " -o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    for (const auto& says : c.says) EXPECT_NE(r.output.find(says), std::string::npos) << says << " in " << r.output;
    if (c.decodes_like_source) expect_decodes_like(out, c.video, c.audio);
    const auto bytes = read_file(out);
    if (layout.empty()) {
      EXPECT_EQ(sync_samples(bytes), c.sync);
    } else if (!c.video.empty() && have_mp4box()) {
      // From the fragments' sample flags, as mp4box.js reads them (FFmpeg's
      // key flags there come from its own look at the slices).
      std::vector<uint32_t> keys;
      uint32_t number = 0;
      for (const Mp4BoxSample& sample : read_with_mp4box(out).samples) {
        ++number;
        if (sample.sync) keys.push_back(number);
      }
      EXPECT_EQ(keys, c.sync);
    }
    if (!c.video.empty()) {
      EXPECT_EQ(caption_frames(out), c.captions);
    }
    if (c.audio.empty()) continue;
    std::string stream;
    run("ffprobe -v error -show_entries stream=sample_rate,channels -of csv=p=0 " + shell_quote(out), &stream);
    EXPECT_EQ(stream, c.audio.find("96k") != std::string::npos ? "96000,1\n" : "48000,6\n");
    EXPECT_EQ(samplerate_field(bytes), c.audio.find("96k") != std::string::npos ? "00 00 00 00" : "BB 80 00 00");
  }
}

}  // namespace
}  // namespace boxlane::test
