// `boxlane remux` as a user runs it, on files FFmpeg makes, into fragments and back; FFmpeg and ffprobe judge
// the results. What works on numbers and bytes alone is checked against values written by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
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

// As hex, what FFmpeg and we both write outside the tables: each tkhd, volume to size; the mp4a, channels to rate;
// the head of the avcC.
std::vector<std::string> headers(const std::string& path) {
  std::vector<std::string> rows;
  const auto b = read_file(path);
  const std::string s(b.begin(), b.end());
  for (std::size_t at = s.find("tkhd"); at != std::string::npos; at = s.find("tkhd", at + 4))
    rows.push_back(hex(&b[at - 52 + be32(b, at - 4)], 48));
  if (const std::size_t at = s.find("mp4a", s.find("stsd")); at != std::string::npos)
    rows.push_back(hex(&b[at + 20], 12));
  if (const std::size_t at = s.find("avcC"); at != std::string::npos)  // version, profile, compatibility, level
    rows.push_back(hex(&b[at + 4], 4));
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
  run("ffprobe -v error -select_streams " + std::string(1, kind) + " -show_entries stream=codec_name,codec_tag_string,"
      "profile,level,width,height,pix_fmt,sample_rate,channels:stream_tags=language -of csv=p=0 " + shell_quote(path),
      &stream);
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

// 4 s of 160x120 video at 25 fps, with B-frames in all but one.
const Input kInputs[] = {
    {"h264_aac44_fragmented", "-c:v libx264 -preset veryfast -bf 3 -g 12 -c:a aac -ar 44100 -metadata:s:v language=deu "
     "-movflags frag_keyframe+empty_moov+default_base_moof",
     "video H.264 160x120, 100 frames; audio AAC 44100 Hz mono, 174 frames; 4.08 s, ", 3},
    // hev1 with the parameter sets in every key frame too: they may stay in the samples only under hev1.
    {"h265_aac48_faststart", "-c:v libx265 -x265-params log-level=none:keyint=12:bframes=2:repeat-headers=1 "
     "-tag:v hev1 -c:a aac -ar 48000 -ac 2 -metadata:s:a language=fra -movflags faststart",
     "video H.265 160x120, 100 frames; audio AAC 48000 Hz stereo, 189 frames; 4.02 s, ", 3, true,
     true},  // an audio frame at 2.88 s, on a cut: frame 135
    // Negative composition offsets (ctts version 1), which the output moves past 0; the moov last, its stco
    // turned into co64; a key frame exactly every second, so each is exactly a fragment's length on.
    {"h264_alone_co64", "-c:v libx264 -preset veryfast -bf 2 -g 25 -movflags negative_cts_offsets",
     "video H.264 160x120, 100 frames; 4.00 s, ", 4, false},
    // The last picture a key frame (one every 33), alone in the last fragment with its composition offset.
    {"h264_ending_on_a_key_frame", "-c:v libx264 -preset veryfast -bf 2 -g 33",
     "video H.264 160x120, 100 frames; 4.00 s, ", 4, false},
    // No B-frames: fragments without composition offsets; Constrained Baseline, its constraint flags in the avcC.
    {"h264_without_b_frames", "-c:v libx264 -preset veryfast -profile:v baseline -g 25", "video H.264 160x120, 100 frames; 4.00 s, ", 4,
     false},
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
    EXPECT_EQ(read_with_mp4box(dir + file).errors, std::vector<std::string>{});
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
  const Mp4BoxReport mp4box = read_with_mp4box(dir + "fragmented.mp4");
  EXPECT_EQ(mp4box.errors, std::vector<std::string>{});
  for (const auto& [track, offset] : mp4box.tfra)
    if (track == 1) indexed.push_back(offset);
  EXPECT_EQ(indexed, moofs);
  if (in.video && in.audio) {
    EXPECT_EQ(expect_audio_follows_the_cuts(dir + "fragmented.mp4") > 0, in.audio_frame_at_a_cut);
  }
}

INSTANTIATE_TEST_SUITE_P(FilesFromOtherMuxers, RemuxRoundTrip, ::testing::ValuesIn(kInputs),
                         [](const auto& info) { return std::string(info.param.name); });

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
      {"tkhd of size 4, short of its header",
       box("moov", box("trak", cat({Bytes().u32(4).str("tkhd").zeros(84), one}))), 99},
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
  // Audio's time scale first when both fit; an edit media time or a composition offset the audio's cannot hold exactly;
  // duration 0 is 1 tick.
  const auto v25 = track(true, 1000, 40, {0}), a8 = track(false, 8000, 1024, {0});
  const auto edit = track(true, 12800, 512, {0}, {{0, 102}}), a48 = track(false, 48000, 1024, {0});
  const auto offset = track(true, 12800, 512, {1022});
  const auto zero = track(false, 48000, 0, {0});
  EXPECT_EQ(tool::plan_timeline({&v25, &a8}, 1000).timescale, 8000u);
  EXPECT_EQ(tool::plan_timeline({&edit, &a48}, 1000).timescale, 192000u);
  EXPECT_EQ(tool::plan_timeline({&offset, &a48}, 1000).timescale, 192000u);
  // An empty edit (media time -1) holds no media time to convert.
  const auto empty = track(true, 12800, 512, {0}, {{40, -1}, {40, 0}});
  EXPECT_EQ(tool::plan_timeline({&empty, &a48}, 1000).timescale, 48000u);
  // Offsets at or below 0 (ctts version 1, the latest picture at 0) reorder the pictures as those above 0 do.
  for (const auto& offsets : {std::vector<int32_t>{0, -1024, -512}, {1024, 0, 512}, {0, 0, 0}}) {
    const auto t = track(true, 12800, 512, offsets);
    EXPECT_EQ(tool::plan_timeline({&t}, 1000).tracks[0].reordered, offsets[2] != 0) << offsets[2];
  }
  // A decode time near 2^63 (a damaged tfdt): the offset is the one the parser added, its sum wrapped.
  auto late = track(true, 1000, 40, {0});
  late.samples[0].decode = (uint64_t{1} << 63) - 10;
  late.samples[0].composition = static_cast<int64_t>(late.samples[0].decode + 20);
  EXPECT_EQ(tool::plan_timeline({&late}, 1000).tracks[0].offset(0), 20);
  const tool::TrackTimeline zero_plan = tool::plan_timeline({&zero}, 1000).tracks[0];
  EXPECT_EQ(zero_plan.duration(0) + 10 * zero_plan.zero_durations, 11u);
  // Prime time scales: their least common multiple is past 2^31.
  const auto v = track(true, 65521, 1, {0}), a = track(false, 65519, 1024, {0});
  EXPECT_THROW(tool::plan_timeline({&v, &a}, 1000), tool::ToolError);
  // The largest sample duration (2^31 - 1) and composition offset (2^30 - 1) the output takes, and one past.
  // An edit's media time below 2^62 ticks, and at it (a version 1 elst of a damaged file).
  for (const auto& [duration, offset, fits, edit] :
       {std::tuple{0x7FFFFFFFu, 0, true, int64_t{0}}, {0x80000000u, 0, false, 0}, {1u, 0x3FFFFFFF, true, 0},
        {1u, 0x40000000, false, 0}, {1u, -0x40000000, true, 0}, {1u, -0x40000001, false, 0},
        {1u, 0, true, (int64_t{1} << 62) - 1}, {1u, 0, false, int64_t{1} << 62}}) {
    const auto t = track(true, 1000, duration, {offset}, {{0, edit}});
    if (fits) EXPECT_NO_THROW(tool::plan_timeline({&t}, 1000)) << duration;
    else EXPECT_THROW(tool::plan_timeline({&t}, 1000), tool::ToolError) << duration << " " << offset;
  }
  // That bound is on the output's clock: 29.97 fps at 30000 with 44.1 kHz audio goes to 4410000, 147 ticks to one.
  const auto a44 = track(false, 44100, 1024, {0});
  for (const int64_t past : {0, 1}) {
    const auto t = track(true, 30000, 1001, {0}, {{0, ((int64_t{1} << 62) - 1) / 147 + past}});
    if (past) EXPECT_THROW(tool::plan_timeline({&t, &a44}, 1000), tool::ToolError);
    else EXPECT_NO_THROW(tool::plan_timeline({&t, &a44}, 1000));
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
      {"an empty edit, a gap", {1024, 2048, 512}, {{40, -1}, {120, 0}}, 0, false, {{1536, -1}, {512, 1024}}, 2048},
      {"an edit that ends before the first picture", {1024, 2048, 512}, {{40, 0}}, 0, false, {{1024, -1}, {0, 1024}}, 1024},
      {"a media time past the media's end", {0, 0, 0}, {{0, 5000}}, 0, false, {{0, 5000}}, 0},
      // 41 ms are 524.8 ticks.
      {"an empty edit to the nearest tick", {1024, 1536, 512}, {{41, -1}, {120, 1024}}, 0, false,
       {{525, -1}, {1536, 1024}}, 2061},
      {"two empty edits add up", {1024, 1536, 512}, {{40, -1}, {40, -1}, {120, 1024}}, 0, false,
       {{1024, -1}, {1536, 1024}}, 2560},
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
