#include "bench/synthetic_movie.hpp"

#include "platform/be_writer.hpp"

#include <cstring>
#include <stdexcept>

namespace boxlane::bench {

namespace {

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint32_t kVideoTimescale = 90000;
constexpr uint32_t kAudioFrame = 1024;  // AAC samples per frame
constexpr uint32_t kGop = 60;           // a key frame every two seconds at 30 fps; a multiple of 3
constexpr uint32_t kCreateTime = 3'786'912'000;  // 2024-01-01 in seconds since 1904

// High profile parameter sets for 1280x720: the parser copies them, it does
// not decode them.
constexpr uint8_t kSps[] = {0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9, 0x40, 0x50, 0x05, 0xBB, 0x01, 0x10, 0x00,
                            0x00, 0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0xC0, 0xF1, 0x83, 0x19, 0x60};
constexpr uint8_t kPps[] = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
// AAC-LC, 48 kHz, stereo (ISO/IEC 14496-3 §1.6.2.1).
constexpr uint8_t kAudioConfig[] = {0x11, 0x90};

enum class Picture { I, P, B };

// Groups of three in decode order: an anchor (I at the start of a GOP, else
// P) shown after the two B-frames that follow it, so decode positions
// k, k+1, k+2 are shown at k+2, k, k+1.
Picture picture_at(uint32_t index) {
  if (index % 3 != 0) return Picture::B;
  return index % kGop == 0 ? Picture::I : Picture::P;
}

// Composition offsets in frames, shifted by one frame so that none is
// negative; the edit list takes the shift back out.
constexpr uint32_t kShiftFrames = 1;
uint32_t cts_frames(Picture p) { return p == Picture::B ? 0 : 3; }

uint8_t sdtp_byte(Picture p) {
  // ISO/IEC 14496-12 §8.6.4: sample_depends_on in bits 5-4,
  // sample_is_depended_on in bits 3-2.
  switch (p) {
    case Picture::I: return 0x24;
    case Picture::P: return 0x14;
    case Picture::B: return 0x18;
  }
  return 0;
}

// xorshift32: sizes that vary like an encoder's without any library state.
uint32_t next_random(uint32_t& state) {
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

uint32_t video_size(Picture p, uint32_t& rng) {
  const uint32_t base = p == Picture::I ? 30000 : p == Picture::P ? 9000 : 4000;
  return base + next_random(rng) % (base / 2);
}

void identity_matrix(BeWriter& w) {
  const uint32_t m[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
  for (uint32_t v : m) w.u32(v);
}

struct Track {
  std::vector<uint32_t> sizes;
  std::vector<uint32_t> offsets;
  std::vector<Picture> pictures;  // video only
};

void write_mvhd(BeWriter& w, uint32_t duration_ms) {
  auto box = w.open_full("mvhd", 0, 0);
  w.u32(kCreateTime);
  w.u32(kCreateTime);
  w.u32(kMovieTimescale);
  w.u32(duration_ms);
  w.u32(0x00010000);  // rate 1.0
  w.u16(0x0100);      // volume 1.0
  w.zeros(10);
  identity_matrix(w);
  w.zeros(24);
  w.u32(3);  // next_track_ID
  w.close(box);
}

void write_tkhd(BeWriter& w, uint32_t track_id, uint32_t duration_ms, bool video) {
  auto box = w.open_full("tkhd", 0, 3);  // enabled, in movie
  w.u32(kCreateTime);
  w.u32(kCreateTime);
  w.u32(track_id);
  w.u32(0);
  w.u32(duration_ms);
  w.zeros(8);
  w.u16(0);                      // layer
  w.u16(video ? 0 : 1);          // alternate_group
  w.u16(video ? 0 : 0x0100);     // volume
  w.u16(0);
  identity_matrix(w);
  w.u32(video ? 1280u << 16 : 0);
  w.u32(video ? 720u << 16 : 0);
  w.close(box);
}

void write_edts(BeWriter& w, uint32_t duration_ms, uint32_t media_time) {
  auto edts = w.open("edts");
  auto elst = w.open_full("elst", 0, 0);
  w.u32(1);
  w.u32(duration_ms);
  w.u32(media_time);
  w.u32(0x00010000);  // media_rate 1.0
  w.close(elst);
  w.close(edts);
}

void write_mdhd(BeWriter& w, uint32_t timescale, uint32_t duration) {
  auto box = w.open_full("mdhd", 0, 0);
  w.u32(kCreateTime);
  w.u32(kCreateTime);
  w.u32(timescale);
  w.u32(duration);
  w.u16(0x55C4);  // "und"
  w.u16(0);
  w.close(box);
}

void write_hdlr(BeWriter& w, const char* type, const char* name) {
  auto box = w.open_full("hdlr", 0, 0);
  w.u32(0);
  w.fourcc(type);
  w.zeros(12);
  w.bytes(name, std::strlen(name) + 1);
  w.close(box);
}

void write_dinf(BeWriter& w) {
  auto dinf = w.open("dinf");
  auto dref = w.open_full("dref", 0, 0);
  w.u32(1);
  auto url = w.open_full("url ", 0, 1);  // self-contained
  w.close(url);
  w.close(dref);
  w.close(dinf);
}

void write_avc1(BeWriter& w) {
  auto stsd = w.open_full("stsd", 0, 0);
  w.u32(1);
  auto avc1 = w.open("avc1");
  w.zeros(6);
  w.u16(1);  // data_reference_index
  w.zeros(16);
  w.u16(1280);
  w.u16(720);
  w.u32(0x00480000);
  w.u32(0x00480000);
  w.u32(0);
  w.u16(1);  // frame_count
  w.zeros(32);
  w.u16(0x0018);
  w.u16(0xFFFF);
  auto avcc = w.open("avcC");
  w.u8(1);
  w.u8(kSps[1]);
  w.u8(kSps[2]);
  w.u8(kSps[3]);
  w.u8(0xFF);  // lengthSizeMinusOne 3
  w.u8(0xE1);  // one SPS
  w.u16(sizeof kSps);
  w.bytes(kSps, sizeof kSps);
  w.u8(1);
  w.u16(sizeof kPps);
  w.bytes(kPps, sizeof kPps);
  // ISO/IEC 14496-15 §5.3.3.1.2: High profiles carry the chroma and bit-depth fields.
  w.u8(0xFD);
  w.u8(0xF8);
  w.u8(0xF8);
  w.u8(0);
  w.close(avcc);
  w.close(avc1);
  w.close(stsd);
}

void write_mp4a(BeWriter& w, uint32_t sample_rate) {
  auto stsd = w.open_full("stsd", 0, 0);
  w.u32(1);
  auto mp4a = w.open("mp4a");
  w.zeros(6);
  w.u16(1);
  w.zeros(8);
  w.u16(2);   // channelcount
  w.u16(16);  // samplesize
  w.u32(0);
  w.u32(sample_rate << 16);
  auto esds = w.open_full("esds", 0, 0);
  // ISO/IEC 14496-1 §7.2.6.5: ES_Descriptor, DecoderConfigDescriptor,
  // DecoderSpecificInfo and SLConfigDescriptor, all short enough for one-byte sizes.
  const uint8_t config_len = sizeof kAudioConfig;
  const uint8_t decoder_len = 13 + 2 + config_len;
  const uint8_t es_len = 3 + 2 + decoder_len + 3;
  w.u8(0x03);
  w.u8(es_len);
  w.u16(2);  // ES_ID
  w.u8(0);
  w.u8(0x04);
  w.u8(decoder_len);
  w.u8(0x40);  // AAC
  w.u8(0x15);  // audio stream
  w.u24(6144);
  w.u32(160000);
  w.u32(128000);
  w.u8(0x05);
  w.u8(config_len);
  w.bytes(kAudioConfig, config_len);
  w.u8(0x06);
  w.u8(1);
  w.u8(0x02);
  w.close(esds);
  w.close(mp4a);
  w.close(stsd);
}

void write_stts(BeWriter& w, uint32_t count, uint32_t delta, TableCounts& counts) {
  auto box = w.open_full("stts", 0, 0);
  w.u32(1);
  w.u32(count);
  w.u32(delta);
  w.close(box);
  counts.stts = 1;
}

void write_one_per_chunk(BeWriter& w, const Track& track, TableCounts& counts) {
  auto stsc = w.open_full("stsc", 0, 0);
  w.u32(1);
  w.u32(1);
  w.u32(1);
  w.u32(1);
  w.close(stsc);
  counts.stsc = 1;

  auto stsz = w.open_full("stsz", 0, 0);
  w.u32(0);
  w.u32(static_cast<uint32_t>(track.sizes.size()));
  for (uint32_t size : track.sizes) w.u32(size);
  w.close(stsz);
  counts.stsz = static_cast<uint32_t>(track.sizes.size());

  auto stco = w.open_full("stco", 0, 0);
  w.u32(static_cast<uint32_t>(track.offsets.size()));
  for (uint32_t offset : track.offsets) w.u32(offset);
  w.close(stco);
  counts.stco = static_cast<uint32_t>(track.offsets.size());
}

void write_video_tables(BeWriter& w, const Track& track, uint32_t delta, TableCounts& counts) {
  const auto samples = static_cast<uint32_t>(track.sizes.size());
  write_stts(w, samples, delta, counts);

  // Equal neighbouring offsets share an entry, as ISO/IEC 14496-12 §8.6.1.3 allows.
  auto ctts = w.open_full("ctts", 0, 0);
  const std::size_t count_at = w.size();
  w.u32(0);
  uint32_t entries = 0;
  for (uint32_t i = 0; i < samples;) {
    const uint32_t offset = cts_frames(track.pictures[i]) * delta;
    uint32_t run = 1;
    while (i + run < samples && cts_frames(track.pictures[i + run]) * delta == offset) ++run;
    w.u32(run);
    w.u32(offset);
    ++entries;
    i += run;
  }
  w.patch_u32(count_at, entries);
  w.close(ctts);
  counts.ctts = entries;

  auto stss = w.open_full("stss", 0, 0);
  const uint32_t keys = (samples + kGop - 1) / kGop;
  w.u32(keys);
  for (uint32_t k = 0; k < keys; ++k) w.u32(k * kGop + 1);
  w.close(stss);
  counts.stss = keys;

  auto sdtp = w.open_full("sdtp", 0, 0);
  for (Picture p : track.pictures) w.u8(sdtp_byte(p));
  w.close(sdtp);
  counts.sdtp = samples;

  write_one_per_chunk(w, track, counts);
}

void write_track(BeWriter& w, uint32_t track_id, bool video, const Track& track, const MovieShape& shape,
                 TableCounts& counts) {
  const auto samples = static_cast<uint32_t>(track.sizes.size());
  const uint32_t duration_ms = shape.seconds * kMovieTimescale;
  const uint32_t delta = kVideoTimescale / shape.fps;
  const uint32_t sample_rate = shape.sample_rate;
  auto trak = w.open("trak");
  write_tkhd(w, track_id, duration_ms, video);
  if (video) write_edts(w, duration_ms, kShiftFrames * delta);
  auto mdia = w.open("mdia");
  if (video) {
    write_mdhd(w, kVideoTimescale, samples * delta);
    write_hdlr(w, "vide", "VideoHandler");
  } else {
    write_mdhd(w, sample_rate, samples * kAudioFrame);
    write_hdlr(w, "soun", "SoundHandler");
  }
  auto minf = w.open("minf");
  if (video) {
    auto vmhd = w.open_full("vmhd", 0, 1);
    w.zeros(8);
    w.close(vmhd);
  } else {
    auto smhd = w.open_full("smhd", 0, 0);
    w.zeros(4);
    w.close(smhd);
  }
  write_dinf(w);
  auto stbl = w.open("stbl");
  if (video) {
    write_avc1(w);
    write_video_tables(w, track, delta, counts);
  } else {
    write_mp4a(w, sample_rate);
    write_stts(w, samples, kAudioFrame, counts);
    write_one_per_chunk(w, track, counts);
  }
  w.close(stbl);
  w.close(minf);
  w.close(mdia);
  w.close(trak);
}

}  // namespace

SyntheticMovie build_movie(const MovieShape& shape) {
  const uint32_t video_samples = shape.seconds * shape.fps;
  const auto audio_samples =
      static_cast<uint32_t>(uint64_t{shape.seconds} * shape.sample_rate / kAudioFrame);

  // Samples are placed in the mdat in time order, video and audio interleaved
  // one sample per chunk; the mdat starts after a generous header allowance.
  Track video, audio;
  video.sizes.reserve(video_samples);
  video.offsets.reserve(video_samples);
  video.pictures.reserve(video_samples);
  audio.sizes.reserve(audio_samples);
  audio.offsets.reserve(audio_samples);
  uint32_t rng = 0x9E3779B9;
  constexpr uint64_t kMediaStart = 8u << 20;
  uint64_t pos = kMediaStart;
  uint32_t a = 0;
  auto place_audio = [&] {
    const uint32_t size = 340 + next_random(rng) % 60;
    audio.sizes.push_back(size);
    audio.offsets.push_back(static_cast<uint32_t>(pos));
    pos += size;
    ++a;
  };
  for (uint32_t v = 0; v < video_samples; ++v) {
    while (a < audio_samples && uint64_t{a} * kAudioFrame * shape.fps <= uint64_t{v} * shape.sample_rate) place_audio();
    const Picture p = picture_at(v);
    const uint32_t size = video_size(p, rng);
    video.pictures.push_back(p);
    video.sizes.push_back(size);
    video.offsets.push_back(static_cast<uint32_t>(pos));
    pos += size;
  }
  while (a < audio_samples) place_audio();
  if (pos > UINT32_MAX) throw std::length_error("synthetic movie needs 64-bit chunk offsets");

  SyntheticMovie movie;
  movie.media_start = kMediaStart;
  movie.media_bytes = pos - kMediaStart;
  const std::size_t bound =
      (64u << 10) + std::size_t{video_samples} * (8 + 4 + 4 + 4 + 1) + std::size_t{audio_samples} * (4 + 4);
  movie.bytes.resize(bound);
  BeWriter w(movie.bytes.data(), movie.bytes.size());

  auto ftyp = w.open("ftyp");
  w.fourcc("isom");
  w.u32(0x200);
  for (const char* brand : {"isom", "iso2", "avc1", "mp41"}) w.fourcc(brand);
  w.close(ftyp);

  movie.moov_offset = static_cast<uint32_t>(w.size());
  auto moov = w.open("moov");
  write_mvhd(w, shape.seconds * kMovieTimescale);
  write_track(w, 1, true, video, shape, movie.video);
  write_track(w, 2, false, audio, shape, movie.audio);
  w.close(moov);

  if (!w.ok()) throw std::length_error("synthetic movie outgrew its buffer");
  movie.bytes.resize(w.size());
  return movie;
}

}  // namespace boxlane::bench
