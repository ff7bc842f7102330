#include "bench/synthetic_fragments.hpp"

#include "platform/be_writer.hpp"

namespace boxlane::bench {
namespace {

constexpr uint32_t kVideoDelta = 3000;  // 30 fps at 90 kHz
constexpr uint32_t kAudioDelta = 1024;  // an AAC frame at 48 kHz
constexpr uint32_t kSync = 0x02000000;
constexpr uint32_t kNonSync = 0x01010000;

void trak(BeWriter& w, uint32_t id, uint32_t timescale, const char* handler) {
  const auto trak = w.open("trak");
  const auto tkhd = w.open_full("tkhd", 0, 3);
  w.u32(0), w.u32(0), w.u32(id), w.u32(0), w.u32(0);
  w.zeros(60);
  w.close(tkhd);
  const auto mdia = w.open("mdia");
  const auto mdhd = w.open_full("mdhd", 0, 0);
  w.u32(0), w.u32(0), w.u32(timescale), w.u32(0), w.u16(0x55C4), w.u16(0);
  w.close(mdhd);
  const auto hdlr = w.open_full("hdlr", 0, 0);
  w.u32(0), w.fourcc(handler), w.zeros(13);
  w.close(hdlr);
  const auto minf = w.open("minf");
  const auto stbl = w.open("stbl");
  // Empty tables: every sample is in the fragments.
  for (const char* table : {"stts", "stsc", "stco"}) {
    const auto b = w.open_full(table, 0, 0);
    w.u32(0);
    w.close(b);
  }
  const auto stsz = w.open_full("stsz", 0, 0);
  w.u32(0), w.u32(0);
  w.close(stsz);
  w.close(stbl);
  w.close(minf);
  w.close(mdia);
  w.close(trak);
}

void trex(BeWriter& w, uint32_t id, uint32_t duration, uint32_t flags) {
  const auto b = w.open_full("trex", 0, 0);
  w.u32(id), w.u32(1), w.u32(duration), w.u32(0), w.u32(flags);
  w.close(b);
}

// One traf based on its moof, with tfdt; `entry` writes sample i's fields.
template <typename Entry>
void traf(BeWriter& w, uint32_t id, uint8_t version, uint32_t flags, uint64_t time, uint32_t count, uint32_t data_offset,
          Entry entry) {
  const auto traf = w.open("traf");
  const auto tfhd = w.open_full("tfhd", 0, 0x020000);
  w.u32(id);
  w.close(tfhd);
  const auto tfdt = w.open_full("tfdt", 1, 0);
  w.u64(time);
  w.close(tfdt);
  const auto trun = w.open_full("trun", version, flags);
  w.u32(count), w.u32(data_offset);
  for (uint32_t i = 0; i < count; ++i) entry(i);
  w.close(trun);
  w.close(traf);
}

}  // namespace

FragmentedStream build_fragments(uint32_t fragments, uint32_t seconds) {
  FragmentedStream s;
  s.video_per_fragment = 30 * seconds;
  s.audio_per_fragment = 48000 * seconds / 1024;
  s.init.resize(4096);
  BeWriter init(s.init.data(), s.init.size());
  const auto ftyp = init.open("ftyp");
  init.fourcc("iso6"), init.u32(0), init.fourcc("iso6"), init.fourcc("dash");
  init.close(ftyp);
  const auto moov = init.open("moov");
  const auto mvhd = init.open_full("mvhd", 0, 0);
  init.zeros(96);
  init.close(mvhd);
  trak(init, 1, 90000, "vide");
  trak(init, 2, 48000, "soun");
  const auto mvex = init.open("mvex");
  trex(init, 1, kVideoDelta, kNonSync);
  trex(init, 2, kAudioDelta, kSync);
  init.close(mvex);
  init.close(moov);
  s.init.resize(init.size());

  uint64_t video_time = 0, audio_time = 0;
  for (uint32_t f = 0; f < fragments; ++f) {
    // Sizes vary the way an encoder's do; the first picture is a key frame.
    const auto video_size = [&](uint32_t i) { return i == 0 ? 40000u : 3000 + (i * 7919 + f * 104729) % 4000; };
    const auto audio_size = [&](uint32_t i) { return 300 + (i * 31 + f) % 60; };
    uint32_t video_bytes = 0, audio_bytes = 0;
    for (uint32_t i = 0; i < s.video_per_fragment; ++i) video_bytes += video_size(i);
    for (uint32_t i = 0; i < s.audio_per_fragment; ++i) audio_bytes += audio_size(i);
    // Written twice: the first time gives the moof's size, which the data
    // offsets need.
    std::vector<uint8_t> out(64 + 16 * (s.video_per_fragment + s.audio_per_fragment) + 256);
    uint32_t moof_size = 0;
    for (int pass = 0; pass < 2; ++pass) {
      BeWriter w(out.data(), out.size());
      const auto moof = w.open("moof");
      const auto mfhd = w.open_full("mfhd", 0, 0);
      w.u32(f + 1);
      w.close(mfhd);
      traf(w, 1, 1, 0xF01, video_time, s.video_per_fragment, moof_size + 8, [&](uint32_t i) {
        w.u32(kVideoDelta), w.u32(video_size(i)), w.u32(i == 0 ? kSync : kNonSync);
        w.u32(i % 3 == 0 ? 2 * kVideoDelta : kVideoDelta);
      });
      traf(w, 2, 0, 0x201, audio_time, s.audio_per_fragment, moof_size + 8 + video_bytes,
           [&](uint32_t i) { w.u32(audio_size(i)); });
      moof_size = w.close(moof);
      if (pass == 1) {
        w.u32(8 + video_bytes + audio_bytes);
        w.fourcc("mdat");
        out.resize(w.size());
      }
    }
    s.moof_bytes += moof_size;
    s.samples += s.video_per_fragment + s.audio_per_fragment;
    s.fragments.push_back(std::move(out));
    video_time += uint64_t{kVideoDelta} * s.video_per_fragment;
    audio_time += uint64_t{kAudioDelta} * s.audio_per_fragment;
  }
  return s;
}

}  // namespace boxlane::bench
