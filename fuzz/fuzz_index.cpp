// The per-sample index of the moov's tables. The input is the payload of an
// stbl (its boxes: stts, ctts, stsc, stsz, stz2, stco, co64, stss, sdtp, in
// any number and order), read by a client in the extended mode. The samples
// read in windows of one size must equal those read in windows of another
// and those read one at a time from scattered starts, and the count the
// track reports must be the count handed out.
#include <boxlane/boxlane.h>

#include "box_bytes.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using fuzz::Bytes;
using fuzz::box;
using fuzz::u32;

// At most this many samples are compared: a constant size with counts of
// 2^32 describes far more than a run of the fuzzer can look at.
constexpr uint32_t kLook = 1 << 14;

std::vector<BOXLANE_SAMPLEINFO> read(const char* client, uint32_t total, int32_t window) {
  std::vector<BOXLANE_SAMPLEINFO> out(total);
  uint32_t at = 0;
  while (at < total) {
    int32_t n = -1;
    const int32_t ask = int32_t(std::min<uint32_t>(uint32_t(window), total - at));
    if (!Boxlane_Parse_GetTrackSamples(client, 1, at, out.data() + at, ask, &n) || n != ask) std::abort();
    at += uint32_t(n);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const int32_t window = 1 + data[0] % 97;
  Bytes tkhd(84, 0);
  tkhd[15] = 1;
  Bytes trak = box("tkhd", tkhd);
  const Bytes media = box("mdia", box("minf", box("stbl", Bytes(data + 1, data + size))));
  trak.insert(trak.end(), media.begin(), media.end());
  const Bytes stream = box("moov", box("trak", trak));
  static const char* client = "fuzz/index";
  Boxlane_Parse_InsertEx(client, BOXLANE_PARSE_EXTENDED);
  Boxlane_Parse_Send(client, stream.data(), int32_t(stream.size()));
  BOXLANE_TRACKINDEX index;
  if (Boxlane_Parse_GetTrackIndex(client, 1, &index)) {
    if (index.nTableSamples > UINT32_MAX) std::abort();
    const uint32_t total = uint32_t(std::min<uint64_t>(index.nTableSamples, kLook));
    const std::vector<BOXLANE_SAMPLEINFO> whole = read(client, total, 1 << 14);
    const std::vector<BOXLANE_SAMPLEINFO> windows = read(client, total, window);
    if (total && std::memcmp(whole.data(), windows.data(), total * sizeof(BOXLANE_SAMPLEINFO)) != 0) std::abort();
    // Scattered single samples: each start walks the tables anew.
    for (uint32_t k = 0; k < 16 && total; ++k) {
      const uint32_t at = uint32_t((uint64_t(k) * 2654435761u + data[0]) % total);
      BOXLANE_SAMPLEINFO one;
      int32_t n = -1;
      if (!Boxlane_Parse_GetTrackSamples(client, 1, at, &one, 1, &n) || n != 1) std::abort();
      if (std::memcmp(&one, &whole[at], sizeof one) != 0) std::abort();
    }
    // Past the last sample: none.
    BOXLANE_SAMPLEINFO none;
    int32_t n = -1;
    if (index.nTableSamples < UINT32_MAX &&
        (!Boxlane_Parse_GetTrackSamples(client, 1, uint32_t(index.nTableSamples), &none, 1, &n) || n != 0))
      std::abort();
  }
  Boxlane_Parse_Delete(client);
  return 0;
}
