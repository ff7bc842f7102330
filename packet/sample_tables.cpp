// The sample tables of a track's stbl (ISO/IEC 14496-12 §8.6 and §8.7),
// written from the per-sample lists the frame writers filled. Every sample
// is its own chunk, so stsc is one fixed entry and stco (or co64) lists every
// sample.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

// A list whose box would not fit a signed 32-bit length is refused before
// anything is written.
using boxlane::BeWriter;
using boxlane::packet::fits_length;
using boxlane::packet::write_box;

namespace {

// Calls visit(position) for every sample of the track, in the order handed in.
template <typename Visit>
void each_position(const QORVANE_MP4PACKET& record, bool video, Visit visit) {
  if (video) {
    for (const BOXLANE_VIDEOSAMPLE& sample : record.listVideoSample) visit(sample.nPosition);
  } else {
    for (const int64_t position : record.listAudioOffset) visit(position);
  }
}

// The chunk offset table of a track whose recorded positions are moved by
// `delta`: stco while every offset is below 2^32, co64 once one reaches it
// (ISO/IEC 14496-12 §8.7.5). Found in one pass, before anything is written.
struct OffsetTable {
  std::size_t count = 0;
  bool wide = false;   // co64
  bool valid = true;   // every position + delta lies in [0, 2^63)
  uint32_t each() const noexcept { return wide ? 8 : 4; }
};

OffsetTable offset_table(const QORVANE_MP4PACKET& record, bool video, int64_t delta) {
  OffsetTable table;
  table.count = video ? record.listVideoSample.size() : record.listAudioOffset.size();
  int64_t highest = 0;
  each_position(record, video, [&](int64_t position) {
    int64_t offset = 0;
    if (__builtin_add_overflow(position, delta, &offset) || offset < 0) table.valid = false;
    highest = std::max(highest, offset);
  });
  table.wide = static_cast<uint64_t>(highest) > std::numeric_limits<uint32_t>::max();
  return table;
}

}  // namespace

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
    // Counted here rather than per frame: a frame writer touches one cache
    // line less, and the table is written once.
    uint64_t entries = 0;
    for (const BOXLANE_VIDEOSAMPLE& sample : record.listVideoSample) entries += sample.nCTsOffset != 0;
    if (entries == 0) return boxlane::fail(BOXLANE_ERROR_PACKET_NODATA);
    if (!fits_length(16, entries, 8)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // Version 0: only frames with a positive offset get an entry (ISO/IEC
    // 14496-12 §8.6.1.3).
    const auto box = out.open_full("ctts", 0, 0);
    out.u32(static_cast<uint32_t>(entries));
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

bool CBoxlane_Packet::Boxlane_Packet_STco64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                            bool bVideo, int64_t nOffsetDelta) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const OffsetTable table = offset_table(record, bVideo, nOffsetDelta);
    if (!table.valid || !fits_length(16, table.count, table.each()))
      return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto box = out.open_full(table.wide ? "co64" : "stco", 0, 0);
    out.u32(static_cast<uint32_t>(table.count));
    each_position(record, bVideo, [&](int64_t position) {
      const auto offset = static_cast<uint64_t>(position + nOffsetDelta);
      if (table.wide) {
        out.u64(offset);
      } else {
        out.u32(static_cast<uint32_t>(offset));
      }
    });
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STco64Size(const char* lpszClient, bool bVideo, int64_t nOffsetDelta,
                                                int* pInt_BoxSize) {
  return boxlane::packet::with_client(*this, lpszClient, [&](QORVANE_MP4PACKET& record) {
    if (!pInt_BoxSize) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const OffsetTable table = offset_table(record, bVideo, nOffsetDelta);
    if (!table.valid || !fits_length(16, table.count, table.each()))
      return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    *pInt_BoxSize = static_cast<int>(16 + table.count * table.each());
    return true;
  });
}
