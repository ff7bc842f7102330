// The bound on what one parse client holds, in both client modes, against
// the shapes of stream that make a client hold far more than it was sent:
// one huge ftyp, many small boxes nobody takes, many tkhd boxes each making a
// track. What the process has allocated is read from the allocator itself.
#include <boxlane/boxlane.h>

#include "support/box_builder.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include <malloc.h>

// The sanitizers' allocators count what they hand out (GCC ships no header
// for it). The thread sanitizer's rounds each block up to its size class (up
// to an eighth more); the address sanitizer's counts the bytes asked for.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BOXLANE_TEST_ALLOCATOR_COUNTS 1
#endif
#if __has_feature(thread_sanitizer)
#define BOXLANE_TEST_SIZE_CLASSES 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BOXLANE_TEST_ALLOCATOR_COUNTS 1
#endif
#if defined(__SANITIZE_THREAD__)
#define BOXLANE_TEST_SIZE_CLASSES 1
#endif
#ifdef BOXLANE_TEST_ALLOCATOR_COUNTS
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

using namespace boxlane::test;

uint64_t allocated() {
#ifdef BOXLANE_TEST_ALLOCATOR_COUNTS
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

constexpr uint64_t kLimit = 4 << 20;
#ifdef BOXLANE_TEST_SIZE_CLASSES
constexpr uint64_t kMeasuredLimit = kLimit + kLimit / 8;
#else
constexpr uint64_t kMeasuredLimit = kLimit;
#endif

struct Shape {
  const char* name;
  Bytes (*stream)();
  bool refused;  // the stream goes past the bound
  bool fills;    // box by box, so the client comes near the bound first
};

// A 64 MiB ftyp: only its start is ever sent; its size alone must stop it.
Bytes huge_ftyp() {
  Bytes b;
  b.u32(64u << 20).str("ftyp").str("isom").u32(0);
  for (int i = 0; i < 16384; ++i) b.str("mp41");
  return b;
}
Bytes ftyp_of(std::size_t bytes) {
  Bytes payload;
  payload.str("isom").u32(0);
  while (payload.size() < bytes) payload.str("avc1");
  return box("ftyp", payload);
}
// An ftyp of 1 MiB: its buffer and its brands fit the bound, and it is read.
Bytes large_ftyp() { return ftyp_of(1u << 20); }
// One of 2.5 MiB is buffered, but its brands beside the buffer would not fit.
Bytes ftyp_over_half() { return ftyp_of(5u << 19); }
// 1 MiB of 8-byte boxes that no worker takes.
Bytes small_boxes() {
  Bytes b;
  for (int i = 0; i < (1 << 17); ++i) b.u32(8).str("free");
  return b;
}
// 4 MiB of tkhd boxes, each with a new track id.
Bytes new_tracks() {
  Bytes b;
  for (uint32_t id = 1; b.size() < (4u << 20); ++id)
    b.add(full_box("tkhd", 0, 3, Bytes{}.u32(0).u32(0).u32(id).u32(0).u32(0).zeros(8 + 8 + 36).u32(0).u32(0)));
  return b;
}

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
  const auto& [shape, flags] = GetParam();
  const Bytes stream = shape.stream();
  const uint64_t before = allocated();
  ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), flags));
  uint64_t peak = 0;
  bool refused = false;
  for (std::size_t at = 0; at < stream.size() && !refused; at += 64 << 10) {
    const std::size_t n = std::min<std::size_t>(64 << 10, stream.size() - at);
    refused = !Boxlane_Parse_Send(client.c_str(), stream.data() + at, int32_t(n));
    peak = std::max(peak, allocated() - before);
  }
  EXPECT_LE(peak, kMeasuredLimit) << shape.name;
  EXPECT_EQ(refused, shape.refused) << shape.name;
  BOXLANE_STREAMINFO info{};
  ASSERT_TRUE(Boxlane_Parse_GetStream(client.c_str(), &info));
  if (!shape.refused) {
    EXPECT_EQ(info.nStop, uint32_t{BOXLANE_STOP_NONE});
    // What fits the bound is read whole: every brand of the 1 MiB ftyp.
    QORVANE_HDRFTYP ftyp{};
    ASSERT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
    EXPECT_EQ(ftyp.nBrandCount, int32_t((stream.size() - 16) / 4));
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    return;
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_LIMIT});
  EXPECT_EQ(info.nStop, uint32_t{BOXLANE_STOP_LIMIT});
  // Stopped for good: what it read stays, later pieces are refused.
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send(client.c_str(), stream.data(), 8), BOXLANE_ERROR_PARSE_NOTSUPPORT));
  // It came near the bound before it stopped: the bound is not refused early.
  if (shape.fills) {
    EXPECT_GT(peak, kLimit / 2) << shape.name;
  }
}

const Shape kShapes[] = {
    {"huge_ftyp", huge_ftyp, true, false},
    {"large_ftyp", large_ftyp, false, false},
    {"ftyp_over_half", ftyp_over_half, true, true},
    {"small_boxes", small_boxes, true, true},
    {"new_tracks", new_tracks, true, true},
};

INSTANTIATE_TEST_SUITE_P(Shapes, ClientLimit,
                         ::testing::Combine(::testing::ValuesIn(kShapes), ::testing::Values(0u, BOXLANE_PARSE_EXTENDED)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_extended" : "_basic");
                         });

}  // namespace
