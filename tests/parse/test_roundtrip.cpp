// A file written through the flat writer functions and parsed back: every
// table holds what the writer was handed, frame by frame, and the samples the
// tables point at tile the mdat payload exactly.
#include "parsed_stream.hpp"
#include "platform/annexb.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <algorithm>
#include <map>
#include <sstream>

namespace boxlane::test {
namespace {

struct Source {
  Mp4VideoInput video;
  Mp4AudioInput audio;
  std::vector<uint8_t> sps, pps;
};

// H.264 with B-frames and AAC from FFmpeg. The composition offsets of the
// access units come from the packets of an mp4 FFmpeg made of the same stream.
Source make_source() {
  Source s;
  const std::string dir = temp_dir();
  const std::string mp4 = dir + "/src.mp4", h264 = dir + "/src.h264", aac = dir + "/src.aac";
  const std::string quiet = "ffmpeg -nostdin -hide_banner -loglevel error -y ";
  EXPECT_EQ(run(quiet + "-f lavfi -i testsrc=size=160x120:rate=30 -t 1 -c:v libx264 -preset veryfast -bf 2 -x264-params b-adapt=0 -g 12 "
                        "-pix_fmt yuv420p '" + mp4 + "'"), 0);
  EXPECT_EQ(run(quiet + "-i '" + mp4 + "' -c:v copy -bsf:v h264_mp4toannexb -f h264 '" + h264 + "'"), 0);
  EXPECT_EQ(run(quiet + "-f lavfi -i sine=sample_rate=44100 -t 1 -c:a aac -b:a 32k -f adts '" + aac + "'"), 0);
  std::string packets;
  EXPECT_EQ(run("ffprobe -v error -show_entries packet=pts,dts,duration -of csv=p=0 '" + mp4 + "'", &packets), 0);
  std::istringstream rows(packets);
  for (std::string row; std::getline(rows, row);) {
    long long pts = 0, dts = 0, duration = 1;
    if (std::sscanf(row.c_str(), "%lld,%lld,%lld", &pts, &dts, &duration) == 3 && duration > 0)
      s.video.composition_frames.push_back(int((pts - dts) / duration));
  }
  s.video.annexb = read_file(h264);
  s.video.frame_rate = 30;
  s.video.width = 160;
  s.video.height = 120;
  s.audio.adts = read_file(aac);
  AnnexBSplitter split(s.video.annexb.data(), s.video.annexb.size());
  for (NalUnit nal; split.next(nal);) {
    auto& set = nal.type() == 7 ? s.sps : s.pps;
    if ((nal.type() == 7 || nal.type() == 8) && set.empty()) set.assign(nal.data, nal.data + nal.size);
  }
  return s;
}

uint64_t be32(const std::vector<uint8_t>& b, uint64_t at) {
  return uint64_t{b.at(at)} << 24 | uint64_t{b.at(at + 1)} << 16 | uint64_t{b.at(at + 2)} << 8 | b.at(at + 3);
}

// The AudioSpecificConfig that an ADTS header stands for (ISO/IEC 14496-3
// §1.6.2.1 and §1.A.2.2): object type, sampling index, channels.
std::vector<uint8_t> config_of_adts(const std::vector<uint8_t>& adts) {
  const unsigned object = (adts.at(2) >> 6) + 1, index = (adts[2] >> 2) & 0x0F;
  const unsigned channels = ((adts[2] & 1) << 2) | (adts[3] >> 6);
  const unsigned config = object << 11 | index << 7 | channels << 3;
  return {uint8_t(config >> 8), uint8_t(config)};
}

TEST(RoundTrip, WrittenTablesParseBack) {
  BOXLANE_REQUIRE_FFMPEG();
  const Source src = make_source();
  const auto [low, high] = std::minmax_element(src.video.composition_frames.begin(), src.video.composition_frames.end());
  ASSERT_LT(*low, *high) << "the source has no B-frames";
  ASSERT_FALSE(src.sps.empty());
  const Mp4WriteResult written = write_mp4("roundtrip/writer", &src.video, &src.audio);
  ASSERT_FALSE(HasFailure());
  const std::size_t frames = written.video_sizes.size();
  ASSERT_EQ(frames, src.video.composition_frames.size());
  const uint32_t frame_ticks = written.time_scale / 30;

  for (int cut = 0; cut < 2; ++cut) {
    SCOPED_TRACE("cut " + std::to_string(cut));
    const std::string client = "roundtrip/parser/" + std::to_string(cut);
    ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    const FeedResult fed = cut == 0 ? feed_whole(client, written.file)
                                    : feed(client, written.file, random_cuts(written.file.size(), 40, 5));
    EXPECT_EQ(fed.error, 0u);
    const std::vector<ParsedTrack> tracks = parsed_tracks(client.c_str());
    ASSERT_EQ(tracks.size(), 2u);
    const ParsedTrack& v = tracks[0];
    const ParsedTrack& a = tracks[1];

    QORVANE_HDRFTYP ftyp{};
    ASSERT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
    EXPECT_STREQ(ftyp.tszMajorBrand, "isom");
    EXPECT_EQ(ftyp.nMinorVersion, 512u);
    std::vector<std::string> brands(ftyp.pptszCompatibleBrand, ftyp.pptszCompatibleBrand + ftyp.nBrandCount);
    EXPECT_EQ(brands, (std::vector<std::string>{"isom", "iso2", "avc1", "mp41"}));
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    QORVANE_HDRMVHD mvhd{};
    ASSERT_TRUE(Boxlane_Parse_GetMVhd(client.c_str(), &mvhd));
    EXPECT_EQ(mvhd.nTimeScale, written.time_scale);
    EXPECT_EQ(mvhd.nNextTrackID, 2u);  // the writer puts 2 there whatever the track count

    // Video: header values, the avcC sets, and each frame's duration,
    // composition offset, key flag and size.
    EXPECT_EQ(v.id, 1);
    EXPECT_EQ(v.tkhd.nWidth, 160);
    EXPECT_EQ(v.tkhd.nHeight, 120);
    EXPECT_EQ(v.mdhd.nTimeScale, written.time_scale);
    EXPECT_EQ(v.mdhd.nDuration, uint64_t{frames} * frame_ticks);
    EXPECT_STREQ(v.hdlr.tszHandlerType, "vide");
    EXPECT_STREQ(v.codec.tszCodec, "avc1");
    EXPECT_EQ(v.codec.wWidth, 160);
    EXPECT_EQ(v.codec.byNALLengthSize, 4);
    ASSERT_EQ(v.codec.nSPSCount, 1);
    ASSERT_EQ(v.codec.nPPSCount, 1);
    EXPECT_EQ(hex(v.codec.byParamSets, v.codec.wSPSLen[0]), hex(src.sps));
    EXPECT_EQ(hex(v.codec.byParamSets + v.codec.wSPSLen[0], v.codec.wPPSLen[0]), hex(src.pps));
    EXPECT_EQ(v.codec.byProfile, src.sps.at(1));
    EXPECT_EQ(v.codec.byLevel, src.sps.at(3));
    std::vector<uint64_t> want_dts;
    std::vector<int32_t> want_cts;
    std::vector<int32_t> want_keys;
    for (std::size_t i = 0; i < frames; ++i) {
      want_dts.push_back(i * frame_ticks);
      want_cts.push_back(int32_t((src.video.composition_frames[i] + written.composition_shift) * int(frame_ticks)));
      if (written.video_keys[i]) want_keys.push_back(int32_t(i + 1));
    }
    EXPECT_EQ(v.dts(), want_dts);
    EXPECT_EQ(v.composition_offsets(), want_cts);
    EXPECT_EQ(v.stss, want_keys);
    EXPECT_EQ(v.sizes(), written.video_sizes);

    // Audio: every frame 1024 ticks, no sync table, the ADTS configuration.
    EXPECT_EQ(a.id, 2);
    EXPECT_STREQ(a.hdlr.tszHandlerType, "soun");
    EXPECT_EQ(a.tkhd.wVolume, 0x0100);
    EXPECT_EQ(a.mdhd.nDuration, uint64_t{written.audio_sizes.size()} * 1024);
    ASSERT_EQ(a.stts.size(), 1u);
    EXPECT_EQ(a.stts[0].nValue1, written.audio_sizes.size());
    EXPECT_EQ(a.stts[0].nValue2, 1024u);
    EXPECT_TRUE(a.ctts.empty());
    EXPECT_TRUE(a.stss.empty());
    EXPECT_EQ(a.sizes(), written.audio_sizes);
    EXPECT_STREQ(a.codec.tszCodec, "mp4a");
    EXPECT_EQ(a.codec.nSampleRate, written.time_scale);
    EXPECT_EQ(hex(a.codec.byAudioCfg, std::size_t(a.codec.nAudioCfgLen)), hex(config_of_adts(src.audio.adts)));

    // The samples of both tracks, by offset, fill the mdat payload without
    // gap or overlap; each video sample opens with a NAL length inside it.
    std::map<uint64_t, std::pair<uint32_t, bool>> by_offset;
    for (const ParsedTrack* t : {&v, &a}) {
      const std::vector<uint64_t> offsets = t->offsets();
      const std::vector<uint32_t> sizes = t->sizes();
      ASSERT_EQ(offsets.size(), sizes.size());
      for (std::size_t i = 0; i < offsets.size(); ++i) by_offset[offsets[i]] = {sizes[i], t == &v};
    }
    ASSERT_EQ(by_offset.size(), frames + written.audio_sizes.size());
    uint64_t at = 32 + 8;  // ftyp, mdat header
    for (const auto& [offset, sample] : by_offset) {
      ASSERT_EQ(offset, at);
      if (sample.second) {
        EXPECT_LE(be32(written.file, offset) + 4, sample.first);
      }
      at += sample.first;
    }
    EXPECT_EQ(at, 40 + be32(written.file, 32) - 8);
    EXPECT_TRUE(Boxlane_Parse_Delete(client.c_str()));
  }
}

}  // namespace
}  // namespace boxlane::test
