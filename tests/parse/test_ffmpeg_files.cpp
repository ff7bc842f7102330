// Files made by FFmpeg, streamed into the parser in several cuts, agree with
// what ffprobe reports about the same files: per-sample sizes, file offsets,
// decode times, composition offsets and key frames, time scales, durations,
// dimensions, handlers and the decoder configuration. Every cut also yields
// the records, events and positions of the whole file in one piece. One file
// is the B-frame video and AAC of another rewritten by our own writer.
#include "parsed_stream.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <cmath>
#include <map>
#include <sstream>

namespace boxlane::test {
namespace {

using Fields = std::map<std::string, std::string>;

// ffprobe's compact output: one row per line, key=value pairs split by '|'.
std::vector<Fields> compact_rows(const std::string& text) {
  std::vector<Fields> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    Fields row;
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, '|');) {
      const auto eq = cell.find('=');
      if (eq != std::string::npos) row[cell.substr(0, eq)] = cell.substr(eq + 1);
    }
    if (!row.empty()) rows.push_back(std::move(row));
  }
  return rows;
}

std::string probe(const std::string& args, const std::string& path) {
  std::string out;
  EXPECT_EQ(run("ffprobe -v error " + args + " '" + path + "'", &out), 0);
  return out;
}

struct Stream {
  Fields fields;
  std::vector<uint8_t> extradata;
  std::vector<Fields> packets;
  int64_t number(const std::string& key) const { return std::stoll(fields.at(key)); }
};

std::vector<Stream> probe_streams(const std::string& path) {
  std::vector<Stream> streams;
  for (Fields& row : compact_rows(probe("-show_entries stream=index,codec_type,time_base,width,height,duration_ts,"
                                        "nb_frames:stream_tags=handler_name -of compact=p=0",
                                        path))) {
    streams.push_back({std::move(row), {}, {}});
  }
  // The default writer prints extradata as a hex dump: "00000000: 0164 000b ...  text".
  std::istringstream dump(probe("-show_data -show_entries stream=index,extradata", path));
  int index = -1;
  for (std::string line; std::getline(dump, line);) {
    if (line.rfind("index=", 0) == 0) index = std::stoi(line.substr(6));
    if (line.size() > 10 && line[8] == ':' && index >= 0 && std::size_t(index) < streams.size()) {
      const std::vector<uint8_t> bytes = unhex(line.substr(10, 40));
      streams[std::size_t(index)].extradata.insert(streams[std::size_t(index)].extradata.end(), bytes.begin(), bytes.end());
    }
  }
  for (Stream& s : streams) {
    for (Fields& row : compact_rows(probe("-select_streams " + s.fields.at("index") +
                                          " -show_entries packet=pts,dts,size,pos,flags -of compact=p=0",
                                          path))) {
      if (row.count("size")) s.packets.push_back(std::move(row));
    }
  }
  return streams;
}

void expect_agree(const ParsedTrack& t, const Stream& s, uint32_t movie_time_scale) {
  SCOPED_TRACE("track " + std::to_string(t.id));
  const bool video = s.fields.at("codec_type") == "video";
  EXPECT_STREQ(t.hdlr.tszHandlerType, video ? "vide" : "soun");
  EXPECT_EQ(t.hdlr.tszName, s.fields.count("tag:handler_name") ? s.fields.at("tag:handler_name") : "");
  const std::string& tb = s.fields.at("time_base");
  EXPECT_EQ(tb.substr(0, 2), "1/");
  EXPECT_EQ(std::to_string(t.mdhd.nTimeScale), tb.substr(2));
  // ffprobe's stream duration is the edit's, held in tkhd in movie units.
  ASSERT_NE(movie_time_scale, 0u);
  EXPECT_NEAR(double(t.tkhd.nDuration) / movie_time_scale, double(s.number("duration_ts")) / t.mdhd.nTimeScale, 0.001);
  if (video) {
    EXPECT_EQ(t.tkhd.nWidth, s.number("width"));
    EXPECT_EQ(t.tkhd.nHeight, s.number("height"));
    EXPECT_EQ(t.codec.wWidth, s.number("width"));
    EXPECT_EQ(t.codec.wHeight, s.number("height"));
    EXPECT_STREQ(t.codec.tszCodec, "avc1");
    const std::vector<uint8_t> avcc = rebuilt_avcc(t.codec);
    ASSERT_GE(s.extradata.size(), avcc.size());
    EXPECT_EQ(hex(avcc), hex(s.extradata.data(), avcc.size()));
  } else {
    EXPECT_STREQ(t.codec.tszCodec, "mp4a");
    EXPECT_EQ(t.codec.byObjectType, 0x40);
    EXPECT_EQ(hex(t.codec.byAudioCfg, std::size_t(t.codec.nAudioCfgLen)), hex(s.extradata));
  }
  EXPECT_FALSE(t.codec.bTruncated);

  const std::size_t n = s.packets.size();
  EXPECT_EQ(int64_t(n), s.number("nb_frames"));
  const std::vector<uint64_t> dts = t.dts();
  const std::vector<uint32_t> sizes = t.sizes();
  const std::vector<uint64_t> offsets = t.offsets();
  std::vector<int32_t> cts = t.composition_offsets();
  if (cts.empty()) cts.assign(n, 0);
  ASSERT_TRUE(dts.size() == n && sizes.size() == n && offsets.size() == n && cts.size() == n)
      << dts.size() << " " << sizes.size() << " " << offsets.size() << " " << cts.size() << " for " << n;
  uint64_t total = 0;
  for (const auto& e : t.stts) total += uint64_t{e.nValue1} * e.nValue2;
  EXPECT_EQ(t.mdhd.nDuration, total);
  // A track without stss has only sync samples (ISO/IEC 14496-12 §8.6.2.1).
  std::vector<bool> keys(n, t.stss.empty());
  for (int32_t k : t.stss) {
    ASSERT_GE(k, 1);
    ASSERT_LE(std::size_t(k), n);
    keys[std::size_t(k - 1)] = true;
  }
  const int64_t first_dts = std::stoll(s.packets[0].at("dts"));
  for (std::size_t i = 0, mismatches = 0; i < n && mismatches < 5; ++i) {
    const Fields& p = s.packets[i];
    const int64_t packet_dts = std::stoll(p.at("dts"));
    const std::string want = p.at("size") + " at " + p.at("pos") + " dts " + std::to_string(packet_dts - first_dts) +
                             " cts " + std::to_string(std::stoll(p.at("pts")) - packet_dts) + (p.at("flags")[0] == 'K' ? " key" : "");
    const std::string got = std::to_string(sizes[i]) + " at " + std::to_string(offsets[i]) + " dts " +
                            std::to_string(dts[i]) + " cts " + std::to_string(cts[i]) + (keys[i] ? " key" : "");
    EXPECT_EQ(got, want) << "sample " << i;
    mismatches += got != want;
  }
}

class FfmpegFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!have_ffmpeg()) return;
    dir_ = temp_dir();
    const std::string video = "-f lavfi -i testsrc=size=160x120:rate=25 ";
    const std::string tone = "-f lavfi -i sine=frequency=440:sample_rate=8000 ";
    const std::string x264 = "-c:v libx264 -preset veryfast -pix_fmt yuv420p ";
    const std::map<std::string, std::string> recipes = {
        {"moov_at_end", video + "-t 2 " + x264 + "-bf 0 -g 10"},
        {"faststart_bframes", video + tone + "-t 2 " + x264 + "-bf 2 -x264-params b-adapt=0 -g 12 -c:a aac -b:a 16k -movflags +faststart"},
        {"video_only", "-f lavfi -i testsrc2=size=320x240:rate=30 -t 1 " + x264 + "-profile:v baseline"},
        {"audio_only", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 1 -c:a aac -b:a 64k"},
        {"two_video_one_audio", video + "-f lavfi -i testsrc2=size=320x240:rate=30 " + tone +
                                    "-t 1 -map 0:v -map 1:v -map 2:a " + x264 + "-c:a aac -b:a 16k"},
        {"long", "-f lavfi -i testsrc=size=32x32:rate=1000 " + tone +
                     "-t 20 -c:v libx264 -preset ultrafast -g 250 -pix_fmt yuv420p -c:a aac -b:a 8k"},
    };
    for (const auto& [name, args] : recipes) {
      const std::string path = dir_ + "/" + name + ".mp4";
      std::string log;
      if (run("ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " '" + path + "' 2>&1", &log) != 0) {
        ADD_FAILURE() << name << ": " << log;
      }
    }
    const std::string source = dir_ + "/faststart_bframes.mp4";
    EXPECT_EQ(ffmpeg("-i '" + source + "' -c copy -bsf:v h264_mp4toannexb -f h264 '" + dir_ + "/src.h264'"), 0);
    EXPECT_EQ(ffmpeg("-i '" + source + "' -c copy -f adts '" + dir_ + "/src.aac'"), 0);
    Mp4VideoInput h264{read_file(dir_ + "/src.h264"), 25, 160, 120, {}};
    for (const ProbedPacket& p : probe_packets(source, 'v')) h264.composition_frames.push_back(int(std::lround((p.pts - p.dts) * 25)));
    const Mp4AudioInput aac{read_file(dir_ + "/src.aac")};
    write_file(dir_ + "/written.mp4", write_mp4("ffmpeg/writer", &h264, &aac).file);
  }

  void SetUp() override { BOXLANE_REQUIRE_FFMPEG(); }

  // Sends the file whole, then in 1-byte pieces if asked, then cut at random
  // for each seed, and compares every track with ffprobe each time.
  void check(const std::string& name, std::size_t expect_tracks, bool bytes, const std::vector<uint32_t>& seeds,
             uint32_t next_track_id = 0) {
    const std::string path = dir_ + "/" + name + ".mp4";
    const std::vector<uint8_t> file = read_file(path);
    const std::vector<Stream> streams = probe_streams(path);
    const std::vector<Fields> format = compact_rows(probe("-show_entries format=duration -of compact=p=0", path));
    ASSERT_EQ(format.size(), 1u);
    std::vector<std::pair<std::string, std::vector<std::size_t>>> runs{{"whole", {}}};
    if (bytes) runs.push_back({"1-byte pieces", {}});
    for (uint32_t seed : seeds)
      runs.push_back({"seed " + std::to_string(seed), random_cuts(file.size(), file.size() / 1500 + 2, seed)});
    FeedResult whole;
    for (const auto& [how, cuts] : runs) {
      SCOPED_TRACE(name + ", " + how);
      const std::string client = "ffmpeg/" + name + "/" + how;
      ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
      const FeedResult fed = feed(client, file, cuts, how == "1-byte pieces" ? 1 : 0);
      EXPECT_EQ(fed.error, 0u) << "at " << fed.error_offset;
      if (how == "whole") {
        whole = fed;
        EXPECT_EQ(fed.final_position, file.size());  // every top-level box was seen
      } else {
        expect_same_feed(fed, whole, how);
      }
      const std::vector<ParsedTrack> tracks = parsed_tracks(client.c_str());
      QORVANE_HDRMVHD mvhd{};
      EXPECT_TRUE(Boxlane_Parse_GetMVhd(client.c_str(), &mvhd));
      EXPECT_EQ(mvhd.nNextTrackID, next_track_id ? next_track_id : expect_tracks + 1);
      ASSERT_NE(mvhd.nTimeScale, 0u);
      EXPECT_NEAR(double(mvhd.nDuration) / mvhd.nTimeScale, std::stod(format[0].at("duration")), 0.001);
      ASSERT_EQ(tracks.size(), expect_tracks);
      ASSERT_EQ(streams.size(), expect_tracks);
      for (std::size_t i = 0; i < tracks.size(); ++i) expect_agree(tracks[i], streams[i], mvhd.nTimeScale);

      // One header record per box down to the sample tables, the mdat's with
      // its full size.
      std::size_t stsd = 0;
      uint64_t mdat_size = 0;
      for (const QORVANE_MP4HDR& h : fed.headers) {
        stsd += h.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD;
        if (h.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT) mdat_size = h.nBoxSize;
      }
      EXPECT_EQ(stsd, expect_tracks);
      EXPECT_GT(mdat_size, 8u);
      QORVANE_HDRFTYP ftyp{};
      EXPECT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
      EXPECT_STREQ(ftyp.tszMajorBrand, "isom");
      EXPECT_GE(ftyp.nBrandCount, 1);
      Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
      EXPECT_TRUE(Boxlane_Parse_Delete(client.c_str()));
    }
  }

  static std::string dir_;
};

std::string FfmpegFiles::dir_;

TEST_F(FfmpegFiles, AgreeWithFfprobeHoweverCut) {
  check("moov_at_end", 1, true, {1});
  check("faststart_bframes", 2, true, {1});
  check("video_only", 1, false, {7});
  check("audio_only", 1, false, {8});
  check("two_video_one_audio", 3, false, {3});
  check("long", 2, false, {11, 12});  // tens of thousands of samples
  check("written", 2, true, {5}, 2);  // our writer puts 2 there whatever the track count
}

}  // namespace
}  // namespace boxlane::test
