// A parsed file read back through the queries: each track's header values
// and tables, expanded into per-sample values that an independent reader can
// be compared with.
#pragma once

#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include "support/stream_feeder.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace boxlane::test {

struct ParsedTrack {
  int32_t id = 0;
  QORVANE_HDRTKHD tkhd{};
  QORVANE_HDRMDHD mdhd{};
  QORVANE_HDRHDLR hdlr{};
  QORVANE_HDRVMSMHD vmsmhd{};
  std::vector<QORVANE_HDRSAMPLENFO> stts, ctts, stsc, stsz, stco;
  std::vector<int32_t> stss;
  std::vector<uint8_t> sdtp;
  BOXLANE_CODECINFO codec{};

  // Per sample, in decode order.
  std::vector<uint64_t> dts() const {
    std::vector<uint64_t> out;
    uint64_t t = 0;
    for (const auto& e : stts)
      for (uint32_t i = 0; i < e.nValue1; ++i, t += e.nValue2) out.push_back(t);
    return out;
  }
  std::vector<int32_t> composition_offsets() const {
    std::vector<int32_t> out;
    for (const auto& e : ctts) out.insert(out.end(), e.nValue1, int32_t(e.nValue2));
    return out;
  }
  std::vector<uint32_t> sizes() const {
    std::vector<uint32_t> out;
    for (const auto& e : stsz) out.push_back(e.nValue1);
    return out;
  }
  // File offsets from the chunk offsets, the chunk runs and the sizes
  // (ISO/IEC 14496-12 §8.7.4).
  std::vector<uint64_t> offsets() const {
    std::vector<uint64_t> out;
    std::size_t sample = 0;
    for (std::size_t run = 0; run < stsc.size(); ++run) {
      const uint32_t last = run + 1 < stsc.size() ? stsc[run + 1].nValue1 - 1 : uint32_t(stco.size());
      for (uint32_t chunk = stsc[run].nValue1; chunk <= last && chunk <= stco.size(); ++chunk) {
        uint64_t at = stco[chunk - 1].nValue1;
        for (uint32_t i = 0; i < stsc[run].nValue2 && sample < stsz.size(); ++i, ++sample) {
          out.push_back(at);
          at += stsz[sample].nValue1;
        }
      }
    }
    return out;
  }
};

inline std::vector<QORVANE_HDRSAMPLENFO> table(const char* client, int32_t id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  QORVANE_HDRSAMPLENFO** list = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(Boxlane_Parse_GetTrackList(client, id, &list, &count, code));
  return take_list(list, count);
}

// Every track the client knows with an id from 0 to 9, in id order.
inline std::vector<ParsedTrack> parsed_tracks(const char* client) {
  int32_t slots[10];
  std::fill(std::begin(slots), std::end(slots), -1);
  EXPECT_TRUE(Boxlane_Parse_GetTrack(client, slots));
  std::vector<ParsedTrack> tracks;
  for (int32_t id : slots) {
    if (id < 0) continue;
    ParsedTrack t;
    t.id = id;
    EXPECT_TRUE(Boxlane_Parse_GetTrackInfo(client, id, &t.tkhd, &t.mdhd, &t.hdlr, &t.vmsmhd));
    t.stts = table(client, id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS);
    t.ctts = table(client, id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS);
    t.stsc = table(client, id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC);
    t.stsz = table(client, id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ);
    t.stco = table(client, id, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO);
    int32_t** keys = nullptr;
    QORVANE_HDRSDTP** sdtp = nullptr;
    int32_t count = 0;
    EXPECT_TRUE(Boxlane_Parse_GetTrackKey(client, id, &keys, &count));
    t.stss = take_list(keys, count);
    EXPECT_TRUE(Boxlane_Parse_GetTrackSDtp(client, id, &sdtp, &count));
    for (const QORVANE_HDRSDTP& e : take_list(sdtp, count)) t.sdtp.push_back(e.bySampleFlags);
    EXPECT_TRUE(Boxlane_Parse_GetTrackCodec(client, id, &t.codec));
    tracks.push_back(std::move(t));
  }
  return tracks;
}

// The avcC record (ISO/IEC 14496-15 §5.3.3.1) rebuilt from what the parser
// kept, without the optional high-profile tail.
inline std::vector<uint8_t> rebuilt_avcc(const BOXLANE_CODECINFO& c) {
  std::vector<uint8_t> out{1, c.byProfile, c.byCompatibility, c.byLevel, uint8_t(0xFC | (c.byNALLengthSize - 1)),
                           uint8_t(0xE0 | c.nSPSCount)};
  std::size_t at = 0;
  auto sets = [&](int32_t count, const uint16_t* lengths) {
    for (int32_t i = 0; i < count; ++i) {
      out.push_back(uint8_t(lengths[i] >> 8));
      out.push_back(uint8_t(lengths[i]));
      out.insert(out.end(), c.byParamSets + at, c.byParamSets + at + lengths[i]);
      at += lengths[i];
    }
  };
  sets(c.nSPSCount, c.wSPSLen);
  out.push_back(uint8_t(c.nPPSCount));
  sets(c.nPPSCount, c.wPPSLen);
  return out;
}

}  // namespace boxlane::test
