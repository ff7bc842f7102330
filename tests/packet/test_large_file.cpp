// A file past 4 GiB written through the flat API, cheaply: 4 GiB of the
// mdat are a hole in a sparse file between two copies of a short clip, so
// the second copy's samples lie past 2^32 while the file takes a few hundred
// kilobytes of disk. FFmpeg must decode every picture, those past 4 GiB
// included, to the source's, and find every sample where the chunk offsets
// say. The clock runs at 1.92 GHz, so the four seconds of video also pass
// 2^32 ticks.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

constexpr int64_t k4GiB = int64_t{1} << 32;
constexpr int32_t kTimeScale = 1920000000;
constexpr int32_t kFrameTicks = kTimeScale / 30;
constexpr int32_t kAacTicks = 1024 * (kTimeScale / 48000);
constexpr uint16_t kUndetermined = 0x55C4;
constexpr int64_t kFtyp = 32, kMdatHeader = 16;

// Removes the file however the test ends.
struct RemovedAtEnd {
  std::string path;
  ~RemovedAtEnd() { ::unlink(path.c_str()); }
};

// Whether a file with a 4 GiB hole takes (almost) no disk here.
bool holes_are_free(const std::string& path) {
  const RemovedAtEnd probe{path};
  const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) return false;
  struct stat st {};
  const bool sparse = ::ftruncate(fd, k4GiB) == 0 && ::fstat(fd, &st) == 0 && st.st_blocks < 2048;
  ::close(fd);
  return sparse;
}

// A track's boxes but its chunk offsets, which depend on where the moov goes.
struct TrackParts {
  bool video;
  std::vector<uint8_t> tkhd, mdhd, hdlr, xmhd, dinf, tables;  // tables: stsd to stsz
};

class LargeFile : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ASSERT_TRUE(Boxlane_Packet_Insert(kClient)); }
  void TearDown() override { Boxlane_Packet_Delete(kClient); }

  // Hands a sample to the writer at `at` (in the file as it would be without
  // a moov) and keeps its bytes for the file.
  void add(bool video, const uint8_t* const* nalus, const int32_t* lengths, int32_t count, int key) {
    int64_t size = 0;
    for (int32_t i = 0; i < count; ++i) size += (video ? 4 : 0) + lengths[i];
    const auto bytes = video ? writer_.produce("FrameAccessUnit", size, Boxlane_Packet_FrameAccessUnit, nalus, lengths,
                                               count, at_, key, kFrameTicks, 0)
                             : writer_.produce("FrameAudio", size, Boxlane_Packet_FrameAudio, nalus[0], lengths[0],
                                               at_, kAacTicks);
    (video ? video_at_ : audio_at_).push_back(at_);
    samples_.push_back({at_, bytes});
    at_ += static_cast<int64_t>(bytes.size());
  }

  TrackParts track(const tag_Qorvane_AVProtocol& description, uint64_t duration) {
    const bool video = description.bVideo != 0;
    TrackParts t{video, {}, {}, {}, {}, {}, {}};
    t.tkhd = writer_.produce("tkhd", 104, Boxlane_Packet_TKhd64, video ? 0 : 0x0100, video ? 160 : 0, video ? 120 : 0,
                             duration);
    t.mdhd = writer_.produce("mdhd", 44, Boxlane_Packet_MDhd64, kUndetermined, duration);
    t.hdlr = writer_.produce("hdlr", 45, Boxlane_Packet_HDlr, video ? 0 : 1);
    t.xmhd = video ? writer_.produce("vmhd", 20, Boxlane_Packet_VMhd) : writer_.produce("smhd", 16, Boxlane_Packet_SMhd, 0);
    t.dinf = writer_.produce("dinf", 36, Boxlane_Packet_DInf);
    const std::size_t room = 64 + 8 * samples_.size();
    t.tables = cat({writer_.produce("stsd", 2400, Boxlane_Packet_STsd, &description),
                    writer_.produce("stts", room, Boxlane_Packet_STts, video),
                    video ? writer_.produce("stss", room, Boxlane_Packet_STss) : std::vector<uint8_t>{},
                    writer_.produce("stsc", 28, Boxlane_Packet_STsc), writer_.produce("stsz", room, Boxlane_Packet_STsz, video)});
    return t;
  }

  int32_t offsets_size(bool video, int64_t delta) {
    int32_t size = -1;
    EXPECT_TRUE(Boxlane_Packet_STco64Size(kClient, video, delta, &size));
    return size;
  }

  std::vector<uint8_t> trak(const TrackParts& t, int64_t delta) {
    const auto offsets = writer_.produce("chunk offsets", 1 << 16, Boxlane_Packet_STco64, t.video, delta);
    EXPECT_EQ(static_cast<int64_t>(offsets.size()), offsets_size(t.video, delta));
    const auto stbl = writer_.container("stbl", {t.tables, offsets});
    return writer_.container("trak", {t.tkhd, writer_.container("mdia", {t.mdhd, t.hdlr,
                                                                          writer_.container("minf", {t.xmhd, t.dinf, stbl})})});
  }

  static constexpr const char* kClient = "writer/large-file";
  Mp4BoxWriter writer_{kClient, {}};
  int64_t at_ = kFtyp + kMdatHeader;
  std::vector<std::pair<int64_t, std::vector<uint8_t>>> samples_;
  std::vector<int64_t> video_at_, audio_at_;
};

// File position and size of every packet of one stream, as ffprobe finds them.
std::vector<std::pair<int64_t, int64_t>> packet_places(const std::string& path, char kind) {
  std::string text;
  run("ffprobe -v error -select_streams " + std::string(1, kind) + ":0 -show_entries packet=pos,size -of csv=p=0 " +
          shell_quote(path), &text);
  std::vector<std::pair<int64_t, int64_t>> places;
  std::istringstream rows(text);
  for (std::string size, pos; std::getline(rows, size, ',') && std::getline(rows, pos);)
    places.emplace_back(std::stoll(pos), std::stoll(size));
  return places;
}

TEST_P(LargeFile, FfmpegDecodesThePicturesPastFourGibibytes) {
  BOXLANE_REQUIRE_FFMPEG();
  const bool moov_first = GetParam();
  const std::string dir = temp_dir() + "/";
  if (!holes_are_free(dir + "probe")) GTEST_SKIP() << "this file system stores holes";
  const std::string h264 = dir + "clip.h264", aac = dir + "clip.aac", twice = dir + "twice.h264";
  const RemovedAtEnd out{dir + "large.mp4"};
  // Two seconds that start with an IDR picture and have none after it, so a
  // second copy played after the first shows the same pictures again.
  std::string log;
  ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -map 0:v -c:v libx264 -preset ultrafast "
                   "-bf 0 -g 600 -x264-params slices=1 -pix_fmt yuv420p -f h264 " + shell_quote(h264) +
                       " -f lavfi -i sine=frequency=330:sample_rate=48000:duration=2 -map 1:a -c:a aac -f adts " +
                       shell_quote(aac), &log), 0) << log;
  const auto clip = read_file(h264);
  write_file(twice, cat({clip, clip}));
  const auto adts = read_file(aac);
  const SplitVideo video = split_access_units(clip);
  AdtsHeader audio_header;
  const auto audio = split_adts(adts, audio_header);
  ASSERT_EQ(video.units.size(), 60u);

  // The first copy and all the audio, interleaved by time; then the hole;
  // then the second copy from just past 4 GiB.
  const auto add_video = [&](const SplitAccessUnit& u) {
    add(true, u.nalus.data(), u.lengths.data(), static_cast<int32_t>(u.nalus.size()), u.key ? 1 : 0);
  };
  std::size_t a = 0;
  const auto add_audio_until = [&](int64_t ticks) {
    for (; a < audio.size() && int64_t(a) * kAacTicks <= ticks; ++a) add(false, &audio[a].data, &audio[a].size, 1, 0);
  };
  for (std::size_t v = 0; v < video.units.size(); ++v) {
    add_audio_until(int64_t(v) * kFrameTicks);
    add_video(video.units[v]);
  }
  add_audio_until(INT64_MAX);
  ASSERT_LT(at_, k4GiB - 4096);
  at_ = k4GiB + 1000;
  for (const auto& unit : video.units) add_video(unit);
  const int64_t end = at_;

  const uint64_t video_ticks = 2 * video.units.size() * uint64_t{kFrameTicks};
  const uint64_t audio_ticks = audio.size() * uint64_t{kAacTicks};
  const auto mvhd = writer_.produce("mvhd", 120, Boxlane_Packet_MVhd64, std::max(video_ticks, audio_ticks), kTimeScale);
  tag_Qorvane_AVProtocol description{};
  description.bVideo = 1;
  const auto header = cat({unhex("00000001"), video.sps, unhex("00000001"), video.pps});
  std::memcpy(description.tszVideoHdr, header.data(), header.size());
  description.nVideoHdrLen = static_cast<int32_t>(header.size());
  const TrackParts video_parts = track(description, video_ticks);
  description = {};
  description.nAudioChannel = audio_header.channel_config;
  description.nAudioSampleRate = static_cast<int32_t>(audio_header.sample_rate);
  description.nAudioSampleBit = 16;
  description.nAudioCfgLen = 2;
  audio_specific_config(audio_header, description.tszAudioCfg);
  const TrackParts audio_parts = track(description, audio_ticks);

  // With the moov first every sample moves by the moov's size, which depends
  // on the offset tables it holds: repeat until the two agree.
  int64_t delta = 0;
  if (moov_first) {
    const int64_t rest = writer_.container("moov", {mvhd, trak(video_parts, 0), trak(audio_parts, 0)}).size() -
                         offsets_size(true, 0) - offsets_size(false, 0);
    for (int64_t previous = -1; delta != previous;) {
      previous = delta;
      delta = rest + offsets_size(true, previous) + offsets_size(false, previous);
    }
  }
  const auto moov = writer_.container("moov", {mvhd, trak(video_parts, delta), trak(audio_parts, delta)});
  if (moov_first) {
    ASSERT_EQ(static_cast<int64_t>(moov.size()), delta);
  }
  // The video offsets went to co64, the audio ones stayed 32-bit.
  const std::string moov_text(moov.begin(), moov.end());
  EXPECT_NE(moov_text.find("co64"), std::string::npos);
  EXPECT_NE(moov_text.find("stco"), std::string::npos);

  const int fd = ::open(out.path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  const auto put = [&](int64_t at, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
  };
  put(0, writer_.produce("ftyp", 32, Boxlane_Packet_FTyp));
  if (moov_first) put(kFtyp, moov);
  put(kFtyp + delta,
      writer_.produce("mdat", 16, Boxlane_Packet_HDRBox64, "mdat", static_cast<uint64_t>(end - kFtyp - kMdatHeader)));
  for (const auto& [at, bytes] : samples_) put(at + delta, bytes);
  if (!moov_first) put(end, moov);
  struct stat st {};
  ASSERT_EQ(::fstat(fd, &st), 0);
  ::close(fd);
  const int64_t file_size = end + static_cast<int64_t>(moov.size());
  ASSERT_EQ(st.st_size, file_size);
  EXPECT_LT(st.st_blocks * 512, 16 << 20) << "the hole took disk";

  expect_decodes_like(out.path, twice, aac);
  std::string durations;
  run("ffprobe -v error -show_entries format=duration:stream=duration -of csv=p=0 " + shell_quote(out.path), &durations);
  EXPECT_EQ(durations, "4.000000\n" + std::to_string(audio_ticks / double(kTimeScale)) + "\n4.000000\n");

  for (const auto& [kind, expected] : {std::pair{'v', video_at_}, std::pair{'a', audio_at_}}) {
    SCOPED_TRACE(kind);
    const auto places = packet_places(out.path, kind);
    ASSERT_EQ(places.size(), expected.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
      EXPECT_EQ(places[i].first, expected[i] + delta) << "packet " << i;
      EXPECT_LE(places[i].first + places[i].second, file_size) << "packet " << i;
    }
  }
  EXPECT_GT(packet_places(out.path, 'v').back().first, k4GiB);
}

INSTANTIATE_TEST_SUITE_P(MoovLastAndFirst, LargeFile, ::testing::Bool());

}  // namespace
}  // namespace boxlane::test
