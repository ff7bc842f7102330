// `boxlane probe` on what the extended parse client reads: fragmented files
// (every sample counted and listed, checked against ffprobe -show_packets),
// a 64-bit mdat after a complete moov, track ids beyond 9, stz2 and co64,
// boxes of size 0 (an endless /dev/zero included), and what --strict keeps
// of the specified client and says about the rest.
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

class ProbeFragments : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!have_ffmpeg()) return;
    dir_ = temp_dir() + "/";
    const std::string av = "-f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 "
                           "-t 2 -c:v libx264 -preset veryfast -pix_fmt yuv420p -bf 2 -x264-params b-adapt=0 -g 12 "
                           "-c:a aac -b:a 16k ";
    ready_ = ffmpeg(av + "-movflags frag_keyframe " + shell_quote(dir_ + "moov_and_fragments.mp4")) == 0 &&
             ffmpeg(av + "-movflags frag_keyframe+empty_moov " + shell_quote(dir_ + "fragmented.mp4")) == 0 &&
             ffmpeg(av + "-movflags +faststart " + shell_quote(dir_ + "faststart.mp4")) == 0;
    if (ready_) write_file(dir_ + "large_mdat.mp4", widen_mdat(read_file(dir_ + "faststart.mp4")));
  }
  void SetUp() override {
    BOXLANE_REQUIRE_FFMPEG();
    ASSERT_TRUE(ready_) << "FFmpeg could not make the test files";
  }
  static inline std::string dir_;
  static inline bool ready_ = false;
};

// Every track's samples object: six arrays of one length, equal to ffprobe's
// packets in size, offset and key flag, and in decode and composition time
// relative to the track's first sample and least composition offset.
void expect_samples_like_ffprobe(const Json& report, const std::string& file) {
  const auto packets = packets_by_track(file);
  ASSERT_EQ(report["tracks"].items.size(), packets.size());
  for (const Json& track : report["tracks"].items) {
    const auto id = static_cast<int32_t>(track["id"].num());
    SCOPED_TRACE("track " + std::to_string(id));
    const std::vector<PacketRow>& want = packets.at(id);
    const Json& s = track["samples"];
    for (const char* column : {"decode_time", "composition_time", "duration", "size", "offset", "sync"})
      ASSERT_EQ(s[column].items.size(), want.size()) << column;
    EXPECT_EQ(track["sample_count"].num(), double(want.size()));
    double keys = 0, bytes = 0;
    for (const PacketRow& p : want) keys += p.key, bytes += double(p.size);
    EXPECT_EQ(track["key_frames"].num(), keys);
    EXPECT_EQ(track["sample_bytes"].num(), bytes);
    double least_mine = 1e300, least_theirs = 1e300;
    for (std::size_t i = 0; i < want.size(); ++i) {
      least_mine = std::min(least_mine, s["composition_time"].items[i].num() - s["decode_time"].items[i].num());
      least_theirs = std::min(least_theirs, double(want[i].pts - want[i].dts));
    }
    for (std::size_t i = 0, wrong = 0; i < want.size() && wrong < 5; ++i) {
      const double dts = s["decode_time"].items[i].num() - s["decode_time"].items[0].num();
      const double cts = s["composition_time"].items[i].num() - s["decode_time"].items[i].num() - least_mine;
      const std::string mine = std::to_string(dts) + " " + std::to_string(cts) + " " +
                               std::to_string(s["size"].items[i].num()) + " " + std::to_string(s["offset"].items[i].num()) +
                               (s["sync"].items[i].flag ? " K" : "");
      const std::string theirs = std::to_string(double(want[i].dts - want[0].dts)) + " " +
                                 std::to_string(double(want[i].pts - want[i].dts) - least_theirs) + " " +
                                 std::to_string(double(want[i].size)) + " " + std::to_string(double(want[i].pos)) +
                                 (want[i].key ? " K" : "");
      EXPECT_EQ(mine, theirs) << "sample " << i;
      wrong += mine != theirs;
      if (i + 1 < want.size()) {
        EXPECT_EQ(s["duration"].items[i].num(), double(want[i + 1].dts - want[i].dts)) << "sample " << i;
      }
    }
  }
}

TEST_F(ProbeFragments, EverySampleOfAFragmentedFileIsCountedAndListed) {
  for (const char* name : {"fragmented.mp4", "moov_and_fragments.mp4"}) {
    SCOPED_TRACE(name);
    const std::string file = shell_quote(dir_ + name);
    const Json report = probe_json("--samples " + file);
    EXPECT_EQ(report["mode"].text, "extended");
    EXPECT_EQ(report["form"].text.rfind("fragmented, " + std::to_string(int(report["fragments"].num())) + " fragments", 0), 0u)
        << report["form"].text;
    EXPECT_GT(report["fragments"].num(), 2);
    expect_samples_like_ffprobe(report, dir_ + name);
    // The same in 1000-byte pieces and through a pipe.
    std::string whole, pieces, piped;
    ASSERT_EQ(probe("--json --samples " + file, &whole), 0);
    ASSERT_EQ(probe("--json --samples --piece 1000 " + file, &pieces), 0);
    ASSERT_EQ(run("cat " + file + " | " + shell_quote(tool_path()) + " probe --json --samples -", &piped), 0);
    EXPECT_EQ(pieces, whole);
    EXPECT_EQ(piped, whole);
  }
  // Without --samples the counts stay and the lists go.
  const Json counts = probe_json(shell_quote(dir_ + "moov_and_fragments.mp4"));
  const Json& video = counts["tracks"].items.at(0);
  EXPECT_EQ(video["samples"].kind, Json::kNull);
  EXPECT_EQ(video["sample_count"].num(), 50);
  EXPECT_EQ(video["table_samples"].num() + video["fragment_samples"].num(), 50);
  EXPECT_GT(video["table_samples"].num(), 0);
  EXPECT_GT(video["fragment_samples"].num(), 0);
  std::string text;
  ASSERT_EQ(probe("--samples " + shell_quote(dir_ + "fragmented.mp4"), &text), 0);
  EXPECT_NE(text.find("\ntrack 1 samples: 50 (decode_time composition_time duration size offset, K: sync)\n         1: "),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("  samples:     50, "), std::string::npos) << text;
}

TEST_F(ProbeFragments, StrictCountsTheMoovOnlyAndSaysSo) {
  const Json strict = probe_json("--strict " + shell_quote(dir_ + "moov_and_fragments.mp4"));
  EXPECT_EQ(strict["mode"].text, "strict");
  const Json& video = strict["tracks"].items.at(0);
  EXPECT_LT(video["sample_count"].num(), 50);
  EXPECT_EQ(video["fragment_samples"].num(), 0);
  // What it leaves out is marked at the track and at the top.
  const auto& missing = video["missing"].items;
  EXPECT_FALSE(video["complete"].flag);
  EXPECT_FALSE(strict["complete"].flag);
  EXPECT_TRUE(std::any_of(missing.begin(), missing.end(), [](const Json& n) {
    return n.text.find("movie fragments (moof), which --strict does not read: their samples are not counted") !=
           std::string::npos;
  }));
  EXPECT_TRUE(probe_json(shell_quote(dir_ + "moov_and_fragments.mp4"))["complete"].flag);
  EXPECT_NE(strict["form"].text.find("(not read with --strict)"), std::string::npos);
}

TEST_F(ProbeFragments, A64BitMdatAfterTheMoovInBothModes) {
  const std::string file = shell_quote(dir_ + "large_mdat.mp4");
  const Json report = probe_json("--samples " + file);
  EXPECT_NE(report["form"].text.find("1 box with a 64-bit size"), std::string::npos) << report["form"].text;
  EXPECT_EQ(report["stream_stop"].kind, Json::kNull);
  expect_samples_like_ffprobe(report, dir_ + "large_mdat.mp4");
  // --strict reads every table before the mdat, shows them, and says where
  // and why the stream stopped.
  const Json strict = probe_json("--strict --samples " + file);
  expect_samples_like_ffprobe(strict, dir_ + "large_mdat.mp4");
  EXPECT_EQ(strict["stream_stop"]["box"].text, "mdat");
  EXPECT_NE(strict["stream_stop"]["why"].text.find("a 64-bit size, which --strict does not follow"), std::string::npos);
  std::string text;
  ASSERT_EQ(probe("--strict " + file, &text), 0);
  EXPECT_NE(text.find("\nstream:      box 'mdat' at offset "), std::string::npos) << text;
  EXPECT_NE(text.find("\ntrack 2: audio"), std::string::npos) << text;
}

// A movie of two video tracks with the given ids and stbl tables.
Bytes movie(const std::vector<std::pair<uint32_t, Bytes>>& tracks) {
  Bytes body = full_box("mvhd", 0, 0, Bytes().u32(0).u32(0).u32(1000).u32(4000).u32(0x10000).u16(0x100).zeros(70).u32(300));
  for (const auto& [id, stbl] : tracks) {
    const Bytes tkhd = full_box("tkhd", 0, 3, Bytes().u32(0).u32(0).u32(id).u32(0).u32(4000).zeros(52).u32(64 << 16).u32(48 << 16));
    const Bytes mdhd = full_box("mdhd", 0, 0, Bytes().u32(0).u32(0).u32(1000).u32(4000).u16(0x55C4).u16(0));
    const Bytes hdlr = full_box("hdlr", 0, 0, Bytes().u32(0).str("vide").zeros(12).u8(0));
    body.add(box("trak", cat({tkhd, box("mdia", cat({mdhd, hdlr, box("minf", box("stbl", stbl))}))})));
  }
  return cat({box("ftyp", Bytes().str("isom").u32(0)), box("moov", body), box("mdat", Bytes().zeros(40))});
}

TEST_F(ProbeFragments, TrackIdsBeyondNineCompactSizesAndLargeOffsets) {
  const Bytes stts = full_box("stts", 0, 0, Bytes().u32(1).u32(4).u32(1000));
  const Bytes stsc = full_box("stsc", 0, 0, Bytes().u32(1).u32(1).u32(4).u32(1));
  const Bytes stz2 = full_box("stz2", 0, 0, Bytes().u24(0).u8(8).u32(4).u8(10).u8(20).u8(30).u8(40));
  const Bytes co64 = full_box("co64", 0, 0, Bytes().u32(1).u64(100));
  const Bytes stco = full_box("stco", 0, 0, Bytes().u32(1).u32(100));
  const std::string file = temp_dir() + "/ids.mp4";
  write_file(file, movie({{256, cat({stts, stsc, stz2, stco})}, {257, cat({stts, stsc, full_box("stsz", 0, 0, Bytes().u32(5).u32(4)), co64})}}));

  const Json report = probe_json("--samples " + shell_quote(file));
  ASSERT_EQ(report["tracks"].items.size(), 2u);
  const Json& a = report["tracks"].items[0];
  const Json& b = report["tracks"].items[1];
  EXPECT_EQ(a["id"].num(), 256);
  EXPECT_EQ(b["id"].num(), 257);
  EXPECT_EQ(a["sample_bytes"].num(), 100);
  EXPECT_EQ(a["samples"]["size"].items.at(3).num(), 40);
  EXPECT_EQ(a["samples"]["offset"].items.at(3).num(), 160);
  EXPECT_EQ(b["samples"]["offset"].items.at(3).num(), 115);
  EXPECT_EQ(b["constant_sample_size"]["size"].num(), 5);

  // --strict lists them too, and says what it left unread.
  std::string text;
  ASSERT_EQ(probe("--strict " + shell_quote(file), &text), 0);
  for (const char* says : {"\ntrack 256: video", "\ntrack 257: video",
                           "track id 256 lies outside 0 to 9: Boxlane_Parse_GetTrack does not name it",
                           "no sample sizes: they are in a compact stz2 table, which --strict does not read",
                           "no chunk offsets: they are 64-bit (co64), which --strict does not read",
                           "note:        2 tracks with ids outside 0 to 9"})
    EXPECT_NE(text.find(says), std::string::npos) << says << " in " << text;
}

TEST_F(ProbeFragments, BoxesOfSizeZeroEndTheReading) {
  // /dev/zero never ends: one box of size 0, read no further.
  const auto start = std::chrono::steady_clock::now();
  std::string out;
  EXPECT_EQ(run(shell_quote(tool_path()) + " probe /dev/zero 2>&1", &out), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_NE(out.find("has size 0: it runs to the end of the stream, so probe stopped reading there"), std::string::npos)
      << out;
  // A last mdat of size 0 (a recording whose writer could not seek back):
  // the report is whole and says where reading stopped, in both modes.
  auto file = read_file(dir_ + "faststart.mp4");
  // FFmpeg's free box of 8 bytes, then the mdat header whose size becomes 0.
  const uint8_t free_box[] = {0, 0, 0, 8, 'f', 'r', 'e', 'e'};
  const auto at = std::search(file.begin(), file.end(), free_box, free_box + 8);
  ASSERT_NE(at, file.end());
  std::fill_n(at + 8, 4, 0);
  const std::string mdat_at = std::to_string(at - file.begin() + 8);
  const std::string path = temp_dir() + "/zero_mdat.mp4";
  write_file(path, file);
  for (const std::string mode : {"", "--strict "}) {
    const Json report = probe_json(mode + "--samples " + shell_quote(path));
    EXPECT_EQ(report["stream_stop"]["why"].text, "box 'mdat' at offset " + mdat_at +
                                                     " has size 0: it runs to the end of the stream, so probe "
                                                     "stopped reading there");
    expect_samples_like_ffprobe(report, dir_ + "faststart.mp4");
  }
}

}  // namespace
}  // namespace boxlane::test
