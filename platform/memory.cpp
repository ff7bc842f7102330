// The pointer-array allocator that every query result is made with. The
// array of pointers and all the blocks live in one allocation, so a caller
// releases a whole result with one call and cannot leak single rows.
//
// A 16-byte header in front of the pointer array says how the allocation was
// made. Results of a mebibyte or more (the tables of a long movie) are mapped
// on their own and asked for transparent huge pages: the caller writes every
// block, and with 4 KiB pages each page of a table would cost a fault. The
// last such mapping released is kept for the next large result, so a caller
// that asks for tables again and again reuses pages already in place; at
// most 32 MiB are kept that way.
#include <boxlane/boxlane.h>

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

namespace {

constexpr uint64_t kBlockAlign = 8;
constexpr uint64_t kHeader = 16;
constexpr uint64_t kMapFrom = uint64_t{1} << 20;
constexpr uint64_t kHugePage = uint64_t{2} << 20;
constexpr uint64_t kSpareLimit = uint64_t{32} << 20;

struct Header {
  uint64_t mapped_bytes;  // 0: from calloc
  uint64_t unused;
};
static_assert(sizeof(Header) == kHeader);

constexpr uint64_t round_up(uint64_t n, uint64_t to) noexcept { return (n + to - 1) / to * to; }

// Zeroed memory of `bytes` (at least kMapFrom), starting on a huge-page
// boundary so that every whole 2 MiB of it can be a huge page.
unsigned char* map_zeroed(uint64_t bytes) noexcept {
  const uint64_t length = round_up(bytes, kHugePage);
  void* raw = mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const auto start = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = round_up(start, kHugePage);
  if (aligned > start) munmap(raw, aligned - start);
  if (const uintptr_t end = start + length + kHugePage; end > aligned + length)
    munmap(reinterpret_cast<void*>(aligned + length), end - aligned - length);
  auto* base = reinterpret_cast<unsigned char*>(aligned);
  madvise(base, length, MADV_HUGEPAGE);  // a hint; without it the pages are just small
  return base;
}

// One released mapping kept for reuse (null base: none).
struct Mapping {
  unsigned char* base = nullptr;
  uint64_t bytes = 0;
};
std::mutex g_spare_mutex;
Mapping g_spare;

// A mapping of at least `bytes`, its first `bytes` zeroed: the spare when it
// is large enough, a new one otherwise (base null when there is none).
Mapping take_mapping(uint64_t bytes) noexcept {
  Mapping spare;
  {
    std::lock_guard lock(g_spare_mutex);
    if (g_spare.base && g_spare.bytes >= bytes) spare = std::exchange(g_spare, Mapping{});
  }
  if (spare.base) {
    std::memset(spare.base, 0, static_cast<std::size_t>(bytes));
    return spare;
  }
  return {map_zeroed(bytes), round_up(bytes, kHugePage)};
}

// Keeps the larger of a released mapping and the spare, unmaps the other.
void give_back(Mapping released) noexcept {
  if (released.bytes <= kSpareLimit) {
    std::lock_guard lock(g_spare_mutex);
    if (released.bytes > g_spare.bytes) std::swap(released, g_spare);
  }
  if (released.base) munmap(released.base, static_cast<std::size_t>(released.bytes));
}

}  // namespace

bool Fundrel_Memory_Malloc(void*** pppArray, int nCount, int nSize) {
  if (pppArray == nullptr) return false;
  *pppArray = nullptr;
  if (nCount < 0 || nSize < 0) return false;
  if (nCount == 0) return true;

  // A block of size 0 still gets its own address, so rows stay distinct.
  const uint64_t stride = round_up(nSize == 0 ? 1 : static_cast<uint64_t>(nSize), kBlockAlign);
  const uint64_t head = kHeader + round_up(static_cast<uint64_t>(nCount) * sizeof(void*), kBlockAlign);
  // With int arguments both products stay far below 2^64; only the host's
  // address space can be too small.
  const uint64_t total = head + static_cast<uint64_t>(nCount) * stride;
  if (total > static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) - kHugePage) return false;

  // calloc and mmap both zero the blocks and align the base for any scalar,
  // so every block at a multiple of 8 from it is 8-aligned.
  unsigned char* base = nullptr;
  Header header{0, 0};
  if (total >= kMapFrom) {
    const Mapping mapping = take_mapping(total);
    base = mapping.base;
    header.mapped_bytes = mapping.bytes;
  }
  if (base == nullptr) {
    base = static_cast<unsigned char*>(std::calloc(1, static_cast<std::size_t>(total)));
    header.mapped_bytes = 0;
  }
  if (base == nullptr) return false;
  *reinterpret_cast<Header*>(base) = header;
  auto** rows = reinterpret_cast<void**>(base + kHeader);
  unsigned char* block = base + head;
  for (int i = 0; i < nCount; ++i, block += stride) rows[i] = block;
  *pppArray = rows;
  return true;
}

void Fundrel_Memory_Free(void*** pppArray, int) {
  if (pppArray == nullptr || *pppArray == nullptr) return;
  auto* base = reinterpret_cast<unsigned char*>(*pppArray) - kHeader;
  const uint64_t mapped = reinterpret_cast<const Header*>(base)->mapped_bytes;
  if (mapped) give_back({base, mapped});
  else std::free(base);
  *pppArray = nullptr;
}
