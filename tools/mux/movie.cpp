#include "tools/mux/movie.hpp"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "boxlane/boxlane.h"
#include "tools/common/tool_error.hpp"
#include "tools/common/output_file.hpp"
#include "tools/common/chunk_offsets.hpp"
#include "tools/common/moov_builder.hpp"
#include "tools/mux/audio_description.hpp"
#include "tools/mux/video_description.hpp"
#include "tools/common/writer_client.hpp"

namespace boxlane::tool {

namespace {

constexpr uint32_t kFtypSize = 32;

// `duration(i)`: sample i's duration.
template <typename Duration>
uint32_t runs_of(uint64_t count, const Duration& duration) {
  uint32_t runs = 0;
  uint64_t last = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t d = duration(i);
    if (i == 0 || d != last) ++runs;
    last = d;
  }
  return runs;
}

// A track's chunk offset table: one offset per sample, 32-bit (stco) until
// one of them reaches 2^32, then 64-bit (co64, ISO/IEC 14496-12 §8.7.5).
struct OffsetPlan {
  uint64_t samples = 0;
  bool wide = false;
  uint64_t size() const { return 16 + (wide ? 8 : 4) * samples; }
};

// Every box of moov with its size, known from the counts before any sample
// is written.
struct MoovPlan {
  uint64_t file_size = 0;  // ftyp, moov, mdat header and payload
  uint64_t payload = 0;    // the samples in mdat
  uint32_t mdat_header = kBoxHeader;  // 16 with a 64-bit size
  uint32_t mvhd = 108;
  // video
  uint32_t v_tkhd = 92, v_mdhd = 32;
  uint32_t v_stsd = 0, v_stts = 0, v_ctts = 0, v_stss = 0, v_stsz = 0, v_edts = 0;
  OffsetPlan v_stco;
  // audio
  uint32_t a_tkhd = 92, a_mdhd = 32;
  uint32_t a_stsd = 0, a_stts = 0, a_stsz = 0;
  OffsetPlan a_stco;

  uint64_t v_stbl() const { return kBoxHeader + v_stsd + v_stts + v_ctts + v_stss + 28 + v_stsz + v_stco.size(); }
  uint64_t v_minf() const { return kBoxHeader + 20 + 36 + v_stbl(); }
  uint64_t v_mdia() const { return kBoxHeader + v_mdhd + 45 + v_minf(); }
  uint64_t v_trak() const { return kBoxHeader + v_tkhd + v_edts + v_mdia(); }
  uint64_t a_stbl() const { return kBoxHeader + a_stsd + a_stts + 28 + a_stsz + a_stco.size(); }
  uint64_t a_minf() const { return kBoxHeader + 16 + 36 + a_stbl(); }
  uint64_t a_mdia() const { return kBoxHeader + a_mdhd + 45 + a_minf(); }
  uint64_t a_trak() const { return kBoxHeader + a_tkhd + a_mdia(); }
  bool video = false, audio = false;
  uint64_t moov() const { return kBoxHeader + mvhd + (video ? v_trak() : 0) + (audio ? a_trak() : 0); }
};

struct VideoTiming {
  uint32_t shift = 0;  // whole frames added to every composition time
  uint64_t media_duration = 0;
  uint64_t presentation = 0;
};

class MovieWriter {
 public:
  explicit MovieWriter(const MovieInput& in) : in_(in), v_(in.video), a_(in.audio) {}

  MovieResult run() {
    plan_timing();
    plan_moov();
    OutputFile out(in_.output);
    out.preallocate(plan_.file_size);
    write_ftyp(out);
    const uint64_t moov_at = out.position();
    // The moov's room is left unwritten until the moov is known; passed
    // through the write buffer, it would grow the buffer past the cache for
    // the rest of the run.
    if (in_.faststart) out.skip(plan_.moov());
    const uint64_t mdat_at = out.position();
    box_to(out, "mdat header", plan_.mdat_header, [&](uint8_t* p, int32_t* len) { return mdat_header(p, len, 0); });
    write_samples(out);
    const uint64_t payload = out.position() - mdat_at - plan_.mdat_header;
    if (payload != plan_.payload) throw ToolError("internal: the samples took other room than planned");
    patch_mdat_header(client_.name(), out, mdat_at, plan_.mdat_header, payload);

    MoovBuilder moov(client_.name(), plan_.moov());
    build_moov(moov);
    place_moov(out, moov, in_.faststart, moov_at);
    MovieResult result;
    result.timescale = timing_.timescale;
    result.duration = std::max(vt_.presentation, audio_duration());
    result.file_size = out.position();
    result.moov_size = moov.size();
    out.commit();
    return result;
  }

 private:
  template <typename Call>
  void box_to(OutputFile& out, const char* what, uint32_t planned, Call call) {
    uint8_t* p = out.reserve(planned);
    int32_t len = 0;
    if (!call(p, &len)) refused(what);
    if (len < 0 || static_cast<uint32_t>(len) != planned) throw ToolError(std::string("internal: unexpected size of ") + what);
    out.advance(static_cast<std::size_t>(len));
  }

  // A 32-bit mdat header while the box fits 4 GiB, else the 64-bit form.
  bool mdat_header(uint8_t* p, int32_t* len, uint64_t payload) {
    if (plan_.mdat_header == kBoxHeader) return Boxlane_Packet_HDRBox(client_.name(), p, len, "mdat", nullptr, 0);
    return Boxlane_Packet_HDRBox64(client_.name(), p, len, "mdat", payload);
  }

  uint64_t video_count() const { return v_ ? v_->units.size() : 0; }
  uint64_t audio_count() const { return a_ ? a_->frames.size() : 0; }
  uint64_t audio_duration() const { return a_ ? timing_.audio.at(audio_count()) : 0; }
  // Picture k's time, for k in decoding order or a display position, with
  // the time of pictures left out mid-stream kept.
  uint64_t video_time(uint64_t k) const { return timing_.video.at(slots_(k)); }
  uint64_t video_duration(uint64_t i) const { return video_time(i + 1) - video_time(i); }

  void plan_timing() {
    TimingInput t;
    t.forced_timescale = in_.forced_timescale;
    if (v_) {
      t.video = true;
      t.fps_num = in_.fps.num;
      t.fps_den = in_.fps.den;
      for (const VideoStream::Gap& gap : v_->gaps) slots_.leave_open(gap.at, gap.pictures);
      t.video_widest = slots_.widest();
      if (v_->reordered) {
        // Every composition offset must come out positive (the writer keeps
        // no zero offsets): shift by the largest lead of decoding over
        // display, plus one frame.
        uint64_t lead = 0;
        for (uint64_t i = 0; i < v_->units.size(); ++i) {
          if (i > v_->display[i]) lead = std::max<uint64_t>(lead, i - v_->display[i]);
        }
        vt_.shift = static_cast<uint32_t>(lead + 1);
      }
    }
    if (a_) {
      t.audio = true;
      t.sample_rate = a_->config.sample_rate;
    }
    timing_ = choose_timing(t);
    if (v_) {
      vt_.media_duration = video_time(v_->units.size());
      vt_.presentation = timing_.video.at(slots_(v_->units.size()) + vt_.shift) - timing_.video.at(vt_.shift);
      if (v_->reordered) {
        for (uint64_t i = 0; i < v_->units.size(); ++i) {
          if (offset(i) > INT32_MAX) throw ToolError("a composition offset does not fit the 32-bit ctts field");
        }
      }
    }
  }

  uint64_t offset(uint64_t i) const {
    if (!v_->reordered) return 0;
    return timing_.video.at(slots_(v_->display[i]) + vt_.shift) - video_time(i);
  }

  static uint32_t checked32(uint64_t v, const char* what) {
    if (v > INT32_MAX) throw ToolError(std::string("the ") + what + " table is too large for one MP4 box");
    return static_cast<uint32_t>(v);
  }

  void plan_moov() {
    if (v_) {
      plan_.video = true;
      const uint64_t n = v_->units.size();
      plan_.v_stsd = video_stsd_size(*v_);
      const auto picture = [this](uint64_t i) { return video_duration(i); };
      plan_.v_stts = checked32(16 + 8 * uint64_t{runs_of(n, picture)}, "stts");
      plan_.v_ctts = v_->reordered ? checked32(16 + 8 * n, "ctts") : 0;
      const uint64_t keys = std::count_if(v_->units.begin(), v_->units.end(), [](const AccessUnit& u) { return u.key; });
      plan_.v_stss = checked32(16 + 4 * keys, "stss");
      plan_.v_stsz = checked32(20 + 4 * n, "stsz");
      plan_.v_stco.samples = n;
      plan_.v_tkhd = sized_for(vt_.presentation, 92, 104);
      plan_.v_mdhd = sized_for(vt_.media_duration, 32, 44);
      if (vt_.shift) {
        plan_.v_edts = vt_.presentation > UINT32_MAX || timing_.video.at(vt_.shift) > INT32_MAX ? 44 : 36;
      }
    }
    if (a_) {
      plan_.audio = true;
      const uint64_t m = a_->frames.size();
      plan_.a_stsd = audio_stsd_size(*a_);
      const auto frame = [this](uint64_t i) { return timing_.audio.duration(i); };
      plan_.a_stts = checked32(16 + 8 * uint64_t{runs_of(m, frame)}, "stts");
      plan_.a_stsz = checked32(20 + 4 * m, "stsz");
      plan_.a_stco.samples = m;
      plan_.a_tkhd = sized_for(audio_duration(), 92, 104);
      plan_.a_mdhd = sized_for(audio_duration(), 32, 44);
    }
    plan_.mvhd = sized_for(std::max(vt_.presentation, audio_duration()), 108, 120);
    plan_.payload = (v_ ? v_->payload_bytes : 0) + (a_ ? a_->payload_bytes : 0);
    plan_.mdat_header = mdat_header_size(plan_.payload);
    plan_offsets();
    checked32(plan_.moov(), "moov");
    plan_.file_size = kFtypSize + plan_.moov() + plan_.mdat_header + plan_.payload;
  }

  // Chooses stco or co64 for each track from where its last sample starts.
  void plan_offsets() {
    uint64_t at = 0, last_video = 0, last_audio = 0;  // in the mdat payload
    interleave([&](bool video, uint64_t i) {
      (video ? last_video : last_audio) = at;
      at += video ? v_->units[i].sample_size : a_->frames[i].size - a_->frames[i].header_size;
    });
    const auto payload_at = [&](OffsetTables tables) {
      plan_.v_stco.wide = tables.video_wide;
      plan_.a_stco.wide = tables.audio_wide;
      return kFtypSize + (in_.faststart ? plan_.moov() : 0) + plan_.mdat_header;
    };
    const OffsetTables chosen = choose_offset_tables(payload_at, v_ ? std::optional(last_video) : std::nullopt,
                                                     a_ ? std::optional(last_audio) : std::nullopt);
    plan_.v_stco.wide = chosen.video_wide;
    plan_.a_stco.wide = chosen.audio_wide;
  }

  // Calls take(is_video, index) for every sample in file order: by decoding
  // time on the movie clock, where video starts at -shift and audio at 0.
  template <typename Take>
  void interleave(Take&& take) const {
    const uint64_t nv = video_count();
    const uint64_t na = audio_count();
    const uint64_t video_lead = v_ ? timing_.video.at(vt_.shift) : 0;
    uint64_t iv = 0, ia = 0;
    while (iv < nv || ia < na) {
      if (iv < nv && (ia >= na || video_time(iv) < timing_.audio.at(ia) + video_lead)) {
        take(true, iv++);
      } else {
        take(false, ia++);
      }
    }
  }

  void write_ftyp(OutputFile& out) {
    box_to(out, "ftyp", kFtypSize, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_FTyp(client_.name(), p, len); });
  }

  void write_samples(OutputFile& out) {
    std::vector<const uint8_t*> nal_ptrs(v_ ? v_->max_nals_per_unit : 0);
    std::vector<int32_t> nal_lens(nal_ptrs.size());
    const uint64_t total = video_count() + audio_count();
    uint64_t done = 0;
    interleave([&](bool video, uint64_t i) {
      if (in_.progress && (done & 1023) == 0) in_.progress(done, total);
      ++done;
      if (video) {
        const AccessUnit& u = v_->units[i];
        for (uint32_t k = 0; k < u.nal_count; ++k) {
          const SampleNal& nal = v_->nals[u.first_nal + k];
          nal_ptrs[k] = nal.data;
          nal_lens[k] = static_cast<int32_t>(nal.size);
        }
        const int64_t pos = static_cast<int64_t>(out.position());
        uint8_t* dst = out.reserve(u.sample_size);
        int32_t len = 0;
        if (!Boxlane_Packet_FrameAccessUnit(client_.name(), dst, &len, nal_ptrs.data(), nal_lens.data(),
                                            static_cast<int32_t>(u.nal_count), pos, u.key ? 1 : 0,
                                            static_cast<int32_t>(video_duration(i)),
                                            static_cast<int32_t>(offset(i)))) {
          refused("a video access unit");
        }
        if (static_cast<uint64_t>(len) != u.sample_size) throw ToolError("internal: video sample size changed");
        out.advance(u.sample_size);
        if (in_.video_read) in_.video_read(nal_ptrs[0]);
      } else {
        const AudioFrame& f = a_->frames[i];
        const int64_t pos = static_cast<int64_t>(out.position());
        uint8_t* dst = out.reserve(f.size);
        int32_t len = 0;
        if (!Boxlane_Packet_FrameAudio(client_.name(), dst, &len, f.data, static_cast<int32_t>(f.size), pos,
                                       static_cast<int32_t>(timing_.audio.duration(i)))) {
          refused("an audio frame");
        }
        if (static_cast<uint32_t>(len) != f.size - f.header_size) throw ToolError("internal: audio sample size changed");
        out.advance(static_cast<std::size_t>(len));
        if (in_.audio_read) in_.audio_read(f.data);
      }
    });
    if (in_.progress) in_.progress(total, total);
  }

  void build_moov(MoovBuilder& m) {
    const char* c = client_.name();
    m.container("moov", plan_.moov() - kBoxHeader);
    const uint64_t duration = std::max(vt_.presentation, audio_duration());
    m.box("mvhd", plan_.mvhd, [&](uint8_t* p, int32_t* len) {
      if (!Boxlane_Packet_MVhd64(c, p, len, duration, static_cast<int32_t>(timing_.timescale))) return false;
      name_next_track(p, *len, (v_ ? 1 : 0) + (a_ ? 1 : 0));
      return true;
    });
    if (v_) build_video_trak(m);
    if (a_) build_audio_trak(m);
  }

  void build_video_trak(MoovBuilder& m) {
    const char* c = client_.name();
    m.container("trak", plan_.v_trak() - kBoxHeader);
    m.box("tkhd", plan_.v_tkhd, [&](uint8_t* p, int32_t* len) {
      return Boxlane_Packet_TKhd64(c, p, len, 0, static_cast<int32_t>(v_->width), static_cast<int32_t>(v_->height),
                                   vt_.presentation);
    });
    if (plan_.v_edts) {
      m.box("edts", plan_.v_edts, [&](uint8_t* p, int32_t* len) {
        return Boxlane_Packet_EDts64(c, p, len, vt_.presentation, static_cast<int64_t>(timing_.video.at(vt_.shift)));
      });
    }
    m.container("mdia", plan_.v_mdia() - kBoxHeader);
    m.box("mdhd", plan_.v_mdhd, [&](uint8_t* p, int32_t* len) {
      return Boxlane_Packet_MDhd64(c, p, len, kLanguageUndetermined, vt_.media_duration);
    });
    m.box("hdlr", 45, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_HDlr(c, p, len, 0); });
    m.container("minf", plan_.v_minf() - kBoxHeader);
    m.box("vmhd", 20, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_VMhd(c, p, len); });
    m.box("dinf", 36, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_DInf(c, p, len); });
    m.container("stbl", plan_.v_stbl() - kBoxHeader);

    m.box("the video stsd", plan_.v_stsd, [&](uint8_t* p, int32_t* len) { return write_video_stsd(c, *v_, p, len); });
    m.box("the video stts", plan_.v_stts, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STts(c, p, len, true); });
    if (plan_.v_ctts) {
      m.box("ctts", plan_.v_ctts, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_CTts(c, p, len); });
    }
    m.box("stss", plan_.v_stss, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STss(c, p, len); });
    m.box("the video stsc", 28, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STsc(c, p, len); });
    m.box("the video stsz", plan_.v_stsz, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STsz(c, p, len, true); });
    m.box("the video chunk offsets", plan_.v_stco.size(),
          [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STco64(c, p, len, true, 0); });
  }

  void build_audio_trak(MoovBuilder& m) {
    const char* c = client_.name();
    const uint64_t duration = audio_duration();
    m.container("trak", plan_.a_trak() - kBoxHeader);
    m.box("tkhd", plan_.a_tkhd, [&](uint8_t* p, int32_t* len) {
      return Boxlane_Packet_TKhd64(c, p, len, 0x0100, 0, 0, duration);
    });
    m.container("mdia", plan_.a_mdia() - kBoxHeader);
    m.box("mdhd", plan_.a_mdhd, [&](uint8_t* p, int32_t* len) {
      return Boxlane_Packet_MDhd64(c, p, len, kLanguageUndetermined, duration);
    });
    m.box("hdlr", 45, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_HDlr(c, p, len, 1); });
    m.container("minf", plan_.a_minf() - kBoxHeader);
    m.box("smhd", 16, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_SMhd(c, p, len, 0); });
    m.box("dinf", 36, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_DInf(c, p, len); });
    m.container("stbl", plan_.a_stbl() - kBoxHeader);

    m.box("the audio stsd", plan_.a_stsd, [&](uint8_t* p, int32_t* len) { return write_audio_stsd(c, *a_, p, len); });
    m.box("the audio stts", plan_.a_stts, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STts(c, p, len, false); });
    m.box("the audio stsc", 28, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STsc(c, p, len); });
    m.box("the audio stsz", plan_.a_stsz, [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STsz(c, p, len, false); });
    m.box("the audio chunk offsets", plan_.a_stco.size(),
          [&](uint8_t* p, int32_t* len) { return Boxlane_Packet_STco64(c, p, len, false, 0); });
  }

  const MovieInput& in_;
  const VideoStream* v_;
  const AudioStream* a_;
  WriterClient client_;
  Timing timing_;
  Slots slots_;
  VideoTiming vt_;
  MoovPlan plan_;
};

}  // namespace

MovieResult write_movie(const MovieInput& in) { return MovieWriter(in).run(); }

}  // namespace boxlane::tool
