// A fragmented MP4 from the input's samples (ISO/IEC 14496-12 §8.8): the
// init segment, then one moof and mdat per fragment, each starting at a
// video sync sample at least the asked length after the one before (audio
// alone: every that long), then an mfra. A fragment's moof is sized before
// its samples are handed to the writer, so the samples are copied once,
// straight behind the room left for it.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "boxlane/boxlane.h"
#include "tools/common/init_segment.hpp"
#include "tools/common/output_file.hpp"
#include "tools/common/writer_client.hpp"
#include "tools/remux/descriptions.hpp"
#include "tools/remux/job.hpp"
#include "tools/remux/sample_copy.hpp"

namespace boxlane::tool {
namespace {

// The samples [begin, end) of each track in one fragment.
struct Span {
  std::size_t begin = 0, end = 0;
  std::size_t size() const noexcept { return end - begin; }
};

class FragmentWriter {
 public:
  explicit FragmentWriter(const RemuxJob& job) : job_(job), copier_(client_.name(), job.input->data()) {}

  RemuxResult run() {
    const char* c = client_.name();
    const uint32_t video_id = job_.video ? 1 : 0;
    const uint32_t audio_id = job_.audio ? (job_.video ? 2 : 1) : 0;
    if (!Boxlane_Packet_FragmentMode(c, video_id, audio_id, 0, BOXLANE_FRAGMENT_INDEX)) refused("fragment mode");
    span_ = static_cast<uint64_t>(std::llround(job_.fragment_seconds * job_.timescale));
    if (span_ == 0) span_ = 1;
    for (const TrackTimeline* t : {job_.video, job_.audio}) {
      if (t) duration_ = std::max(duration_, t->media_duration);
    }

    OutputFile out(job_.output);
    write_init(out);
    Span video, audio;
    uint64_t video_time = 0, audio_time = 0;  // decode time where each span ends
    const std::size_t video_count = job_.video ? job_.video->track->samples.size() : 0;
    const std::size_t audio_count = job_.audio ? job_.audio->track->samples.size() : 0;
    while (video.end < video_count || audio.end < audio_count) {
      video.begin = video.end;
      audio.begin = audio.end;
      uint64_t cut;  // decode time the fragment ends at
      if (job_.video) {
        const uint64_t start = video_time;
        do {
          video_time += job_.video->duration(video.end);
          ++video.end;
        } while (video.end < video_count &&
                 !(job_.video->track->samples[video.end].sync && video_time - start >= span_));
        cut = video.end < video_count ? video_time : UINT64_MAX;
      } else {
        cut = audio_time + span_;
      }
      while (audio.end < audio_count && audio_time < cut) {
        audio_time += job_.audio->duration(audio.end);
        ++audio.end;
      }
      write_fragment(out, video, audio);
    }
    const int32_t mfra_size = [&] {
      int32_t size = 0;
      if (!Boxlane_Packet_FragmentSize(c, nullptr, nullptr, &size)) refused("the mfra size");
      return size;
    }();
    const Bytes mfra = call_box("mfra", static_cast<std::size_t>(mfra_size), [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_MFra(c, p, l);
    });
    out.write(mfra.data(), mfra.size());
    RemuxResult result;
    result.duration = duration_;
    result.fragments = fragments_;
    result.file_size = out.position();
    out.commit();
    return result;
  }

 private:
  void write_init(OutputFile& out) {
    const char* c = client_.name();
    InitSegmentInput init;
    init.timescale = job_.timescale;
    init.duration = duration_;
    const auto describe = [&](InitTrack& to, const TrackTimeline& t) {
      to.present = true;
      to.width = t.track->width;
      to.height = t.track->height;
      to.language = t.track->language;
      // Composition offsets go into the fragments as they are (trun
      // version 1 where one is negative); the edit list keeps its start.
      to.edits = plan_edits(t, 0, true).entries;
      to.stsd = [c, track = t.track] { return write_stsd(c, *track); };
    };
    if (job_.video) describe(init.video, *job_.video);
    if (job_.audio) describe(init.audio, *job_.audio);
    const InitSegment segment = build_init_segment(c, init);
    out.write(segment.bytes.data(), segment.bytes.size());
  }

  // The moof's size as Boxlane_Packet_FragmentSize gives it for the video
  // span then the audio span: 24, per track 44 and 20 for its one trun,
  // per sample 16 (video with composition offsets), 12 (video) or 8
  // (audio), and the mdat header's 8.
  uint64_t header_size(Span video, Span audio) const {
    uint64_t size = 24 + 8;
    if (video.size()) {
      bool offsets = false;
      for (std::size_t i = video.begin; i < video.end && !offsets; ++i) offsets = job_.video->offset(i) != 0;
      size += 64 + video.size() * (offsets ? 16 : 12);
    }
    if (audio.size()) size += 64 + audio.size() * 8;
    return size;
  }

  void write_fragment(OutputFile& out, Span video, Span audio) {
    const char* c = client_.name();
    uint64_t payload = 0;
    for (std::size_t i = video.begin; i < video.end; ++i) payload += job_.video->track->samples[i].size;
    for (std::size_t i = audio.begin; i < audio.end; ++i) payload += job_.audio->track->samples[i].size;
    const uint64_t header = header_size(video, audio);
    if (header + payload > INT32_MAX) {
      throw ToolError("a fragment would pass 2 GiB: ask for shorter fragments");
    }
    const uint64_t moof_at = out.position();
    uint8_t* base = out.reserve(static_cast<std::size_t>(header + payload));
    uint8_t* dst = base + header;
    for (std::size_t i = video.begin; i < video.end; ++i) {
      const IndexSample& s = job_.video->track->samples[i];
      copier_.video(s, dst, 0, job_.video->duration(i), job_.video->offset(i));
      dst += s.size;
    }
    for (std::size_t i = audio.begin; i < audio.end; ++i) {
      const IndexSample& s = job_.audio->track->samples[i];
      copier_.audio(s, dst, 0, job_.audio->duration(i));
      dst += s.size;
    }
    int32_t header_len = 0;
    int64_t media_len = 0;
    if (!Boxlane_Packet_FragmentSize(c, &header_len, &media_len, nullptr)) refused("the fragment size");
    if (static_cast<uint64_t>(header_len) != header || static_cast<uint64_t>(media_len) != payload) {
      throw ToolError("internal: the fragment came out " + std::to_string(header_len) + " + " +
                      std::to_string(media_len) + " bytes, planned " + std::to_string(header) + " + " +
                      std::to_string(payload));
    }
    int32_t len = 0;
    if (!Boxlane_Packet_Fragment(c, base, &len, static_cast<int64_t>(moof_at))) refused("a fragment");
    out.advance(static_cast<std::size_t>(header + payload));
    ++fragments_;
    done_ += video.size() + audio.size();
    if (job_.progress) job_.progress(done_, total());
    // Input pages before every track's next sample are let go, so a long
    // input never stays resident whole.
    uint64_t next = UINT64_MAX;
    if (job_.video && video.end < job_.video->track->samples.size()) next = job_.video->track->samples[video.end].offset;
    if (job_.audio && audio.end < job_.audio->track->samples.size()) {
      next = std::min(next, job_.audio->track->samples[audio.end].offset);
    }
    if (next != UINT64_MAX) job_.input->release_before(job_.input->data() + next);
  }

  uint64_t total() const {
    return (job_.video ? job_.video->track->samples.size() : 0) + (job_.audio ? job_.audio->track->samples.size() : 0);
  }

  const RemuxJob& job_;
  WriterClient client_{"remux"};
  SampleCopier copier_;
  uint64_t span_ = 1;
  uint64_t duration_ = 0;
  uint64_t fragments_ = 0;
  uint64_t done_ = 0;
};

}  // namespace

RemuxResult write_fragments(const RemuxJob& job) { return FragmentWriter(job).run(); }

}  // namespace boxlane::tool
