// Reading an H.265 Annex B elementary stream (ISO/IEC 23008-2) for muxing
// into hvc1 samples (ISO/IEC 14496-15 §8): access units found by
// first_slice_segment_in_pic_flag, parameter sets kept for the hvcC record,
// IRAP pictures as key frames, and picture order counts for the display
// order, which video.cpp's ordering shares with H.264.
#include "tools/mux/video.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/annexb.hpp"
#include "platform/h264.hpp"
#include "platform/hevc.hpp"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

namespace {

std::string at(uint64_t offset) { return " at byte " + std::to_string(offset); }

// What the hvcC writer takes at most: 64 parameter sets in 65536 bytes of
// Annex B (a 4-byte start code each).
constexpr std::size_t kMaxSets = 64;
constexpr std::size_t kMaxSetBytes = 65536;

class HevcScanner {
 public:
  HevcScanner(const std::string& name, VideoStream& out, bool continues)
      : name_(name), out_(out), continues_(continues) {}

  const hevc::Sps& first_sps() const noexcept { return first_sps_; }

  void nal(const NalUnit& nal) {
    if (nal.size == 0) return;
    hevc::NalHeader h;
    if (!hevc::parse_nal_header(nal.data, nal.size, h)) {
      throw ToolError(name_ + ": damaged NAL unit header (forbidden_zero_bit set, or cut short)" + at(nal.offset));
    }
    if (h.layer_id != 0) {
      // Before any VPS, a layer other than 0 means other bytes than H.265.
      throw ToolError(name_ + (has_[0] ? ": a NAL unit of layer " + std::to_string(h.layer_id) + at(nal.offset) +
                                             "; layered H.265 (scalable or multiview) is not supported, only the base layer"
                                       : ": the NAL unit" + at(nal.offset) + " does not read as H.265 (it would be of layer " +
                                             std::to_string(h.layer_id) + "); is this an H.265 stream?"));
    }
    // A picture's units end at the next picture's first slice segment: the
    // units that may come between (§7.4.2.4.4) are parameter sets, which go
    // to the sample description, or prefix SEI, which wait for that slice.
    switch (h.type) {
      case hevc::kVps:
      case hevc::kSps:
      case hevc::kPps:
        parameter_set(nal, h.type);
        return;
      case hevc::kPrefixSei:
        pending_.push_back(SampleNal{nal.data, static_cast<uint32_t>(nal.size)});
        return;
      case hevc::kSuffixSei:
        if (open_) add(nal);
        return;
      case hevc::kEos:
      case hevc::kEob:
        // They end their access unit; the next picture starts decoding
        // anew (NoRaslOutputFlag 1).
        if (open_) add(nal);
        close_unit();
        after_eos_ = true;
        return;
      default:
        break;
    }
    // Access unit delimiters, filler data, and reserved or unspecified
    // non-VCL types stay out of the samples; so do the reserved VCL types,
    // which decoders ignore (§7.4.2.2).
    if (h.type <= hevc::kRaslR || (h.type >= hevc::kBlaWLp && h.type <= hevc::kCra)) slice(nal);
  }

  void finish() {
    close_unit();
    if (!has_[0]) throw ToolError(name_ + ": no video parameter set (VPS) found; is this an H.265 stream?");
    if (!has_[1]) throw ToolError(name_ + ": no sequence parameter set (SPS) found; is this an H.265 stream?");
    if (!has_[2]) throw ToolError(name_ + ": no picture parameter set (PPS) found");
    if (out_.units.empty()) throw ToolError(name_ + ": no coded pictures found (none from a random access point on)");
  }

 private:
  void parameter_set(const NalUnit& nal, uint8_t type) {
    static constexpr const char* kKinds[] = {"video", "sequence", "picture"};
    const int kind = type - hevc::kVps;
    hevc::Vps vps;
    hevc::Sps sps;
    hevc::Pps pps;
    const bool readable = type == hevc::kVps   ? hevc::parse_vps(nal.data, nal.size, vps)
                          : type == hevc::kSps ? hevc::parse_sps(nal.data, nal.size, sps)
                                               : hevc::parse_pps(nal.data, nal.size, pps);
    if (!readable) unreadable(kKinds[kind], nal);
    const uint32_t id = type == hevc::kVps ? vps.id : type == hevc::kSps ? sps.id : pps.id;
    if (!keep(nal, type, id, kKinds[kind])) return;
    if (type == hevc::kSps) {
      if (!has_[1]) first_sps_ = sps;
      sets_.sps[id] = sps;
      sets_.has_sps[id] = true;
    } else if (type == hevc::kPps) {
      sets_.pps[id] = pps;
      sets_.has_pps[id] = true;
    }
    has_[kind] = true;
  }

  [[noreturn]] void unreadable(const char* kind, const NalUnit& nal) {
    throw ToolError(name_ + ": cannot read the " + kind + " parameter set" + at(nal.offset) + " (damaged or cut short)");
  }

  // hvc1 carries every parameter set in the sample entry and none in the
  // samples, so each id may have one content only: repeats must be
  // identical (false), a new one is kept (true), a change stops.
  bool keep(const NalUnit& nal, uint8_t type, uint32_t id, const char* kind) {
    const std::size_t slot = (type - hevc::kVps) * 64 + id;
    std::vector<uint8_t>* kept = nullptr;
    if (index_[slot]) kept = &out_.hevc_sets[index_[slot] - 1];
    if (kept) {
      if (kept->size() == nal.size && std::memcmp(kept->data(), nal.data, nal.size) == 0) return false;
      throw ToolError(name_ + ": the " + kind + " parameter set " + std::to_string(id) + " changes" + at(nal.offset) +
                     "; an hvc1 track describes each parameter set once, so split the stream there");
    }
    set_bytes_ += 4 + nal.size;
    if (out_.hevc_sets.size() == kMaxSets || set_bytes_ > kMaxSetBytes) {
      throw ToolError(name_ + ": more parameter sets than one sample description holds (64, in 64 KiB)" + at(nal.offset));
    }
    out_.hevc_sets.emplace_back(nal.data, nal.data + nal.size);
    index_[slot] = out_.hevc_sets.size();
    return true;
  }

  void slice(const NalUnit& nal) {
    hevc::SliceHeader sh;
    if (!hevc::parse_slice_header(nal.data, nal.size, sets_, sh)) {
      if (!has_[2] || !started_) {
        // Before the first parameter sets (a stream cut from a broadcast
        // starts like this) nothing can be read, let alone decoded; nor
        // is the prefix SEI of such a picture kept.
        if (nal.size > 2 && (nal.data[2] & 0x80)) ++out_.skipped_before_parameter_sets;
        pending_.clear();
        return;
      }
      throw ToolError(name_ + ": cannot read the slice segment header" + at(nal.offset) +
                     " (damaged, cut short, or it names a parameter set that was not sent)");
    }
    if (sh.first_slice_segment_in_pic) {
      close_unit();
      begin_picture(nal, sh);
    } else if (!open_ && !dropping_) {
      throw ToolError(name_ + ": a slice segment" + at(nal.offset) + " continues a picture whose first segment is missing");
    }
    if (open_) add(nal);
  }

  void begin_picture(const NalUnit& nal, const hevc::SliceHeader& sh) {
    const uint8_t type = sh.nal.type;
    // NoRaslOutputFlag (§8.1.3): an IDR or BLA picture, or a CRA picture
    // that starts the stream or follows an end of sequence. A CRA picture
    // that starts a piece of a stream has the pictures before it.
    const bool restart = hevc::is_idr(type) || hevc::is_bla(type) ||
                         (type == hevc::kCra && ((!started_ && !continues_) || after_eos_));
    if (hevc::is_irap(type)) {
      started_ = true;
      irap_at_ = static_cast<uint32_t>(out_.units.size());
      skip_rasl_ = restart;
      after_eos_ = false;
    }
    // Pictures before the first IRAP picture, and RASL pictures whose
    // references lie before the IRAP picture decoding starts at, cannot be
    // decoded (§8.1.3).
    dropping_ = !started_ || (skip_rasl_ && hevc::is_rasl(type));
    if (dropping_) {
      ++out_.skipped_before_parameter_sets;
      // Left out after pictures already kept: the time they would have
      // been shown in, before their IRAP picture, stays theirs.
      if (started_ && irap_at_ > 0) {
        if (out_.gaps.empty() || out_.gaps.back().at != irap_at_) out_.gaps.push_back({irap_at_, 0});
        ++out_.gaps.back().pictures;
      }
      pending_.clear();
      return;
    }
    const hevc::Sps& sps = sets_.sps[sets_.pps[sh.pps_id].sps_id];
    open_ = true;
    unit_ = AccessUnit{};
    unit_.first_nal = static_cast<uint32_t>(out_.nals.size());
    unit_.input_offset = nal.offset;
    unit_.key = hevc::is_irap(type);
    unit_.restart = restart || out_.units.empty();
    // Counting starts again at a piece's first picture: only the order
    // within the piece is needed.
    unit_.poc = poc_.next(sh, sps, unit_.restart);
    for (const SampleNal& sei : pending_) add(sei);
    pending_.clear();
  }

  void add(const NalUnit& nal) { add(SampleNal{nal.data, static_cast<uint32_t>(nal.size)}); }
  void add(const SampleNal& nal) {
    out_.nals.push_back(nal);
    ++unit_.nal_count;
    unit_.sample_size += 4 + nal.size;
  }

  void close_unit() {
    if (!open_) return;
    open_ = false;
    out_.payload_bytes += unit_.sample_size;
    out_.max_nals_per_unit = std::max(out_.max_nals_per_unit, unit_.nal_count);
    out_.max_sample_size = std::max(out_.max_sample_size, unit_.sample_size);
    out_.units.push_back(unit_);
  }

 private:
  const std::string& name_;
  VideoStream& out_;
  const bool continues_;
  hevc::ParameterSets sets_;
  hevc::Sps first_sps_;
  bool has_[3] = {};                   // VPS, SPS, PPS seen
  std::array<std::size_t, 3 * 64> index_{};  // (type, id) to 1 + its place in hevc_sets
  std::size_t set_bytes_ = 0;
  hevc::PocCounter poc_;
  std::vector<SampleNal> pending_;  // prefix SEI waiting for its picture
  bool open_ = false;
  bool started_ = false;    // an IRAP picture has been seen
  bool skip_rasl_ = false;  // the last IRAP picture had NoRaslOutputFlag 1
  bool after_eos_ = false;
  bool dropping_ = false;   // the current picture is left out
  uint32_t irap_at_ = 0;    // index in units of the last IRAP picture
  AccessUnit unit_;
};

}  // namespace

void scan_hevc(const uint8_t* data, std::size_t size, const std::string& name, VideoStream& out,
               const std::function<void(const uint8_t*)>& read_to, bool continues) {
  HevcScanner scanner(name, out, continues);
  walk_annexb(data, size, name, [&](const NalUnit& nal) { scanner.nal(nal); }, read_to);
  scanner.finish();
  order_for_display(name, out);
  const hevc::Sps& sps = scanner.first_sps();
  out.codec = VideoCodec::kH265;
  out.width = sps.width;
  out.height = sps.height;
  out.reorder_limit = sps.max_num_reorder_pics;
  // §E.3.1: a picture lasts vui_num_units_in_tick of a vui_time_scale clock.
  out.has_vui_rate = sps.timing_info_present && plausible_rate(sps.time_scale, sps.num_units_in_tick, out.vui_rate);
}

VideoCodec detect_codec(const uint8_t* data, std::size_t size) noexcept {
  AnnexBSplitter splitter(data, size);
  NalUnit nal;
  for (int seen = 0; seen < 256 && splitter.next(nal); ++seen) {
    hevc::NalHeader h;
    if (hevc::parse_nal_header(nal.data, nal.size, h) && h.layer_id == 0) {
      hevc::Vps vps;
      hevc::Sps sps;
      hevc::Pps pps;
      if ((h.type == hevc::kVps && hevc::parse_vps(nal.data, nal.size, vps)) ||
          (h.type == hevc::kSps && hevc::parse_sps(nal.data, nal.size, sps)) ||
          (h.type == hevc::kPps && hevc::parse_pps(nal.data, nal.size, pps))) {
        return VideoCodec::kH265;
      }
    }
    h264::Sps sps;
    h264::Pps pps;
    if (nal.type() == h264::kNalSps && h264::parse_sps(nal.data, nal.size, sps)) return VideoCodec::kH264;
    if (nal.type() == h264::kNalPps && h264::parse_pps(nal.data, nal.size, pps)) return VideoCodec::kH264;
  }
  return VideoCodec::kUnknown;
}

}  // namespace boxlane::tool
