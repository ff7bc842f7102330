// A progressive MP4 from the input's samples: ftyp, the samples in one mdat
// (interleaved by decode time), and a moov built from the writer's boxes,
// after the mdat or, with faststart, before it. Every box size is planned
// from the sample counts first, so with faststart the samples go straight
// to their final places behind a moov written last.
#include <algorithm>
#include <climits>
#include <cstring>
#include <optional>

#include "boxlane/boxlane.h"
#include "tools/common/chunk_offsets.hpp"
#include "tools/common/edit_list.hpp"
#include "tools/common/moov_builder.hpp"
#include "tools/common/output_file.hpp"
#include "tools/common/writer_client.hpp"
#include "tools/remux/descriptions.hpp"
#include "tools/remux/job.hpp"
#include "tools/remux/sample_copy.hpp"

namespace boxlane::tool {
namespace {

constexpr uint32_t kFtypSize = 32;

// A track of the output with the sizes of its boxes.
struct TrackPlan {
  const TrackTimeline* t = nullptr;
  bool video = false;
  int64_t shift = 0;            // added to every composition offset
  EditPlan edits;
  Bytes edts;  // the edit list box, empty without one
  uint64_t presentation = 0;
  uint32_t tkhd = 92, mdhd = 32, stsd = 0, stts = 0, ctts = 0, stss = 0, stsz = 0;
  uint64_t samples = 0;
  bool wide = false;  // co64
  uint64_t stco() const { return 16 + (wide ? 8 : 4) * samples; }
  uint64_t stbl() const { return kBoxHeader + stsd + stts + ctts + stss + 28 + stsz + stco(); }
  uint64_t minf() const { return kBoxHeader + (video ? 20 : 16) + 36 + stbl(); }
  uint64_t mdia() const { return kBoxHeader + mdhd + 45 + minf(); }
  uint64_t trak() const { return kBoxHeader + tkhd + edts.size() + mdia(); }
};

// A box made beforehand, for MoovBuilder::box.
auto copy_of(const Bytes& box) {
  return [&box](uint8_t* p, int32_t* l) {
    std::memcpy(p, box.data(), box.size());
    *l = static_cast<int32_t>(box.size());
    return true;
  };
}

uint32_t checked32(uint64_t v, const char* what) {
  if (v > INT32_MAX) throw ToolError(std::string("the ") + what + " table is too large for one MP4 box");
  return static_cast<uint32_t>(v);
}

class ProgressiveWriter {
 public:
  explicit ProgressiveWriter(const RemuxJob& job) : job_(job), copier_(client_.name(), job.input->data()) {}

  RemuxResult run() {
    if (job_.video) tracks_.push_back(plan_track(*job_.video, true));
    if (job_.audio) tracks_.push_back(plan_track(*job_.audio, false));
    for (const TrackPlan& p : tracks_) duration_ = std::max(duration_, p.presentation);
    mvhd_ = sized_for(duration_, 108, 120);
    for (const TrackPlan& p : tracks_) {
      for (const IndexSample& s : p.t->track->samples) payload_ += s.size;
    }
    mdat_header_ = mdat_header_size(payload_);
    plan_offsets();
    checked32(moov_size(), "moov");

    OutputFile out(job_.output);
    out.preallocate(kFtypSize + moov_size() + mdat_header_ + payload_);
    Bytes ftyp = call_box("ftyp", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_FTyp(client_.name(), p, l); });
    if (ftyp.size() != kFtypSize) throw ToolError("internal: ftyp size");
    out.write(ftyp.data(), ftyp.size());
    const uint64_t moov_at = out.position();
    if (job_.faststart) out.skip(moov_size());
    const uint64_t mdat_at = out.position();
    write_mdat_header(out, 0);
    write_samples(out);
    if (out.position() - mdat_at - mdat_header_ != payload_) throw ToolError("internal: the samples took other room");
    patch_mdat_header(client_.name(), out, mdat_at, mdat_header_, payload_);

    MoovBuilder moov(client_.name(), moov_size());
    build_moov(moov);
    place_moov(out, moov, job_.faststart, moov_at);
    RemuxResult result;
    result.duration = duration_;
    result.file_size = out.position();
    out.commit();
    return result;
  }

 private:
  TrackPlan plan_track(const TrackTimeline& t, bool video) {
    TrackPlan p;
    p.t = &t;
    p.video = video;
    const auto& samples = t.track->samples;
    p.samples = samples.size();
    if (video && t.reordered && t.min_offset <= 0) {
      // The writer's ctts (version 0) holds positive offsets only: every
      // offset moves up past 0 by whole first-frame durations, and the edit
      // list's media time takes the move back out.
      const int64_t step = std::max<int64_t>(t.duration(0), 1);
      p.shift = (-t.min_offset / step + 1) * step;
    }
    p.edits = plan_edits(t, p.shift, false);
    p.presentation = p.edits.presentation;
    p.tkhd = sized_for(p.presentation, 92, 104);
    p.mdhd = sized_for(t.media_duration, 32, 44);
    if (!p.edits.entries.empty()) p.edts = edit_box(client_.name(), p.edits.entries);
    // The sample description does not depend on the samples: written once
    // here to learn its size, and again into the moov.
    p.stsd = static_cast<uint32_t>(write_stsd(client_.name(), *t.track).size());
    uint64_t runs = 0;
    uint32_t last = 0;
    uint64_t keys = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const uint32_t d = t.duration(i);
      if (i == 0 || d != last) ++runs;
      last = d;
      keys += samples[i].sync;
    }
    p.stts = checked32(16 + 8 * runs, "stts");
    if (video) {
      p.ctts = t.reordered ? checked32(16 + 8 * p.samples, "ctts") : 0;
      p.stss = checked32(16 + 4 * keys, "stss");
    }
    p.stsz = checked32(20 + 4 * p.samples, "stsz");
    return p;
  }

  uint64_t moov_size() const {
    uint64_t size = kBoxHeader + mvhd_;
    for (const TrackPlan& p : tracks_) size += p.trak();
    return size;
  }

  // stco or co64 for each track, from where its last sample starts.
  void plan_offsets() {
    uint64_t at = 0;
    std::optional<uint64_t> last_video, last_audio;
    interleave([&](std::size_t track, std::size_t i) {
      (tracks_[track].video ? last_video : last_audio) = at;
      at += tracks_[track].t->track->samples[i].size;
    });
    const auto payload_at = [&](OffsetTables tables) {
      for (TrackPlan& p : tracks_) p.wide = p.video ? tables.video_wide : tables.audio_wide;
      return kFtypSize + (job_.faststart ? moov_size() : 0) + mdat_header_;
    };
    const OffsetTables chosen = choose_offset_tables(payload_at, last_video, last_audio);
    for (TrackPlan& p : tracks_) p.wide = p.video ? chosen.video_wide : chosen.audio_wide;
  }

  // Calls take(track, sample) for every sample in file order: by decode
  // time, the first track first on a tie. Decode times are those the writer
  // gives the samples, the sums of the durations before them.
  template <typename Take>
  void interleave(Take&& take) const {
    std::vector<std::size_t> next(tracks_.size(), 0);
    std::vector<uint64_t> time(tracks_.size(), 0);
    for (;;) {
      std::size_t pick = tracks_.size();
      for (std::size_t k = 0; k < tracks_.size(); ++k) {
        if (next[k] < tracks_[k].samples && (pick == tracks_.size() || time[k] < time[pick])) pick = k;
      }
      if (pick == tracks_.size()) return;
      take(pick, next[pick]);
      time[pick] += tracks_[pick].t->duration(next[pick]);
      ++next[pick];
    }
  }

  void write_mdat_header(OutputFile& out, uint64_t payload) {
    const Bytes header = call_box("the mdat header", 16, [&](uint8_t* p, int32_t* l) {
      if (mdat_header_ == kBoxHeader) return Boxlane_Packet_HDRBox(client_.name(), p, l, "mdat", nullptr, 0);
      return Boxlane_Packet_HDRBox64(client_.name(), p, l, "mdat", payload);
    });
    if (header.size() != mdat_header_) throw ToolError("internal: mdat header size");
    out.write(header.data(), header.size());
  }

  void write_samples(OutputFile& out) {
    uint64_t total = 0, done = 0;
    for (const TrackPlan& p : tracks_) total += p.samples;
    // Input pages before every track's next sample are let go as the run
    // moves on, so a long input never stays resident whole.
    std::vector<uint64_t> reached(tracks_.size(), 0);
    interleave([&](std::size_t k, std::size_t i) {
      const TrackPlan& p = tracks_[k];
      const IndexSample& s = p.t->track->samples[i];
      if (job_.progress && (done & 4095) == 0) job_.progress(done, total);
      ++done;
      const int64_t pos = static_cast<int64_t>(out.position());
      uint8_t* dst = out.reserve(s.size);
      if (p.video) {
        copier_.video(s, dst, pos, p.t->duration(i), p.t->offset(i) + p.shift);
      } else {
        copier_.audio(s, dst, pos, p.t->duration(i));
      }
      out.advance(s.size);
      // Where the track's next sample starts; a finished track holds back nothing.
      reached[k] = i + 1 < p.samples ? p.t->track->samples[i + 1].offset : UINT64_MAX;
      const uint64_t behind = *std::min_element(reached.begin(), reached.end());
      if ((done & 255) == 0 && behind < job_.input->size()) job_.input->release_before(job_.input->data() + behind);
    });
    if (job_.progress) job_.progress(total, total);
  }

  void build_moov(MoovBuilder& m) {
    const char* c = client_.name();
    m.container("moov", moov_size() - kBoxHeader);
    m.box("mvhd", mvhd_, [&](uint8_t* p, int32_t* l) {
      if (!Boxlane_Packet_MVhd64(c, p, l, duration_, static_cast<int32_t>(job_.timescale))) return false;
      name_next_track(p, *l, static_cast<uint32_t>(tracks_.size()));
      return true;
    });
    for (const TrackPlan& t : tracks_) build_trak(m, t);
  }

  void build_trak(MoovBuilder& m, const TrackPlan& t) {
    const char* c = client_.name();
    const SourceTrack& src = *t.t->track;
    m.container("trak", t.trak() - kBoxHeader);
    m.box("tkhd", t.tkhd, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_TKhd64(c, p, l, t.video ? 0 : 0x0100, t.video ? static_cast<int32_t>(src.width) : 0,
                                   t.video ? static_cast<int32_t>(src.height) : 0, t.presentation);
    });
    if (!t.edts.empty()) m.box("edts", t.edts.size(), copy_of(t.edts));
    m.container("mdia", t.mdia() - kBoxHeader);
    m.box("mdhd", t.mdhd, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_MDhd64(c, p, l, src.language, t.t->media_duration);
    });
    m.box("hdlr", 45, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_HDlr(c, p, l, t.video ? 0 : 1); });
    m.container("minf", t.minf() - kBoxHeader);
    if (t.video) {
      m.box("vmhd", 20, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_VMhd(c, p, l); });
    } else {
      m.box("smhd", 16, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_SMhd(c, p, l, 0); });
    }
    m.box("dinf", 36, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_DInf(c, p, l); });
    m.container("stbl", t.stbl() - kBoxHeader);
    const Bytes stsd = write_stsd(c, src);
    m.box("stsd", t.stsd, copy_of(stsd));
    m.box("stts", t.stts, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STts(c, p, l, t.video); });
    if (t.ctts) m.box("ctts", t.ctts, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_CTts(c, p, l); });
    if (t.video) m.box("stss", t.stss, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STss(c, p, l); });
    m.box("stsc", 28, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STsc(c, p, l); });
    m.box("stsz", t.stsz, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STsz(c, p, l, t.video); });
    m.box("the chunk offsets", t.stco(), [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STco64(c, p, l, t.video, 0); });
  }

  const RemuxJob& job_;
  WriterClient client_{"remux"};
  SampleCopier copier_;
  std::vector<TrackPlan> tracks_;
  uint64_t duration_ = 0;
  uint32_t mvhd_ = 108;
  uint64_t payload_ = 0;
  uint32_t mdat_header_ = kBoxHeader;
};

}  // namespace

RemuxResult write_progressive(const RemuxJob& job) { return ProgressiveWriter(job).run(); }

}  // namespace boxlane::tool
