// The writer's client table and the frame timing kept per client.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/client_lookup.hpp"
#include "packet/packet_record.hpp"
#include "platform/last_lookup.hpp"

#include <atomic>
#include <cstring>
#include <shared_mutex>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

namespace boxlane::packet {
namespace {

std::atomic<uint64_t> g_versions{0};

// A 16 KiB frame copy cycles through the whole L1 data cache, so every other
// line a call touches is fetched again on the next call: the fewer, the
// closer FrameVideo comes to the bare copy; the last lookup is one line.
[[gnu::tls_model("initial-exec")]] constinit thread_local platform::LastLookup t_last;

// Read without the table lock by every call, written under it by Delete.
std::atomic_ref<uint64_t> version_of(CBoxlane_Packet& self) noexcept { return std::atomic_ref(self.nTableVersion); }

}  // namespace

uint64_t next_table_version() noexcept { return g_versions.fetch_add(1, std::memory_order_relaxed) + 1; }

QORVANE_MP4PACKET* find_client(CBoxlane_Packet& self, const char* client, platform::InUseSlot& slot) noexcept {
  return platform::find_published(self, client, slot, t_last,
                                  [&self](std::memory_order order) { return version_of(self).load(order); });
}

}  // namespace boxlane::packet

CBoxlane_Packet::CBoxlane_Packet() : nTableVersion(boxlane::packet::next_table_version()) {}
CBoxlane_Packet::~CBoxlane_Packet() = default;

bool CBoxlane_Packet::Boxlane_Packet_Insert(const char* lpszClient) {
  boxlane::clear_error();
  if (!lpszClient) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
  try {
    // Built before the lock so the exclusive section is only the map change.
    auto record = std::make_unique<QORVANE_MP4PACKET>();
    std::string key(lpszClient);
    std::unique_lock lock(st_RWLocker);
    // An existing client keeps its record: a second Insert must not drop
    // frames. A new one leaves every thread's last lookup as right as it was.
    stl_MapClient.try_emplace(std::move(key), std::move(record));
  } catch (const std::bad_alloc&) {
    return boxlane::fail(BOXLANE_ERROR_PACKET_MALLOC);
  }
  return true;
}

bool CBoxlane_Packet::Boxlane_Packet_Delete(const char* lpszClient) {
  boxlane::clear_error();
  if (!lpszClient) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
  std::unique_ptr<QORVANE_MP4PACKET> released;
  {
    std::unique_lock lock(st_RWLocker);
    const auto it = stl_MapClient.find(std::string_view(lpszClient));
    if (it == stl_MapClient.end()) return true;
    released = std::move(it->second);
    stl_MapClient.erase(it);
    boxlane::packet::version_of(*this).store(boxlane::packet::next_table_version(), std::memory_order_seq_cst);
  }
  // A call that found the record before it left the table ends before this
  // returns; the record's lists are then freed outside the exclusive section.
  boxlane::platform::wait_until_unused(released.get());
  return true;
}

bool CBoxlane_Packet::Boxlane_Packet_SetTime(const char* lpszClient, int nFrameRate, int nSampleRate) {
  return boxlane::packet::with_client(*this, lpszClient, [&](QORVANE_MP4PACKET& record) {
    if (nFrameRate > 0) {
      record.nFrameRate = nFrameRate;
      record.nVideoFrameTime = 1000U / static_cast<uint32_t>(nFrameRate);
    }
    if (nSampleRate > 0) {
      record.nSampleRate = nSampleRate;
      // Milliseconds per AAC frame of 1024 samples (ISO/IEC 14496-3), truncated.
      record.nAudioFrameTime = static_cast<int32_t>(((1.0 / nSampleRate) * 1024.0) * 1000.0);
    }
    return true;
  });
}

int64_t CBoxlane_Packet::Boxlane_Packet_TimeCount(QORVANE_MP4PACKET* pSt_MP4Packet) {
  boxlane::clear_error();
  // A time scale of 0 (no mvhd yet) yields 0 rather than a division fault.
  if (!pSt_MP4Packet || pSt_MP4Packet->nTimeScale == 0) return 0;
  return pSt_MP4Packet->nVideoFrameTime / static_cast<int64_t>(pSt_MP4Packet->nTimeScale);
}
