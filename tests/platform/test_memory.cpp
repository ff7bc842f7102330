#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

namespace {

uintptr_t addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

TEST(Memory, BlocksFollowTheArrayZeroedAlignedAndDisjoint) {
  const struct {
    int count, size;
  } shapes[] = {{1, 1}, {3, 12}, {5, 7}, {2, 1024}, {9, 8}, {4, 0}};
  for (const auto& shape : shapes) {
    SCOPED_TRACE(testing::Message() << shape.count << " x " << shape.size);
    void** rows = nullptr;
    ASSERT_TRUE(Fundrel_Memory_Malloc(&rows, shape.count, shape.size));
    ASSERT_NE(rows, nullptr);
    // One allocation: the first block starts right after the pointer array.
    const uintptr_t array_end = addr(rows + shape.count);
    EXPECT_LT(addr(rows[0]) - array_end, 8u);
    for (int i = 0; i < shape.count; ++i) {
      EXPECT_EQ(addr(rows[i]) % 8, 0u);
      if (i > 0) {
        EXPECT_GE(addr(rows[i]), addr(rows[i - 1]) + (shape.size ? shape.size : 1));
      }
      const auto* block = static_cast<const uint8_t*>(rows[i]);
      for (int b = 0; b < shape.size; ++b) ASSERT_EQ(block[b], 0) << "row " << i << " byte " << b;
    }
    // Every byte of every block is writable (ASan checks the end) and no
    // block's bytes land in another's.
    for (int i = 0; i < shape.count; ++i) {
      auto* block = static_cast<uint8_t*>(rows[i]);
      for (int b = 0; b < shape.size; ++b) block[b] = static_cast<uint8_t>(i * 31 + b);
    }
    for (int i = 0; i < shape.count; ++i) {
      const auto* block = static_cast<const uint8_t*>(rows[i]);
      for (int b = 0; b < shape.size; ++b) ASSERT_EQ(block[b], static_cast<uint8_t>(i * 31 + b));
    }
    Fundrel_Memory_Free(&rows, shape.count);
    EXPECT_EQ(rows, nullptr);
  }
}

TEST(Memory, EdgeArguments) {
  void** rows = reinterpret_cast<void**>(uintptr_t{0x10});
  EXPECT_TRUE(Fundrel_Memory_Malloc(&rows, 0, 12));
  EXPECT_EQ(rows, nullptr);

  for (const auto& [count, size] : {std::pair{-1, 4}, std::pair{3, -1}, std::pair{-5, -5}}) {
    rows = reinterpret_cast<void**>(uintptr_t{0x10});
    EXPECT_FALSE(Fundrel_Memory_Malloc(&rows, count, size)) << count << " x " << size;
    EXPECT_EQ(rows, nullptr);
  }
  EXPECT_FALSE(Fundrel_Memory_Malloc(nullptr, 2, 4));

  // Releasing nothing is harmless, also twice.
  rows = nullptr;
  Fundrel_Memory_Free(&rows, 0);
  Fundrel_Memory_Free(nullptr, 3);
  ASSERT_TRUE(Fundrel_Memory_Malloc(&rows, 2, 4));
  Fundrel_Memory_Free(&rows, 2);
  Fundrel_Memory_Free(&rows, 2);
  EXPECT_EQ(rows, nullptr);
}

}  // namespace
