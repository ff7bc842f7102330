// What the reader suites share: a parse record of their own, a call into a
// reader with a payload copied into an allocation of exactly its length (so
// the address sanitizer catches any read past it), and hand-built tkhd boxes.
#pragma once

#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include "parse/parse_record.hpp"
#include "support/box_builder.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace boxlane::test {

using Ints = std::vector<int64_t>;
using Infos = std::vector<std::array<uint32_t, 3>>;
inline Infos values(const std::vector<QORVANE_HDRSAMPLENFO>& list) {
  Infos out;
  for (const auto& e : list) out.push_back({e.nValue1, e.nValue2, e.nValue3});
  return out;
}

using Reader = bool (CBoxlane_Parse::*)(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t);

// A tkhd payload of version 0 (84 bytes) or 1 (96 bytes).
inline Bytes tkhd_payload(uint32_t track_id, uint32_t width_16_16 = 0, uint32_t height_16_16 = 0, uint8_t version = 0) {
  Bytes p;
  p.full(version, 7);
  if (version == 0) {
    p.u32(0x11).u32(0x22).u32(track_id).u32(0).u32(0x33);
  } else {
    p.u64(0x1000000011ull).u64(0x1000000022ull).u32(track_id).u32(0).u64(0x1000000033ull);
  }
  p.zeros(8).u16(1).u16(2).u16(0x0100).u16(0).zeros(36).u32(width_16_16).u32(height_16_16);
  return p;
}

class ReaderTest : public ::testing::Test {
 protected:
  // The ftyp reader when `reader` is null.
  bool feed(Reader reader, const std::vector<uint8_t>& payload) {
    entry = BOXLANE_MSGBUFFER{};
    auto exact = std::make_unique<uint8_t[]>(payload.size() ? payload.size() : 1);
    if (!payload.empty()) std::memcpy(exact.get(), payload.data(), payload.size());
    if (!reader) return m_MP4Parse.Boxlane_Parse_FTyp(target, exact.get(), payload.size());
    return (m_MP4Parse.*reader)(target, &entry, exact.get(), payload.size());
  }
  bool feed_ftyp(const std::vector<uint8_t>& payload) { return feed(nullptr, payload); }
  void make_track(uint32_t id) { ASSERT_TRUE(feed(&CBoxlane_Parse::Boxlane_Parse_TKhd, tkhd_payload(id))); }
  BOXLANE_TRACKINFO& track(int32_t id) { return target->stl_MapTrack->at(id); }
  const QORVANE_MP4HDR& hdr() const { return entry.st_MP4Hdr; }

  QORVANE_MP4PARSE record;
  // The record the readers fill: `record` unless a suite points it at one
  // that sits in the client table.
  QORVANE_MP4PARSE* target = &record;
  BOXLANE_MSGBUFFER entry;
};

}  // namespace boxlane::test
