#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <utility>

namespace {

uintptr_t addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

TEST(Memory, BlocksFollowTheArrayZeroedAlignedAndDisjoint) {
  // The last two are large enough to be mapped on their own.
  const std::pair<int, int> shapes[] = {{1, 1}, {3, 12}, {5, 7}, {2, 1024}, {9, 8}, {4, 0}, {200000, 12}, {1, 3 << 20}};
  for (const auto& [count, size] : shapes) {
    SCOPED_TRACE(testing::Message() << count << " x " << size);
    void** rows = nullptr;
    ASSERT_TRUE(Fundrel_Memory_Malloc(&rows, count, size) && rows);
    // One allocation: the first block starts right after the pointer array.
    EXPECT_LT(addr(rows[0]) - addr(rows + count), 8u);
    // Every byte of every block starts zero and is writable (ASan checks the end).
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(addr(rows[i]) % 8, 0u);
      EXPECT_TRUE(i == 0 || addr(rows[i]) >= addr(rows[i - 1]) + (size ? size : 1)) << i;
      auto* block = static_cast<uint8_t*>(rows[i]);
      for (int b = 0; b < size; ++b) {
        ASSERT_EQ(block[b], 0) << "row " << i << " byte " << b;
        block[b] = static_cast<uint8_t>(i * 31 + b);
      }
    }
    Fundrel_Memory_Free(&rows, count);
    EXPECT_EQ(rows, nullptr);
  }
  // Held to the end: it takes any pages an earlier run of this test left kept, so the checks below start from none.
  void** held = nullptr;
  ASSERT_TRUE(Fundrel_Memory_Malloc(&held, 1, 1 << 20));
  // The pages of the last large result freed (6 MiB here) serve the next one that fits in them, and no other; a result
  // of 1 MiB in all (header, pointer and block) is large, one 8 bytes smaller is not.
  void** big = nullptr;
  ASSERT_TRUE(Fundrel_Memory_Malloc(&big, 1, 5 << 20));
  void** const pages = big;
  for (const auto& [size, same] : {std::pair{(1 << 20) - 24, true}, std::pair{(1 << 20) - 32, false},
                                   std::pair{(6 << 20) - 24, true}, std::pair{(6 << 20) - 23, false}}) {
    Fundrel_Memory_Free(&big, 1);
    ASSERT_TRUE(Fundrel_Memory_Malloc(&big, 1, size));
    EXPECT_EQ(big == pages, same) << size;
  }
  Fundrel_Memory_Free(&big, 1);
  // 32 MiB of pages is the most kept: freed, they replace the smaller spare and serve the next result; 2 MiB more
  // are unmapped, and the next result comes from the spare kept before.
  for (const auto& [size, kept] : {std::pair{(32 << 20) - 24, true}, std::pair{(32 << 20) - 23, false}}) {
    ASSERT_TRUE(Fundrel_Memory_Malloc(&big, 1, size));
    void** const largest = big;
    Fundrel_Memory_Free(&big, 1);
    ASSERT_TRUE(Fundrel_Memory_Malloc(&big, 1, 5 << 20));
    EXPECT_EQ(big == largest, kept) << size;
    Fundrel_Memory_Free(&big, 1);
  }
  Fundrel_Memory_Free(&held, 1);
  const std::tuple<int, int, bool> cases[] = {{0, 12, true}, {-1, 4, false}, {3, -1, false}};
  for (const auto& [count, size, ok] : cases) {
    void** rows = reinterpret_cast<void**>(uintptr_t{0x10});
    EXPECT_EQ(Fundrel_Memory_Malloc(&rows, count, size), ok) << count << " x " << size;
    EXPECT_EQ(rows, nullptr);
  }
  EXPECT_FALSE(Fundrel_Memory_Malloc(nullptr, 1, 1));
  Fundrel_Memory_Free(nullptr, 3);  // releasing nothing is harmless
}

}  // namespace
