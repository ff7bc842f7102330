// Clients fed in pieces and queried while other threads insert and delete them and workers drain them: each call
// completes or fails as a vanished or half-fed client may (the sanitizers see lost locks and freed records used).
#include "parse_fixtures.hpp"

#include <atomic>
#include <random>
#include <thread>

namespace boxlane::test {
namespace {

TEST(Workers, DrainWhileOtherThreadsInsertFeedQueryAndDelete) {
  constexpr int kWorkers = 2;
  ASSERT_TRUE(Boxlane_Parse_Init(kWorkers));
  const Bytes stsz = stsz_box(0, 8, {100, 101, 102, 103, 104, 105, 106, 107});
  const Bytes movie = cat({movie_ftyp(),
                           moov_box({trak_box(1, 1000, {table_box("stts", {{8, 40}}), table_box("stss", {{1}}), stsz,
                                                        table_box("stco", {{1000}})})}),
                           box("mdat", Bytes{}.zeros(64))});
  const auto flip = [](uint32_t c) { return "flip-" + std::to_string(c % 2); };
  std::atomic<bool> stop{false};
  std::atomic<int> cycles{0}, bad_line{0};
  std::atomic<uint64_t> bad_code{0};
  // The last error is process-wide: any allowed code will do. A name deleted and inserted between two Sends gets the
  // movie from the middle, which the parser may refuse; a worker's wait that times out sets its code.
  const auto allowed = [&](bool ok, bool may_fail, int line = __builtin_LINE()) {
    if (ok) return;
    const uint64_t code = Boxlane_GetLastError(nullptr);
    for (uint64_t c : {BOXLANE_ERROR_PARSE_NOTFOUND, BOXLANE_ERROR_PARSE_NODATA, BOXLANE_ERROR_PARSE_NOTREADY,
                       BOXLANE_ERROR_PARSE_MALFORMED, BOXLANE_ERROR_PARSE_NOTSUPPORT, RENDAVO_ERROR_TASKPOOL_TIMEOUT})
      if (may_fail && c == code) return;
    bad_code = code;
    bad_line = line;
  };
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; ++w)
    threads.emplace_back([&, w] {
      while (!stop) {
        Boxlane_Parse_WaitEvent(w, 20);
        QORVANE_RENDAVO_TASKEVENT** list = nullptr;
        int32_t count = 0;
        if (!Boxlane_Parse_GetPool(w, &list, &count)) continue;
        QORVANE_MP4HDR hdr;
        for (int i = 0; i < count; ++i)
          for (int n = 0; n < list[i]->nEventCount; ++n)
            if (!Boxlane_Parse_Recv(list[i]->tszClientAddr, &hdr, nullptr)) break;
        Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
      }
    });
  for (uint32_t t = 0; t < 2; ++t) {
    // One thread inserts, feeds and deletes; the other calls every query.
    threads.emplace_back([&, t] {
      std::mt19937 rng(t + 21);
      while (!stop) {
        const std::string name = flip(rng());
        allowed(Boxlane_Parse_Insert(name.c_str()), false);
        for (std::size_t at = 0; at < movie.size() && !stop; at += 97) {
          const auto piece = int32_t(std::min<std::size_t>(97, movie.size() - at));
          allowed(Boxlane_Parse_Send(name.c_str(), movie.data() + at, piece), true);
        }
        allowed(Boxlane_Parse_Delete(name.c_str()), false);
        ++cycles;
      }
    });
    threads.emplace_back([&, t] {
      std::mt19937 rng(t + 31);
      while (!stop) {
        const std::string name = flip(rng());
        const char* client = name.c_str();
        QORVANE_HDRFTYP ftyp;
        QORVANE_HDRMVHD mvhd;
        BOXLANE_STREAMINFO stream;
        QORVANE_HDRTKHD tkhd;
        QORVANE_HDRMDHD mdhd;
        QORVANE_HDRHDLR hdlr;
        QORVANE_HDRVMSMHD vmsmhd;
        QORVANE_MP4HDR hdr;
        int tracks[64] = {};
        QORVANE_HDRSAMPLENFO** list = nullptr;
        int32_t count = 0;
        if (!Boxlane_Parse_GetFTyp(client, &ftyp)) allowed(false, true);
        else Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
        allowed(Boxlane_Parse_GetMVhd(client, &mvhd), true);
        allowed(Boxlane_Parse_GetStream(client, &stream), true);
        allowed(Boxlane_Parse_GetTrack(client, tracks), true);
        allowed(Boxlane_Parse_GetTrackInfo(client, 1, &tkhd, &mdhd, &hdlr, &vmsmhd), true);
        if (!Boxlane_Parse_GetTrackList(client, 1, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ)) allowed(false, true);
        else Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
        allowed(Boxlane_Parse_Recv(client, &hdr, nullptr), true);
        if (rng() % 50 == 0) allowed(Boxlane_Parse_Delete(client), false);
      }
    });
  }
  while (cycles < 200) std::this_thread::yield();
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(bad_line.load(), 0) << "code " << std::hex << bad_code.load();
  for (uint32_t c = 0; c < 2; ++c) Boxlane_Parse_Delete(flip(c).c_str());
  EXPECT_TRUE(Boxlane_Parse_Destory());
}

}  // namespace
}  // namespace boxlane::test
