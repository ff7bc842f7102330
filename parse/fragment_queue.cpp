#include "parse/fragment_queue.hpp"

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/client_lookup.hpp"
#include "platform/be_reader.hpp"

#include <algorithm>

namespace boxlane::parse {
namespace {

// sample_is_non_sync_sample (§8.8.3.1).
constexpr uint32_t kNonSync = 0x00010000;

void take_front(BOXLANE_FRAGMENTQUEUE& queue) {
  const auto& front = queue.stl_ListFragment.front();
  queue.nSamples -= front.stInfo.nSampleCount;
  queue.stl_ListFragment.pop_front();
  if (queue.stl_ListFragment.empty()) {
    queue.nRunHead = queue.stl_ListRun.size();
    queue.nByteHead = queue.stl_ListByte.size();
  } else {
    // An answer without runs points where the next answer's runs start.
    queue.nRunHead = queue.stl_ListFragment.front().nFirstRun;
    queue.nByteHead = queue.nRunHead < queue.stl_ListRun.size() ? queue.stl_ListRun[queue.nRunHead].nBytesAt
                                                                : queue.stl_ListByte.size();
  }
}

// The samples of one run into `out`, as §8.8.8 has them: fields the run
// leaves out take its defaults, first_sample_flags the first sample's flags
// unless it has its own, composition offsets unsigned in version 0 and
// signed in version 1; times and offsets run on from the run's start.
BOXLANE_SAMPLEINFO* work_out(const BOXLANE_FRAGMENTRUN& run, const uint8_t* bytes, std::size_t length,
                             BOXLANE_SAMPLEINFO* out) {
  BeReader r(bytes, length);
  const uint32_t flags = run.nTrunFlags;
  const bool has_duration = flags & kTrunSampleDuration, has_size = flags & kTrunSampleSize;
  const bool has_flags = flags & kTrunSampleFlags, has_offset = flags & kTrunSampleCompositionOffset;
  uint64_t decode = run.nDecodeStart;
  uint64_t at = run.nDataStart;
  for (uint32_t i = 0; i < run.nCount; ++i, ++out) {
    const uint32_t duration = has_duration ? r.u32() : run.nDuration;
    const uint32_t size = has_size ? r.u32() : run.nSize;
    uint32_t sample_flags = run.nFlags;
    bool known = run.bFlagsKnown;
    if (has_flags) {
      sample_flags = r.u32();
      known = true;
    } else if (i == 0 && (flags & kTrunFirstSampleFlags)) {
      sample_flags = run.nFirstFlags;
      known = true;
    }
    const uint32_t raw = has_offset ? r.u32() : 0;
    const uint64_t offset =
        run.byVersion == 0 ? uint64_t{raw} : static_cast<uint64_t>(int64_t{static_cast<int32_t>(raw)});
    out->nDecodeTime = decode;
    out->nCompositionTime = static_cast<int64_t>(decode + offset);
    out->nOffset = at;
    out->nDuration = duration;
    out->nSize = size;
    out->nFlags = sample_flags;
    out->bSync = (sample_flags & kNonSync) == 0;
    out->bDependsKnown = known;
    out->byReserved[0] = out->byReserved[1] = 0;
    decode += duration;
    at += size;
  }
  return out;
}

}  // namespace

std::size_t open_fragment(BOXLANE_FRAGMENTQUEUE& queue) {
  auto& runs = queue.stl_ListRun;
  auto& bytes = queue.stl_ListByte;
  if (queue.stl_ListFragment.empty()) {
    // Nothing waits: start again at the front. A burst far beyond the
    // stream's usual fragments does not stay allocated.
    runs.clear();
    bytes.clear();
    queue.nRunHead = queue.nByteHead = 0;
    if (bytes.capacity() > (std::size_t{1} << 20)) bytes.shrink_to_fit();
    if (runs.capacity() > (std::size_t{1} << 12)) runs.shrink_to_fit();
  } else if (queue.nByteHead > bytes.size() / 2 || queue.nRunHead > runs.size() / 2) {
    // More taken than waits: move what waits to the front, so the arrays
    // grow with what waits, not with all that ever came.
    const std::size_t run_head = queue.nRunHead, byte_head = queue.nByteHead;
    runs.erase(runs.begin(), runs.begin() + static_cast<std::ptrdiff_t>(run_head));
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(byte_head));
    for (auto& run : runs) run.nBytesAt -= byte_head;
    for (auto& entry : queue.stl_ListFragment) entry.nFirstRun -= run_head;
    queue.nRunHead = queue.nByteHead = 0;
  }
  return runs.size();
}

uint32_t close_fragment(BOXLANE_FRAGMENTQUEUE& queue, const BOXLANE_FRAGMENTINFO& info, std::size_t first_run) {
  queue.stl_ListFragment.push_back({info, first_run, queue.stl_ListRun.size() - first_run});
  queue.nSamples += info.nSampleCount;
  uint32_t released = 0;
  while (queue.stl_ListFragment.size() > 1 &&
         (queue.nSamples > kMaxPendingSamples || queue.stl_ListFragment.size() > kMaxPendingFragments)) {
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
    const auto& runs = queue.stl_ListRun;
    const auto& bytes = queue.stl_ListByte;
    BOXLANE_SAMPLEINFO* out = pSt_Samples;
    for (std::size_t i = front.nFirstRun; i < front.nFirstRun + front.nRuns; ++i) {
      const std::size_t end = i + 1 < runs.size() ? runs[i + 1].nBytesAt : bytes.size();
      out = boxlane::parse::work_out(runs[i], bytes.data() + runs[i].nBytesAt, end - runs[i].nBytesAt, out);
    }
    *pInt_Count = static_cast<int>(n);
    boxlane::parse::take_front(queue);
    return true;
  });
}
