// The choice of stco or co64 per track in `boxlane mux`, on both sides of
// 2^32 and where a moov placed first grows and carries the other track past it.
#include <gtest/gtest.h>

#include "tools/common/chunk_offsets.hpp"

#include <cstdint>
#include <optional>
#include <ostream>

namespace boxlane::tool {

// Found by GoogleTest through the type's namespace.
inline void PrintTo(const OffsetTables& t, std::ostream* os) {
  *os << "video " << (t.video_wide ? "co64" : "stco") << ", audio " << (t.audio_wide ? "co64" : "stco");
}

namespace {

constexpr uint64_t k4GiB = uint64_t{1} << 32;
constexpr uint64_t kHeaders = 32 + 16;  // ftyp and a 64-bit mdat header
constexpr uint64_t kMoov = 100000;      // with both tables 32-bit
constexpr uint64_t kVideoSamples = 1000, kAudioSamples = 2000;

TEST(ChunkOffsets, EachTrackWidensWhenItsLastSampleReachesTwoToThe32) {
  const struct {
    bool moov_first;
    std::optional<uint64_t> last_video, last_audio;  // in the mdat payload
    OffsetTables expected;
  } cases[] = {
      // The moov last: the payload starts after ftyp and the mdat header.
      {false, k4GiB - kHeaders - 1, 0, {false, false}},
      {false, k4GiB - kHeaders, 0, {true, false}},
      {false, 0, k4GiB - kHeaders, {false, true}},
      // The moov first: its size moves every sample.
      {true, k4GiB - kHeaders - kMoov - 1, 0, {false, false}},
      {true, k4GiB - kHeaders - kMoov, 0, {true, false}},
      // Audio alone reaches 2^32; its co64 adds 8000 bytes to the moov, which
      // carries the last video sample, 5000 bytes short, past it as well.
      {true, k4GiB - kHeaders - kMoov - 5000, k4GiB - kHeaders - kMoov, {true, true}},
      // With the moov last its size moves nothing.
      {false, k4GiB - kHeaders - kMoov - 5000, k4GiB - kHeaders - kMoov, {false, false}},
      {true, k4GiB - kHeaders - kMoov - 8001, k4GiB - kHeaders - kMoov, {false, true}},
      // A track the movie lacks never gets a table.
      {true, std::nullopt, k4GiB, {false, true}},
      {false, k4GiB, std::nullopt, {true, false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "moov first " << c.moov_first << ", last video "
                                    << c.last_video.value_or(~uint64_t{0}) << ", last audio "
                                    << c.last_audio.value_or(~uint64_t{0}));
    int rounds = 0;
    const auto payload_at = [&](OffsetTables t) {
      ++rounds;
      const uint64_t moov = kMoov + (t.video_wide ? 4 * kVideoSamples : 0) + (t.audio_wide ? 4 * kAudioSamples : 0);
      return kHeaders + (c.moov_first ? moov : 0);
    };
    EXPECT_EQ(choose_offset_tables(payload_at, c.last_video, c.last_audio), c.expected);
    EXPECT_LE(rounds, 3);
  }
}

}  // namespace
}  // namespace boxlane::tool
