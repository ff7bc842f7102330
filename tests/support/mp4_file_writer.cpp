#include "support/mp4_file_writer.hpp"

#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include "platform/adts.hpp"
#include "platform/annexb.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace boxlane::test {

namespace {

constexpr uint16_t kUndetermined = 0x55C4;  // "und", ISO/IEC 14496-12 §8.4.2.3
constexpr int kAacFrameSamples = 1024;

void append(std::vector<uint8_t>& to, const std::vector<uint8_t>& bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

// An access unit: the NAL units before its slice (AUD, SEI) and the slice,
// without start codes, pointing into the stream.
struct AccessUnit {
  std::vector<const uint8_t*> nalus;
  std::vector<int32_t> lengths;
  bool key = false;
};

// Calls the writer's box functions for one client into a scratch buffer and
// returns the bytes written; a failure, or a length past the buffer, fails
// the running test and gives nothing.
struct BoxWriter {
  std::string client;
  std::vector<uint8_t> scratch;

  template <typename Fn, typename... Args>
  std::vector<uint8_t> produce(const char* what, std::size_t capacity, Fn fn, Args... args) {
    scratch.assign(capacity, 0);
    int32_t length = -1;
    if (!fn(client.c_str(), scratch.data(), &length, args...)) {
      ADD_FAILURE() << what << " failed with 0x" << std::hex << Boxlane_GetLastError(nullptr);
      return {};
    }
    if (length < 0 || static_cast<std::size_t>(length) > capacity) {
      ADD_FAILURE() << what << " reported " << length << " bytes for a buffer of " << capacity;
      return {};
    }
    return {scratch.begin(), scratch.begin() + length};
  }

  std::vector<uint8_t> container(const char* type, std::initializer_list<std::vector<uint8_t>> children) {
    std::vector<uint8_t> payload;
    for (const auto& child : children) append(payload, child);
    return produce(type, payload.size() + 8, Boxlane_Packet_HDRBox, type, payload.data(), int32_t(payload.size()));
  }

  // trak[tkhd, edts, mdia[mdhd, hdlr, minf[vmhd or smhd, dinf, stbl]]], made
  // in file order: the avc1 entry takes the picture size from the latest
  // track header. Only video has a sync table, and composition offsets and
  // an edit list when media_time >= 0.
  std::vector<uint8_t> track(const tag_Qorvane_AVProtocol& description, int width, int height, uint32_t duration,
                             int media_time, std::size_t room) {
    const bool video = description.bVideo != 0;
    const std::vector<uint8_t> none;
    const auto tkhd = produce("tkhd", 92, Boxlane_Packet_TKhd, video ? 0 : 0x0100, width, height, int32_t(duration));
    const auto edts = media_time < 0 ? none : produce("edts", 36, Boxlane_Packet_EDts, duration, media_time);
    const auto mdhd = produce("mdhd", 32, Boxlane_Packet_MDhdEx, kUndetermined, duration);
    const auto hdlr = produce("hdlr", 45, Boxlane_Packet_HDlr, video ? 0 : 1);
    const auto xmhd = video ? produce("vmhd", 20, Boxlane_Packet_VMhd) : produce("smhd", 16, Boxlane_Packet_SMhd, 0);
    const auto dinf = produce("dinf", 36, Boxlane_Packet_DInf);
    const auto stsd = produce("stsd", 256 + sizeof description.tszVideoHdr, Boxlane_Packet_STsd, &description);
    const auto stbl = container("stbl", {stsd, produce("stts", room, Boxlane_Packet_STts, video),
                                         media_time < 0 ? none : produce("ctts", room, Boxlane_Packet_CTts),
                                         video ? produce("stss", room, Boxlane_Packet_STss) : none,
                                         produce("stsc", 28, Boxlane_Packet_STsc),
                                         produce("stsz", room, Boxlane_Packet_STsz, video),
                                         produce("stco", room, Boxlane_Packet_STco, video)});
    return container("trak", {tkhd, edts, container("mdia", {mdhd, hdlr, container("minf", {xmhd, dinf, stbl})})});
  }
};

}  // namespace

Mp4WriteResult write_mp4(const std::string& client, const Mp4VideoInput* video, const Mp4AudioInput* audio) {
  Mp4WriteResult result;
  if (!Boxlane_Packet_Insert(client.c_str())) {
    ADD_FAILURE() << "Insert failed";
    return result;
  }
  BoxWriter writer{client, {}};
  auto& file = result.file;

  // With one slice per picture, an access unit is whatever precedes its
  // slice and the slice itself; the first SPS and PPS go to the sample entry.
  std::vector<AccessUnit> units;
  std::vector<uint8_t> sps, pps;
  if (video) {
    AccessUnit current;
    AnnexBSplitter splitter(video->annexb.data(), video->annexb.size());
    for (NalUnit nal; splitter.next(nal);) {
      const uint8_t type = nal.type();
      if (nal.size == 0) continue;
      if (type == 7 || type == 8) {
        auto& kept = type == 7 ? sps : pps;
        if (kept.empty()) kept.assign(nal.data, nal.data + nal.size);
        continue;
      }
      current.nalus.push_back(nal.data);
      current.lengths.push_back(static_cast<int32_t>(nal.size));
      current.key = type == 5;
      if (type == 1 || type == 5) units.push_back(std::exchange(current, {}));
    }
  }
  // The ADTS frames, headers included.
  std::vector<std::pair<const uint8_t*, int32_t>> frames;
  AdtsHeader audio_header;
  if (audio) {
    std::size_t pos = 0;
    for (AdtsHeader h; pos < audio->adts.size() && parse_adts(audio->adts.data() + pos, audio->adts.size() - pos, h);) {
      if (frames.empty()) audio_header = h;
      frames.emplace_back(audio->adts.data() + pos, h.frame_length);
      pos += h.frame_length;
    }
    EXPECT_EQ(pos, audio->adts.size()) << "ADTS stream has bytes that are not frames";
  }

  // One time scale for the movie and both media: the audio sample rate makes
  // every AAC frame 1024 ticks, and 44100 and 48000 are whole multiples of 30 fps.
  result.time_scale = audio ? audio_header.sample_rate : 90000;
  const int frame_ticks = video ? static_cast<int>(result.time_scale) / video->frame_rate : 0;
  if (video && frame_ticks * video->frame_rate != static_cast<int>(result.time_scale))
    ADD_FAILURE() << "frame rate does not divide the time scale";

  std::vector<int> offsets;
  int media_time = -1;  // none without composition offsets
  if (video && !video->composition_frames.empty()) {
    EXPECT_EQ(video->composition_frames.size(), units.size());
    const int lowest = *std::min_element(video->composition_frames.begin(), video->composition_frames.end());
    result.composition_shift = lowest > 0 ? 0 : 1 - lowest;
    int earliest = INT32_MAX;
    for (std::size_t i = 0; i < video->composition_frames.size(); ++i) {
      const int shifted = video->composition_frames[i] + result.composition_shift;
      offsets.push_back(shifted * frame_ticks);
      earliest = std::min(earliest, static_cast<int>(i) + shifted);
    }
    media_time = earliest * frame_ticks;
  }

  append(file, writer.produce("ftyp", 32, Boxlane_Packet_FTyp));
  const std::size_t mdat_at = file.size();
  append(file, writer.produce("mdat", 8, Boxlane_Packet_HDRBox, "mdat", nullptr, 0));
  // Interleaved by decode time, as a recorder receives them.
  for (std::size_t v = 0, a = 0; v < units.size() || a < frames.size();) {
    const auto position = static_cast<int64_t>(file.size());
    if (a == frames.size() || (v < units.size() && int64_t(v) * frame_ticks <= int64_t(a) * kAacFrameSamples)) {
      const AccessUnit& unit = units[v];
      uint32_t size = 0;
      for (const int32_t length : unit.lengths) size += 4 + static_cast<uint32_t>(length);
      append(file, writer.produce("FrameAccessUnit", size, Boxlane_Packet_FrameAccessUnit, unit.nalus.data(),
                                  unit.lengths.data(), static_cast<int32_t>(unit.nalus.size()), position,
                                  unit.key ? 1 : 0, frame_ticks, offsets.empty() ? 0 : offsets[v]));
      result.video_sizes.push_back(size);
      result.video_keys.push_back(unit.key);
      ++v;
    } else {
      const auto bytes = writer.produce("FrameAudio", static_cast<std::size_t>(frames[a].second),
                                        Boxlane_Packet_FrameAudio, frames[a].first, frames[a].second, position,
                                        kAacFrameSamples);
      append(file, bytes);
      result.audio_sizes.push_back(static_cast<uint32_t>(bytes.size()));
      ++a;
    }
  }
  for (int i = 0; i < 4; ++i) file.at(mdat_at + i) = static_cast<uint8_t>((file.size() - mdat_at) >> (24 - 8 * i));

  const auto video_duration = static_cast<uint32_t>(units.size() * static_cast<std::size_t>(frame_ticks));
  const auto audio_duration = static_cast<uint32_t>(frames.size() * kAacFrameSamples);
  const std::size_t table_room = 64 + 8 * std::max(units.size(), frames.size());
  const auto mvhd = writer.produce("mvhd", 108, Boxlane_Packet_MVhd, int32_t(std::max(video_duration, audio_duration)),
                                   int32_t(result.time_scale));
  std::vector<uint8_t> video_trak, audio_trak;
  if (video) {
    tag_Qorvane_AVProtocol description{};
    description.bVideo = 1;
    description.nVideoCodec = 27;
    const std::vector<uint8_t> header = {0, 0, 0, 1};
    std::vector<uint8_t> sets = header;
    append(sets, sps);
    append(sets, header);
    append(sets, pps);
    EXPECT_LE(sets.size(), sizeof description.tszVideoHdr);
    description.nVideoHdrLen = static_cast<int32_t>(std::min(sets.size(), sizeof description.tszVideoHdr));
    std::memcpy(description.tszVideoHdr, sets.data(), static_cast<std::size_t>(description.nVideoHdrLen));
    video_trak = writer.track(description, video->width, video->height, video_duration, media_time, table_room);
  }
  if (audio) {
    tag_Qorvane_AVProtocol description{};
    description.nAudioChannel = audio_header.channel_config;
    description.nAudioSampleRate = static_cast<int32_t>(audio_header.sample_rate);
    description.nAudioSampleBit = 16;
    description.nAudioCfgLen = 2;
    audio_specific_config(audio_header, description.tszAudioCfg);
    audio_trak = writer.track(description, 0, 0, audio_duration, -1, table_room);
  }
  append(file, writer.container("moov", {mvhd, video_trak, audio_trak}));
  EXPECT_TRUE(Boxlane_Packet_Delete(client.c_str()));
  return result;
}

std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file) {
  std::vector<TopBox> boxes;
  for (uint64_t at = 0; at + 8 <= file.size();) {
    const uint64_t size = uint64_t{file[at]} << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3];
    boxes.push_back({std::string(file.begin() + at + 4, file.begin() + at + 8), at, size});
    if (size < 8) break;
    at += size;
  }
  return boxes;
}

}  // namespace boxlane::test
