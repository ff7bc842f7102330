// The per-frame half of the writer: each H.264 access unit or AAC frame comes
// back as the bytes of one mdat sample, and its duration, composition offset,
// key flag, size and file position are recorded for the sample tables.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/fragments.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"
#include "platform/sanvik.hpp"

#include <climits>
#include <cstdint>
#include <span>
#include <vector>

namespace {

using boxlane::BeReader;
using boxlane::BeWriter;
using boxlane::packet::FragmentFrame;
using boxlane::packet::write_box;

// Grows a list ahead of its append. Once every list a frame touches has room,
// the appends cannot throw, so a failed allocation leaves the record's
// contents exactly as they were.
template <typename T>
void make_room(std::vector<T>& list) {
  if (list.size() == list.capacity()) list.reserve(list.empty() ? 256 : list.size() * 2);
}

// Makes sure a duration can be added to the runs without allocating; a
// duration of 0 or less is not timed and adds nothing.
void make_room_for(BOXLANE_RUNS& runs, int duration) {
  if (duration > 0 && runs.closes(static_cast<uint32_t>(duration))) make_room(runs.listClosed);
}

void add_duration(BOXLANE_RUNS& runs, int duration) noexcept {
  if (duration > 0) runs.add(static_cast<uint32_t>(duration));
}

struct VideoSample {
  uint32_t size;
  int64_t position;
  int key;
  int duration;
  int cts_offset;
};

// The bookkeeping of one video sample, shared by the single-NAL and the
// access-unit writers.
void record_movie_video(QORVANE_MP4PACKET& record, const VideoSample& sample) {
  make_room_for(record.listVideoSTts, sample.duration);
  if (sample.key == 1) make_room(record.listVideoSTss);
  make_room(record.listVideoSample);

  ++record.nVideoCount;
  add_duration(record.listVideoSTts, sample.duration);
  if (sample.key == 1) record.listVideoSTss.push_back(record.nVideoCount);
  // Offsets are never merged: each ctts entry describes exactly one sample.
  const uint32_t offset = sample.cts_offset > 0 ? static_cast<uint32_t>(sample.cts_offset) : 0;
  record.listVideoSample.push_back({sample.size, offset, sample.position});
}

// A client in fragment mode keeps the sample for its pending fragment only.
[[nodiscard]] bool record_video(QORVANE_MP4PACKET& record, const VideoSample& sample) {
  if (record.bFragments) {
    return boxlane::packet::add_fragment_sample(*record.pFragments, FragmentFrame{BOXLANE_FRAGMENTS::kVideo, sample.size,
                                                                 sample.duration, sample.cts_offset, sample.key == 1});
  }
  record_movie_video(record, sample);
  return true;
}

[[nodiscard]] bool record_audio(QORVANE_MP4PACKET& record, uint32_t size, int64_t position, int duration) {
  if (record.bFragments) {
    return boxlane::packet::add_fragment_sample(*record.pFragments, FragmentFrame{BOXLANE_FRAGMENTS::kAudio, size, duration, 0, true});
  }
  make_room_for(record.listAudioSTts, duration);
  make_room(record.listAudioSize);
  make_room(record.listAudioOffset);

  add_duration(record.listAudioSTts, duration);
  record.listAudioSize.push_back(size);
  record.listAudioOffset.push_back(position);
  return true;
}

// The ADTS header length the frame starts with, 0 without one, or -1 when
// the header claims more bytes than the frame has.
int adts_header_length(const uint8_t* frame, int length) {
  if (!Sanvik_Parse_AACInfo(frame, length, nullptr, nullptr, nullptr, nullptr)) return 0;
  BeReader header(frame, static_cast<std::size_t>(length));
  header.skip(1);
  // protection_absent is the low bit of the second byte; 0 means a 16-bit
  // CRC follows the 7 fixed bytes (ISO/IEC 14496-3 §1.A.2.2.1).
  const int header_length = (header.u8() & 1) ? 7 : 9;
  if (!header.ok() || header_length > length) return -1;
  return header_length;
}

}  // namespace

bool CBoxlane_Packet::Boxlane_Packet_FrameVideo(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                                const uint8_t* lpszFrame, int nFrameLen, int64_t nFilePos,
                                                int nKeyFrame, int nDuration, int nCTSOffset) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    if (!lpszFrame || nFrameLen < 4) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    if (!record_video(record, {static_cast<uint32_t>(nFrameLen), nFilePos, nKeyFrame, nDuration, nCTSOffset}))
      return false;
    BeReader frame(lpszFrame, static_cast<std::size_t>(nFrameLen));
    // The start code is replaced unseen by the NAL length (ISO/IEC 14496-15
    // §5.3.2: lengthSizeMinusOne 3 in the avcC we write).
    frame.skip(4);
    out.u32(static_cast<uint32_t>(nFrameLen - 4));
    out.bytes(frame.current(), frame.remaining());
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_FrameAccessUnit(const char* lpszClient, uint8_t* ptszMsgBuffer,
                                                     int* pInt_MsgLen, const uint8_t* const* pptszNalu,
                                                     const int* pInt_NaluLen, int nNaluCount, int64_t nFilePos,
                                                     int nKeyFrame, int nDuration, int nCTSOffset) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    if (!pptszNalu || !pInt_NaluLen || nNaluCount < 1) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const std::span nalus(pptszNalu, static_cast<std::size_t>(nNaluCount));
    const std::span lengths(pInt_NaluLen, static_cast<std::size_t>(nNaluCount));
    int64_t total = 0;
    for (std::size_t i = 0; i < nalus.size(); ++i) {
      if (!nalus[i] || lengths[i] < 0) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
      total += 4 + int64_t{lengths[i]};
      if (total > INT_MAX) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    }
    if (!record_video(record, {static_cast<uint32_t>(total), nFilePos, nKeyFrame, nDuration, nCTSOffset})) return false;
    for (std::size_t i = 0; i < nalus.size(); ++i) {
      out.u32(static_cast<uint32_t>(lengths[i]));
      out.bytes(nalus[i], static_cast<std::size_t>(lengths[i]));
    }
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_FrameAudio(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                                const uint8_t* lpszFrame, int nFrameLen, int64_t nFilePos,
                                                int nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    if (!lpszFrame || nFrameLen < 0) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const int header_length = adts_header_length(lpszFrame, nFrameLen);
    if (header_length < 0) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    BeReader frame(lpszFrame, static_cast<std::size_t>(nFrameLen));
    frame.skip(static_cast<uint64_t>(header_length));
    if (!record_audio(record, static_cast<uint32_t>(frame.remaining()), nFilePos, nDuration)) return false;
    out.bytes(frame.current(), frame.remaining());
    return true;
  });
}
