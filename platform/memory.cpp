// The pointer-array allocator that every query result is made with. The
// array of pointers and all the blocks live in one allocation, so a caller
// releases a whole result with one call and cannot leak single rows.
#include <boxlane/boxlane.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace {

constexpr uint64_t kBlockAlign = 8;

constexpr uint64_t round_up(uint64_t n) noexcept { return (n + kBlockAlign - 1) / kBlockAlign * kBlockAlign; }

}  // namespace

bool Fundrel_Memory_Malloc(void*** pppArray, int nCount, int nSize) {
  if (pppArray == nullptr) return false;
  *pppArray = nullptr;
  if (nCount < 0 || nSize < 0) return false;
  if (nCount == 0) return true;

  // A block of size 0 still gets its own address, so rows stay distinct.
  const uint64_t stride = round_up(nSize == 0 ? 1 : static_cast<uint64_t>(nSize));
  const uint64_t head = round_up(static_cast<uint64_t>(nCount) * sizeof(void*));
  // With int arguments both products stay far below 2^64; only the host's
  // address space can be too small.
  const uint64_t total = head + static_cast<uint64_t>(nCount) * stride;
  if (total > static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max())) return false;

  // calloc zeroes the blocks and aligns the base for any scalar, so every
  // block at a multiple of 8 from it is 8-aligned.
  auto* base = static_cast<unsigned char*>(std::calloc(1, static_cast<std::size_t>(total)));
  if (base == nullptr) return false;
  auto** rows = reinterpret_cast<void**>(base);
  unsigned char* block = base + head;
  for (int i = 0; i < nCount; ++i, block += stride) rows[i] = block;
  *pppArray = rows;
  return true;
}

void Fundrel_Memory_Free(void*** pppArray, int) {
  if (pppArray == nullptr || *pppArray == nullptr) return;
  std::free(*pppArray);
  *pppArray = nullptr;
}
