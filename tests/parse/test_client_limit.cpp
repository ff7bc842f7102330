// The bound on what one parse client holds, in both client modes, against
// the shapes of stream that make a client hold far more than it was sent:
// one huge ftyp, many small boxes nobody takes, many tkhd boxes each making a
// track. What the process has allocated is read from the allocator itself.
#include "parse_fixtures.hpp"

#include <malloc.h>

// The sanitizers' allocators count what they hand out (GCC ships no header
// for it). The thread sanitizer's rounds each block up to its size class (up
// to an eighth more); the address sanitizer's counts the bytes asked for.
#if !defined(__has_feature)
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
uint64_t allocated() { return __sanitizer_get_current_allocated_bytes(); }
#else
uint64_t allocated() { return mallinfo2().uordblks; }
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr uint64_t kRounding = 4 << 17;
#else
constexpr uint64_t kRounding = 0;
#endif

namespace boxlane::test {
namespace {

constexpr uint64_t kLimit = 4 << 20;  // kRounding: an eighth of it

Bytes ftyp_of(std::size_t bytes) {
  Bytes payload;
  payload.str("isom").u32(0);
  while (payload.size() < bytes) payload.str("avc1");
  return box("ftyp", payload);
}

struct Shape {
  const char* name;
  Bytes (*stream)();
  bool refused;  // the stream goes past the bound
  bool fills;    // box by box, so the client comes near the bound first
};
const Shape kShapes[] = {
    // 64 MiB declared, only its start sent: its size alone must stop it.
    {"huge_ftyp", [] { return cat({Bytes{}.u32(64u << 20).str("ftyp"), ftyp_of(1 << 16)}); }, true, false},
    // 1 MiB: its buffer and its brands fit the bound, and it is read whole.
    {"large_ftyp", [] { return ftyp_of(1u << 20); }, false, false},
    // 2.5 MiB is buffered, but its brands beside the buffer would not fit.
    {"ftyp_over_half", [] { return ftyp_of(5u << 19); }, true, true},
    // 1 MiB of 8-byte boxes that no worker takes.
    {"small_boxes",
     [] {
       Bytes b;
       for (int i = 0; i < (1 << 17); ++i) b.u32(8).str("free");
       return b;
     },
     true, true},
    // 4 MiB of tkhd boxes, each with a new track id.
    {"new_tracks",
     [] {
       Bytes b;
       for (uint32_t id = 1; b.size() < (4u << 20); ++id) b.add(box("tkhd", tkhd_payload(id)));
       return b;
     },
     true, true},
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
  const auto& [shape, flags] = GetParam();
  const Bytes stream = shape.stream();
  const uint64_t before = allocated();
  ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), flags));
  uint64_t peak = 0;
  bool refused = false;
  for (std::size_t at = 0; at < stream.size() && !refused; at += 64 << 10) {
    refused = !send(client, stream, at, at + (64 << 10));
    peak = std::max(peak, allocated() - before);
  }
  EXPECT_LE(peak, kLimit + kRounding);
  EXPECT_EQ(refused, shape.refused);
  const BOXLANE_STREAMINFO info = stream_info(client);
  if (!shape.refused) {
    EXPECT_EQ(info.nStop, uint32_t{BOXLANE_STOP_NONE});
    QORVANE_HDRFTYP ftyp{};
    ASSERT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
    EXPECT_EQ(ftyp.nBrandCount, int32_t((stream.size() - 16) / 4));
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    return;
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_LIMIT});
  EXPECT_EQ(info.nStop, uint32_t{BOXLANE_STOP_LIMIT});
  // Stopped for good; and it came near the bound first: not refused early.
  EXPECT_TRUE(fails_with(send(client, stream, 0, 8), BOXLANE_ERROR_PARSE_NOTSUPPORT));
  if (shape.fills) {
    EXPECT_GT(peak, kLimit / 2);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, ClientLimit,
                         ::testing::Combine(::testing::ValuesIn(kShapes), ::testing::Values(0u, BOXLANE_PARSE_EXTENDED)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_extended" : "_basic");
                         });

}  // namespace
}  // namespace boxlane::test
