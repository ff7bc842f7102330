// The bound on what one parse client holds, in both modes, against streams
// that make it hold far more than it was sent, read from the allocator itself.
#include "parse_fixtures.hpp"

#include "parse/holdings.hpp"

#include <malloc.h>

// The address sanitizer's allocator counts the bytes asked for (GCC ships no header for it).
#if !defined(__has_feature)
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t), void (*)(const volatile void*));
uint64_t allocated() { return __sanitizer_get_current_allocated_bytes(); }
// The most allocated at once since the last call, looked at after every allocation from the first call on: a
// list's old block while it moves to a larger one counts too.
std::atomic<uint64_t> g_most{0};
uint64_t most_allocated() {
  [[maybe_unused]] static const int hooked = __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) {
    for (uint64_t now = allocated(), most = g_most; now > most && !g_most.compare_exchange_weak(most, now);) {}
  }, [](const volatile void*) {});
  return g_most.exchange(allocated());
}
#elif defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
// The thread sanitizer's allocator counts whole size classes, glibc's counters none of its blocks.
#define BOXLANE_NO_ALLOCATION_COUNT 1
uint64_t allocated() { return 0; }
uint64_t most_allocated() { return 0; }
#else
uint64_t allocated() { return mallinfo2().uordblks; }
uint64_t most_allocated() { return allocated(); }
#endif

namespace boxlane::test {
namespace {

constexpr uint64_t kLimit = 4 << 20;

Bytes ftyp_of(std::size_t bytes) {
  Bytes payload = Bytes{}.str("isom").u32(0);
  while (payload.size() < bytes) payload.str("avc1");
  return box("ftyp", payload);
}

// `one` after `first`, again and again, to `total` bytes.
Bytes repeated(Bytes first, const Bytes& one, std::size_t total) {
  while (first.size() < total) first.add(one);
  return first;
}

const Bytes kTrack = box("tkhd", tkhd_payload(1));

// The sample description for track after track, to 8 MiB.
Bytes tracks_of(const Bytes& stsd) {
  Bytes b;
  for (uint32_t id = 1; b.size() < (8u << 20); ++id) b.add(box("tkhd", tkhd_payload(id))).add(stsd);
  return b;
}

struct Shape {
  const char* name;
  Bytes (*stream)();
  uint32_t refused;  // the modes (1 << flags) in which the stream goes past the bound
  bool fills;        // box by box, so the client comes near the bound first
};
const Shape kShapes[] = {
    // 64 MiB declared, only its start sent: its size alone must stop it.
    {"huge_ftyp", [] { return cat({Bytes{}.u32(64u << 20).str("ftyp"), ftyp_of(1 << 16)}); }, 3, false},
    // 1 MiB: its buffer and its brands fit the bound, and it is read whole.
    {"large_ftyp", [] { return ftyp_of(1u << 20); }, 0, false},
    // A 1.5 MiB free box, which no reader reads: its buffer alone counts.
    {"large_free", [] { return box("free", Bytes{}.zeros(3u << 19)); }, 0, false},
    // A free box of exactly the bound, past it with the client's own record however much of the box a piece holds.
    {"free_of_the_bound", [] { return box("free", Bytes{}.zeros(kLimit - 8)); }, 3, false},
    // 2.5 MiB is buffered, but its brands beside the buffer would not fit.
    {"ftyp_over_half", [] { return ftyp_of(5u << 19); }, 3, true},
    // A 1 MiB ftyp, whose brands are kept, then 1 MiB of 8-byte boxes that no worker takes.
    {"small_boxes", [] { return repeated(ftyp_of(1u << 20), box("free"), 2u << 20); }, 3, true},
    // 8 MiB of tkhd boxes, each with a new track id.
    {"new_tracks", [] { return tracks_of({}); }, 3, true},
    // A track of 100 KB of stts entries, then 200 tkhd boxes switching between it and a second track: no new track,
    // so nothing more is held.
    {"switching_tracks", [] {
       const Bytes second = box("tkhd", tkhd_payload(2)), first = cat({kTrack, table_box("stts", std::vector(12500, std::vector<uint32_t>{1, 1})), second});
       return repeated(first, cat({kTrack, second}), first.size() + 100 * 2 * kTrack.size());
     }, 0, false},
    // 8 MiB of stts boxes, all appended to one track's table.
    {"one_table", [] { return repeated(kTrack, table_box("stts", std::vector(8191, std::vector<uint32_t>{1, 1})), 8 << 20); }, 3, true},
    // 8 MiB of stsc boxes, the same for the chunk table.
    {"chunk_table", [] { return repeated(kTrack, table_box("stsc", std::vector(5460, std::vector<uint32_t>{1, 1, 1})), 8 << 20); }, 3, true},
    // 8 MiB of stss boxes, the same for the sync sample list.
    {"sync_table", [] { return repeated(kTrack, table_box("stss", std::vector(16380, std::vector<uint32_t>{1})), 8 << 20); }, 3, true},
    // 8 MiB of stz2 boxes of 4-bit sizes, 8 table bytes a byte sent; read in the extended mode only.
    {"compact_sizes", [] { return repeated(kTrack, full_box("stz2", 0, 0, Bytes{}.u32(4).u32(131032).zeros(65516)), 8 << 20); }, 2, true},
    // One stz2 of 480 KiB: 3.75 MiB of sizes beside its buffer would not fit; read in the extended mode only.
    {"one_compact_box", [] { return cat({kTrack, full_box("stz2", 0, 0, Bytes{}.u32(4).u32(983040).zeros(491520))}); }, 2, false},
    // 8 MiB of dinf boxes, each URL (1000 bytes, past the small-string buffer) kept beside the track.
    {"long_urls", [] {
       const Bytes url = full_box("url ", 0, 0, Bytes{}.str(std::string(1000, 'u')).u8(0));
       return repeated(kTrack, box("dinf", full_box("dref", 0, 0, Bytes{}.u32(1).add(url))), 8 << 20);
     }, 3, true},
    // 8 MiB of hvc1 sample entries, each for another track, whose hvcC units (4 of 60000 bytes) the track keeps.
    {"hevc_units", [] {
       Bytes hvcc = Bytes{}.u8(1).zeros(21).u8(1).u8(0x80 | 33).u16(4);  // the fixed fields, one array of 4 SPS
       for (int i = 0; i < 4; ++i) hvcc.u16(60000).zeros(60000);
       const Bytes entry = box("hvc1", cat({Bytes{}.zeros(6).u16(1).zeros(70), box("hvcC", hvcc)}));
       return tracks_of(full_box("stsd", 0, 0, Bytes{}.u32(1).add(entry)));
     }, 3, true},
    // The same in avc1 entries whose avcC holds 15 SPS and 16 PPS of 20000 bytes, and in mp4a entries whose esds holds a
    // DecoderSpecificInfo of 500000 bytes (ISO/IEC 14496-1 §7.2.2.3: its size in four bytes of seven bits).
    {"avc_units", [] {
       Bytes avcc = Bytes{}.u8(1).u8(100).u8(0).u8(31).u8(0xFF).u8(0xE0 | 15);
       for (int i = 0; i < 15; ++i) avcc.u16(20000).u8(0x67).zeros(19999);
       avcc.u8(16);
       for (int i = 0; i < 16; ++i) avcc.u16(20000).u8(0x68).zeros(19999);
       const Bytes entry = box("avc1", cat({Bytes{}.zeros(6).u16(1).zeros(70), box("avcC", avcc)}));
       return tracks_of(full_box("stsd", 0, 0, Bytes{}.u32(1).add(entry)));
     }, 3, true},
    {"aac_config", [] {
       const Bytes config = descriptor(4, Bytes{}.u8(0x40).u8(0x15).zeros(11).add(descriptor(5, Bytes{}.u8(0x11).zeros(499999))));
       const Bytes es = descriptor(3, Bytes{}.u16(1).u8(0).add(config).u8(6).u8(1).u8(2));
       const Bytes entry = box("mp4a", cat({Bytes{}.zeros(6).u16(1).zeros(8).u16(2).u16(16).zeros(4).u32(48000u << 16),
                                            full_box("esds", 0, 0, es)}));
       return tracks_of(full_box("stsd", 0, 0, Bytes{}.u32(1).add(entry)));
     }, 3, true},
    // 8 MiB of moof + mdat pairs of 8000 one-byte samples each, whose answers wait to be taken; the basic mode
    // reads no fragment, and an extended client stops near the bound before the waiting answers reach their limits.
    {"fragment_answers", [] {
       const Bytes moof = based(1, [](int32_t off) { return trun_box(0, 0x201, std::vector<Entry>(8000, {0, 1}), off); });
       return repeated(fragment_prefix(), cat({moof, box("mdat", Bytes{}.zeros(8000))}), 8 << 20);
     }, 2, true},
    // One moof of a 3 MiB trun, whose entries are kept beside the moof's own buffer.
    {"one_large_moof", [] {
       const Bytes moof = based(1, [](int32_t off) { return trun_box(0, 0x201, std::vector<Entry>(3 << 18, {0, 1}), off); });
       return cat({fragment_prefix(), moof});
     }, 2, false},
    // 8 MiB of trex boxes, each for another track: their records alone stop the basic mode.
    {"new_trex", [] {
       Bytes b = fragment_prefix();
       for (uint32_t id = 4; b.size() < (8u << 20); ++id) b.add(trex_box(id, 1, 0, 0, 0));
       return b;
     }, 3, true},
};

class ClientLimit : public ::testing::TestWithParam<std::tuple<Shape, uint32_t>> {
 protected:
  void SetUp() override { ASSERT_TRUE(Boxlane_Parse_SetLimit(kLimit)); }
  void TearDown() override {
    Boxlane_Parse_Delete(client.c_str());
    Boxlane_Parse_SetLimit(0);
  }
  const std::string client = "bounded";
};

TEST_P(ClientLimit, HoldsNoMoreThanTheBound) {
#ifdef BOXLANE_NO_ALLOCATION_COUNT
  GTEST_SKIP() << "no allocator count that measures what the bound models";
#endif
  const auto& [shape, flags] = GetParam();
  const Bytes stream = shape.stream();
  const uint64_t before = allocated();
  most_allocated();
  ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), flags));
  uint64_t peak = 0;
  bool refused = false;
  // The sender skips the rest of an mdat that reaches past a piece, as the parse position says.
  for (std::size_t at = 0, piece = 64 << 10; at < stream.size() && !refused;
       at = std::max(at + piece, stream_info(client).nParsePos)) {
    refused = !send(client, stream, at, at + piece);
    peak = std::max(peak, most_allocated() - before);
  }
  EXPECT_LE(peak, kLimit);
  ASSERT_EQ(refused, (shape.refused >> flags & 1) != 0);
  const BOXLANE_STREAMINFO info = stream_info(client);
  if (!refused) {
    EXPECT_EQ(std::tuple(info.nStop, info.nParsePos), std::tuple(uint32_t{BOXLANE_STOP_NONE}, uint64_t(stream.size())));
    return;
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_LIMIT});
  EXPECT_EQ(info.nStop, uint32_t{BOXLANE_STOP_LIMIT});
  // Stopped for good, and not before it came near the bound.
  EXPECT_TRUE(fails_with(send(client, stream, 0, 8), BOXLANE_ERROR_PARSE_NOTSUPPORT));
  if (shape.fills) {
    EXPECT_GT(peak, kLimit / 2);
  }
}

// A bound past 32 bits is kept whole: 4 GiB and 100 bytes hold the tracks that 100 bytes would stop. A box that
// brings what the client holds exactly to the bound is taken.
TEST(ClientLimitWide, ABoundPastThirtyTwoBitsAndOneReachedExactly) {
  ASSERT_TRUE(Boxlane_Parse_SetLimit((uint64_t{1} << 32) + 100) && Boxlane_Parse_Insert("wide"));
  const Bytes stream = fragment_prefix();
  EXPECT_TRUE(send("wide", stream, 0, stream.size()));
  ASSERT_TRUE(Boxlane_Parse_SetLimit(parse::held_bytes(*record_of("wide")) + parse::kQueuedRecordBytes));
  EXPECT_TRUE(send("wide", box("free")));
  Boxlane_Parse_Delete("wide");
  Boxlane_Parse_SetLimit(0);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ClientLimit,
                         ::testing::Combine(::testing::ValuesIn(kShapes), ::testing::Values(0u, BOXLANE_PARSE_EXTENDED)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_extended" : "_basic");
                         });

}  // namespace
}  // namespace boxlane::test
