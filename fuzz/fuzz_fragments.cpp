// Movie fragments for a client in the extended mode. The first byte picks
// what the rest is: a whole stream, or the payload of a moof (or of a traf
// inside one) after a movie whose tracks 1 and 2 have trex defaults, so the
// fuzzer spends its time inside the fragment readers. The stream is fed
// whole and cut into pieces by two clients; their header records and their
// track fragments must agree, and every answer must keep its own promises.
#include <boxlane/boxlane.h>

#include "box_bytes.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using fuzz::Bytes;
using fuzz::box;
using fuzz::u32;
using fuzz::cat;
using fuzz::full;

Bytes trak(uint32_t id) {
  Bytes tkhd(84, 0);
  tkhd[15] = uint8_t(id);  // track_ID of a version 0 tkhd
  Bytes stbl = cat({full("stts", 0, Bytes{0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 10}), full("stsc", 0, Bytes{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1}),
                    full("stsz", 0, Bytes{0, 0, 0, 4, 0, 0, 0, 2}), full("stco", 0, Bytes{0, 0, 0, 1, 0, 0, 0, 0})});
  return box("trak", cat({box("tkhd", tkhd), box("mdia", box("minf", box("stbl", stbl)))}));
}

Bytes movie() {
  Bytes trex1, trex2;
  u32(trex1, 1), u32(trex1, 1), u32(trex1, 1000), u32(trex1, 100), u32(trex1, 0x01010000);
  u32(trex2, 2), u32(trex2, 1), u32(trex2, 1024), u32(trex2, 0), u32(trex2, 0x02000000);
  return cat({box("ftyp", Bytes{'i', 's', 'o', '6', 0, 0, 0, 0}),
              box("moov", cat({full("mvhd", 0, Bytes(96, 0)), trak(1), trak(2),
                               box("mvex", cat({full("trex", 0, trex1), full("trex", 0, trex2)}))}))});
}

// An answer as its record and a hash of its samples, so that a run with a
// million samples keeps no copy of them.
struct Answer {
  BOXLANE_FRAGMENTINFO info;
  uint64_t hash;
};

uint64_t fnv1a(const void* data, std::size_t size) {
  uint64_t h = 0xcbf29ce484222325ull;
  const auto* p = static_cast<const uint8_t*>(data);
  for (std::size_t i = 0; i < size; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

struct Run {
  std::vector<QORVANE_MP4HDR> records;
  std::vector<Answer> answers;
  bool cut_dependent = false;
  // Answers released untaken: which ones depends on when they were taken.
  bool dropped = false;
};

void take_answers(const char* client, Run& run) {
  static std::vector<BOXLANE_SAMPLEINFO> buffer(std::size_t{1} << 20);
  for (;;) {
    Answer a{};
    int32_t count = -1;
    if (!Boxlane_Parse_GetFragment(client, &a.info, buffer.data(), int32_t(buffer.size()), &count)) {
      if (Boxlane_GetLastError(nullptr) != BOXLANE_ERROR_PARSE_NODATA) std::abort();
      return;
    }
    if (count < 0 || uint32_t(count) != a.info.nSampleCount || a.info.nSampleCount > (1u << 20)) std::abort();
    a.hash = fnv1a(buffer.data(), std::size_t(count) * sizeof(BOXLANE_SAMPLEINFO));
    // Every sample with bytes lies inside the data range the answer gives.
    for (int32_t i = 0; i < count; ++i) {
      const BOXLANE_SAMPLEINFO& s = buffer[std::size_t(i)];
      if (s.nSize && (s.nOffset < a.info.nDataStart || s.nOffset + s.nSize > a.info.nDataEnd)) std::abort();
      if (s.bSync != ((s.nFlags & 0x10000) == 0)) std::abort();
    }
    if (a.info.nDataEnd < a.info.nDataStart) std::abort();
    run.answers.push_back(std::move(a));
  }
}

Run feed(const char* client, const Bytes& stream, uint32_t seed, uint32_t max_piece) {
  Run run;
  std::size_t offset = 0;
  while (offset < stream.size()) {
    seed = seed * 1103515245u + 12345u;
    const std::size_t piece = std::min<std::size_t>(stream.size() - offset, 1 + (seed >> 8) % max_piece);
    const bool sent = Boxlane_Parse_Send(client, stream.data() + offset, int32_t(piece));
    offset += piece;
    QORVANE_MP4HDR h;
    uint64_t position = 0;
    while (Boxlane_Parse_Recv(client, &h, &position)) {
      if (h.nBoxSize == 0) run.cut_dependent = true;
      run.records.push_back(h);
    }
    // Answers are taken as a worker would, after the records.
    take_answers(client, run);
    if (position > offset) offset = position < stream.size() ? std::size_t(position) : stream.size();
    if (!sent) break;
  }
  BOXLANE_STREAMINFO info;
  if (!Boxlane_Parse_GetStream(client, &info)) std::abort();
  if (info.nPendingFragments != 0) std::abort();
  run.dropped = info.nDroppedFragments != 0;
  int32_t** ids = nullptr;
  int32_t count = 0;
  if (Boxlane_Parse_GetTrackIDs(client, &ids, &count)) {
    for (int32_t i = 0; i < count; ++i) {
      BOXLANE_TRACKINDEX index;
      if (!Boxlane_Parse_GetTrackIndex(client, *ids[i], &index)) std::abort();
    }
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ids), count);
  }
  return run;
}

bool same(const Run& a, const Run& b) {
  if (a.records.size() != b.records.size()) return false;
  for (std::size_t i = 0; i < a.records.size(); ++i) {
    const QORVANE_MP4HDR &x = a.records[i], &y = b.records[i];
    if (x.nBoxSize != y.nBoxSize || x.enHType != y.enHType || x.byVersion != y.byVersion ||
        std::memcmp(x.byFlags, y.byFlags, 3) != 0)
      return false;
  }
  if (a.dropped || b.dropped) return true;
  if (a.answers.size() != b.answers.size()) return false;
  for (std::size_t i = 0; i < a.answers.size(); ++i) {
    if (std::memcmp(&a.answers[i].info, &b.answers[i].info, sizeof(BOXLANE_FRAGMENTINFO)) != 0) return false;
    if (a.answers[i].hash != b.answers[i].hash) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const uint8_t mode = data[0] % 3;
  const uint32_t seed = data[1];
  const Bytes body(data + 2, data + size);
  Bytes stream;
  if (mode == 0) {
    stream = body;
  } else {
    static const Bytes head = movie();
    // The moof's payload as given, or one traf of track 1 around it; then an
    // mdat for its data.
    const Bytes moof = mode == 1 ? box("moof", body) : box("moof", box("traf", body));
    stream = cat({head, moof, box("mdat", Bytes(64, 0))});
  }
  const char* clients[] = {"fuzz/fragments/whole", "fuzz/fragments/cut"};
  for (const char* client : clients) Boxlane_Parse_InsertEx(client, BOXLANE_PARSE_EXTENDED);
  const Run whole = feed(clients[0], stream, seed, UINT32_MAX / 2);
  const Run cut = feed(clients[1], stream, seed, 1 + seed * 16);
  for (const char* client : clients) Boxlane_Parse_Delete(client);
  if (!whole.cut_dependent && !cut.cut_dependent && !same(whole, cut)) std::abort();
  return 0;
}
