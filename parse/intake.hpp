// What the client table and the splitter share: the reassembly buffer of a
// box that arrives in pieces, the task-pool handle, and the splitter's own
// entry points with their outcomes.
#pragma once

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>

namespace boxlane::parse {

// A reassembly buffer starts this large and doubles when a box needs more.
inline constexpr std::size_t kReassemblyInitial = 10'485'760;
// The largest box (other than mdat, which is never buffered) that is
// reassembled; a larger declared size stops the client's stream.
inline constexpr uint64_t kMaxBufferedBox = uint64_t{256} << 20;

inline bool finished(const BOXLANE_MSGBUFFER& entry) noexcept { return entry.bHdr && entry.bComplete; }

// Makes room for `needed` bytes in the entry's buffer, doubling from the
// initial size but never past what the pending box can use. On failure the
// entry keeps its old buffer and contents.
// A client under a memory bound gets a buffer as large as the box at once.
inline bool reserve(BOXLANE_MSGBUFFER& entry, std::size_t needed, bool bounded) noexcept {
  if (entry.ptszMsgBuffer && needed <= entry.nBufferSize) return true;
  const std::size_t initial = bounded ? 1 : kReassemblyInitial;
  std::size_t capacity = entry.nBufferSize ? entry.nBufferSize : initial;
  while (capacity < needed) capacity *= 2;
  const std::size_t usable = std::max(needed, static_cast<std::size_t>(entry.nBoxLen));
  if (capacity > usable) capacity = std::max(usable, std::max(entry.nBufferSize, initial));
  // Doubling holds the old block beside the new one for a moment; a bounded
  // client, whose bound counts the whole box, takes it in one block.
  if (bounded && entry.bHdr) capacity = usable;
  void* grown = std::realloc(entry.ptszMsgBuffer, capacity);
  if (!grown) return false;
  entry.ptszMsgBuffer = static_cast<uint8_t*>(grown);
  entry.nBufferSize = capacity;
  return true;
}

inline void release(std::deque<BOXLANE_MSGBUFFER>& queue) noexcept {
  for (BOXLANE_MSGBUFFER& entry : queue) std::free(entry.ptszMsgBuffer);
  queue.clear();
}

// A reassembly buffer taken off the queue to be split. The splitter may hand
// it on to a new unfinished entry (data becomes null); otherwise it is freed.
struct HeldBuffer {
  uint8_t* data = nullptr;
  std::size_t capacity = 0;
  HeldBuffer() = default;
  HeldBuffer(const HeldBuffer&) = delete;
  HeldBuffer& operator=(const HeldBuffer&) = delete;
  ~HeldBuffer() { std::free(data); }
};

// Workers wait on the pool while another thread may destroy it, so the
// handle is only ever read and swapped atomically. A stale handle is safe:
// the pool refuses handles it no longer knows.
inline void* pool_handle(CBoxlane_Parse& self) noexcept {
  return std::atomic_ref<void*>(self.xhPool).load(std::memory_order_acquire);
}
inline void* swap_pool_handle(CBoxlane_Parse& self, void* pool) noexcept {
  return std::atomic_ref<void*>(self.xhPool).exchange(pool, std::memory_order_acq_rel);
}

enum class Split : uint8_t {
  done,        // every box of the run split, or its tail stored
  stopped,     // a box with size field 0 or 1 ended the run
  media,       // an mdat whose payload reaches past the run ended it
  refused,     // a malformed or oversized box stopped the stream (code set)
  no_memory,   // the run's first box had to be stored and no buffer was had
  grow_failed, // a pending box could not grow to take the piece (nothing appended)
};

// Splits one run that starts at a box boundary. With `held`, the run is that
// buffer, and a tail left over is moved to its front instead of copied.
[[nodiscard]] Split split_run(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, const uint8_t* run, std::size_t length,
                              HeldBuffer* held);

// Takes one piece: completes the pending box (if any) from it, splits it, and
// splits the rest of the piece in place.
[[nodiscard]] Split take_piece(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, const uint8_t* data,
                               std::size_t length);

}  // namespace boxlane::parse
