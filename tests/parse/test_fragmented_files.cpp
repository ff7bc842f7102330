// Files from other muxers read by clients of the extended mode and compared
// sample by sample with ffprobe -show_packets: FFmpeg's fragmented styles
// (frag_keyframe with and without empty_moov, default_base_moof, negative
// composition offsets in trun version 1, DASH segments, Smooth Streaming
// ismv, H.265 in hvc1), GStreamer's mp4mux fragment-duration, and FFmpeg files rewritten
// the way a writer of a large file would: a 64-bit mdat after the moov or
// before it, and co64 chunk offsets. Every file is read whole, in 1000-byte
// pieces and, when small, in 1-byte pieces; clients of the specified mode
// read the same files and keep the specified behaviour.
#include "fragment_streams.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

namespace boxlane::test {
namespace {

// Every sample a client read, per track: the moov's, then the fragments'.
std::map<int32_t, std::vector<BOXLANE_SAMPLEINFO>> samples_by_track(const std::string& client) {
  std::map<int32_t, std::vector<BOXLANE_SAMPLEINFO>> out;
  int32_t** ids = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(Boxlane_Parse_GetTrackIDs(client.c_str(), &ids, &count));
  for (int32_t id : take_list(ids, count)) out[id] = table_samples(client, id);
  for (Fragment& f : take_fragments(client)) {
    auto& track = out[f.info.nTrackID];
    track.insert(track.end(), f.samples.begin(), f.samples.end());
  }
  return out;
}

// Times as offsets from the first sample's decode time, so an edit list
// that ffprobe applies and the library does not cancels out; composition
// offsets from the track's smallest, since FFmpeg adds the largest negative
// offset to every presentation time to keep it from preceding its decode
// time (the file itself holds offsets below 0 there). A duration is
// compared with the next sample's decode time: ffprobe reports the codec's
// frame duration where the file stores another one (the first picture
// after a B-frame delay, the last AAC frame), so a duration that only it
// gives is left out.
std::string line(int64_t dts0, int64_t least, int64_t dts, int64_t cts, int64_t duration, int64_t size, int64_t pos,
                 bool key) {
  return "dts " + std::to_string(dts - dts0) + " cts " + std::to_string(cts - dts - least) + " dur " + std::to_string(duration) +
         " size " + std::to_string(size) + " at " + std::to_string(pos) + (key ? " K" : "");
}

void expect_agree(const std::map<int32_t, std::vector<BOXLANE_SAMPLEINFO>>& got,
                  const std::map<int32_t, std::vector<PacketRow>>& want, const std::string& how) {
  std::set<int32_t> tracks;
  for (const auto& [id, samples] : got) tracks.insert(id);
  for (const auto& [id, packets] : want) EXPECT_TRUE(tracks.count(id)) << how << ": no track " << id;
  for (const auto& [id, packets] : want) {
    const auto it = got.find(id);
    if (it == got.end()) continue;
    const std::vector<BOXLANE_SAMPLEINFO>& s = it->second;
    ASSERT_EQ(s.size(), packets.size()) << how << ", track " << id;
    int64_t mine_least = INT64_MAX, theirs_least = INT64_MAX;
    for (std::size_t i = 0; i < s.size(); ++i) {
      mine_least = std::min(mine_least, s[i].nCompositionTime - int64_t(s[i].nDecodeTime));
      theirs_least = std::min(theirs_least, packets[i].pts - packets[i].dts);
    }
    for (std::size_t i = 0, wrong = 0; i < s.size() && wrong < 5; ++i) {
      const PacketRow& p = packets[i];
      const int64_t duration = i + 1 < packets.size() ? packets[i + 1].dts - p.dts : int64_t{s[i].nDuration};
      const std::string mine = line(int64_t(s[0].nDecodeTime), mine_least, int64_t(s[i].nDecodeTime), s[i].nCompositionTime,
                                    s[i].nDuration, s[i].nSize, int64_t(s[i].nOffset), s[i].bSync);
      const std::string theirs = line(packets[0].dts, theirs_least, p.dts, p.pts, duration, p.size, p.pos, p.key);
      EXPECT_EQ(mine, theirs) << how << ", track " << id << ", sample " << i;
      wrong += mine != theirs;
    }
  }
}

// What a client of the specified mode must report for a stream: the
// extended records with every box of the extended mode UNKNOWN and its
// children gone (a container's children follow it until its end).
std::vector<int> specified_codes(const std::vector<QORVANE_MP4HDR>& extended) {
  static const std::set<int> kContainers = {3, 31, 312, 313, 3133, 31336, 5, 32, 52, 9};
  static const std::set<int> kNew = {5, 6, 7, 8, 9, 32, 51, 52, 91, 92, 321, 322, 521, 522, 523, 313369, 313370};
  std::vector<int> out;
  uint64_t at = 0, skip_until = 0;
  for (const QORVANE_MP4HDR& h : extended) {
    const int code = int(h.enHType);
    const bool container = kContainers.count(code) != 0;
    if (at >= skip_until) {
      out.push_back(kNew.count(code) ? 0 : code);
      if (kNew.count(code)) skip_until = at + h.nBoxSize;
    }
    at += container ? 8 : h.nBoxSize;
  }
  return out;
}

class FragmentedFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!have_ffmpeg()) return;
    dir_ = temp_dir();
    const std::string av = "-f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 -t 2 "
                           "-c:v libx264 -preset veryfast -pix_fmt yuv420p -bf 2 -x264-params b-adapt=0 -g 12 -c:a aac -b:a 16k ";
    const std::map<std::string, std::string> recipes = {
        {"frag_keyframe_empty_moov", av + "-movflags frag_keyframe+empty_moov"},
        {"frag_keyframe", av + "-movflags frag_keyframe"},
        {"default_base_moof", av + "-movflags frag_keyframe+empty_moov+default_base_moof"},
        {"negative_cts", av + "-movflags frag_keyframe+empty_moov+negative_cts_offsets"},
        {"ismv", av + "-f ismv"},
        {"moov_at_end", av},
        {"faststart", av + "-movflags +faststart"},
        {"hevc_fragments", "-f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i sine=sample_rate=8000 -t 2 "
                           "-c:v libx265 -preset ultrafast -x265-params log-level=none:keyint=12:bframes=2 "
                           "-pix_fmt yuv420p -tag:v hvc1 -c:a aac -b:a 16k -movflags frag_keyframe+empty_moov"},
    };
    for (const auto& [name, args] : recipes) {
      std::string log;
      if (ffmpeg("-loglevel error " + args + " " + shell_quote(dir_ + "/" + name + ".mp4"), &log) != 0)
        ADD_FAILURE() << name << ": " << log;
    }
    // DASH: the init segment and the media segments of one representation,
    // back to back as a client receives them (styp, sidx, moof, mdat).
    const std::string dash = dir_ + "/dash";
    std::string log;
    if (ffmpeg("-loglevel error " + av + "-map 0:v -f dash -seg_duration 1 " + shell_quote(dash + ".mpd"), &log) != 0)
      ADD_FAILURE() << "dash: " << log;
    std::vector<uint8_t> joined = read_file(dir_ + "/init-stream0.m4s");
    for (int i = 1;; ++i) {
      char name[64];
      std::snprintf(name, sizeof name, "/chunk-stream0-%05d.m4s", i);
      if (!have_file(dir_ + name)) break;
      const std::vector<uint8_t> chunk = read_file(dir_ + name);
      joined.insert(joined.end(), chunk.begin(), chunk.end());
    }
    write_file(dir_ + "/dash.mp4", joined);
    // GStreamer remuxes the FFmpeg file into fragments of half a second.
    if (have_command("gst-launch-1.0") &&
        run("gst-launch-1.0 -q filesrc location=" + shell_quote(dir_ + "/moov_at_end.mp4") +
                " ! qtdemux name=d mp4mux fragment-duration=500 name=m ! filesink location=" +
                shell_quote(dir_ + "/mp4mux.mp4") + " d.video_0 ! queue ! m.video_0 d.audio_0 ! queue ! m.audio_0 2>&1",
            &log) != 0)
      ADD_FAILURE() << "gst-launch: " << log;
    // FFmpeg keeps an 8-byte free box before its mdat so that a file past
    // 4 GiB can take a 64-bit mdat header in place: do exactly that.
    for (const std::string name : {"moov_at_end", "faststart"})
      write_file(dir_ + "/" + name + "_large.mp4", widen_mdat(read_file(dir_ + "/" + name + ".mp4")));
    write_file(dir_ + "/co64.mp4", with_co64(read_file(dir_ + "/moov_at_end.mp4")));
  }

  static bool have_file(const std::string& path) { return run("test -f " + shell_quote(path)) == 0; }

  void SetUp() override { BOXLANE_REQUIRE_FFMPEG(); }

  // Reads the file in every piece mode with a client of each mode; the
  // extended one must agree with ffprobe, the specified one must report the
  // extended records with the new boxes unknown.
  void check(const std::string& name, bool stops_specified = false) {
    const std::string path = dir_ + "/" + name + ".mp4";
    const std::vector<uint8_t> file = read_file(path);
    ASSERT_FALSE(file.empty()) << path;
    const auto want = packets_by_track(path);
    ASSERT_FALSE(want.empty()) << path;
    std::vector<std::pair<std::string, std::size_t>> modes{{"whole", 0}, {"1000-byte pieces", 1000}};
    if (file.size() < 40000) modes.push_back({"1-byte pieces", 1});
    FeedResult whole;
    for (const auto& [how, piece] : modes) {
      const std::string client = "files/" + name + "/" + how;
      ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), BOXLANE_PARSE_EXTENDED));
      const FeedResult fed = feed(client, file, {}, piece);
      EXPECT_EQ(fed.error, 0u) << how;
      EXPECT_EQ(fed.final_position, file.size()) << how;
      if (piece == 0) whole = fed;
      else expect_same_feed(fed, whole, how);
      expect_agree(samples_by_track(client), want, name + ", " + how);
      Boxlane_Parse_Delete(client.c_str());

      const std::string strict = client + "/specified";
      ASSERT_TRUE(Boxlane_Parse_Insert(strict.c_str()));
      const FeedResult plain = feed(strict, file, {}, piece);
      if (stops_specified) {
        // The 64-bit mdat is queued with size 0 and the stream refused.
        EXPECT_EQ(stream_info(strict).nStop, uint32_t{BOXLANE_STOP_LARGESIZE}) << how;
        EXPECT_EQ(plain.headers.back().nBoxSize, 0u) << how;
        EXPECT_TRUE(fails_with(send(strict, movie_ftyp()), BOXLANE_ERROR_PARSE_NOTSUPPORT)) << how;
      } else {
        EXPECT_EQ(plain.error, 0u) << how;
        EXPECT_EQ(codes(plain.headers), specified_codes(whole.headers)) << how;
        EXPECT_EQ(stream_info(strict).nStop, uint32_t{BOXLANE_STOP_NONE}) << how;
      }
      EXPECT_TRUE(take_fragments(strict).empty()) << how;
      Boxlane_Parse_Delete(strict.c_str());
    }
  }

  static std::string dir_;
};

std::string FragmentedFiles::dir_;

TEST_F(FragmentedFiles, FfmpegFragmentStylesAgreeWithFfprobe) {
  for (const char* name :
       {"frag_keyframe_empty_moov", "frag_keyframe", "default_base_moof", "negative_cts", "ismv", "dash", "hevc_fragments"}) {
    SCOPED_TRACE(name);
    check(name);
  }
  // negative_cts_offsets writes truns of version 1 whose offsets go below 0.
  const std::string client = "files/negative_cts/offsets";
  ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), BOXLANE_PARSE_EXTENDED));
  ASSERT_EQ(feed(client, read_file(dir_ + "/negative_cts.mp4")).error, 0u);
  int64_t least = 0;
  const auto tracks = samples_by_track(client);
  for (const BOXLANE_SAMPLEINFO& s : tracks.at(1))
    least = std::min(least, s.nCompositionTime - int64_t(s.nDecodeTime));
  EXPECT_EQ(least, -512);
  Boxlane_Parse_Delete(client.c_str());
}

TEST_F(FragmentedFiles, GstreamerFragmentsAgreeWithFfprobe) {
  if (!have_command("gst-launch-1.0")) GTEST_SKIP() << "gst-launch-1.0 not installed";
  check("mp4mux");
  // mp4mux ends the file with an mfra; its boxes get records of their own.
  const std::vector<uint8_t> file = read_file(dir_ + "/mp4mux.mp4");
  const std::string client = "files/mp4mux/mfra";
  ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), BOXLANE_PARSE_EXTENDED));
  const std::vector<int> got = codes(feed(client, file).headers);
  EXPECT_EQ(std::vector<int>(got.end() - 4, got.end()), (std::vector<int>{9, 91, 91, 92}));
  EXPECT_TRUE(stream_info(client).bRandomAccess);
  Boxlane_Parse_Delete(client.c_str());
}

TEST_F(FragmentedFiles, LargeMdatAndCo64AgreeWithFfprobe) {
  check("moov_at_end_large", true);
  check("faststart_large", true);
  check("co64");
  // A complete moov and then a 64-bit mdat: the specified mode stops at the
  // mdat with every table read, so its samples are all there too.
  const std::string path = dir_ + "/faststart_large.mp4";
  const std::string client = "files/faststart_large/specified tables";
  ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
  EXPECT_EQ(feed(client, read_file(path)).headers.back().enHType, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT);
  EXPECT_EQ(stream_info(client).nStop, uint32_t{BOXLANE_STOP_LARGESIZE});
  expect_agree(samples_by_track(client), packets_by_track(path), "specified mode, faststart_large");
  Boxlane_Parse_Delete(client.c_str());
}

}  // namespace
}  // namespace boxlane::test
