#include "frame/last_error.hpp"

#include <boxlane/boxlane.h>

#include <atomic>
#include <cerrno>

// Plain data so C callers can read them; inside the library every access is a
// relaxed atomic, so failures on several threads at once are no data race.
bool Boxlane_IsErrorOccur = false;
alignas(std::atomic_ref<uint64_t>::required_alignment) uint64_t Boxlane_dwErrorCode = 0;

namespace boxlane {

// Written only when set: a store on every call would make every calling
// thread take the flag's cache line for writing.
void clear_error() noexcept {
  std::atomic_ref<bool> flag(Boxlane_IsErrorOccur);
  if (flag.load(std::memory_order_relaxed)) flag.store(false, std::memory_order_relaxed);
}

bool fail(uint64_t code) noexcept {
  std::atomic_ref<uint64_t>(Boxlane_dwErrorCode).store(code, std::memory_order_relaxed);
  std::atomic_ref<bool>(Boxlane_IsErrorOccur).store(true, std::memory_order_relaxed);
  return false;
}

}  // namespace boxlane

extern "C" uint64_t Boxlane_GetLastError(int32_t* pInt_SysError) {
  if (pInt_SysError) *pInt_SysError = errno;
  return std::atomic_ref<uint64_t>(Boxlane_dwErrorCode).load(std::memory_order_relaxed);
}
