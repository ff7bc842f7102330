// Runs `boxlane mux` as a user does, makes its inputs with FFmpeg, and the checks the mux suites share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"

namespace boxlane::test {

struct MuxResult {
  int status;
  std::string output;  // stdout and stderr
};

inline MuxResult mux(const std::string& args) {
  MuxResult r;
  r.status = run(shell_quote(tool_path()) + " mux " + args + " 2>&1", &r.output);
  return r;
}

// "25", "29.97" or "30000/1001" as frames a second.
inline double rate_of(const std::string& text) {
  const std::size_t slash = text.find('/');
  return slash == std::string::npos ? std::stod(text) : std::stod(text) / std::stod(text.substr(slash + 1));
}

struct Streams {
  std::string video, audio;
  double fps = 0;
  std::string pix_fmt = "yuv420p";
};

// `seconds` of FFmpeg's test picture as H.264 (libx264 with `x264` params) at `prefix`.h264, and
// of a sine as AAC in ADTS at `prefix`.aac.
inline Streams encode(const std::string& prefix, const std::string& size, const std::string& rate, double seconds,
                      const std::string& x264, int sample_rate = 48000, int channels = 2) {
  const Streams s{prefix + ".h264", prefix + ".aac", rate_of(rate)};
  const std::string length = ":duration=" + std::to_string(seconds);
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + length + " -map 0:v -c:v libx264 " +
                   "-preset veryfast -pix_fmt yuv420p -x264-params " + x264 + " -f h264 " + shell_quote(s.video) +
                   " -f lavfi -i sine=frequency=440:sample_rate=" + std::to_string(sample_rate) + length +
                   " -map 1:a -c:a aac -ac " + std::to_string(channels) + " -f adts " + shell_quote(s.audio), &log), 0)
      << log;
  return s;
}

// `seconds` of FFmpeg's test picture as H.265 (libx265 with `x265` params) at `path`.
inline std::string encode_h265(const std::string& path, const std::string& size, const std::string& rate,
                               double seconds, const std::string& pix_fmt, const std::string& x265) {
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + ":duration=" +
                   std::to_string(seconds) + " -pix_fmt " + pix_fmt + " -c:v libx265 -preset ultrafast -x265-params " +
                   "log-level=error:" + x265 + " -f hevc " + shell_quote(path), &log), 0)
      << log;
  return path;
}

inline std::string inputs(const Streams& s, bool video = true, bool audio = true) {
  return (video ? " --video " + shell_quote(s.video) : "") + (audio ? " --audio " + shell_quote(s.audio) : "");
}

// What every written file must show: the sources' frames in FFmpeg, audio from 0; each tkhd
// (ISO/IEC 14496-12 §8.3.2) with the picture size ffprobe reads from the SPS, or audio's volume
// 0x0100; key frames where the source has them, frames from 0 at `fps`, the same in GStreamer.
inline void expect_sources_shown(const std::string& file, const Streams& src, bool video, bool audio, double fps,
                                 double tolerance, bool gstreamer = true) {
  expect_decodes_like(file, video ? src.video : "", audio ? src.audio : "");
  if (audio) {
    EXPECT_NEAR(probe_packets(file, 'a').at(0).pts, 0.0, 1e-6);
  }
  const auto bytes = read_file(file);
  std::string got, want;
  const auto u16 = [&](std::size_t at) { return std::to_string(bytes.at(at) << 8 | bytes.at(at + 1)); };
  for (const TopBox& box : top_boxes(bytes)) {
    for (std::size_t i = box.offset + 12; box.type == "moov" && i + 4 < box.offset + box.size; ++i) {
      if (std::memcmp(&bytes[i], "tkhd", 4) != 0) continue;
      const std::size_t end = i - 4 + (bytes[i - 4] << 24 | bytes[i - 3] << 16 | bytes[i - 2] << 8 | bytes[i - 1]);
      got += u16(end - 8) + "x" + u16(end - 4) + "/" + u16(end - 48) + " ";
    }
  }
  if (video) {
    run("ffprobe -v error -show_entries stream=width,height -of csv=s=x:p=0 " + shell_quote(src.video), &want);
    want = want.substr(0, want.find('\n')) + "/0 ";
  }
  EXPECT_EQ(got, want + (audio ? "0x0/256 " : ""));
  if (!video) return;
  const auto packets = probe_packets(file, 'v'), raw = probe_packets(src.video, 'v');
  ASSERT_EQ(packets.size(), raw.size());
  std::vector<double> times;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(packets[i].key, raw[i].key) << "picture " << i;
    times.push_back(packets[i].pts);
  }
  std::sort(times.begin(), times.end());
  for (std::size_t i = 0; i < times.size(); ++i) ASSERT_NEAR(times[i], i / fps, tolerance) << "frame " << i;
  if (!gstreamer || !have_gstreamer()) return;
  const std::string md5 = ffmpeg_video_md5(src.video, src.pix_fmt);
  EXPECT_FALSE(md5.empty()) << src.video;
  EXPECT_EQ(gstreamer_video_md5(file, src.pix_fmt), md5) << "GStreamer's pictures of " << file;
}

// frame_length of the ADTS header at `h`: the whole frame (ISO/IEC 14496-3 §1.A.2.2.1).
inline std::size_t adts_length(const uint8_t* h) { return ((h[3] & 3u) << 11) | (h[4] << 3) | (h[5] >> 5); }

// Each ADTS frame with `pce` (if any) at the start of its raw_data_block and channel_configuration 0,
// and with a CRC word after the header (protection_absent 0, ISO/IEC 14496-3 §1.A.2.2.1) if `crc`.
inline std::vector<uint8_t> reframed(const std::vector<uint8_t>& adts, const std::vector<uint8_t>& pce, bool crc) {
  std::vector<uint8_t> out;
  for (std::size_t at = 0; at + 7 <= adts.size();) {
    const std::size_t length = adts_length(&adts[at]);
    const std::size_t header = (adts[at + 1] & 1) ? 7 : 9, grown = length + pce.size() + (crc ? 9 - header : 0);
    std::vector<uint8_t> head(adts.begin() + long(at), adts.begin() + long(at + header));
    if (crc && header == 7) head[1] &= 0xFE, head.insert(head.end(), {0xC5, 0x3A});  // not checked by readers
    if (!pce.empty()) head[2] &= 0xFE, head[3] &= 0x3F;  // channel_configuration 0
    head[3] = uint8_t((head[3] & 0xFC) | (grown >> 11));  // frame_length
    head[4] = uint8_t(grown >> 3);
    head[5] = uint8_t((head[5] & 0x1F) | (grown << 5));
    out.insert(out.end(), head.begin(), head.end());
    out.insert(out.end(), pce.begin(), pce.end());
    out.insert(out.end(), adts.begin() + long(at + header), adts.begin() + long(at + length));
    at += length;
  }
  return out;
}

// 5.1 AAC with the layout in a program_config_element, as broadcast encoders write it, with a
// comment of `comment` bytes.
inline std::vector<uint8_t> with_pce(const std::vector<uint8_t>& adts, uint8_t comment, bool crc = false) {
  // ISO/IEC 14496-3 Table 4.2 for 48 kHz: ID_PCE, tag 0, LC, front: SCE 0 and CPE 0, back: CPE 1,
  // LFE 0; byte aligned, then comment_field_bytes. In the AudioSpecificConfig: 10 bytes and the comment.
  auto pce = unhex("A0 99 00 A0 00 21 10");
  pce.push_back(comment);
  pce.resize(pce.size() + comment, 'c');
  return reframed(adts, pce, crc);
}

}  // namespace boxlane::test
