// Fragmented MP4 (ISO/IEC 14496-12 §8.8): the mvex of the init segment, and
// per fragment a moof describing the samples handed in since the previous
// one, followed by the header of the mdat that carries them. A client in
// fragment mode keeps only the pending fragment's samples, so its memory
// does not grow with the length of a recording. Also the segment boxes
// styp and sidx (§8.16) and the random access index mfra (§8.8.9).
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/box_output.hpp"
#include "packet/client_lookup.hpp"
#include "packet/fragments.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>

namespace boxlane::packet {
namespace {

using Fragments = BOXLANE_FRAGMENTS;
using Track = BOXLANE_FRAGMENTTRACK;

// Sample flags (§8.8.3.1). Readers disagree on which field marks a key
// frame, so both say the same: a sync sample depends on no other
// (sample_depends_on 2) and has sample_is_non_sync_sample clear; any other
// depends on others (1) and has it set.
constexpr uint32_t kSyncFlags = 0x02000000;
constexpr uint32_t kNonSyncFlags = 0x01010000;

// tfhd flag: the base data offset is the first byte of the moof (§8.8.7.1).
constexpr uint32_t kDefaultBaseIsMoof = 0x020000;
// trun flags (§8.8.8.1).
constexpr uint32_t kDataOffset = 0x000001;
constexpr uint32_t kSampleDuration = 0x000100;
constexpr uint32_t kSampleSize = 0x000200;
constexpr uint32_t kSampleFlags = 0x000400;
constexpr uint32_t kSampleCTsOffset = 0x000800;

constexpr uint64_t kMdatHeader = 8;
constexpr uint64_t kMoofFixed = 8 + 16;          // moof header, mfhd
constexpr uint64_t kTrafFixed = 8 + 16 + 20;     // traf header, tfhd, tfdt version 1
constexpr uint64_t kTrunFixed = 8 + 4 + 4 + 4;   // header, version and flags, count, data offset

uint32_t trun_flags(int track, const Track& t) {
  if (track == Fragments::kAudio) return kDataOffset | kSampleDuration | kSampleSize;
  return kDataOffset | kSampleDuration | kSampleSize | kSampleFlags | (t.bAnyCTs ? kSampleCTsOffset : 0);
}

uint64_t bytes_per_sample(int track, const Track& t) {
  return track == Fragments::kAudio ? 8 : (t.bAnyCTs ? 16 : 12);
}

uint64_t traf_size(int track, const Track& t) {
  if (t.nSamples == 0) return 0;
  return kTrafFixed + kTrunFixed * t.nRuns + bytes_per_sample(track, t) * t.nSamples;
}

uint64_t moof_size(const Fragments& f) {
  return kMoofFixed + traf_size(Fragments::kVideo, f.stTrack[0]) + traf_size(Fragments::kAudio, f.stTrack[1]);
}

// The pending fragment, written whole, must stay within the signed 32-bit
// length of the interface and of the trun data offsets.
bool fits_fragment(uint64_t moof, uint64_t payload) {
  return moof + kMdatHeader + payload <= INT32_MAX;
}

void write_trex(BeWriter& out, uint32_t track_id, uint32_t default_flags) {
  const auto box = out.open_full("trex", 0, 0);
  out.u32(track_id);
  out.u32(1);  // default_sample_description_index
  out.u32(0);  // default_sample_duration: every trun gives its own
  out.u32(0);  // default_sample_size
  out.u32(default_flags);
  out.close(box);
}

// The trun boxes of one track: one for every stretch of its samples that
// the other track does not interrupt, each pointing at the stretch's bytes
// in the mdat that follows the moof. Notes where the track can be entered.
void write_runs(BeWriter& out, const Fragments& f, int track, uint64_t moof, uint32_t traf_number,
                BOXLANE_RANDOMACCESS* entry) {
  const Track& t = f.stTrack[track];
  const uint32_t flags = trun_flags(track, t);
  // §8.8.8.2: composition offsets are signed in version 1; without a
  // negative one, version 0 says the same to readers that know only it.
  const uint8_t version = t.bNegativeCTs ? 1 : 0;
  uint64_t mdat_offset = 0;  // of the sample, from the start of the payload
  uint64_t decode_time = t.nDecodeTime;
  uint32_t trun_number = 0;
  BeWriter::Box trun{};
  std::size_t count_at = 0;
  uint32_t count = 0;
  bool in_run = false;
  for (const BOXLANE_FRAGMENTSAMPLE& s : f.listSample) {
    if (s.byTrack != track) {
      if (in_run) {
        out.patch_u32(count_at, count);
        out.close(trun);
        in_run = false;
      }
      mdat_offset += s.nSize;
      continue;
    }
    if (!in_run) {
      in_run = true;
      ++trun_number;
      count = 0;
      trun = out.open_full("trun", version, flags);
      count_at = out.size();
      out.u32(0);
      out.u32(static_cast<uint32_t>(moof + kMdatHeader + mdat_offset));
    }
    ++count;
    out.u32(s.nDuration);
    out.u32(s.nSize);
    if (flags & kSampleFlags) out.u32(s.bSync ? kSyncFlags : kNonSyncFlags);
    if (flags & kSampleCTsOffset) out.u32(static_cast<uint32_t>(s.nCTsOffset));
    if (entry && s.bSync && entry->nTrafNumber == 0) {
      const int64_t time = static_cast<int64_t>(decode_time) + s.nCTsOffset;
      *entry = BOXLANE_RANDOMACCESS{time > 0 ? static_cast<uint64_t>(time) : 0, entry->nMoofOffset, traf_number,
                                    trun_number, count};
    }
    decode_time += s.nDuration;
    mdat_offset += s.nSize;
  }
  if (in_run) {
    out.patch_u32(count_at, count);
    out.close(trun);
  }
}

Fragments* fragments_of(QORVANE_MP4PACKET& record) {
  if (!record.bFragments) {
    fail(BOXLANE_ERROR_PACKET_ORDER);
    return nullptr;
  }
  return record.pFragments.get();
}

// The track a segment index describes: video when the client has it.
int reference_track(const Fragments& f) { return f.stTrack[0].nTrackID ? Fragments::kVideo : Fragments::kAudio; }

}  // namespace

bool add_fragment_sample(BOXLANE_FRAGMENTS& f, const FragmentFrame& frame) {
  Track& t = f.stTrack[frame.track];
  if (t.nTrackID == 0) return fail(BOXLANE_ERROR_PACKET_ORDER);
  // Audio samples are presented when they are decoded; the shift is video's.
  const int64_t offset = frame.track == Fragments::kVideo ? int64_t{frame.cts_offset} - f.nCTSShift : 0;
  if (offset < INT32_MIN || offset > INT32_MAX) return fail(BOXLANE_ERROR_PACKET_PARAMETER);

  // The fragment as it would be with this sample: its counters alone, so
  // that the random access index, which grows with every fragment, is not
  // copied for every sample.
  Track after;
  after.nSamples = t.nSamples;
  after.nRuns = t.nRuns;
  after.bAnyCTs = t.bAnyCTs;
  after.bNegativeCTs = t.bNegativeCTs;
  if (f.nLastTrack != frame.track) ++after.nRuns;
  ++after.nSamples;
  after.bAnyCTs = t.bAnyCTs || offset != 0;
  const uint64_t moof = moof_size(f) - traf_size(frame.track, t) + traf_size(frame.track, after);
  if (!fits_fragment(moof, f.nPayload + frame.size)) return fail(BOXLANE_ERROR_PACKET_FULL);

  if (f.listSample.size() == f.listSample.capacity())
    f.listSample.reserve(f.listSample.empty() ? 256 : f.listSample.size() * 2);
  f.listSample.push_back(BOXLANE_FRAGMENTSAMPLE{frame.size, frame.duration > 0 ? static_cast<uint32_t>(frame.duration) : 0,
                                                static_cast<int32_t>(offset), static_cast<uint8_t>(frame.track),
                                                frame.sync ? uint8_t{1} : uint8_t{0}, 0});
  t.nRuns = after.nRuns;
  t.nSamples = after.nSamples;
  t.bAnyCTs = after.bAnyCTs;
  t.bNegativeCTs = t.bNegativeCTs || offset < 0;
  f.nLastTrack = frame.track;
  f.nPayload += frame.size;
  return true;
}

}  // namespace boxlane::packet

using boxlane::BeWriter;
using boxlane::packet::fits_length;
using boxlane::packet::write_box;
using Fragments = BOXLANE_FRAGMENTS;

bool CBoxlane_Packet::Boxlane_Packet_FragmentMode(const char* lpszClient, uint32_t nVideoTrackID,
                                                  uint32_t nAudioTrackID, int nCTSShift, uint32_t nFlags) {
  return boxlane::packet::with_client(*this, lpszClient, [&](QORVANE_MP4PACKET& record) {
    if ((nVideoTrackID == 0 && nAudioTrackID == 0) || nVideoTrackID == nAudioTrackID ||
        (nFlags & ~uint32_t{BOXLANE_FRAGMENT_INDEX}) != 0)
      return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // The movie's lists and the fragments never describe the same client.
    if (record.bFragments || record.nVideoCount != 0 || !record.listVideoSample.empty() ||
        !record.listAudioSize.empty())
      return boxlane::fail(BOXLANE_ERROR_PACKET_ORDER);
    auto fragments = std::make_unique<Fragments>();
    fragments->bIndex = (nFlags & BOXLANE_FRAGMENT_INDEX) != 0;
    fragments->nCTSShift = nCTSShift;
    fragments->stTrack[Fragments::kVideo].nTrackID = nVideoTrackID;
    fragments->stTrack[Fragments::kAudio].nTrackID = nAudioTrackID;
    record.pFragments = std::move(fragments);
    record.bFragments = 1;
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MVex(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                          uint64_t nDuration) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const Fragments* f = boxlane::packet::fragments_of(record);
    if (!f) return false;
    const auto mvex = out.open("mvex");
    if (nDuration != 0) {
      // §8.8.2: version 1 only when the duration needs 64 bits.
      const bool wide = nDuration > UINT32_MAX;
      const auto mehd = out.open_full("mehd", wide ? 1 : 0, 0);
      if (wide) {
        out.u64(nDuration);
      } else {
        out.u32(static_cast<uint32_t>(nDuration));
      }
      out.close(mehd);
    }
    const uint32_t video = f->stTrack[Fragments::kVideo].nTrackID;
    const uint32_t audio = f->stTrack[Fragments::kAudio].nTrackID;
    if (video) boxlane::packet::write_trex(out, video, boxlane::packet::kNonSyncFlags);
    if (audio) boxlane::packet::write_trex(out, audio, boxlane::packet::kSyncFlags);
    out.close(mvex);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_FragmentSize(const char* lpszClient, int* pInt_HeaderLen,
                                                  int64_t* pInt_MediaLen, int* pInt_MFraLen) {
  return boxlane::packet::with_client(*this, lpszClient, [&](QORVANE_MP4PACKET& record) {
    const Fragments* f = boxlane::packet::fragments_of(record);
    if (!f) return false;
    uint64_t mfra = 8 + 16;
    for (const BOXLANE_FRAGMENTTRACK& t : f->stTrack) {
      if (t.nTrackID) mfra += 24 + 28 * uint64_t{t.listRandomAccess.size()};
    }
    if (pInt_HeaderLen) {
      *pInt_HeaderLen = f->listSample.empty() ? 0 : static_cast<int>(boxlane::packet::moof_size(*f) + 8);
    }
    if (pInt_MediaLen) *pInt_MediaLen = static_cast<int64_t>(f->nPayload);
    if (pInt_MFraLen) *pInt_MFraLen = f->bIndex && mfra <= INT32_MAX ? static_cast<int>(mfra) : 0;
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_Fragment(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen,
                                              int64_t nFilePos) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    Fragments* f = boxlane::packet::fragments_of(record);
    if (!f) return false;
    if (nFilePos < 0) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    if (f->listSample.empty()) return boxlane::fail(BOXLANE_ERROR_PACKET_NODATA);
    // Room for the index entries first, so nothing below can fail half way.
    if (f->bIndex) {
      for (BOXLANE_FRAGMENTTRACK& t : f->stTrack) {
        if (t.nSamples && t.listRandomAccess.size() == t.listRandomAccess.capacity())
          t.listRandomAccess.reserve(t.listRandomAccess.empty() ? 64 : t.listRandomAccess.size() * 2);
      }
    }
    const uint64_t moof_size = boxlane::packet::moof_size(*f);
    const uint32_t sequence = f->nSequence + 1;
    const auto moof = out.open("moof");
    const auto mfhd = out.open_full("mfhd", 0, 0);
    out.u32(sequence);
    out.close(mfhd);
    uint32_t traf_number = 0;
    for (int track = 0; track < 2; ++track) {
      BOXLANE_FRAGMENTTRACK& t = f->stTrack[track];
      if (t.nSamples == 0) continue;
      ++traf_number;
      const auto traf = out.open("traf");
      const auto tfhd = out.open_full("tfhd", 0, boxlane::packet::kDefaultBaseIsMoof);
      out.u32(t.nTrackID);
      out.close(tfhd);
      // §8.8.12: version 1, so decode times past 2^32 stay right.
      const auto tfdt = out.open_full("tfdt", 1, 0);
      out.u64(t.nDecodeTime);
      out.close(tfdt);
      BOXLANE_RANDOMACCESS entry{0, static_cast<uint64_t>(nFilePos), 0, 0, 0};
      boxlane::packet::write_runs(out, *f, track, moof_size, traf_number, f->bIndex ? &entry : nullptr);
      if (entry.nTrafNumber != 0) t.listRandomAccess.push_back(entry);
      out.close(traf);
    }
    out.close(moof);
    out.u32(static_cast<uint32_t>(8 + f->nPayload));
    out.fourcc("mdat");

    // The fragment is out: its samples are forgotten, the decode times move on.
    for (const BOXLANE_FRAGMENTSAMPLE& s : f->listSample) f->stTrack[s.byTrack].nDecodeTime += s.nDuration;
    for (BOXLANE_FRAGMENTTRACK& t : f->stTrack) {
      t.nSamples = 0;
      t.nRuns = 0;
      t.bAnyCTs = false;
      t.bNegativeCTs = false;
    }
    f->listSample.clear();
    f->nPayload = 0;
    f->nLastTrack = -1;
    f->nSequence = sequence;
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_STyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [](QORVANE_MP4PACKET&, BeWriter& out) {
    // §8.16.2: a media segment; "msdh" is the brand of ISO/IEC 23009-1 §6.3.4.2.
    const auto box = out.open("styp");
    out.fourcc("msdh");
    out.u32(0);
    out.fourcc("msdh");
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_SIdx(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const Fragments* f = boxlane::packet::fragments_of(record);
    if (!f) return false;
    const int track = boxlane::packet::reference_track(*f);
    const BOXLANE_FRAGMENTTRACK& t = f->stTrack[track];
    if (t.nSamples == 0) return boxlane::fail(BOXLANE_ERROR_PACKET_NODATA);
    if (record.nTimeScale <= 0) return boxlane::fail(BOXLANE_ERROR_PACKET_ORDER);
    uint64_t duration = 0;
    int64_t earliest = INT64_MAX;
    bool starts_with_sap = false;
    bool first = true;
    for (const BOXLANE_FRAGMENTSAMPLE& s : f->listSample) {
      if (s.byTrack != track) continue;
      if (first) starts_with_sap = s.bSync;
      first = false;
      earliest = std::min(earliest, static_cast<int64_t>(t.nDecodeTime + duration) + s.nCTsOffset);
      duration += s.nDuration;
    }
    if (duration > UINT32_MAX) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    // §8.16.3: one reference, the moof and mdat that follow this box.
    const auto box = out.open_full("sidx", 1, 0);
    out.u32(t.nTrackID);
    out.u32(static_cast<uint32_t>(record.nTimeScale));
    out.u64(earliest > 0 ? static_cast<uint64_t>(earliest) : 0);
    out.u64(0);  // first_offset: the fragment follows at once
    out.u16(0);
    out.u16(1);
    out.u32(static_cast<uint32_t>(boxlane::packet::moof_size(*f) + 8 + f->nPayload));  // reference_type 0
    out.u32(static_cast<uint32_t>(duration));
    // starts_with_SAP, SAP_type 1 (a closed group of pictures starts there), delta 0.
    out.u32(starts_with_sap ? 0x90000000 : 0);
    out.close(box);
    return true;
  });
}

bool CBoxlane_Packet::Boxlane_Packet_MFra(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen) {
  return write_box(*this, lpszClient, ptszMsgBuffer, pInt_MsgLen, [&](QORVANE_MP4PACKET& record, BeWriter& out) {
    const Fragments* f = boxlane::packet::fragments_of(record);
    if (!f) return false;
    if (!f->bIndex) return boxlane::fail(BOXLANE_ERROR_PACKET_ORDER);
    std::size_t entries = 0;
    for (const BOXLANE_FRAGMENTTRACK& t : f->stTrack) entries += t.listRandomAccess.size();
    if (!fits_length(8 + 16 + 2 * 24, entries, 28)) return boxlane::fail(BOXLANE_ERROR_PACKET_PARAMETER);
    const auto mfra = out.open("mfra");
    for (const BOXLANE_FRAGMENTTRACK& t : f->stTrack) {
      if (!t.nTrackID) continue;
      // §8.8.10: version 1, 64-bit times and offsets; 4-byte traf, trun and
      // sample numbers (each length field 3).
      const auto tfra = out.open_full("tfra", 1, 0);
      out.u32(t.nTrackID);
      out.u32(0x3F);
      out.u32(static_cast<uint32_t>(t.listRandomAccess.size()));
      for (const BOXLANE_RANDOMACCESS& e : t.listRandomAccess) {
        out.u64(e.nTime);
        out.u64(e.nMoofOffset);
        out.u32(e.nTrafNumber);
        out.u32(e.nTrunNumber);
        out.u32(e.nSampleNumber);
      }
      out.close(tfra);
    }
    const auto mfro = out.open_full("mfro", 0, 0);
    out.u32(static_cast<uint32_t>(out.size() - mfra.start + 4));
    out.close(mfro);
    out.close(mfra);
    return true;
  });
}
