// Files made by FFmpeg, streamed into the parser in several cuts, agree with
// what ffprobe reports about the same files: per-sample sizes, file offsets,
// decode times, composition offsets and key frames, time scales, durations,
// dimensions, handlers and the decoder configuration.
#include "parsed_stream.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <map>
#include <sstream>

namespace boxlane::test {
namespace {

enum class Cuts { whole, bytes, random };

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

std::string format_duration(const std::string& path) {
  const std::vector<Fields> rows = compact_rows(probe("-show_entries format=duration -of compact=p=0", path));
  return rows.empty() ? "nan" : rows[0].at("duration");
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
  ASSERT_EQ(dts.size(), n);
  ASSERT_EQ(sizes.size(), n);
  ASSERT_EQ(offsets.size(), n);
  ASSERT_EQ(cts.size(), n);
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
  std::size_t mismatches = 0;
  for (std::size_t i = 0; i < n && mismatches < 5; ++i) {
    const Fields& p = s.packets[i];
    const bool same = std::stoll(p.at("size")) == sizes[i] && std::stoull(p.at("pos")) == offsets[i] &&
                      std::stoll(p.at("dts")) - first_dts == int64_t(dts[i]) &&
                      std::stoll(p.at("pts")) - std::stoll(p.at("dts")) == cts[i] && (p.at("flags")[0] == 'K') == keys[i];
    if (!same) {
      ++mismatches;
      ADD_FAILURE() << "sample " << i << ": ffprobe size " << p.at("size") << " pos " << p.at("pos") << " dts "
                    << p.at("dts") << " pts " << p.at("pts") << " flags " << p.at("flags") << "; parsed size " << sizes[i]
                    << " offset " << offsets[i] << " dts " << dts[i] << "+" << first_dts << " cts " << cts[i]
                    << " key " << keys[i];
    }
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
  }

  void SetUp() override { BOXLANE_REQUIRE_FFMPEG(); }

  // Sends the file in the given cut and compares every track with ffprobe.
  void check(const std::string& name, Cuts cuts, std::size_t expect_tracks, unsigned seed = 1) {
    SCOPED_TRACE(name + " cut " + std::to_string(int(cuts)));
    const std::string path = dir_ + "/" + name + ".mp4";
    const std::vector<uint8_t> file = read_file(path);
    const std::string client = "ffmpeg/" + name + "/" + std::to_string(int(cuts));
    ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    const FeedResult fed = cuts == Cuts::whole   ? feed_whole(client, file)
                           : cuts == Cuts::bytes ? feed_pieces(client, file, 1)
                                                 : feed(client, file, random_cuts(file.size(), file.size() / 1500 + 2, seed));
    EXPECT_EQ(fed.error, 0u) << "at " << fed.error_offset;
    const std::vector<QORVANE_MP4HDR>& headers = fed.headers;
    const std::vector<ParsedTrack> tracks = parsed_tracks(client.c_str());
    auto cached = streams_.find(name);
    if (cached == streams_.end()) cached = streams_.emplace(name, probe_streams(path)).first;
    const std::vector<Stream>& streams = cached->second;
    QORVANE_HDRMVHD mvhd{};
    EXPECT_TRUE(Boxlane_Parse_GetMVhd(client.c_str(), &mvhd));
    EXPECT_EQ(mvhd.nNextTrackID, expect_tracks + 1);
    ASSERT_NE(mvhd.nTimeScale, 0u);
    EXPECT_NEAR(double(mvhd.nDuration) / mvhd.nTimeScale, std::stod(format_duration(path)), 0.001);
    ASSERT_EQ(tracks.size(), expect_tracks);
    ASSERT_EQ(streams.size(), expect_tracks);
    for (std::size_t i = 0; i < tracks.size(); ++i) expect_agree(tracks[i], streams[i], mvhd.nTimeScale);

    // One header record per box down to the sample tables, the mdat's with
    // its full size.
    std::size_t stsd = 0;
    uint64_t mdat_size = 0;
    for (const QORVANE_MP4HDR& h : headers) {
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

  static std::string dir_;
  static std::map<std::string, std::vector<Stream>> streams_;
};

std::string FfmpegFiles::dir_;
std::map<std::string, std::vector<Stream>> FfmpegFiles::streams_;

TEST_F(FfmpegFiles, MoovAtTheEnd) {
  for (Cuts cuts : {Cuts::whole, Cuts::bytes, Cuts::random}) check("moov_at_end", cuts, 1);
}

TEST_F(FfmpegFiles, FaststartWithBFramesAndAudio) {
  for (Cuts cuts : {Cuts::whole, Cuts::bytes, Cuts::random}) check("faststart_bframes", cuts, 2);
}

TEST_F(FfmpegFiles, SingleKindFiles) {
  for (Cuts cuts : {Cuts::whole, Cuts::random}) {
    check("video_only", cuts, 1, 7);
    check("audio_only", cuts, 1, 8);
  }
}

TEST_F(FfmpegFiles, TwoVideoTracksAndOneAudio) {
  for (Cuts cuts : {Cuts::whole, Cuts::random}) check("two_video_one_audio", cuts, 3, 3);
}

TEST_F(FfmpegFiles, TensOfThousandsOfSamples) {
  for (unsigned seed : {11u, 12u}) check("long", Cuts::random, 2, seed);
  check("long", Cuts::whole, 2);
}

}  // namespace
}  // namespace boxlane::test
