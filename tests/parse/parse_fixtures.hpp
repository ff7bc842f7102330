// What the parse suites share: hand-built boxes (ISO/IEC 14496-12 §8.3 to
// §8.8), a fixture with a task pool and clients, one whose record the box
// readers fill directly, and the answers a client hands back in forms a test
// compares.
#pragma once

#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include "parse/client_lookup.hpp"
#include "parse/parse_record.hpp"
#include "support/box_builder.hpp"
#include "support/stream_feeder.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace boxlane::test {

using Ints = std::vector<int64_t>;
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

// A table of (count, value) runs (stts, ctts) or of single values (stco, stss).
inline Bytes runs_box(const char* fourcc, uint8_t version, const std::vector<std::pair<uint32_t, uint32_t>>& runs) {
  Bytes p;
  p.u32(uint32_t(runs.size()));
  for (const auto& [count, value] : runs) p.u32(count).u32(value);
  return full_box(fourcc, version, 0, p);
}
inline Bytes u32_table(const char* fourcc, const std::vector<uint32_t>& values) {
  Bytes p;
  p.u32(uint32_t(values.size()));
  for (uint32_t v : values) p.u32(v);
  return full_box(fourcc, 0, 0, p);
}
inline Bytes stsc_box(const std::vector<std::array<uint32_t, 3>>& entries) {
  Bytes p;
  p.u32(uint32_t(entries.size()));
  for (const auto& e : entries) p.u32(e[0]).u32(e[1]).u32(e[2]);
  return full_box("stsc", 0, 0, p);
}
inline Bytes stsz_box(uint32_t constant, uint32_t count, const std::vector<uint32_t>& sizes = {}) {
  Bytes p;
  p.u32(constant).u32(count);
  for (uint32_t s : sizes) p.u32(s);
  return full_box("stsz", 0, 0, p);
}

// A trak with the given track id, media time scale and stbl children.
inline Bytes trak_box(uint32_t id, uint32_t timescale, const std::vector<Bytes>& stbl_children) {
  Bytes stbl;
  for (const Bytes& child : stbl_children) stbl.add(child);
  const Bytes mdhd = full_box("mdhd", 0, 0, Bytes{}.u32(0).u32(0).u32(timescale).u32(0).u16(0x55C4).u16(0));
  const Bytes hdlr = full_box("hdlr", 0, 0, Bytes{}.u32(0).str("vide").zeros(12).str("v").u8(0));
  return box("trak", cat({box("tkhd", tkhd_payload(id)), box("mdia", cat({mdhd, hdlr, box("minf", box("stbl", stbl))}))}));
}
inline Bytes trex_box(uint32_t id, uint32_t description, uint32_t duration, uint32_t size, uint32_t flags) {
  return full_box("trex", 0, 0, Bytes{}.u32(id).u32(description).u32(duration).u32(size).u32(flags));
}
inline Bytes moov_box(const std::vector<Bytes>& children) {
  Bytes body = full_box("mvhd", 0, 0, Bytes{}.zeros(96));
  for (const Bytes& child : children) body.add(child);
  return box("moov", body);
}
inline Bytes movie_ftyp() { return box("ftyp", Bytes{}.str("isom").u32(512).str("isomiso2avc1mp41")); }

struct Tfhd {
  uint32_t flags = 0;
  uint32_t track = 1;
  uint64_t base = 0;
  uint32_t description = 0;
  uint32_t duration = 0;
  uint32_t size = 0;
  uint32_t sample_flags = 0;
};
inline Bytes tfhd_box(const Tfhd& t) {
  Bytes p;
  p.u32(t.track);
  if (t.flags & 0x01) p.u64(t.base);
  if (t.flags & 0x02) p.u32(t.description);
  if (t.flags & 0x08) p.u32(t.duration);
  if (t.flags & 0x10) p.u32(t.size);
  if (t.flags & 0x20) p.u32(t.sample_flags);
  return full_box("tfhd", 0, t.flags, p);
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

struct Fragment {
  BOXLANE_FRAGMENTINFO info;
  std::vector<BOXLANE_SAMPLEINFO> samples;
};
// Takes every waiting fragment, asking each one's count first.
inline std::vector<Fragment> take_fragments(const std::string& client) {
  std::vector<Fragment> out;
  for (Fragment f{};; f = Fragment{}) {
    int32_t count = -1;
    if (!Boxlane_Parse_GetFragment(client.c_str(), &f.info, nullptr, 0, &count)) {
      if (Boxlane_GetLastError(nullptr) != BOXLANE_ERROR_PARSE_BUFFER) break;
      f.samples.resize(f.info.nSampleCount);
      EXPECT_TRUE(Boxlane_Parse_GetFragment(client.c_str(), &f.info, f.samples.data(), int32_t(f.samples.size()), &count));
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
  }
}

// A sample as one line: decode and composition time, duration, size,
// offset, flags in hex, S for sync and D when the dependency bits are known.
inline std::string text(const BOXLANE_SAMPLEINFO& s) {
  char line[160];
  std::snprintf(line, sizeof line, "dts %llu cts %lld dur %u size %u at %llu flags %08X%s%s",
                (unsigned long long)s.nDecodeTime, (long long)s.nCompositionTime, s.nDuration, s.nSize,
                (unsigned long long)s.nOffset, s.nFlags, s.bSync ? " S" : "", s.bDependsKnown ? " D" : "");
  return line;
}
inline std::vector<std::string> texts(const std::vector<BOXLANE_SAMPLEINFO>& samples) {
  std::vector<std::string> out;
  for (const auto& s : samples) out.push_back(text(s));
  return out;
}
inline std::string sample(uint64_t dts, int64_t cts, uint32_t duration, uint32_t size, uint64_t at, uint32_t flags,
                          bool sync, bool known) {
  return text(BOXLANE_SAMPLEINFO{dts, cts, at, duration, size, flags, sync, known, {}});
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
