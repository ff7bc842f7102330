// What the reader and query suites share: a parse record of their own, a
// call into a reader with a payload copied into an allocation of exactly its
// length (so the address sanitizer catches any read past it), and hand-built
// tkhd boxes.
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
#include <vector>

namespace boxlane::test {

using Ints = std::vector<int64_t>;
using Infos = std::vector<std::array<uint32_t, 3>>;
inline Infos values(const std::vector<QORVANE_HDRSAMPLENFO>& list) {
  Infos out;
  for (const auto& e : list) out.push_back({e.nValue1, e.nValue2, e.nValue3});
  return out;
}
template <std::size_t N>
Infos values(const BOXLANE_TABLE<N>& table) {
  Infos out;
  for (std::size_t i = 0; i < table.size(); ++i) {
    const QORVANE_HDRSAMPLENFO e = table.entry(i);
    out.push_back({e.nValue1, e.nValue2, e.nValue3});
  }
  return out;
}

inline std::vector<QORVANE_HDRSAMPLENFO> table(const char* client, int32_t id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  QORVANE_HDRSAMPLENFO** list = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(Boxlane_Parse_GetTrackList(client, id, &list, &count, code));
  return take_list(list, count);
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

// The record the readers fill sits in the client table under the test's
// name, so the queries see it too.
class ReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    name_ = std::string("readers/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.emplace(name_, std::move(owned_));
  }
  // Removed as Delete removes a client, so no thread's last lookup outlives it.
  void TearDown() override {
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.erase(name_);
    boxlane::parse::note_deletion();
  }
  const char* client() const { return name_.c_str(); }
  // The ftyp reader when `reader` is null.
  bool feed(Reader reader, const std::vector<uint8_t>& payload) {
    entry = BOXLANE_MSGBUFFER{};
    auto exact = std::make_unique<uint8_t[]>(payload.size() ? payload.size() : 1);
    if (!payload.empty()) std::memcpy(exact.get(), payload.data(), payload.size());
    if (!reader) return m_MP4Parse.Boxlane_Parse_FTyp(&record, exact.get(), payload.size());
    return (m_MP4Parse.*reader)(&record, &entry, exact.get(), payload.size());
  }
  bool feed_ftyp(const std::vector<uint8_t>& payload) { return feed(nullptr, payload); }
  void make_track(uint32_t id) { ASSERT_TRUE(feed(&CBoxlane_Parse::Boxlane_Parse_TKhd, tkhd_payload(id))); }
  BOXLANE_TRACKINFO& track(int32_t id) { return record.stl_MapTrack->at(id); }
  const QORVANE_MP4HDR& hdr() const { return entry.st_MP4Hdr; }

  std::unique_ptr<QORVANE_MP4PARSE> owned_ = std::make_unique<QORVANE_MP4PARSE>();
  QORVANE_MP4PARSE& record = *owned_;  // stays put when the table takes owned_
  BOXLANE_MSGBUFFER entry;
  std::string name_;
};

}  // namespace boxlane::test
