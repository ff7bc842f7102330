#include "tools/mux/fragmented.hpp"

#include <malloc.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "boxlane/boxlane.h"
#include "tools/common/in_place_output.hpp"
#include "tools/common/live_input.hpp"
#include "platform/h264.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/common/init_segment.hpp"
#include "tools/common/summary_text.hpp"
#include "tools/mux/audio_description.hpp"
#include "tools/mux/stream_chunks.hpp"
#include "tools/mux/video_description.hpp"
#include "tools/common/writer_client.hpp"

namespace boxlane::tool {

namespace {

// A pipe is read ahead of what the next fragment needs, up to this much, so
// that a program writing its two streams one after the other into two FIFOs
// is not blocked on the one not being read.
constexpr std::size_t kReadAhead = std::size_t{1} << 20;
constexpr std::size_t kFileRead = std::size_t{1} << 20;

volatile bool g_stop = false;
extern "C" void stop_reading(int) { g_stop = true; }

// Pieces of a stream scanned and waiting to be written, with the stream's
// sample numbering.
struct VideoQueue {
  std::deque<VideoChunk> chunks;
  std::deque<uint64_t> first;  // sample number of each chunk's first unit
  uint64_t written = 0;        // samples written
  uint64_t scanned = 0;        // samples in every chunk so far
  std::size_t bytes = 0;
};

struct AudioQueue {
  std::deque<AudioChunk> chunks;
  std::size_t used = 0;  // frames of the front chunk already written
  uint64_t written = 0;
  uint64_t scanned = 0;
  std::size_t bytes = 0;
};

class FragmentWriter {
 public:
  explicit FragmentWriter(const FragmentedInput& in) : in_(in) {}

  FragmentedResult run() {
    started_ = std::chrono::steady_clock::now();
    // A recording allocates and frees a piece of a group of pictures every
    // second or so, each of a different size. glibc would move its mmap
    // threshold up past them and serve them from a heap that never shrinks;
    // a fixed threshold gives each back to the system when it is freed.
    ::mallopt(M_MMAP_THRESHOLD, 128 << 10);
    struct sigaction act {};
    act.sa_handler = stop_reading;
    sigemptyset(&act.sa_mask);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(sig, &act, nullptr);
    if (!in_.video.empty()) {
      vin_ = std::make_unique<LiveInput>(in_.video);
      vchunks_ = std::make_unique<VideoChunker>(*vin_, in_.scan);
    }
    if (!in_.audio.empty()) {
      ain_ = std::make_unique<LiveInput>(in_.audio);
      achunks_ = std::make_unique<AudioChunker>(*ain_);
    }
    index_ = (!vin_ || vin_->regular()) && (!ain_ || ain_->regular());

    while ((vin_ && v_.chunks.empty() && !vchunks_->finished()) || (ain_ && a_.chunks.empty() && !achunks_->finished())) {
      if (g_stop) throw ToolError("stopped before the first frames arrived");
      pump(vin_ && v_.chunks.empty(), ain_ && a_.chunks.empty());
    }
    if (vin_ && v_.chunks.empty()) throw ToolError(empty_message(*vin_, "no coded pictures found"));
    if (ain_ && a_.chunks.empty()) throw ToolError(empty_message(*ain_, "no ADTS frames found"));
    choose_clock();
    remember_first();
    out_ = std::make_unique<InPlaceOutput>(in_.output);
    write_init_segment();
    if (vin_ && ain_) {
      drop_first_audio(audio_frames_during(vchunks_->dropped_at_start(), vchunks_->dropped_fields(), fps_.num, fps_.den,
                                           sample_rate_));
    }

    for (;;) {
      const Plan plan = plan_fragment();
      if (plan.ready) {
        write_fragment(plan);
        continue;
      }
      if (plan.done) break;
      pump(plan.need_video, plan.need_audio);
      show_progress(false);
    }
    finish();
    show_progress(true);
    return result();
  }

 private:
  struct Plan {
    bool ready = false;
    bool done = false;
    bool need_video = false;
    bool need_audio = false;
    std::size_t video_chunks = 0;  // whole chunks from the front
    uint64_t audio_frames = 0;
  };

  static std::string empty_message(const LiveInput& in, const char* nothing) {
    if (in.offset() == 0) return "'" + in.name() + "' is empty";
    return in.name() + ": " + nothing;
  }

  static const char* codec_name(VideoCodec codec) { return codec == VideoCodec::kH265 ? "H.265" : "H.264"; }

  // Picture k's time, for k in decoding order or a display position, with
  // the time of pictures left out mid-stream kept.
  uint64_t video_time(uint64_t k) const { return timing_.video.at(slots_(k)); }

  bool video_finished() const { return !vin_ || (vchunks_->finished() && v_.chunks.empty()); }
  bool audio_finished() const { return !ain_ || (achunks_->finished() && a_.written == a_.scanned); }
  bool video_ended() const { return !vin_ || vchunks_->finished() || g_stop; }
  bool audio_ended() const { return !ain_ || achunks_->finished() || g_stop; }

  // Audio frames from the next one to write whose start lies before `end`,
  // and whether every such frame has been read.
  std::pair<uint64_t, bool> audio_until(uint64_t end) const {
    uint64_t j = a_.written;
    while (j < a_.scanned && timing_.audio.at(j) < end) ++j;
    return {j - a_.written, j < a_.scanned || audio_ended()};
  }

  Plan plan_fragment() const {
    Plan p;
    const uint64_t span = span_ticks_;
    if (!v_.chunks.empty()) {
      // The fragment ends where the first chunk (an IDR picture) at least
      // `span` after its start begins, or where the video ends.
      const uint64_t start = video_time(v_.written);
      std::size_t k = 1;
      while (k < v_.chunks.size() && video_time(v_.first[k]) - start < span) ++k;
      uint64_t end;
      if (k < v_.chunks.size()) {
        end = video_time(v_.first[k]);
      } else if (video_ended()) {
        end = video_time(v_.scanned);
      } else {
        p.need_video = true;
        p.need_audio = ain_ && !audio_ended() && a_.bytes < kReadAhead;
        return p;
      }
      p.video_chunks = k;
      if (ain_) {
        const auto [frames, whole] = audio_until(end);
        p.audio_frames = frames;
        if (!whole) {
          p.need_audio = true;
          return p;
        }
      }
      p.ready = true;
      return p;
    }
    if (!video_finished() && !g_stop) {
      p.need_video = true;
      return p;
    }
    // No video (any more): audio alone, cut every `span`.
    if (a_.written < a_.scanned) {
      const auto [frames, whole] = audio_until(timing_.audio.at(a_.written) + span);
      if (whole) {
        p.ready = true;
        p.audio_frames = frames;
        return p;
      }
    }
    if (audio_ended()) {
      p.done = a_.written == a_.scanned;
      p.ready = !p.done;
      p.audio_frames = a_.scanned - a_.written;
      return p;
    }
    p.need_audio = true;
    return p;
  }

  // Both inputs start at the same moment: the audio frames that went with
  // the pictures left out before the first piece go too (never the last
  // frame, as the movie path keeps it).
  void drop_first_audio(uint64_t count) {
    while (count > 0) {
      if (a_.scanned < 2 && !audio_ended()) {
        pump(false, true);
        continue;
      }
      if (a_.scanned < 2) break;
      const AudioChunk& chunk = a_.chunks.front();
      if (++a_.used == chunk.stream.frames.size()) {
        a_.bytes -= chunk.bytes.size();
        a_.chunks.pop_front();
        a_.used = 0;
      }
      --a_.scanned;
      --count;
      ++audio_dropped_;
    }
  }

  // Reads from the inputs the next fragment waits for (and from pipes a
  // little ahead), then cuts what arrived into pieces.
  void pump(bool need_video, bool need_audio) {
    LiveInput* inputs[2] = {vin_.get(), ain_.get()};
    bool wanted[2] = {need_video, need_audio};
    for (int i = 0; i < 2; ++i) {
      if (!inputs[i] || inputs[i]->eof()) {
        wanted[i] = false;
        continue;
      }
      if (!inputs[i]->regular() && (i == 0 ? v_.bytes : a_.bytes) + inputs[i]->size() < kReadAhead) wanted[i] = true;
    }
    LiveInput* live[2];
    bool want[2];
    std::size_t n = 0;
    for (int i = 0; i < 2; ++i) {
      if (!inputs[i]) continue;
      live[n] = inputs[i];
      want[n++] = wanted[i];
    }
    if (!wanted[0] && !wanted[1]) {
      // Nothing the plan waits for can be read: whatever is left is taken.
      for (std::size_t i = 0; i < n; ++i) want[i] = !live[i]->eof();
    }
    if (!wait_for_input(std::span<LiveInput* const>(live, n), std::span<const bool>(want, n), g_stop)) return;
    for (std::size_t i = 0; i < n; ++i) {
      LiveInput& in = *live[i];
      if (!want[i] || in.eof()) continue;
      if (!in.regular()) {
        pollfd fd{in.fd(), POLLIN, 0};
        if (::poll(&fd, 1, 0) <= 0) continue;
      }
      in.read_some(kFileRead);
    }
    take_pieces();
  }

  void take_pieces() {
    if (vchunks_ && !codec_checked_) {
      // The cutter is told the codec before it cuts: by the user, or by the
      // first parameter sets.
      if (vin_->size() < 4096 && !vin_->eof()) return;
      const VideoCodec found = detect_codec(vin_->data(), vin_->size());
      codec_ = in_.video_codec != VideoCodec::kUnknown ? in_.video_codec : found;
      if (found != VideoCodec::kUnknown && found != codec_) {
        throw ToolError(vin_->name() + ": told that the stream is " + codec_name(codec_) + ", but its parameter sets are " +
                        codec_name(found) + "'s");
      }
      vchunks_->set_codec(codec_);
      codec_checked_ = true;
    }
    if (vchunks_) {
      VideoChunk chunk;
      while (vchunks_->next(chunk)) {
        reordered_ = reordered_ || chunk.stream.reordered;
        v_.first.push_back(v_.scanned);
        slots_.leave_open(v_.scanned, chunk.left_out_before);
        for (const VideoStream::Gap& gap : chunk.stream.gaps) slots_.leave_open(v_.scanned + gap.at, gap.pictures);
        v_.scanned += chunk.stream.units.size();
        v_.bytes += chunk.bytes.size();
        v_.chunks.push_back(std::move(chunk));
      }
    }
    if (achunks_) {
      AudioChunk chunk;
      while (achunks_->next(chunk)) {
        a_.scanned += chunk.stream.frames.size();
        a_.bytes += chunk.bytes.size();
        a_.chunks.push_back(std::move(chunk));
      }
    }
  }

  void choose_clock() {
    TimingInput t;
    t.forced_timescale = in_.forced_timescale;
    if (vin_) {
      const VideoStream& s = v_.chunks.front().stream;
      fps_ = in_.fps ? *in_.fps : (s.has_vui_rate ? s.vui_rate : FrameRate{});
      if (!in_.quiet && !in_.fps && !s.has_vui_rate) {
        std::fprintf(stderr, "boxlane mux: %s: no frame rate in the stream; assuming 25 (set it with --fps)\n",
                     vin_->name().c_str());
      }
      t.video = true;
      t.fps_num = fps_.num;
      t.fps_den = fps_.den;
    }
    if (ain_) {
      t.audio = true;
      t.sample_rate = a_.chunks.front().stream.config.sample_rate;
    }
    // Fragments give every sample its own 32-bit duration and every
    // fragment a 64-bit decode time: no length limits the time scale.
    timing_ = choose_timing(t);
    if (vin_) shift_ = reorder_bound(v_.chunks.front().stream);
    span_ticks_ = static_cast<uint64_t>(std::llround(in_.seconds * timing_.timescale));
    if (span_ticks_ == 0) span_ticks_ = 1;
  }

  // How many frames a picture can be shown after pictures decoded after it:
  // every composition time is delayed by that many frames so that no offset
  // is negative, and an edit list takes the delay back out. Chromium's
  // Media Source Extensions and FFmpeg both apply that edit list to
  // fragments; a negative offset, instead, FFmpeg makes up for by delaying
  // the whole track. A live stream is not seen whole, so the bound comes
  // from the SPS, or the first pictures if they reorder more.
  static uint32_t reorder_bound(const VideoStream& first) {
    uint32_t bound = first.reorder_limit;
    for (uint32_t i = 0; i < first.units.size(); ++i) {
      if (i > first.display[i]) bound = std::max(bound, i - first.display[i]);
    }
    return bound;
  }

  void write_init_segment() {
    const char* c = client_.name();
    const uint32_t video_id = vin_ ? 1 : 0;
    const uint32_t audio_id = ain_ ? (vin_ ? 2 : 1) : 0;
    if (!Boxlane_Packet_FragmentMode(c, video_id, audio_id, 0, index_ ? BOXLANE_FRAGMENT_INDEX : 0))
      refused("fragment mode");
    InitSegmentInput init;
    if (vin_) {
      const VideoStream& first = v_.chunks.front().stream;
      init.video.present = true;
      init.video.width = first.width;
      init.video.height = first.height;
      // Duration 0: the edit runs to the end of the media, however many
      // fragments follow (ISO/IEC 14496-12 §8.6.6.3).
      if (shift_) init.video.edits.push_back({0, static_cast<int64_t>(timing_.video.at(shift_))});
      // avc1 or hvc1, as the movie writer describes the stream.
      init.video.stsd = [&] {
        return call_box("the video stsd", video_stsd_size(first),
                        [&](uint8_t* p, int32_t* l) { return write_video_stsd(c, first, p, l); });
      };
    }
    if (ain_) {
      init.audio.present = true;
      const AudioStream& audio = a_.chunks.front().stream;
      init.audio.stsd = [c, &audio] {
        return call_box("the audio stsd", audio_stsd_size(audio),
                        [&](uint8_t* p, int32_t* l) { return write_audio_stsd(c, audio, p, l); });
      };
    }
    init.timescale = timing_.timescale;
    init.mehd_room = out_->regular();
    const InitSegment segment = build_init_segment(c, init);
    mehd_at_ = segment.mehd_at;
    out_->write(segment.bytes.data(), segment.bytes.size(), nullptr, 0);
  }

  void write_fragment(const Plan& plan) {
    const char* c = client_.name();
    payload_.clear();
    std::vector<const uint8_t*> nal_ptrs;
    std::vector<int32_t> nal_lens;
    for (std::size_t k = 0; k < plan.video_chunks; ++k) {
      const VideoChunk& chunk = v_.chunks[k];
      const uint64_t base = v_.first[k];
      const VideoStream& s = chunk.stream;
      for (std::size_t j = 0; j < s.units.size(); ++j) {
        const AccessUnit& u = s.units[j];
        nal_ptrs.resize(u.nal_count);
        nal_lens.resize(u.nal_count);
        for (uint32_t n = 0; n < u.nal_count; ++n) {
          nal_ptrs[n] = s.nals[u.first_nal + n].data;
          nal_lens[n] = static_cast<int32_t>(s.nals[u.first_nal + n].size);
        }
        const uint64_t i = base + j;
        // Positive while the stream keeps to its reorder bound; beyond it a
        // negative offset is still written right (trun version 1).
        const int64_t offset = static_cast<int64_t>(timing_.video.at(slots_(base + s.display[j]) + shift_)) -
                               static_cast<int64_t>(video_time(i));
        if (offset < INT32_MIN || offset > INT32_MAX) throw ToolError("a composition offset does not fit 32 bits");
        const uint64_t duration = video_time(i + 1) - video_time(i);
        if (duration > INT32_MAX) throw ToolError("a picture's duration does not fit 32 bits");
        const std::size_t at = payload_.size();
        payload_.resize(at + u.sample_size);
        int32_t len = 0;
        if (!Boxlane_Packet_FrameAccessUnit(c, payload_.data() + at, &len, nal_ptrs.data(), nal_lens.data(),
                                            static_cast<int32_t>(u.nal_count), 0, u.key ? 1 : 0,
                                            static_cast<int32_t>(duration),
                                            static_cast<int32_t>(offset))) {
          refused("a video access unit");
        }
        if (static_cast<uint64_t>(len) != u.sample_size) throw ToolError("internal: video sample size changed");
      }
      video_end_ = video_time(base + s.units.size());
    }
    for (uint64_t f = 0; f < plan.audio_frames; ++f) {
      const AudioChunk& chunk = a_.chunks.front();
      const AudioFrame& frame = chunk.stream.frames[a_.used];
      const std::size_t at = payload_.size();
      payload_.resize(at + frame.size);
      int32_t len = 0;
      if (!Boxlane_Packet_FrameAudio(c, payload_.data() + at, &len, frame.data, static_cast<int32_t>(frame.size), 0,
                                     static_cast<int32_t>(timing_.audio.duration(a_.written)))) {
        refused("an audio frame");
      }
      payload_.resize(at + static_cast<std::size_t>(len));
      ++a_.written;
      audio_end_ = timing_.audio.at(a_.written);
      if (++a_.used == chunk.stream.frames.size()) {
        a_.bytes -= chunk.bytes.size();
        a_.chunks.pop_front();
        a_.used = 0;
      }
    }
    int32_t header_len = 0;
    int64_t media_len = 0;
    if (!Boxlane_Packet_FragmentSize(c, &header_len, &media_len, nullptr)) refused("the fragment size");
    if (static_cast<uint64_t>(media_len) != payload_.size()) throw ToolError("internal: fragment payload size");
    header_.resize(static_cast<std::size_t>(header_len));
    const uint64_t at = out_->position();
    int32_t len = 0;
    if (!Boxlane_Packet_Fragment(c, header_.data(), &len, static_cast<int64_t>(at))) refused("a fragment");
    out_->write(header_.data(), static_cast<std::size_t>(len), payload_.data(), payload_.size());
    if (in_.fsync) out_->sync();
    ++fragments_;
    for (std::size_t k = 0; k < plan.video_chunks; ++k) {
      v_.written += v_.chunks.front().stream.units.size();
      v_.bytes -= v_.chunks.front().bytes.size();
      vchunks_->recycle(std::move(v_.chunks.front().bytes));
      v_.chunks.pop_front();
      v_.first.pop_front();
    }
    // The memory of a long fragment goes back once it is written.
    if (payload_.capacity() > 4 * payload_.size() + (std::size_t{1} << 20)) Bytes().swap(payload_);
  }

  void finish() {
    const char* c = client_.name();
    if (index_) {
      int32_t size = 0;
      if (!Boxlane_Packet_FragmentSize(c, nullptr, nullptr, &size)) refused("the mfra size");
      const Bytes mfra = call_box("mfra", static_cast<std::size_t>(size), [&](uint8_t* p, int32_t* l) {
        return Boxlane_Packet_MFra(c, p, l);
      });
      out_->write(mfra.data(), mfra.size(), nullptr, 0);
    }
    if (mehd_at_) out_->patch(mehd_at_, mehd_in_room(c, duration()));
    if (in_.fsync) out_->sync();
  }

  uint64_t duration() const { return std::max(video_end_, audio_end_); }

  void show_progress(bool last) {
    if (in_.quiet) return;
    const auto now = std::chrono::steady_clock::now();
    const double running = std::chrono::duration<double>(now - started_).count();
    // Only long runs: a file that takes a moment shows just the summary.
    if (running < 2 || (!last && now - shown_ < std::chrono::seconds(1))) return;
    const bool tty = ::isatty(STDERR_FILENO);
    if (!tty && !last && now - shown_ < std::chrono::seconds(10)) return;
    shown_ = now;
    const uint64_t frames = vin_ ? v_.written : a_.written;
    std::fprintf(stderr, "%sboxlane mux: %s: %llu frames, %.1f s written%s", tty ? "\r" : "", in_.output.c_str(),
                 static_cast<unsigned long long>(frames), static_cast<double>(duration()) / timing_.timescale,
                 tty ? (last ? "\n" : "") : "\n");
    std::fflush(stderr);
  }

  FragmentedResult result() const {
    FragmentedResult r;
    if (vin_) {
      // The first piece's picture size: the SPS never changes.
      r.video_codec = codec_ == VideoCodec::kH265 ? VideoCodec::kH265 : VideoCodec::kH264;
      r.width = sps_width_;
      r.height = sps_height_;
      r.video_frames = v_.written;
      r.fps = fps_;
      r.reordered = reordered_;
      r.dropped_leading = vchunks_->dropped_leading();
    }
    if (ain_) {
      r.sample_rate = sample_rate_;
      r.channel_config = channel_config_;
      r.channels = channels_;
      r.audio_frames = a_.written;
      r.audio_dropped = audio_dropped_;
    }
    r.timescale = timing_.timescale;
    r.duration = duration();
    r.file_size = out_->position();
    r.fragments = fragments_;
    std::string problem;
    for (const auto& [cut, at, name] : {std::tuple{vchunks_ && vchunks_->cut_short(), vchunks_ ? vchunks_->cut_at() : 0,
                                                   vin_ ? vin_->name() : std::string()},
                                        std::tuple{achunks_ && achunks_->cut_short(), achunks_ ? achunks_->cut_at() : 0,
                                                   ain_ ? ain_->name() : std::string()}}) {
      if (!cut) continue;
      if (!r.problem.empty()) r.problem += "; ";
      r.problem += stopped_inside_frame_text(name, at);
    }
    if (!r.problem.empty()) r.problem += "; " + kept_whole_frames_text(in_.output);
    return r;
  }

  // Facts of the first pieces, kept for the summary once they are written.
  void remember_first() {
    if (vin_) {
      const VideoStream& s = v_.chunks.front().stream;
      sps_width_ = s.width;
      sps_height_ = s.height;
    }
    if (ain_) {
      sample_rate_ = a_.chunks.front().stream.config.sample_rate;
      channel_config_ = a_.chunks.front().stream.config.channel_config;
      channels_ = a_.chunks.front().stream.channels;
    }
  }

  const FragmentedInput& in_;
  WriterClient client_;
  std::unique_ptr<LiveInput> vin_, ain_;
  std::unique_ptr<VideoChunker> vchunks_;
  std::unique_ptr<AudioChunker> achunks_;
  VideoQueue v_;
  AudioQueue a_;
  Timing timing_;
  Slots slots_;  // the time of pictures left out after the first piece
  FrameRate fps_;
  uint64_t span_ticks_ = 1;
  uint32_t shift_ = 0;  // frames every composition time is delayed by
  bool codec_checked_ = false;
  VideoCodec codec_ = VideoCodec::kUnknown;
  std::unique_ptr<InPlaceOutput> out_;
  bool index_ = false;
  uint64_t mehd_at_ = 0;
  Bytes payload_, header_;
  uint64_t fragments_ = 0;
  uint64_t video_end_ = 0, audio_end_ = 0;
  uint64_t audio_dropped_ = 0;
  bool reordered_ = false;
  uint32_t sps_width_ = 0, sps_height_ = 0, sample_rate_ = 0;
  uint8_t channel_config_ = 0;
  uint32_t channels_ = 0;
  std::chrono::steady_clock::time_point started_, shown_;
};

}  // namespace

FragmentedResult write_fragmented(const FragmentedInput& in) { return FragmentWriter(in).run(); }

}  // namespace boxlane::tool
