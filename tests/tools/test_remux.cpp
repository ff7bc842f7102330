// `boxlane remux` as a user runs it, on files FFmpeg makes, into fragments and back; FFmpeg and ffprobe judge
// the results. What works on numbers and bytes alone is checked against values written by hand.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "fragment_checks.hpp"
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"
#include "tools/common/edit_list.hpp"
#include "tools/remux/edit_lists.hpp"
#include "tools/remux/timeline.hpp"

namespace boxlane::test {
namespace {

// `boxlane remux ARGS` in `dir`; what it prints on either stream goes to *out.
int remux(const std::string& args, const std::string& dir, std::string* out = nullptr) {
  return run("cd " + shell_quote(dir) + " && " + shell_quote(tool_path()) + " remux " + args + " 2>&1", out);
}

// As hex, what FFmpeg and we both write outside the tables: each tkhd, volume to size; the mp4a, channels to rate.
std::vector<std::string> headers(const std::string& path) {
  std::vector<std::string> rows;
  const auto b = read_file(path);
  const std::string s(b.begin(), b.end());
  for (std::size_t at = s.find("tkhd"); at != std::string::npos; at = s.find("tkhd", at + 4))
    rows.push_back(hex(&b[at - 52 + be32(b, at - 4)], 48));
  if (const std::size_t at = s.find("mp4a", s.find("stsd")); at != std::string::npos)
    rows.push_back(hex(&b[at + 20], 12));
  return rows;
}

// The mvhd's duration, then each tkhd's, in ms (version 0 boxes): the presentation, edit lists included; then
// each mdhd's, at its own time scale: the media, edits left out.
std::vector<long> durations(const std::string& path) {
  const auto b = read_file(path);
  const std::string s(b.begin(), b.end());
  const std::size_t mvhd = s.find("mvhd");
  const double scale = be32(b, mvhd + 16) / 1000.0;
  std::vector<long> ms{std::lround(be32(b, mvhd + 20) / scale)};
  for (std::size_t at = s.find("tkhd"); at != std::string::npos; at = s.find("tkhd", at + 4))
    ms.push_back(std::lround(be32(b, at + 24) / scale));
  for (std::size_t at = s.find("mdhd"); at != std::string::npos; at = s.find("mdhd", at + 4))
    ms.push_back(std::lround(be32(b, at + 20) * 1000.0 / be32(b, at + 16)));
  return ms;
}

// What ffprobe reads of a kind's stream and of its every packet in decode order, decode times from the first
// (a track whose offsets moved past 0 decodes as much earlier); then the headers.
std::vector<std::string> index_of(const std::string& path, char kind) {
  std::string stream;
  run("ffprobe -v error -select_streams " + std::string(1, kind) + " -show_entries stream=codec_name,profile,level,"
      "width,height,pix_fmt,sample_rate,channels:stream_tags=language -of csv=p=0 " + shell_quote(path), &stream);
  std::vector<std::string> rows{stream};
  const auto packets = probe_packets(path, kind);
  for (const ProbedPacket& p : packets) {
    char row[128];
    std::snprintf(row, sizeof row, "dts +%.6f pts %.6f size %lld%s", p.dts - packets.front().dts, p.pts,
                  static_cast<long long>(p.size), p.key ? " key" : "");
    rows.push_back(row);
  }
  for (const std::string& row : headers(path)) rows.push_back(row);
  return rows;
}

// A copy of `from` as `to` with one byte changed: `at` bytes into the first `box` after the stsd's start.
void patch(const std::string& from, const std::string& to, const char* box, std::size_t at, uint8_t value) {
  auto bytes = read_file(from);
  const std::string text(bytes.begin(), bytes.end());
  bytes.at(text.find(box, text.find("stsd")) + at) = value;
  write_file(to, bytes);
}

// Each audio frame goes into the fragment whose video it starts during: one that starts exactly at a cut
// opens the next. Times as stored, from 0 on both tracks. Returns how many audio frames start at a cut.
int expect_audio_follows_the_cuts(const std::string& file) {
  std::vector<uint64_t> moofs;
  for (const TopBox& box : boxes_of(file))
    if (box.type == "moof") moofs.push_back(box.offset);
  const auto fragment_of = [&](int64_t pos) {
    return std::upper_bound(moofs.begin(), moofs.end(), uint64_t(pos)) - moofs.begin();
  };
  std::vector<double> cuts;  // where each fragment after the first starts
  for (const ProbedPacket& v : probe_packets(file, 'v', true))
    if (fragment_of(v.pos) > long(cuts.size()) + 1) cuts.push_back(v.dts);
  EXPECT_GE(cuts.size(), 2u);
  int exact = 0;
  for (const ProbedPacket& a : probe_packets(file, 'a', true)) {
    const long after = std::count_if(cuts.begin(), cuts.end(), [&](double cut) { return a.dts >= cut - 1e-7; });
    exact += std::count_if(cuts.begin(), cuts.end(), [&](double cut) { return std::abs(a.dts - cut) < 1e-7; });
    EXPECT_EQ(fragment_of(a.pos), after + 1) << "the audio frame at " << a.dts;
  }
  return exact;
}

struct Input {
  const char* name;
  const char* ffmpeg;  // arguments after the lavfi sources
  const char* summary;  // what the fragmenting run says, up to the file size
  int fragments;
  bool audio = true;
  bool audio_frame_at_a_cut = false;  // the check of where audio goes bites at an exact cut only
  bool video = true;
};

// 4 s of 160x120 video at 25 fps with B-frames.
const Input kInputs[] = {
    {"h264_aac44_fragmented", "-c:v libx264 -preset veryfast -bf 3 -g 12 -c:a aac -ar 44100 -metadata:s:v language=deu "
     "-movflags frag_keyframe+empty_moov+default_base_moof",
     "video H.264 160x120, 100 frames; audio AAC 44100 Hz mono, 174 frames; 4.08 s, ", 3},
    {"h265_aac48_faststart", "-c:v libx265 -x265-params log-level=none:keyint=12:bframes=2 -tag:v hvc1 -c:a aac "
     "-ar 48000 -ac 2 -metadata:s:a language=fra -movflags faststart",
     "video H.265 160x120, 100 frames; audio AAC 48000 Hz stereo, 189 frames; 4.02 s, ", 3, true,
     true},  // an audio frame at 2.88 s, on a cut: frame 135
    // Negative composition offsets (ctts version 1), which the output moves past 0; the moov last, its stco
    // turned into co64; a key frame exactly every second, so each is exactly a fragment's length on.
    {"h264_alone_co64", "-c:v libx264 -preset veryfast -bf 2 -g 25 -movflags negative_cts_offsets",
     "video H.264 160x120, 100 frames; 4.00 s, ", 4, false},
    // Audio alone is cut every --fragment seconds; its mp4a entry made to say 1 channel of 24-bit samples.
    {"aac_alone", "-vn -c:a aac", "audio AAC 44100 Hz mono, 174 frames; 4.02 s, ", 4, true, false, false},
};

class RemuxRoundTrip : public ::testing::TestWithParam<Input> {};

TEST_P(RemuxRoundTrip, DecodesLikeTheInputBothWays) {
  BOXLANE_REQUIRE_FFMPEG();
  const Input& in = GetParam();
  const std::string dir = temp_dir() + "/", source = dir + "source.mp4";
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=25:duration=4 " +
                   std::string(in.audio ? "-f lavfi -i sine=frequency=440:duration=4 " : "") + "-pix_fmt yuv420p " +
                   in.ffmpeg + " " + shell_quote(source)), 0);
  if (!in.audio) write_file(source, with_co64(read_file(source)));
  if (!in.video) patch(source, source, "mp4a", 21, 1), patch(source, source, "mp4a", 23, 24);
  const std::string kinds = std::string(in.video ? "v" : "") + (in.audio ? "a" : "");

  std::string out;
  ASSERT_EQ(remux("source.mp4 --fragment 1 -o fragmented.mp4", dir, &out), 0) << out;
  EXPECT_NE(out.find("fragmented.mp4: " + std::string(in.summary)), std::string::npos) << out;
  EXPECT_NE(out.find(" in " + std::to_string(in.fragments) + " fragments, written in "), std::string::npos) << out;
  char length[32];  // mehd: the movie's length, known before the fragments are written
  std::snprintf(length, sizeof length, "; %.2f s, ", mehd_seconds(dir + "fragmented.mp4"));
  EXPECT_NE(std::string(in.summary).find(length), std::string::npos) << length;
  ASSERT_EQ(remux("fragmented.mp4 -o back.mp4", dir), 0);
  ASSERT_EQ(remux("source.mp4 --faststart -q -o fast.mp4", dir, &out), 0) << out;
  EXPECT_EQ(out, "") << "--quiet";

  // In one progressive file FFmpeg decodes the input's pictures and audio frames, and ffprobe reads the same
  // samples, times and parameters; on a tie in decode time the video's sample comes first.
  for (const std::string file : {"back.mp4", "fast.mp4"}) {
    SCOPED_TRACE(file);
    for (const char kind : kinds) {
      const auto want = decoded_md5s(source, kind);
      ASSERT_FALSE(want.empty());
      EXPECT_EQ(decoded_md5s(dir + file, kind), want) << kind;
      EXPECT_EQ(index_of(dir + file, kind), index_of(source, kind)) << kind;
    }
    if (durations(source)[0]) {  // an empty_moov's are 0
      EXPECT_EQ(durations(dir + file), durations(source));
    }
    const auto boxes = boxes_of(dir + file);
    ASSERT_EQ(boxes.size(), 3u);
    EXPECT_EQ(boxes[1].type, file == "fast.mp4" ? "moov" : "mdat");
    if (kinds == "va") {
      EXPECT_LT(probe_packets(dir + file, 'v').front().pos, probe_packets(dir + file, 'a').front().pos);
    }
  }
  // The fragments: the same pictures, in fragments of at least a second (1.00004 s round to 12801 ticks of 1/12800)
  // that open on sync samples; audio alone in fragments of a second (the summary counts them).
  expect_fragment_layout(dir + "fragmented.mp4", in.video ? 1 : 0);
  EXPECT_EQ(headers(dir + "fragmented.mp4"), headers(source));
  if (in.video) {
    EXPECT_EQ(decoded_md5s(dir + "fragmented.mp4", 'v'), decoded_md5s(source, 'v'));
  }
  if (!in.audio) {
    ASSERT_EQ(remux("source.mp4 --fragment 1.00004 -o longer.mp4", dir), 0);
    expect_fragment_layout(dir + "longer.mp4", 1.00004);
  }
  if (!in.video) {  // 10 us, below half a tick of 1/44100 s: a frame a fragment
    ASSERT_EQ(remux("source.mp4 --fragment 0.00001 -o tiny.mp4", dir, &out), 0) << out;
    EXPECT_NE(out.find(" in 174 fragments, "), std::string::npos) << out;
  }
  // mp4box.js: the mfra points at every moof, as each opens on a sync sample of track 1.
  std::vector<uint64_t> moofs, indexed;
  for (const TopBox& box : boxes_of(dir + "fragmented.mp4"))
    if (box.type == "moof") moofs.push_back(box.offset);
  for (const auto& [track, offset] : read_with_mp4box(dir + "fragmented.mp4").tfra)
    if (track == 1) indexed.push_back(offset);
  EXPECT_EQ(indexed, moofs);
  if (in.video && in.audio) {
    EXPECT_EQ(expect_audio_follows_the_cuts(dir + "fragmented.mp4") > 0, in.audio_frame_at_a_cut);
  }
}

INSTANTIATE_TEST_SUITE_P(FilesFromOtherMuxers, RemuxRoundTrip, ::testing::ValuesIn(kInputs),
                         [](const auto& info) { return std::string(info.param.name); });

// Files the writer cannot take whole, inputs that are not what they claim, an output that is the input and
// bad options: each is named in a clear message, the target stays as it was and no temporary file is left.
TEST(Remux, RefusesWhatItCannotWriteAndLeavesTheTargetAlone) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  write_file(dir + "subtitles.srt", unhex("310A30303A30303A30302C303030202D2D3E2030303A30303A30312C3030300A68690A"));
  const std::string sources = "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -f lavfi -i sine=duration=2 ";
  // H.264 with MPEG-1 layer 2 audio (mp4a, object type 0x6B) and subtitles (tx3g); H.264 with two AAC tracks, whose
  // first gets object type 0x65 to 0x69 (MPEG-2 AAC: 0x66 to 0x68) or no AudioSpecificConfig, whose video gets no
  // samples, an avc3 entry, or an avcC declaring 2-byte NAL unit lengths or holding its PPS twice.
  ASSERT_EQ(ffmpeg("-v error " + sources + "-i " + shell_quote(dir + "subtitles.srt") +
                   " -map 0 -map 1 -map 2 -c:v libx264 -c:a mp2 -c:s mov_text " + shell_quote(dir + "others.mp4")), 0);
  ASSERT_EQ(ffmpeg("-v error " + sources + "-f lavfi -i sine=duration=2 -map 0 -map 1 -map 2 -c:v libx264 -c:a aac " +
                   shell_quote(dir + "two_audio.mp4")), 0);
  // Two video tracks; MPEG-1 layer 2 audio alone; AAC at 96 kHz alone (its mp4a entry says 0 Hz); 0.1 s of AAC
  // under 0.2 s of video.
  ASSERT_EQ(ffmpeg("-v error " + sources + "-map 0 -map 0 -map 1 -c:v libx264 -c:a mp2 -t 0.2 " +
                   shell_quote(dir + "two_video.mp4") + " -map 1 -c:a mp2 -t 0.2 " + shell_quote(dir + "mp2.mp4") +
                   " -map 0 -map 1 -c:v libx264 -c:a aac -af atrim=end=0.1 -t 0.2 " +
                   shell_quote(dir + "short_audio.mp4") +
                   " -map 1 -c:a aac -ar 96000 -t 0.2 " + shell_quote(dir + "aac_96k.mp4")), 0);
  // H.265 whose hvcC is made to declare 2-byte NAL unit lengths or no arrays; its fragments, a trun's data in its moof.
  ASSERT_EQ(ffmpeg("-v error " + sources + "-c:v libx265 -x265-params log-level=none -tag:v hvc1 -c:a aac " +
                   shell_quote(dir + "h265.mp4")), 0);
  for (const auto& [name, at, value] : {std::tuple{"hvcc_nal_2.mp4", 25, 0x0D}, {"hvcc_empty.mp4", 26, 0}})
    patch(dir + "h265.mp4", dir + name, "hvcC", at, uint8_t(value));
  patch(dir + "h265.mp4", dir + "hev1.mp4", "hvc1", 1, 'e');  // the sample entry named hev1
  patch(dir + "two_audio.mp4", dir + "no_hdlr.mp4", "hdlr", 0, 'x');  // the first audio track's hdlr unknown
  patch(dir + "hev1.mp4", dir + "hev1.mp4", "hec1", 2, 'v');
  ASSERT_EQ(remux("-q h265.mp4 --fragment 1 -o fragments.mp4", dir), 0);
  patch(dir + "fragments.mp4", dir + "bad_fragments.mp4", "trun", 14, 0);
  const auto whole = read_file(dir + "two_audio.mp4");
  const std::string text(whole.begin(), whole.end());  // to find boxes in
  for (const auto& [name, box, at, value] :
       {std::tuple{"aac_65.mp4", "esds", 21, 0x65}, {"aac_66.mp4", "esds", 21, 0x66}, {"aac_68.mp4", "esds", 21, 0x68},
        {"aac_69.mp4", "esds", 21, 0x69}, {"nal_2.mp4", "avcC", 8, 0xFD}, {"avc3.mp4", "avc1", 3, '3'},
        {"no_config.mp4", "esds", 34, 6}, {"no_samples.mp4", "stts", 11, 0}})
    patch(dir + "two_audio.mp4", dir + name, box, at, uint8_t(value));
  auto no_samples = read_file(dir + "no_samples.mp4");  // and its track id 2^31 + 1
  set_be32(no_samples, std::string(no_samples.begin(), no_samples.end()).find("tkhd") + 16, 0x80000001);
  write_file(dir + "no_samples.mp4", no_samples);
  auto no_scale = whole;  // the video's mdhd with time scale 0
  set_be32(no_scale, text.find("mdhd") + 16, 0);
  write_file(dir + "no_scale.mp4", no_scale);
  // The mp4a entry's rate field at its highest, 65535 Hz, which the writer's 16-bit field still holds.
  patch(dir + "two_audio.mp4", dir + "rate_65535.mp4", "mp4a", 28, 0xFF);
  patch(dir + "rate_65535.mp4", dir + "rate_65535.mp4", "mp4a", 29, 0xFF);
  const std::size_t avcc = text.find("avcC") + 4;
  const std::size_t pps = avcc + 9 + (be32(whole, avcc + 4) & 0xFFFF), pps_end = pps + 2 + (be32(whole, pps) >> 16);
  const std::vector<std::string> to_avcc = {"moov", "trak", "mdia", "minf", "stbl", "stsd", "avc1", "avcC"};
  auto two_pps = whole;
  two_pps[pps - 1] = 2;
  write_file(dir + "two_pps.mp4",
             inserted(two_pps, to_avcc, pps_end, {whole.begin() + long(pps), whole.begin() + long(pps_end)}));
  // Its SPS padded so that SPS and PPS take 1016 bytes, the most the writer's description holds, or 1017.
  for (const std::size_t total : {1016, 1017}) {
    auto big = whole;
    const std::size_t sps = be32(whole, avcc + 4) & 0xFFFF, pad = total - sps - (pps_end - pps - 2);
    big[avcc + 6] = uint8_t((sps + pad) >> 8), big[avcc + 7] = uint8_t(sps + pad);
    write_file(dir + "sps_" + std::to_string(total) + ".mp4",
               inserted(big, to_avcc, avcc + 8 + sps, Bytes().zeros(pad)));
  }
  write_file(dir + "empty.mp4", {});
  write_file(dir + "truncated.mp4", std::vector<uint8_t>(whole.begin(), whole.begin() + whole.size() / 2));
  // A box of size 4 after the moov; a movie without a moov; the first chunk of track 1 at 2^31 - 2^24.
  write_file(dir + "size_four.mp4", cat({whole, Bytes().u32(4).str("free").zeros(4)}));
  write_file(dir + "ftyp_only.mp4", box("ftyp", unhex("69736F6D 00000200")));
  auto far = whole;
  set_be32(far, text.find("stco") + 12, 0x7F000000);
  write_file(dir + "far_sample.mp4", far);
  // A video sample whose first NAL unit claims one byte more than it holds, or leaves 3 bytes, too few for the next
  // one's length: found after the output was opened.
  const PacketRow fourth = packets_by_track(dir + "two_audio.mp4").at(1).at(3);
  for (const auto& [name, cut] : {std::pair{"broken.mp4", 3}, {"tail_3.mp4", 7}}) {
    auto broken = whole;
    set_be32(broken, std::size_t(fourth.pos), uint32_t(fourth.size - cut));
    write_file(dir + name, broken);
  }
  // The first audio sample made 2 bytes, FF F1: an ADTS header, not a raw frame.
  const PacketRow first_audio = packets_by_track(dir + "two_audio.mp4").at(2).at(0);
  auto adts = whole;
  set_be32(adts, text.find("stsz", text.find("stsz") + 4) + 16, 2);  // track 2's first size
  adts[std::size_t(first_audio.pos)] = 0xFF, adts[std::size_t(first_audio.pos) + 1] = 0xF1;
  write_file(dir + "adts_2.mp4", adts);
  ASSERT_EQ(::link((dir + "two_audio.mp4").c_str(), (dir + "hard_link.mp4").c_str()), 0);
  ASSERT_EQ(::symlink("two_audio.mp4", (dir + "soft_link.mp4").c_str()), 0);

  const struct {
    std::string args;
    int status;
    std::string message;  // in what it prints
  } cases[] = {
      {"others.mp4 -o out.mp4", 1,
       "boxlane remux: track 2 (soun, 'mp4a') cannot be written: its mp4a entry holds object type 0x6B, not AAC "
       "(--skip-unsupported leaves it out)\n"},
      {"aac_65.mp4 -o out.mp4", 1, "track 2 (soun, 'mp4a') cannot be written: its mp4a entry holds object type 0x65"},
      {"aac_66.mp4 -o out.mp4", 1, "track 3 (soun, AAC) cannot be written: a second audio track"},
      {"aac_68.mp4 -o out.mp4", 1, "track 3 (soun, AAC) cannot be written: a second audio track"},
      {"rate_65535.mp4 -o out.mp4", 1, "track 3 (soun, AAC) cannot be written: a second audio track"},
      {"avc3.mp4 -o out.mp4", 1, "track 1 (vide, H.264) cannot be written: its avcC holds 0 SPS and 0 PPS"},
      {"two_pps.mp4 -o out.mp4", 1, "track 1 (vide, H.264) cannot be written: its avcC holds 1 SPS and 2 PPS"},
      {"sps_1016.mp4 -o out.mp4", 1, "track 3 (soun, AAC) cannot be written: a second audio track"},
      {"sps_1017.mp4 -o out.mp4", 1, "track 1 (vide, H.264) cannot be written: its SPS and PPS exceed the 1016 bytes"},
      {"two_video.mp4 -o out.mp4", 1,
       "track 2 (vide, H.264) cannot be written: a second video track; the writer takes one video and one audio"},
      {"mp2.mp4 --skip-unsupported -o out.mp4", 1, "'mp2.mp4' has no track to write"},
      {"no_hdlr.mp4 -o out.mp4", 1, "track 2 (?, 'mp4a') cannot be written: the writer describes H.264, H.265 and AAC"},
      {"no_scale.mp4 -o out.mp4", 1, "track 1 (vide, H.264) cannot be written: its mdhd has no time scale"},
      {"aac_69.mp4 -o out.mp4", 1, "track 2 (soun, 'mp4a') cannot be written: its mp4a entry holds object type 0x69"},
      {"nal_2.mp4 -o out.mp4", 1, "track 1 (vide, H.264) cannot be written: its samples have 2-byte NAL unit lengths"},
      {"no_config.mp4 -o out.mp4", 1, "track 2 (soun, AAC) cannot be written: its esds has no AudioSpecificConfig"},
      {"hvcc_nal_2.mp4 -o out.mp4", 1, "track 1 (vide, H.265) cannot be written: its samples have 2-byte NAL unit "
       "lengths; the writer's hvcC declares 4"},
      {"hvcc_empty.mp4 -o out.mp4", 1, "(vide, H.265) cannot be written: its hvcC holds no parameter sets the writer"},
      {"bad_fragments.mp4 -o out.mp4", 1, "the track fragments of track 1 are damaged (problems 0x02)"},
      {"size_four.mp4 -o out.mp4", 1, "the parser stopped at the box at byte " + std::to_string(whole.size()) +
       " (0x091B0007 BOXLANE_ERROR_PARSE_MALFORMED (box size field of 2 to 7)); remux writes only what it has read"},
      {"ftyp_only.mp4 -o out.mp4", 1, "ftyp_only.mp4: no movie header (moov/mvhd): not an MP4 file"},
      {"far_sample.mp4 -o out.mp4", 1, "a sample of track 1 at offset 2130706432 lies past the end of the input (" +
       std::to_string(whole.size()) + " bytes): truncated?"},
      {"two_audio.mp4 -o two_audio.mp4", 1, "'two_audio.mp4' is the input file 'two_audio.mp4'"},
      {"two_audio.mp4 -o hard_link.mp4", 1, "is the input file"},
      {"two_audio.mp4 -o soft_link.mp4", 1, "is the input file"},
      {"truncated.mp4 -o out.mp4", 1, "truncated"}, {"missing.mp4 -o out.mp4", 1, "cannot open 'missing.mp4'"},
      {"empty.mp4 -o out.mp4", 1, "'empty.mp4' is empty"}, {". -o out.mp4", 1, "'.' is not a regular file"},
      {"broken.mp4 --skip-unsupported -o out.mp4", 1, "holds a NAL unit longer than the sample"},
      {"tail_3.mp4 --skip-unsupported -o out.mp4", 1, "a video sample at offset " + std::to_string(fourth.pos) + " (" +
       std::to_string(fourth.size) + " bytes) ends inside a NAL unit length"},
      {"adts_2.mp4 --skip-unsupported -o out.mp4", 1, "an audio sample at offset " + std::to_string(first_audio.pos) +
       " (2 bytes) starts with an ADTS header"},
      {"two_audio.mp4 -o out.mp4 --fragment 1 --faststart", 2, "exclude each other"},
      {"two_audio.mp4 -o out.mp4 --fragment 0", 2, "--fragment needs a length in seconds"},
      {"two_audio.mp4 -o out.mp4 --fragment 3600.001", 2, "above 0 and at most 3600"},
      {"two_audio.mp4 -o out.mp4 --fragment 3600", 1, "a second audio track"},
      {"two_audio.mp4", 2, "no output file given"}, {"two_audio.mp4 -o", 2, "-o needs a file name"},
      {"two_audio.mp4 -o out.mp4 --fragment 1s", 2, "--fragment needs a length in seconds"},
      {"two_audio.mp4 others.mp4 -o out.mp4", 2, "one input only"},
      {"two_audio.mp4 -o out.mp4 --bogus", 2, "unknown option --bogus"},
      {"two_audio.mp4 -o out.mp4 --help", 0, "usage: boxlane remux IN.mp4 -o OUT.mp4"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    write_file(dir + "out.mp4", unhex("6F6C64"));  // "old"
    std::string out;
    EXPECT_EQ(remux("-q " + c.args, dir, &out), c.status);
    EXPECT_NE(out.find(c.message), std::string::npos) << out;
    EXPECT_EQ(out.find("left out"), std::string::npos) << "-q: " << out;
    EXPECT_EQ(read_file(dir + "out.mp4"), unhex("6F6C64"));
    EXPECT_EQ(read_file(dir + "two_audio.mp4"), whole);
    EXPECT_EQ(run("ls -a " + shell_quote(dir) + " | grep -q '^\\.[^.]'"), 1) << "a temporary file is left";
  }
  // --skip-unsupported leaves those tracks out with a notice each, and the rest decodes as before.
  std::string out, streams;
  ASSERT_EQ(remux("others.mp4 --skip-unsupported -o out.mp4", dir, &out), 0) << out;
  EXPECT_NE(out.find("track 3 (sbtl, 'tx3g') cannot be written"), std::string::npos) << out;
  run("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 " + shell_quote(dir + "out.mp4"), &streams);
  EXPECT_EQ(streams, "h264\n");
  EXPECT_EQ(decoded_md5s(dir + "out.mp4", 'v'), decoded_md5s(dir + "others.mp4", 'v'));
  // The audio's edit made 3 s long, the video's 2; video samples whose stts gives them no duration; audio whose
  // AudioSpecificConfig gives channel configuration 6 (5.1).
  auto longer = whole, no_duration = whole;
  set_be32(longer, text.find("elst", text.find("elst") + 4) + 12, 3000);
  write_file(dir + "longer.mp4", longer);
  set_be32(no_duration, text.find("stts") + 16, 0);
  no_duration.at(text.find("\x12\x08", text.find("esds")) + 1) = 0x30;
  write_file(dir + "no_duration.mp4", no_duration);
  const std::pair<const char*, const char*> notices[] = {
      // So is a track without samples (its stts made empty).
      {"no_samples.mp4", "boxlane remux: no_samples.mp4: track 2147483649 has no samples; left out\n"},
      {"longer.mp4", "; 3.00 s, "},  // the movie lasts as long as its longer track
      // The samples without a duration last a tick each, and are named; 5.1 is named multichannel.
      {"no_duration.mp4", "track 1: 50 samples without a duration last one tick of 44100\n(.|\n)*"
                          "; audio AAC 44100 Hz multichannel, "},
      // An hev1 entry is H.265 too; the summary gives the rate the AudioSpecificConfig gives.
      {"hev1.mp4", "out.mp4: video H.265 "},
      {"short_audio.mp4 --fragment 1", "5 frames; audio AAC 44100 Hz mono, 6 frames; 0.20 s"},  // the longer: video
      {"aac_96k.mp4 --faststart", "out.mp4: audio AAC 96000 Hz mono, 20 frames; 0.20 s, [0-9]+ bytes \\(faststart\\), "},
  };
  for (const auto& [args, says] : notices) {
    ASSERT_EQ(remux(std::string(args) + " --skip-unsupported -o out.mp4", dir, &out), 0) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex(says))) << out;
    ASSERT_EQ(remux(std::string(args) + " --skip-unsupported -q -o out.mp4", dir, &out), 0) << out;
    EXPECT_EQ(out, "") << args << " -q";
  }
}

using tool::EditEntry;

Bytes tkhd(uint8_t version, uint32_t id) {
  return full_box("tkhd", version, 3, Bytes().zeros(version == 1 ? 16 : 8).u32(id).zeros(version == 1 ? 80 : 72));
}

// Track 1: elst version 0 with an empty edit and a media edit; track 7: version 1 with 64-bit fields, tkhd
// version 1; track 3: no edts. Then lists cut short, and boxes past their parents.
TEST(RemuxEditLists, ReadFromTheMoovOfEachTrackAsFarAsTheyAreWhole) {
  const auto elst = [](uint8_t v, const char* hex) { return box("edts", full_box("elst", v, 0, unhex(hex))); };
  // The mdat with a 64-bit size (ISO/IEC 14496-12 §4.2): its header is 16 bytes.
  const Bytes file = cat({box("ftyp", unhex("69736F6D 00000200")), Bytes().u32(1).str("mdat").u64(20).u32(0x00112233),
                          box("moov", cat({box("trak", cat({tkhd(0, 1), elst(0, "00000002 00000050 FFFFFFFF 00010000 "
                                                                                 "00000FA0 00000400 00010000")})),
                                           box("trak", tkhd(0, 3)),
                                           box("trak", cat({elst(1, "00000001 0000000100000000 0000000000000800 00020000"),
                                                            tkhd(1, 7)}))}))});
  using Lists = std::map<uint32_t, std::vector<EditEntry>>;
  const Lists want{{1, {{80, -1, 1, 0}, {4000, 1024, 1, 0}}}, {7, {{uint64_t{1} << 32, 2048, 2, 0}}}};
  const auto lists = tool::read_edit_lists(file.data(), file.size());
  EXPECT_EQ(Lists(lists.begin(), lists.end()), want);

  const Bytes one = elst(0, "00000001 00000FA0 00000400 00010000");
  const struct {
    const char* what;
    Bytes file;
    std::size_t entries;  // of track 1; 99: no list
  } cases[] = {
      {"count past the box",
       box("moov", box("trak", cat({tkhd(0, 1), elst(0, "000003E8 00000FA0 00000400 00010000")}))), 1},
      {"half an entry", box("moov", box("trak", cat({tkhd(0, 1), elst(0, "00000001 00000FA0 0000")}))), 0},
      {"version 1, count past the box", box("moov", box("trak", cat({tkhd(0, 1), elst(1, "00000002 00000000000000A0 "
                                                                        "0000000000000400 00010000 0000000000000000 00000000")}))),
       1},
      {"moov of size 0: to the end", box("moov", box("trak", cat({tkhd(0, 1), one})), 0), 1},
      {"tkhd cut before the id", box("moov", box("trak", cat({full_box("tkhd", 0, 3, Bytes().zeros(10)), one}))), 99},
      {"trak past the moov", box("moov", box("trak", cat({tkhd(0, 1), one}), 4000)), 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto lists = tool::read_edit_lists(c.file.data(), c.file.size());
    EXPECT_EQ(lists.count(1) ? lists.at(1).size() : 99, c.entries);
  }
}

// The edit list boxes the commands write: version 1 once a field needs 64 bits.
TEST(RemuxEditLists, EditBoxBytes) {
  tool::WriterClient client("test");
  const struct {
    std::vector<EditEntry> entries;
    const char* hex;
  } cases[] = {
      {{{4000, 1024}}, "00000024 65647473 0000001C 656C7374 00000000 00000001 00000FA0 00000400 00010000"},
      {{{80, -1}, {4000, 1024}},
       "00000030 65647473 00000028 656C7374 00000000 00000002 00000050 FFFFFFFF 00010000 00000FA0 00000400 00010000"},
      // The largest duration and media time a version 0 entry holds.
      {{{0xFFFFFFFF, -1}, {80, 0x7FFFFFFF}},
       "00000030 65647473 00000028 656C7374 00000000 00000002 FFFFFFFF FFFFFFFF 00010000 00000050 7FFFFFFF 00010000"},
      {{{80, -1}, {0, int64_t{1} << 31}},
       "00000040 65647473 00000038 656C7374 01000000 00000002 0000000000000050 FFFFFFFFFFFFFFFF 00010000"
       " 0000000000000000 0000000080000000 00010000"},
  };
  for (const auto& c : cases) EXPECT_EQ(hex(tool::edit_box(client.name(), c.entries)), hex(unhex(c.hex)));
}

tool::SourceTrack track(bool video, uint32_t timescale, uint32_t duration, std::vector<int32_t> offsets,
                        std::vector<EditEntry> edits = {}) {
  tool::SourceTrack t;
  t.codec = video ? tool::SourceCodec::kH264 : tool::SourceCodec::kAac;
  t.timescale = timescale;
  for (uint64_t i = 0; i < offsets.size(); ++i)
    t.samples.push_back({i * duration, static_cast<int64_t>(i * duration) + offsets[i], 0, duration, 100, true});
  t.edits = std::move(edits);
  return t;
}

TEST(RemuxTimeline, OneTimeScaleToWhichEveryTimeConvertsExactly) {
  const struct {
    const char* what;
    uint32_t video_scale, video_duration, audio_scale, audio_duration;
    uint32_t want;
  } cases[] = {
      {"25 fps at 12800 goes to 48 kHz audio", 12800, 512, 48000, 1024, 48000},
      {"29.97 fps does not: the video's, which the audio fits", 30000, 1001, 48000, 1024, 30000},
      {"29.97 fps and 44.1 kHz: their least common multiple", 30000, 1001, 44100, 1024, 4410000},
      {"neither fits the other", 90000, 3003, 44100, 1024, 4410000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t d = static_cast<int32_t>(c.video_duration);
    const auto v = track(true, c.video_scale, c.video_duration, {2 * d, 0, d, d, 0}, {{0, 2 * d}});
    const auto a = track(false, c.audio_scale, c.audio_duration, {0, 0, 0});
    const tool::Timeline t = tool::plan_timeline({&v, &a}, 1000);
    EXPECT_EQ(t.timescale, c.want);
    ASSERT_EQ(t.tracks.size(), 2u);
    EXPECT_EQ(t.tracks[0].duration(0) * uint64_t{c.video_scale}, uint64_t{c.video_duration} * c.want);
    EXPECT_EQ(t.tracks[0].media_duration * uint64_t{c.video_scale}, 5 * uint64_t{c.video_duration} * c.want);
    EXPECT_EQ(t.tracks[1].media_duration * uint64_t{c.audio_scale}, 3 * uint64_t{c.audio_duration} * c.want);
    EXPECT_EQ(t.tracks[0].offset(0) * int64_t{c.video_scale}, 2 * int64_t{c.video_duration} * c.want);
    EXPECT_EQ(t.tracks[0].edit_media_time * int64_t{c.video_scale}, 2 * int64_t{c.video_duration} * c.want);
  }
  // Audio's time scale first when both fit; an edit media time the audio's cannot hold exactly; duration 0 is 1 tick.
  const auto v25 = track(true, 1000, 40, {0}), a8 = track(false, 8000, 1024, {0});
  const auto edit = track(true, 12800, 512, {0}, {{0, 102}}), a48 = track(false, 48000, 1024, {0});
  const auto zero = track(false, 48000, 0, {0});
  EXPECT_EQ(tool::plan_timeline({&v25, &a8}, 1000).timescale, 8000u);
  EXPECT_EQ(tool::plan_timeline({&edit, &a48}, 1000).timescale, 192000u);
  const tool::TrackTimeline zero_plan = tool::plan_timeline({&zero}, 1000).tracks[0];
  EXPECT_EQ(zero_plan.duration(0) + 10 * zero_plan.zero_durations, 11u);
  // Prime time scales: their least common multiple is past 2^31.
  const auto v = track(true, 65521, 1, {0}), a = track(false, 65519, 1024, {0});
  EXPECT_THROW(tool::plan_timeline({&v, &a}, 1000), tool::ToolError);
  // The largest sample duration (2^31 - 1) and composition offset (2^30 - 1) the output takes, and one past.
  for (const auto& [duration, offset, fits] :
       {std::tuple{0x7FFFFFFFu, 0, true}, {0x80000000u, 0, false}, {1u, 0x3FFFFFFF, true}, {1u, 0x40000000, false}}) {
    const auto t = track(true, 1000, duration, {offset});
    if (fits) EXPECT_NO_THROW(tool::plan_timeline({&t}, 1000)) << duration;
    else EXPECT_THROW(tool::plan_timeline({&t}, 1000), tool::ToolError) << duration << " " << offset;
  }
  // A list that shows more than one edit, or one not at the normal rate, is noted: only the first is kept.
  const std::string kept = "; the empty edits and the first that shows media, at the normal rate, are kept";
  for (const auto& [edits, notice] : {std::pair{std::vector<EditEntry>{{40, -1}, {40, 0}}, std::string()},
                                      {{{40, 0}, {40, 0}}, "its edit list has 2 entries" + kept},
                                      {{{40, 0, 2}}, "its edit list has 1 entry" + kept},
                                      {{{40, 0, 1, 0x4000}}, "its edit list has 1 entry" + kept}}) {
    const auto t = track(true, 1000, 40, {0}, edits);
    EXPECT_EQ(tool::plan_timeline({&t}, 1000).tracks[0].edit_notice, notice);
  }
}

// 25 fps at 12800 ticks alone, offsets of 0 to 2 frames; movie at 1000.
TEST(RemuxTimeline, EditListsForTheOutput) {
  const struct {
    const char* what;
    std::vector<int32_t> offsets;
    std::vector<EditEntry> input;
    int64_t shift;
    bool to_end;
    std::vector<EditEntry> want;
    uint64_t presentation;
    bool video = true;
  } cases[] = {
      {"none needed", {0, 0, 0}, {}, 0, false, {}, 1536},
      {"the input's media edit", {1024, 1536, 512}, {{120, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"its duration 0 runs to the end", {1024, 1536, 512}, {{0, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"a shift is taken back out", {512, 0, 1024}, {{120, 512}}, 512, false, {{1536, 1024}}, 1536},
      // No edit list: the first picture is presented at its composition time, 512, after a gap.
      {"without an edit too", {512, 0, 1024}, {}, 512, false, {{512, -1}, {2048, 1024}}, 2560},
      {"a gap before the first picture", {1024, 2048, 512}, {{120, 0}}, 0, false, {{1024, -1}, {512, 1024}}, 1536},
      // 41 ms are 524.8 ticks.
      {"an empty edit to the nearest tick", {1024, 1536, 512}, {{41, -1}, {120, 1024}}, 0, false,
       {{525, -1}, {1536, 1024}}, 2061},
      {"fragments: duration 0", {1024, 1536, 512}, {{120, 1024}}, 0, true, {{0, 1024}}, 1536},
      // Audio's samples are presented from the edit's media time on, without a gap before the first.
      {"audio: no gap", {1024, 2048, 512}, {{120, 0}}, 0, false, {{1536, 0}}, 1536, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto v = track(c.video, 12800, 512, c.offsets, c.input);
    const tool::Timeline t = tool::plan_timeline({&v}, 1000);
    ASSERT_EQ(t.timescale, 12800u);
    const tool::EditPlan plan = tool::plan_edits(t.tracks[0], c.shift, c.to_end);
    EXPECT_EQ(plan.entries, c.want);
    EXPECT_EQ(plan.presentation, c.presentation);
  }
}

}  // namespace
}  // namespace boxlane::test
