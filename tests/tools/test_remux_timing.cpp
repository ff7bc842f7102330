// The parts of `boxlane remux` that work on numbers and bytes alone: the
// edit lists read from a moov written out by hand, the edit list box
// checked against bytes written out by hand, the movie time scale chosen
// for two tracks, and the edit lists planned for the output.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/box_builder.hpp"
#include "support/paths.hpp"
#include "tools/common/edit_list.hpp"
#include "tools/remux/edit_lists.hpp"
#include "tools/remux/timeline.hpp"

namespace boxlane::test {
namespace {

using tool::EditEntry;

std::vector<std::pair<uint32_t, std::vector<EditEntry>>> lists_of(const std::vector<uint8_t>& file) {
  const auto lists = tool::read_edit_lists(file.data(), file.size());
  return {lists.begin(), lists.end()};
}

Bytes tkhd(uint8_t version, uint32_t id) {
  Bytes p;
  p.zeros(version == 1 ? 16 : 8).u32(id).zeros(version == 1 ? 80 : 72);
  return full_box("tkhd", version, 3, p);
}

TEST(RemuxEditLists, ReadFromTheMoovOfEachTrack) {
  // Track 1: elst version 0 with an empty edit and a media edit; track 7:
  // version 1 with 64-bit fields, tkhd version 1; track 3: no edts.
  const Bytes elst0 = full_box("elst", 0, 0, unhex("00000002 00000050 FFFFFFFF 00010000 00000FA0 00000400 00010000"));
  const Bytes elst1 = full_box("elst", 1, 0,
                               unhex("00000001 0000000100000000 0000000000000800 00020000"));
  const Bytes file = cat({box("ftyp", unhex("69736F6D 00000200")), box("mdat", unhex("00112233")),
                          box("moov", cat({box("trak", cat({tkhd(0, 1), box("edts", elst0)})),
                                           box("trak", cat({tkhd(0, 3)})),
                                           box("trak", cat({box("edts", elst1), tkhd(1, 7)}))}))});
  const std::vector<std::pair<uint32_t, std::vector<EditEntry>>> want{
      {1, {{80, -1, 1, 0}, {4000, 1024, 1, 0}}},
      {7, {{uint64_t{1} << 32, 2048, 2, 0}}},
  };
  EXPECT_EQ(lists_of(file), want);
}

TEST(RemuxEditLists, MalformedBoxesYieldWhatIsWhole) {
  const auto elst = [](const char* hex) { return box("edts", full_box("elst", 0, 0, unhex(hex))); };
  const Bytes one = elst("00000001 00000FA0 00000400 00010000");
  Bytes cut = box("moov", box("trak", tkhd(0, 1)));
  cut.resize(cut.size() - 3);
  const struct {
    const char* what;
    Bytes file;
    std::size_t entries;  // of track 1; 99: no list
  } cases[] = {
      {"count past the box", box("moov", box("trak", cat({tkhd(0, 1), elst("000003E8 00000FA0 00000400 00010000")}))), 1},
      {"half an entry", box("moov", box("trak", cat({tkhd(0, 1), elst("00000001 00000FA0 0000")}))), 0},
      {"tkhd cut before the id", box("moov", box("trak", cat({full_box("tkhd", 0, 3, Bytes().zeros(10)), one}))), 99},
      {"trak past the moov", box("moov", box("trak", cat({tkhd(0, 1), one}), 4000)), 99},
      {"moov cut short", cut, 99},
      {"size below the header", box("moov", box("trak", {}, 4)), 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto lists = tool::read_edit_lists(c.file.data(), c.file.size());
    EXPECT_EQ(lists.count(1) ? lists.at(1).size() : 99, c.entries);
  }
}

// The edit list boxes the commands write: one entry through EDts64, two
// as an elst of those fields; version 1 once a field needs 64 bits.
TEST(RemuxEditLists, EditBoxBytes) {
  tool::WriterClient client("test");
  const struct {
    std::vector<EditEntry> entries;
    const char* hex;
  } cases[] = {
      {{{4000, 1024}}, "00000024 65647473 0000001C 656C7374 00000000 00000001 00000FA0 00000400 00010000"},
      {{{80, -1}, {4000, 1024}},
       "00000030 65647473 00000028 656C7374 00000000 00000002 00000050 FFFFFFFF 00010000 00000FA0 00000400 00010000"},
      {{{80, -1}, {0, int64_t{1} << 31}},
       "00000040 65647473 00000038 656C7374 01000000 00000002 0000000000000050 FFFFFFFFFFFFFFFF 00010000"
       " 0000000000000000 0000000080000000 00010000"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(hex(tool::edit_box(client.name(), c.entries)), hex(unhex(c.hex)));
  }
}

tool::SourceTrack track(bool video, uint32_t timescale, uint32_t duration, std::vector<int32_t> offsets,
                        std::vector<EditEntry> edits = {}) {
  tool::SourceTrack t;
  t.codec = video ? tool::SourceCodec::kH264 : tool::SourceCodec::kAac;
  t.timescale = timescale;
  uint64_t decode = 0;
  for (const int32_t offset : offsets) {
    t.samples.push_back({decode, static_cast<int64_t>(decode) + offset, 0, duration, 100, true});
    decode += duration;
  }
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
      {"and to 44.1 kHz audio", 12800, 512, 44100, 1024, 44100},
      {"29.97 fps does not: the video's, which the audio fits", 30000, 1001, 48000, 1024, 30000},
      {"29.97 fps and 44.1 kHz: their least common multiple", 30000, 1001, 44100, 1024, 4410000},
      {"neither fits the other", 90000, 3003, 44100, 1024, 4410000},
      {"the same time scale", 48000, 1600, 48000, 1024, 48000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t d = static_cast<int32_t>(c.video_duration);
    const auto v = track(true, c.video_scale, c.video_duration, {2 * d, 0, d, d, 0});
    const auto a = track(false, c.audio_scale, c.audio_duration, {0, 0, 0});
    const tool::Timeline t = tool::plan_timeline({&v, &a}, 1000);
    EXPECT_EQ(t.timescale, c.want);
    ASSERT_EQ(t.tracks.size(), 2u);
    for (std::size_t k = 0; k < 2; ++k) {
      const tool::SourceTrack& src = k == 0 ? v : a;
      uint64_t sum = 0;
      for (std::size_t i = 0; i < src.samples.size(); ++i) {
        // Exact: the output duration is the input's at the new scale.
        EXPECT_EQ(uint64_t{t.tracks[k].duration(i)} * src.timescale, uint64_t{src.samples[i].duration} * c.want);
        sum += t.tracks[k].duration(i);
      }
      EXPECT_EQ(t.tracks[k].media_duration, sum);
    }
    EXPECT_EQ(t.tracks[0].offset(0) * int64_t{v.timescale}, 2 * int64_t{c.video_duration} * c.want);
  }
}

TEST(RemuxTimeline, TimeScalesWithoutACommonMultipleBelowTwoToThe31AreRefused) {
  const auto v = track(true, 65521, 1, {0});    // primes: the multiple is their product
  const auto a = track(false, 65519, 1024, {0});
  EXPECT_THROW(tool::plan_timeline({&v, &a}, 1000), tool::ToolError);
}

TEST(RemuxTimeline, EditListsForTheOutput) {
  // 25 fps at 12800 ticks alone, offsets of 0 to 2 frames; movie at 1000.
  const struct {
    const char* what;
    std::vector<int32_t> offsets;
    std::vector<EditEntry> input;
    int64_t shift;
    bool to_end;
    std::vector<EditEntry> want;
    uint64_t presentation;
  } cases[] = {
      {"none needed", {0, 0, 0}, {}, 0, false, {}, 1536},
      {"the input's media edit", {1024, 1536, 512}, {{120, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"its duration 0 runs to the end", {1024, 1536, 512}, {{0, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"a shift is taken back out", {512, 0, 1024}, {{120, 512}}, 512, false, {{1536, 1024}}, 1536},
      // No edit list: the first picture is presented at its composition
      // time, 512, after a gap.
      {"without an edit too", {512, 0, 1024}, {}, 512, false, {{512, -1}, {2048, 1024}}, 2560},
      {"a gap before the first picture", {1024, 2048, 512}, {{120, 0}}, 0, false, {{1024, -1}, {512, 1024}}, 1536},
      {"the input's empty edit stays", {1024, 1536, 512}, {{40, -1}, {120, 1024}}, 0, false,
       {{512, -1}, {1536, 1024}}, 2048},
      // 41 ms are 524.8 ticks.
      {"an empty edit to the nearest tick", {1024, 1536, 512}, {{41, -1}, {120, 1024}}, 0, false,
       {{525, -1}, {1536, 1024}}, 2061},
      {"fragments: duration 0", {1024, 1536, 512}, {{120, 1024}}, 0, true, {{0, 1024}}, 1536},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto v = track(true, 12800, 512, c.offsets, c.input);
    const tool::Timeline t = tool::plan_timeline({&v}, 1000);
    ASSERT_EQ(t.timescale, 12800u);
    const tool::EditPlan plan = tool::plan_edits(t.tracks[0], c.shift, c.to_end);
    ASSERT_EQ(plan.entries.size(), c.want.size());
    for (std::size_t i = 0; i < c.want.size(); ++i) {
      EXPECT_EQ(plan.entries[i].segment_duration, c.want[i].segment_duration) << i;
      EXPECT_EQ(plan.entries[i].media_time, c.want[i].media_time) << i;
    }
    EXPECT_EQ(plan.presentation, c.presentation);
  }
}

}  // namespace
}  // namespace boxlane::test
