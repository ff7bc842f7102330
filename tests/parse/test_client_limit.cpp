// The bound on what one parse client holds, against the shapes of stream
// that make a client hold far more than it was sent: one huge ftyp, many
// small boxes nobody takes, many tkhd boxes each making a track. What the
// process has allocated is read from the allocator itself.
#include "parse_fixtures.hpp"

#include <malloc.h>

// The sanitizers' allocators count what they hand out (GCC ships no header
// for it); the thread sanitizer's round each block up by up to an eighth.
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

namespace boxlane::test {
namespace {

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

Bytes ftyp_of(std::size_t bytes, uint32_t size = 0) {
  Bytes payload;
  payload.str("isom").u32(0);
  while (payload.size() < bytes) payload.str("avc1");
  return box("ftyp", payload, size ? int64_t{size} : int64_t{-1});
}
Bytes repeated(const Bytes& one, std::size_t bytes) {
  Bytes b;
  while (b.size() < bytes) b.add(one);
  return b;
}
Bytes new_tracks() {
  Bytes b;
  for (uint32_t id = 1; b.size() < (4u << 20); ++id) b.add(box("tkhd", tkhd_payload(id)));
  return b;
}

TEST(ClientLimit, HoldsNoMoreThanTheBound) {
  const struct {
    const char* name;
    Bytes stream;
    bool refused;  // the stream goes past the bound
    bool fills;    // box by box, so the client comes near the bound first
  } shapes[] = {
      // Only the start of a 64 MiB ftyp is sent: its size alone must stop it.
      {"huge ftyp", ftyp_of(1 << 16, 64u << 20), true, false},
      // 1 MiB of brands: its buffer and its brands fit the bound, and it is read.
      {"large ftyp", ftyp_of(1u << 20), false, false},
      // 2.5 MiB is buffered, but its brands beside the buffer would not fit.
      {"ftyp over half", ftyp_of(5u << 19), true, true},
      {"small boxes nobody takes", repeated(box("free"), 1 << 20), true, true},
      {"a track per tkhd", new_tracks(), true, true},
  };
  ASSERT_TRUE(Boxlane_Parse_SetLimit(kLimit));
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape.name);
    const std::string client = std::string("bounded/") + shape.name;
    const uint64_t before = allocated();
    EXPECT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    uint64_t peak = 0;
    bool refused = false;
    for (std::size_t at = 0; at < shape.stream.size() && !refused; at += 64 << 10) {
      refused = !send(client, shape.stream, at, at + (64 << 10));
      peak = std::max(peak, allocated() - before);
    }
    EXPECT_LE(peak, kMeasuredLimit);
    EXPECT_EQ(refused, shape.refused);
    if (shape.refused) {
      EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_LIMIT});
      EXPECT_EQ(stream_info(client).nStop, uint32_t{BOXLANE_STOP_LIMIT});
      // It came near the bound before it stopped: the bound is not refused early.
      EXPECT_TRUE(!shape.fills || peak > kLimit / 2) << peak;
    } else {
      // What fits the bound is read whole: every brand.
      QORVANE_HDRFTYP ftyp{};
      EXPECT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
      EXPECT_EQ(ftyp.nBrandCount, int32_t((shape.stream.size() - 16) / 4));
      Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    }
    Boxlane_Parse_Delete(client.c_str());
  }
  Boxlane_Parse_SetLimit(0);
}

}  // namespace
}  // namespace boxlane::test
