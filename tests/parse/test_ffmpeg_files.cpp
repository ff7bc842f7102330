// Files from other muxers read by an extended client and compared with
// ffprobe: FFmpeg files with the moov first or last, B-frames and several
// tracks; its fragmented styles (default_base_moof, negative composition
// offsets in trun version 1, DASH segments, H.265); and files rewritten as a
// writer of a large file would (a 64-bit mdat, co64). Each is read whole and
// in pieces, and every sample agrees with ffprobe's packets.
#include "parse_fixtures.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"

#include <map>

namespace boxlane::test {
namespace {

using Samples = std::map<int32_t, std::vector<BOXLANE_SAMPLEINFO>>;

// Every sample the client read, per track: the moov's, then the fragments'.
Samples indexed_samples(const std::string& client) {
  Samples out;
  int32_t** ids = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(Boxlane_Parse_GetTrackIDs(client.c_str(), &ids, &count));
  for (int32_t id : take_list(ids, count)) out[id] = table_samples(client, id);
  for (Fragment& f : take_fragments(client)) out[f.info.nTrackID].insert(out[f.info.nTrackID].end(), f.samples.begin(), f.samples.end());
  return out;
}

std::string line(int64_t dts, int64_t cts, int64_t duration, int64_t size, int64_t pos, bool key) {
  return "dts " + std::to_string(dts) + " cts " + std::to_string(cts) + " dur " + std::to_string(duration) + " size " +
         std::to_string(size) + " at " + std::to_string(pos) + (key ? " K" : "");
}

// Times as offsets from the first sample's decode time, so an edit list that
// ffprobe applies and the library does not cancels out; composition offsets
// from the track's smallest, since FFmpeg shifts presentation times by the
// largest negative offset. A duration is compared with the next packet's
// decode time (ffprobe reports the codec's frame duration for the last).
void expect_agree(const Samples& got, const std::map<int32_t, std::vector<PacketRow>>& want, const std::string& how) {
  for (const auto& [id, packets] : want) {
    SCOPED_TRACE(how + ", track " + std::to_string(id));
    ASSERT_TRUE(got.count(id));
    const std::vector<BOXLANE_SAMPLEINFO>& s = got.at(id);
    ASSERT_EQ(s.size(), packets.size());
    int64_t mine_least = INT64_MAX, theirs_least = INT64_MAX;
    for (std::size_t i = 0; i < s.size(); ++i) {
      mine_least = std::min(mine_least, s[i].nCompositionTime - int64_t(s[i].nDecodeTime));
      theirs_least = std::min(theirs_least, packets[i].pts - packets[i].dts);
    }
    std::vector<std::string> mine, theirs;
    for (std::size_t i = 0; i < s.size(); ++i) {
      const PacketRow& p = packets[i];
      const int64_t dts = int64_t(s[i].nDecodeTime);
      mine.push_back(line(dts - int64_t(s[0].nDecodeTime), s[i].nCompositionTime - dts - mine_least, s[i].nDuration,
                          s[i].nSize, int64_t(s[i].nOffset), s[i].bSync));
      const int64_t duration = i + 1 < packets.size() ? packets[i + 1].dts - p.dts : int64_t{s[i].nDuration};
      theirs.push_back(line(p.dts - packets[0].dts, p.pts - p.dts - theirs_least, duration, p.size, p.pos, p.key));
    }
    EXPECT_EQ(mine, theirs);
  }
}

TEST(OtherMuxers, FilesAgreeWithFfprobe) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  const std::string video = "-f lavfi -i testsrc=size=160x120:rate=25 ", tone = "-f lavfi -i sine=sample_rate=8000 ";
  const std::string x264 = "-c:v libx264 -preset veryfast -pix_fmt yuv420p ", aac = "-c:a aac -b:a 16k ";
  const std::string av = video + tone + "-t 2 " + x264 + "-bf 2 -x264-params b-adapt=0 -g 12 " + aac;
  const std::map<std::string, std::string> recipes = {
      {"moov_at_end", av},
      {"faststart", av + "-movflags +faststart"},
      {"three_tracks", video + "-f lavfi -i testsrc2=size=320x240:rate=30 " + tone + "-t 1 -map 0:v -map 1:v -map 2:a " + x264 + aac},
      {"default_base_moof", av + "-movflags frag_keyframe+empty_moov+default_base_moof"},
      {"negative_cts", av + "-movflags frag_keyframe+empty_moov+negative_cts_offsets"},
      {"hevc_fragments", video + tone + "-t 2 -c:v libx265 -preset ultrafast -x265-params log-level=none:keyint=12:bframes=2 "
                                        "-pix_fmt yuv420p10le -tag:v hvc1 " + aac + "-movflags frag_keyframe"},
      // DASH: one representation's init and media segments in one file (sidx, moof, mdat).
      {"dash", av + "-map 0:v -f dash -seg_duration 1 -single_file 1"},
  };
  std::string log;
  for (const auto& [name, args] : recipes)
    ASSERT_EQ(ffmpeg("-loglevel error " + args + " " + shell_quote(dir + "/" + name + (name == "dash" ? ".mpd" : ".mp4")), &log), 0)
        << name << ": " << log;
  // FFmpeg keeps an 8-byte free box before its mdat so that a file past
  // 4 GiB can take a 64-bit mdat header in place: do exactly that.
  write_file(dir + "/faststart_large.mp4", widen_mdat(read_file(dir + "/faststart.mp4")));
  write_file(dir + "/co64.mp4", with_co64(read_file(dir + "/moov_at_end.mp4")));

  for (const char* name : {"moov_at_end", "faststart", "three_tracks", "default_base_moof", "dash-stream0",
                           "hevc_fragments", "faststart_large", "co64", "negative_cts"}) {
    SCOPED_TRACE(name);
    const std::string path = dir + "/" + name + ".mp4";
    const std::vector<uint8_t> file = read_file(path);
    const auto want = packets_by_track(path);
    FeedResult whole;
    // Whole and in 1000-byte pieces.
    for (const std::size_t piece : {0, 1000}) {
      const std::string client = "files/" + std::string(name) + "/" + std::to_string(piece);
      EXPECT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), BOXLANE_PARSE_EXTENDED));
      const FeedResult fed = feed(client, file, {}, piece);
      EXPECT_EQ(std::tuple(fed.error, fed.final_position), std::tuple(uint64_t{0}, uint64_t(file.size()))) << piece;
      if (piece == 0) whole = fed;
      else expect_same_feed(fed, whole, "1000-byte pieces");
      const Samples samples = indexed_samples(client);
      expect_agree(samples, want, client);
      Boxlane_Parse_Delete(client.c_str());
      // negative_cts_offsets writes truns of version 1 whose offsets go below 0.
      if (std::string(name) != "negative_cts") continue;
      int64_t least = 0;
      for (const BOXLANE_SAMPLEINFO& s : samples.at(1)) least = std::min(least, s.nCompositionTime - int64_t(s.nDecodeTime));
      EXPECT_EQ(least, -512);
    }
  }
}

}  // namespace
}  // namespace boxlane::test
