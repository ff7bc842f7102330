#include "parse/fragment_queue.hpp"

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/client_lookup.hpp"

#include <algorithm>
#include <cstring>

namespace boxlane::parse {
namespace {

void take_front(BOXLANE_FRAGMENTQUEUE& queue) {
  queue.stl_ListFragment.pop_front();
  queue.nHead = queue.stl_ListFragment.empty() ? queue.stl_ListSample.size() : queue.stl_ListFragment.front().nFirst;
}

}  // namespace

std::size_t pending_samples(const BOXLANE_FRAGMENTQUEUE& queue) noexcept {
  return queue.stl_ListSample.size() - queue.nHead;
}

std::size_t open_fragment(BOXLANE_FRAGMENTQUEUE& queue) {
  auto& samples = queue.stl_ListSample;
  if (queue.stl_ListFragment.empty()) {
    // Nothing waits: start again at the front. A burst far beyond the
    // stream's usual fragments does not stay allocated.
    samples.clear();
    queue.nHead = 0;
    if (samples.capacity() > kMaxFragmentSamples / 4) samples.shrink_to_fit();
  } else if (queue.nHead > samples.size() / 2) {
    // More taken than waits: move what waits to the front, so the array
    // grows with what waits, not with all that ever came.
    samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(queue.nHead));
    for (auto& entry : queue.stl_ListFragment) entry.nFirst -= queue.nHead;
    queue.nHead = 0;
  }
  return samples.size();
}

uint32_t close_fragment(BOXLANE_FRAGMENTQUEUE& queue, const BOXLANE_FRAGMENTINFO& info, std::size_t first) {
  queue.stl_ListFragment.push_back({info, first});
  uint32_t released = 0;
  while (queue.stl_ListFragment.size() > 1 && (pending_samples(queue) > kMaxPendingSamples ||
                                               queue.stl_ListFragment.size() > kMaxPendingFragments)) {
    take_front(queue);
    ++released;
  }
  return released;
}

}  // namespace boxlane::parse

bool CBoxlane_Parse::Boxlane_Parse_GetFragment(const char* lpszClient, BOXLANE_FRAGMENTINFO* pSt_Fragment, BOXLANE_SAMPLEINFO* pSt_Samples, int nCapacity, int* pInt_Count) {
  if (!pSt_Fragment || !pInt_Count || nCapacity < 0 || (!pSt_Samples && nCapacity > 0)) {
    boxlane::clear_error();
    return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
  }
  return boxlane::parse::with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    BOXLANE_FRAGMENTQUEUE& queue = record.stFragments;
    if (queue.stl_ListFragment.empty()) return boxlane::fail(BOXLANE_ERROR_PARSE_NODATA);
    const auto& front = queue.stl_ListFragment.front();
    *pSt_Fragment = front.stInfo;
    const uint32_t n = front.stInfo.nSampleCount;
    if (n > static_cast<uint32_t>(nCapacity)) return boxlane::fail(BOXLANE_ERROR_PARSE_BUFFER);
    if (n) std::memcpy(pSt_Samples, queue.stl_ListSample.data() + front.nFirst, n * sizeof(BOXLANE_SAMPLEINFO));
    *pInt_Count = static_cast<int>(n);
    boxlane::parse::take_front(queue);
    return true;
  });
}
