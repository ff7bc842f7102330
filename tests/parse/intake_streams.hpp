// Hand-built streams for the intake, splitter and cut tests, a fixture with
// one client, and a look into a client's record (under its locks) where a
// test checks what is kept.
#pragma once

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"
#include "support/box_builder.hpp"

#include <gtest/gtest.h>

#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace boxlane::test {

// One track with every box the splitter knows inside moov, plus boxes whose
// children must get no records of their own (dref, avc1, avcC, and the
// children of an unknown udta).
inline Bytes movie_moov(const std::string& moov_fourcc = "moov") {
  const auto leaf = [](const char* fourcc, std::size_t n, uint32_t flags = 0) {
    return full_box(fourcc, 0, flags, Bytes{}.zeros(n));
  };
  const Bytes avc1 = box("avc1", Bytes{}.zeros(78).add(box("avcC", Bytes{1, 0x42, 0xC0, 0x0D, 0xFF, 0xE0, 0})));
  const Bytes stbl = box("stbl", cat({full_box("stsd", 0, 0, Bytes{}.u32(1).add(avc1)), leaf("stts", 4), leaf("stss", 4),
                                      leaf("ctts", 4), leaf("stsc", 4), leaf("stsz", 8), leaf("stco", 4), leaf("sdtp", 3)}));
  const Bytes dinf = box("dinf", full_box("dref", 0, 0, Bytes{}.u32(1).add(full_box("url ", 0, 1))));
  const Bytes minf = box("minf", cat({leaf("vmhd", 8, 1), dinf, stbl}));
  const Bytes mdia = box("mdia", cat({leaf("mdhd", 20), leaf("hdlr", 25), minf}));
  const Bytes trak = box("trak", cat({leaf("tkhd", 80, 3), box("edts", leaf("elst", 4)), mdia}));
  const Bytes udta = box("udta", box("meta", box("hdlr", Bytes{}.zeros(24))));
  return box(moov_fourcc, cat({leaf("mvhd", 96), trak, udta}));
}

inline const std::vector<int> kMovieMoovCodes = {3,      30,     31,     311,    312,    3121,   313,   3131,
                                                 3132,   3133,   31331,  31335,  31336,  313361, 313362, 313366,
                                                 313367, 313363, 313364, 313365, 313368, 0};

inline Bytes movie_ftyp() { return box("ftyp", Bytes{}.str("isom").u32(512).str("isomiso2avc1mp41")); }
// Its two bytes after the fourcc are AB CD.
inline Bytes movie_uuid() { return box("uuid", Bytes{0xAB, 0xCD}.zeros(14).str("extension")); }

// ftyp, moov, free, uuid, an mdat whose payload looks like ftyp boxes (so a
// splitter that read into it would show), and a free box after the mdat.
inline Bytes movie_file(std::size_t payload = 600, const std::string& moov_fourcc = "moov") {
  Bytes media;
  while (media.size() + 8 <= payload) media.u32(8).str("ftyp");
  media.zeros(payload - media.size());
  return cat({movie_ftyp(), movie_moov(moov_fourcc), box("free", Bytes{}.zeros(5)), movie_uuid(), box("mdat", media),
              box("free", Bytes{}.zeros(3))});
}

inline std::vector<int> movie_file_codes() {
  std::vector<int> codes{1};
  codes.insert(codes.end(), kMovieMoovCodes.begin(), kMovieMoovCodes.end());
  codes.insert(codes.end(), {0, 4, 2, 0});
  return codes;
}

inline std::vector<int> codes(const std::vector<QORVANE_MP4HDR>& headers) {
  std::vector<int> out;
  for (const auto& h : headers) out.push_back(static_cast<int>(h.enHType));
  return out;
}

inline bool send(const std::string& client, const std::vector<uint8_t>& bytes, std::size_t from = 0,
                 std::size_t to = SIZE_MAX) {
  to = std::min(to, bytes.size());
  return Boxlane_Parse_Send(client.c_str(), bytes.data() + from, static_cast<int32_t>(to - from));
}

struct Peek {
  bool stop = false;
  std::size_t queued = 0;
  bool back_finished = true;
  int32_t back_msg_len = 0;
  int32_t back_box_len = 0;
  std::size_t back_buffer = 0;
};

inline Peek peek(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const QORVANE_MP4PARSE& record = *m_MP4Parse.stl_MapClient.find(std::string_view(client))->second;
  std::lock_guard guard(*record.st_Locker);
  Peek p{record.bStop, record.stl_ListMsg->size()};
  if (p.queued) {
    const BOXLANE_MSGBUFFER& back = record.stl_ListMsg->back();
    p.back_finished = back.bHdr && back.bComplete;
    p.back_msg_len = back.nMsgLen;
    p.back_box_len = back.nBoxLen;
    p.back_buffer = back.nBufferSize;
  }
  return p;
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
