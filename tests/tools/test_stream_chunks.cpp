// The live stream cutters of `boxlane mux --fragment`: however the input
// arrives (a byte at a time, a few, all at once), H.264 is cut where the
// access unit of each IDR picture begins, and ADTS at whole frames.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/paths.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/mux/stream_chunks.hpp"

namespace boxlane::test {
namespace {

using tool::AudioChunk;
using tool::AudioChunker;
using tool::LiveInput;
using tool::VideoChunk;
using tool::VideoChunker;

// Each piece of `path` read `piece` bytes at a time: its offset and the key
// flags of its units.
std::vector<std::pair<uint64_t, std::vector<bool>>> cut_video(const std::string& path, std::size_t piece) {
  LiveInput in(path);
  VideoChunker chunker(in);
  std::vector<std::pair<uint64_t, std::vector<bool>>> cuts;
  for (VideoChunk chunk; !chunker.finished();) {
    in.read_some(piece);
    while (chunker.next(chunk)) {
      cuts.push_back({chunk.input_offset, {}});
      for (const auto& u : chunk.stream.units) cuts.back().second.push_back(u.key);
    }
  }
  return cuts;
}

TEST(StreamChunks, VideoIsCutWhereEachIdrAccessUnitBegins) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  // AUDs and SEI before every picture, parameter sets before every IDR.
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=64x48:rate=25:duration=1.2 -c:v libx264 -g 8 -bf 2 "
                   "-x264-params aud=1 -f h264 " + shell_quote(dir + "aud.h264")),
            0);
  const auto bytes = read_file(dir + "aud.h264");
  tool::VideoStream whole;
  tool::scan_video(bytes.data(), bytes.size(), "whole", whole);
  const auto reference = cut_video(dir + "aud.h264", 0);
  std::size_t units = 0;
  for (const auto& [offset, keys] : reference) {
    // Each piece opens with the AUD (type 9) of an IDR picture's access unit, its only key frame.
    ASSERT_LT(offset + 4, bytes.size());
    EXPECT_EQ(hex(bytes.data() + offset, 5), "00 00 00 01 09") << "piece at " << offset;
    EXPECT_TRUE(keys.front());
    EXPECT_EQ(std::count(keys.begin(), keys.end(), true), 1);
    units += keys.size();
  }
  EXPECT_EQ(reference.size(), 4u);  // 30 frames, a key frame every 8
  EXPECT_EQ(units, whole.units.size());
  for (const std::size_t piece : {1, 2, 3, 5, 7, 64, 1000})
    EXPECT_EQ(cut_video(dir + "aud.h264", piece), reference) << "read " << piece << " bytes at a time";
}

struct AudioCut {
  std::size_t frames = 0;
  bool cut_short = false;
  uint64_t cut_at = 0;
};

// `bytes` fed to an AudioChunker `piece` bytes at a time (0: all at once),
// each chunk starting where the one before ended.
AudioCut cut_audio(const std::vector<uint8_t>& bytes, std::size_t piece) {
  const std::string path = temp_dir() + "/in.aac";
  write_file(path, bytes);
  LiveInput in(path);
  AudioChunker chunker(in);
  AudioChunk chunk;
  AudioCut cut;
  for (uint64_t next = 0; !chunker.finished();) {
    in.read_some(piece);
    for (; chunker.next(chunk); next += chunk.bytes.size()) {
      EXPECT_EQ(chunk.input_offset, next);
      cut.frames += chunk.stream.frames.size();
    }
  }
  return {cut.frames, chunker.cut_short(), chunker.cut_at()};
}

TEST(StreamChunks, AudioComesInWholeFramesAndACutFrameIsReported) {
  const auto plain = read_file(source_dir() + "/tests/data/sample.aac");
  tool::AudioStream whole;
  tool::scan_audio(plain.data(), plain.size(), "whole", whole);
  // The same frames after an ID3v2.4 tag of 200 bytes (syncsafe size 01 48) and its footer.
  auto tag = unhex("49 44 33 04 00 10 00 00 01 48");
  tag.resize(210);
  const std::vector<uint8_t> tagged = cat({tag, unhex("33 44 49 04 00 10 00 00 01 48"), plain});
  for (const auto* bytes : {&plain, &tagged}) {
    const std::size_t last = bytes->size() - whole.frames.back().size;
    for (const std::size_t piece : {1, 6, 7, 100, 0}) {
      SCOPED_TRACE(std::to_string(bytes->size()) + " bytes read " + std::to_string(piece) + " at a time");
      const AudioCut all = cut_audio(*bytes, piece), cut = cut_audio({bytes->begin(), bytes->end() - 5}, piece);
      EXPECT_EQ(all.frames, whole.frames.size());
      EXPECT_FALSE(all.cut_short);
      EXPECT_EQ(cut.frames, whole.frames.size() - 1);
      EXPECT_TRUE(cut.cut_short);
      EXPECT_EQ(cut.cut_at, last);
    }
  }
  // A later piece whose header gives another sampling_frequency_index is
  // refused where it starts.
  auto changed = plain;
  changed[whole.frames[0].size + 2] ^= 0x04;
  try {
    cut_audio(changed, 7);
    ADD_FAILURE() << "a changed sample rate accepted";
  } catch (const tool::ToolError& e) {
    EXPECT_NE(std::string(e.what()).find("at byte " + std::to_string(whole.frames[0].size) + " changes the sample"),
              std::string::npos)
        << e.what();
  }
}

}  // namespace
}  // namespace boxlane::test
