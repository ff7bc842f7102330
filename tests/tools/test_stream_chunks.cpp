// The live stream cutters of `boxlane mux --fragment`: however the input
// arrives (a byte at a time, a few, all at once), H.264 is cut where the
// access unit of each IDR picture begins, and ADTS at whole frames.
#include <gtest/gtest.h>

#include <string>
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

struct Cut {
  uint64_t offset;
  std::size_t units;
  std::vector<bool> keys;
  bool operator==(const Cut&) const = default;
};

std::vector<Cut> cut_video(const std::string& path, std::size_t piece) {
  LiveInput in(path);
  VideoChunker chunker(in);
  std::vector<Cut> cuts;
  VideoChunk chunk;
  while (!chunker.finished()) {
    in.read_some(piece);
    while (chunker.next(chunk)) {
      Cut c{chunk.input_offset, chunk.stream.units.size(), {}};
      for (const auto& u : chunk.stream.units) c.keys.push_back(u.key);
      cuts.push_back(c);
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
  for (const Cut& c : reference) {
    units += c.units;
    // Each piece opens with the AUD (type 9) of an IDR picture's access unit, its only key frame.
    ASSERT_LT(c.offset + 4, bytes.size());
    EXPECT_EQ(hex(bytes.data() + c.offset, 5), "00 00 00 01 09") << "piece at " << c.offset;
    EXPECT_TRUE(c.keys.front());
    EXPECT_EQ(std::count(c.keys.begin(), c.keys.end(), true), 1);
  }
  EXPECT_EQ(reference.size(), 4u);  // 30 frames, a key frame every 8
  EXPECT_EQ(units, whole.units.size());
  for (const std::size_t piece : {1, 2, 3, 5, 7, 64, 1000})
    EXPECT_EQ(cut_video(dir + "aud.h264", piece), reference) << "read " << piece << " bytes at a time";
}

TEST(StreamChunks, AudioComesInWholeFramesAndACutFrameIsReported) {
  const auto plain = read_file(source_dir() + "/tests/data/sample.aac");
  tool::AudioStream whole;
  tool::scan_audio(plain.data(), plain.size(), "whole", whole);
  // The same frames after an ID3v2.4 tag of 200 bytes (syncsafe size 01 48) and its footer.
  auto tag = unhex("49 44 33 04 00 10 00 00 01 48");
  tag.resize(210);
  const std::vector<uint8_t> tagged = cat({tag, unhex("33 44 49 04 00 10 00 00 01 48"), plain});
  const std::string dir = temp_dir() + "/";
  for (const auto* bytes : {&plain, &tagged}) {
    write_file(dir + "in.aac", *bytes);
    write_file(dir + "cut.aac", {bytes->begin(), bytes->end() - 5});
    for (const std::size_t piece : {1, 6, 7, 100, 0}) {
      for (const bool cut_short : {false, true}) {
        SCOPED_TRACE(std::to_string(bytes->size()) + " bytes read " + std::to_string(piece) + " at a time" +
                     (cut_short ? ", cut" : ""));
        LiveInput in(dir + (cut_short ? "cut.aac" : "in.aac"));
        AudioChunker chunker(in);
        AudioChunk chunk;
        std::size_t frames = 0;
        uint64_t next = 0;
        while (!chunker.finished()) {
          in.read_some(piece);
          while (chunker.next(chunk)) {
            EXPECT_EQ(chunk.input_offset, next);
            next += chunk.bytes.size();
            frames += chunk.stream.frames.size();
          }
        }
        EXPECT_EQ(frames, whole.frames.size() - (cut_short ? 1 : 0));
        EXPECT_EQ(chunker.cut_short(), cut_short);
        if (cut_short) {
          EXPECT_EQ(chunker.cut_at(), bytes->size() - whole.frames.back().size);
        }
      }
    }
  }
}

}  // namespace
}  // namespace boxlane::test
