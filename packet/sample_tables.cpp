// The sample tables of a track's stbl (ISO/IEC 14496-12 §8.6 and §8.7),
// written from the per-sample lists the frame writers filled. Every sample
// is its own chunk, so stsc is one fixed entry and stco lists every sample.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <cstdint>
#include <vector>

// A list whose box would not fit a signed 32-bit length is refused before
// anything is written.
using boxlane::BeWriter;
using boxlane::packet::fits_length;
using boxlane::packet::write_box;

bool CBoxlane_Packet::Boxlane_Packet_STts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          bool bVideo) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const auto& runs = bVideo ? record.listVideoSTts : record.listAudioSTts;
    if (!fits_length(16, runs.size(), 8)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto box = out.open_full("stts", 0, 0);
    out.u32(static_cast<uint32_t>(runs.size()));
    runs.each([&](const BOXLANE_RUN& run) {
      out.u32(run.nCount);
      out.u32(run.nValue);
    });
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_CTts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const uint32_t entries = record.nVideoCTtsCount;
    if (entries == 0) return boxlane::fail(BOXLANE_ERROR_PACKET_NODATA);
    if (!fits_length(16, entries, 8)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // Version 0: only frames with a positive offset get an entry (ISO/IEC
    // 14496-12 §8.6.1.3).
    const auto box = out.open_full("ctts", 0, 0);
    out.u32(entries);
    for (const BOXLANE_VIDEOSAMPLE& sample : record.listVideoSample) {
      if (sample.nCTsOffset == 0) continue;
      out.u32(1);
      out.u32(sample.nCTsOffset);
    }
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STss(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const auto& keys = record.listVideoSTss;
    if (!fits_length(16, keys.size(), 4)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto box = out.open_full("stss", 0, 0);
    out.u32(static_cast<uint32_t>(keys.size()));
    for (const uint32_t number : keys) out.u32(number);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STsc(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [](QORVANE_MP4PACKET&, BeWriter& out) {
    const auto box = out.open_full("stsc", 0, 0);
    out.u32(1);
    out.u32(1);  // first_chunk
    out.u32(1);  // samples_per_chunk
    out.u32(1);  // sample_description_index
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STsz(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          bool bVideo) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const std::size_t count = bVideo ? record.listVideoSample.size() : record.listAudioSize.size();
    if (!fits_length(20, count, 4)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto box = out.open_full("stsz", 0, 0);
    out.u32(0);  // sample_size 0: a size per sample follows, even when all are equal
    out.u32(static_cast<uint32_t>(count));
    if (bVideo) {
      for (const BOXLANE_VIDEOSAMPLE& sample : record.listVideoSample) out.u32(sample.nSize);
    } else {
      for (const uint32_t size : record.listAudioSize) out.u32(size);
    }
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STco(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          bool bVideo) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const std::size_t count = bVideo ? record.listVideoSample.size() : record.listAudioOffset.size();
    if (!fits_length(16, count, 4)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto box = out.open_full("stco", 0, 0);
    out.u32(static_cast<uint32_t>(count));
    // stco holds 32-bit offsets; a sample at or past 4 GiB keeps its low 32 bits.
    if (bVideo) {
      for (const BOXLANE_VIDEOSAMPLE& sample : record.listVideoSample) out.u32(static_cast<uint32_t>(sample.nPosition));
    } else {
      for (const int64_t position : record.listAudioOffset) out.u32(static_cast<uint32_t>(position));
    }
    out.close(box);
    return true;
  });
}
