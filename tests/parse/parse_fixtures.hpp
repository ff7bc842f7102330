// What the parse suites share: hand-built boxes (ISO/IEC 14496-12), a feed in pieces, clients, comparable answers.
#pragma once

#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include "parse/client_lookup.hpp"
#include "parse/parse_record.hpp"
#include "support/box_builder.hpp"
#include "support/paths.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace boxlane::test {

using Codes = std::vector<int>;

// A tkhd payload of version 0 (84 bytes) or 1 (96 bytes).
inline Bytes tkhd_payload(uint32_t id, uint32_t width_16_16 = 0, uint32_t height_16_16 = 0, uint8_t version = 0) {
  Bytes p;
  p.full(version, 7);
  if (version == 0) p.u32(0x11).u32(0x22).u32(id).u32(0).u32(0x33);
  else p.u64(0x1000000011ull).u64(0x1000000022ull).u32(id).u32(0).u64(0x1000000033ull);
  p.zeros(8).u16(1).u16(2).u16(0x0100).u16(0).zeros(36).u32(width_16_16).u32(height_16_16);
  return p;
}
// A table of n-field entries after its entry count (stts, ctts, stsc, stco, stss).
inline Bytes table_box(const char* fourcc, const std::vector<std::vector<uint32_t>>& entries, uint8_t version = 0) {
  Bytes p;
  p.u32(uint32_t(entries.size()));
  for (const auto& entry : entries)
    for (uint32_t v : entry) p.u32(v);
  return full_box(fourcc, version, 0, p);
}
inline Bytes stsz_box(uint32_t constant, uint32_t count, const std::vector<uint32_t>& sizes = {}) {
  Bytes p;
  p.u32(constant).u32(count);
  for (uint32_t s : sizes) p.u32(s);
  return full_box("stsz", 0, 0, p);
}
// A trak with the given track id, media time scale and stbl children; a media header (vmhd, smhd) before the stbl.
inline Bytes trak_box(uint32_t id, uint32_t timescale, const std::vector<Bytes>& stbl_children, const Bytes& media_header = {}) {
  Bytes stbl;
  for (const Bytes& child : stbl_children) stbl.add(child);
  const Bytes mdhd = full_box("mdhd", 0, 0, Bytes{}.u32(0).u32(0).u32(timescale).u32(0).u16(0x55C4).u16(0));
  const Bytes hdlr = full_box("hdlr", 0, 0, Bytes{}.u32(0).str("vide").zeros(12).str("v").u8(0));
  return box("trak", cat({box("tkhd", tkhd_payload(id)), box("mdia", cat({mdhd, hdlr, box("minf", cat({media_header, box("stbl", stbl)}))}))}));
}
inline Bytes trex_box(uint32_t id, uint32_t description, uint32_t duration, uint32_t size, uint32_t flags) {
  return full_box("trex", 0, 0, Bytes{}.u32(id).u32(description).u32(duration).u32(size).u32(flags));
}
inline Bytes moov_box(const std::vector<Bytes>& children) {
  Bytes body = full_box("mvhd", 0, 0, Bytes{}.zeros(96));
  for (const Bytes& child : children) body.add(child);
  return box("moov", body);
}
// A descriptor with a 4-byte size (ISO/IEC 14496-1 §8.3.3).
inline Bytes descriptor(uint8_t tag, const Bytes& body) {
  const auto n = uint32_t(body.size());
  return Bytes{}.u8(tag).u8(0x80 | n >> 21).u8(0x80 | (n >> 14 & 0x7F)).u8(0x80 | (n >> 7 & 0x7F)).u8(n & 0x7F).add(body);
}
inline Bytes movie_ftyp() { return box("ftyp", Bytes{}.str("isom").u32(512).str("isomiso2avc1mp41")); }

// tfhd: flags, track, then the optional fields its flags name.
inline Bytes tfhd_box(uint32_t flags, uint32_t track, std::vector<uint32_t> fields = {}) {
  Bytes p;
  p.u32(track);
  for (uint32_t v : fields) p.u32(v);
  return full_box("tfhd", 0, flags, p);
}
struct Entry {
  uint32_t duration = 0;
  uint32_t size = 0;
  uint32_t flags = 0;
  uint32_t composition = 0;
};
// A trun with the fields its flags name; `count` may lie about the entries.
inline Bytes trun_box(uint8_t version, uint32_t flags, const std::vector<Entry>& entries, int32_t data_offset = 0,
                      uint32_t first_flags = 0, int64_t count = -1) {
  Bytes p;
  p.u32(count < 0 ? uint32_t(entries.size()) : uint32_t(count));
  if (flags & 0x001) p.u32(uint32_t(data_offset));
  if (flags & 0x004) p.u32(first_flags);
  for (const Entry& e : entries) {
    if (flags & 0x100) p.u32(e.duration);
    if (flags & 0x200) p.u32(e.size);
    if (flags & 0x400) p.u32(e.flags);
    if (flags & 0x800) p.u32(e.composition);
  }
  return full_box("trun", version, flags, p);
}
inline Bytes moof_box(uint32_t sequence, const std::vector<Bytes>& trafs) {
  Bytes body = full_box("mfhd", 0, 0, Bytes{}.u32(sequence));
  for (const Bytes& traf : trafs) body.add(traf);
  return box("moof", body);
}
// A moof built twice, so a data_offset can name the byte after it and the mdat header.
inline Bytes moof_with_offset(const std::function<Bytes(int32_t)>& make) { return make(int32_t(make(0).size() + 8)); }
// A moof of one traf based on the moof: the tfhd, then `rest` of the mdat payload's data_offset.
inline Bytes based(uint32_t track, const std::function<Bytes(int32_t)>& rest) {
  return moof_with_offset([&](int32_t off) { return moof_box(1, {box("traf", cat({tfhd_box(0x020000, track), rest(off)}))}); });
}
// Tracks 1 and 2 with trex defaults (10, 100, flags 0), track 3 without; the shortest mehd.
inline Bytes fragment_prefix() {
  const Bytes mvex = box("mvex", cat({full_box("mehd", 0, 0, Bytes{}.u32(1234)), trex_box(1, 1, 10, 100, 0), trex_box(2, 1, 10, 100, 0)}));
  return cat({movie_ftyp(), moov_box({trak_box(1, 1000, {}), trak_box(2, 1000, {}), trak_box(3, 1000, {}), mvex})});
}

inline Codes codes(const std::vector<QORVANE_MP4HDR>& headers) {
  Codes out;
  for (const auto& h : headers) out.push_back(static_cast<int>(h.enHType));
  return out;
}
inline bool send(const std::string& client, const std::vector<uint8_t>& bytes, std::size_t from = 0,
                 std::size_t to = SIZE_MAX) {
  to = std::min(to, bytes.size());
  return Boxlane_Parse_Send(client.c_str(), bytes.data() + from, static_cast<int32_t>(to - from));
}
inline BOXLANE_STREAMINFO stream_info(const std::string& client) {
  BOXLANE_STREAMINFO info{};
  EXPECT_TRUE(Boxlane_Parse_GetStream(client.c_str(), &info));
  return info;
}
// The call failed and left the given code as the last error.
inline ::testing::AssertionResult fails_with(bool result, uint64_t code) {
  const uint64_t last = Boxlane_GetLastError(nullptr);
  if (!result && Boxlane_IsErrorOccur && last == code) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "returned " << result << " with last error " << last << ", wanted " << code;
}
template <class T>
std::vector<T> take_list(T** list, int32_t count) {
  std::vector<T> out;
  for (int32_t i = 0; i < count; ++i) out.push_back(*list[i]);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return out;
}

// The client's record; null when there is none.
inline QORVANE_MP4PARSE* record_of(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const auto it = m_MP4Parse.stl_MapClient.find(std::string_view(client));
  return it == m_MP4Parse.stl_MapClient.end() ? nullptr : it->second.get();
}
// The pool's event count for the client (0 when not listed); -1 without a pool.
inline int pending_events(const std::string& client) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  const QORVANE_MP4PARSE* record = record_of(client);
  if (!record || !Boxlane_Parse_GetPool(record->nPoolIndex, &list, &count)) return -1;
  int events = 0;
  for (const auto& event : take_list(list, count))
    if (client == event.tszClientAddr) events = event.nEventCount;
  return events;
}
inline std::vector<QORVANE_MP4HDR> drain(const std::string& client) {
  std::vector<QORVANE_MP4HDR> headers;
  for (QORVANE_MP4HDR h; Boxlane_Parse_Recv(client.c_str(), &h, nullptr);) headers.push_back(h);
  return headers;
}

inline std::string record_line(const QORVANE_MP4HDR& h) {
  char line[96];
  std::snprintf(line, sizeof line, "%d size %llu v%u flags %02X%02X%02X uuid %04X", int(h.enHType),
                (unsigned long long)h.nBoxSize, h.byVersion, h.byFlags[0], h.byFlags[1], h.byFlags[2], h.wUUIDHead);
  return line;
}

struct FeedResult {
  std::vector<QORVANE_MP4HDR> headers;  // in the order Recv handed them out
  std::vector<std::string> records;     // the same, each as one line of its fields
  std::vector<std::pair<uint64_t, uint32_t>> places;  // each box's stream offset and header length
  uint64_t final_position = 0;
  bool events_matched = true;  // every drain took as many records as the pool counted
  uint64_t error = 0;          // the code of a failed Send, which ends the feed
};
// Sends the stream in pieces ending at `cuts` (and every `piece` bytes), taking the records after each; past an mdat.
inline FeedResult feed(const std::string& client, const std::vector<uint8_t>& stream, std::vector<std::size_t> cuts = {},
                       std::size_t piece = 0) {
  for (std::size_t at = piece; piece && at < stream.size(); at += piece) cuts.push_back(at);
  cuts.push_back(stream.size());
  std::sort(cuts.begin(), cuts.end());
  FeedResult result;
  bool ended = false;
  for (std::size_t offset = 0; offset < stream.size() && !ended;) {
    const std::size_t end = *std::upper_bound(cuts.begin(), cuts.end(), offset);
    const bool sent = send(client, stream, offset, end);
    const uint64_t code = Boxlane_GetLastError(nullptr);
    const int events = pending_events(client);
    std::size_t next = end;
    int taken = 0;
    BOXLANE_BOXINFO box;
    std::memset(&box, 0xA5, sizeof box);  // RecvEx writes every field, the reserved one 0
    for (uint64_t position = 0; Boxlane_Parse_RecvEx(client.c_str(), &box, &position); ++taken) {
      EXPECT_EQ(box.nReserved, 0u);
      const QORVANE_MP4HDR& h = box.stHdr;
      result.headers.push_back(h);
      result.places.emplace_back(box.nOffset, box.nHeaderLen);
      result.records.push_back(record_line(h));
      if (h.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT) {
        ended = h.nBoxSize == 0;
        next = std::max(end, static_cast<std::size_t>(position));
      }
    }
    result.events_matched = result.events_matched && (events < 0 || events == taken);
    if (!sent) {
      result.error = code;
      break;
    }
    offset = next;
  }
  result.final_position = stream_info(client).nParsePos;
  return result;
}
inline void expect_same_feed(const FeedResult& got, const FeedResult& want, const std::string& how) {
  EXPECT_EQ(std::tie(got.records, got.places, got.final_position, got.error),
            std::tie(want.records, want.places, want.final_position, want.error))
      << how;
  EXPECT_TRUE(got.events_matched) << how;
}

struct Fragment {
  BOXLANE_FRAGMENTINFO info;
  std::vector<BOXLANE_SAMPLEINFO> samples;
};
// Takes every waiting fragment, asking each one's count first: an array too small leaves the count and the answer.
inline std::vector<Fragment> take_fragments(const std::string& client) {
  std::vector<Fragment> out;
  for (Fragment f{};; f = Fragment{}) {
    int32_t count = -1;
    if (!Boxlane_Parse_GetFragment(client.c_str(), &f.info, nullptr, 0, &count)) {
      if (Boxlane_GetLastError(nullptr) != BOXLANE_ERROR_PARSE_BUFFER) break;
      EXPECT_EQ(count, -1);
      f.samples.resize(f.info.nSampleCount);
      if (!f.samples.empty()) {  // one short is refused the same way
        const int32_t short_by_one = int32_t(f.samples.size()) - 1;
        EXPECT_FALSE(Boxlane_Parse_GetFragment(client.c_str(), &f.info, f.samples.data(), short_by_one, &count));
        EXPECT_EQ(std::pair(Boxlane_GetLastError(nullptr), count), std::pair(uint64_t{BOXLANE_ERROR_PARSE_BUFFER}, -1));
      }
      // An answer that cannot be taken would be asked for again and again.
      if (!Boxlane_Parse_GetFragment(client.c_str(), &f.info, f.samples.data(), int32_t(f.samples.size()), &count)) {
        ADD_FAILURE() << "an answer of " << f.samples.size() << " samples not taken";
        break;
      }
    }
    out.push_back(std::move(f));
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_NODATA});
  return out;
}
// The samples of a track's moov tables, read `window` at a time.
inline std::vector<BOXLANE_SAMPLEINFO> table_samples(const std::string& client, int32_t track, int32_t window = 1 << 16) {
  std::vector<BOXLANE_SAMPLEINFO> out, buffer(static_cast<std::size_t>(window));
  for (;;) {
    int32_t n = -1;
    EXPECT_TRUE(Boxlane_Parse_GetTrackSamples(client.c_str(), track, uint32_t(out.size()), buffer.data(), window, &n));
    if (n <= 0) return out;
    out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    // The tables here are hand-written and short: a walk this long hands out the same window again and again.
    if (out.size() > (1u << 20)) {
      ADD_FAILURE() << "the walk of track " << track << " does not end";
      return out;
    }
  }
}

// A sample as one line; S for sync, D when the dependency bits are known.
inline std::string text(const BOXLANE_SAMPLEINFO& s) {
  char line[160];
  std::snprintf(line, sizeof line, "dts %llu cts %lld dur %u size %u at %llu flags %08X%s%s",
                (unsigned long long)s.nDecodeTime, (long long)s.nCompositionTime, s.nDuration, s.nSize,
                (unsigned long long)s.nOffset, s.nFlags, s.bSync ? " S" : "", s.bDependsKnown ? " D" : "");
  return line;
}

// Two pools and a client for each test; clients made with other() go with it.
class ParseClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Boxlane_Parse_Init(2));
    ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  }
  void TearDown() override {
    others_.push_back(client_);
    for (const std::string& c : others_) Boxlane_Parse_Delete(c.c_str());
    Boxlane_Parse_Destory();
  }
  std::string other(const std::string& name, uint32_t flags = 0) {
    others_.push_back(name);
    EXPECT_TRUE(Boxlane_Parse_InsertEx(name.c_str(), flags));
    return name;
  }
  std::string extended(const std::string& name) { return other(name, BOXLANE_PARSE_EXTENDED); }
  const std::string client_ = "intake";
  std::vector<std::string> others_;
};

}  // namespace boxlane::test
