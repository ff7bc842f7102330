#include "tools/mux/video.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

#include "platform/annexb.hpp"
#include "platform/be_reader.hpp"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

bool starts_new_picture(const h264::SliceHeader& prev, const h264::SliceHeader& cur, const h264::Sps& sps) noexcept {
  if (cur.redundant_pic_cnt > 0) return false;
  if (cur.first_mb == 0) return true;
  if (cur.frame_num != prev.frame_num || cur.pps_id != prev.pps_id || cur.field_pic != prev.field_pic ||
      cur.bottom_field != prev.bottom_field || (cur.nal_ref_idc == 0) != (prev.nal_ref_idc == 0) ||
      cur.idr() != prev.idr() || (cur.idr() && cur.idr_pic_id != prev.idr_pic_id)) {
    return true;
  }
  if (sps.poc_type == 0) return cur.poc_lsb != prev.poc_lsb || cur.delta_poc_bottom != prev.delta_poc_bottom;
  if (sps.poc_type == 1) return cur.delta_poc != prev.delta_poc;
  return false;
}

namespace {

// §7.4.1: forbidden_zero_bit set marks a unit damaged in transmission.
bool forbidden_bit_set(const NalUnit& nal) {
  BeReader r(nal.data, nal.size);
  return (r.u8() & 0x80) != 0;
}

std::string at(uint64_t offset) { return " at byte " + std::to_string(offset); }

bool same_bytes(const std::vector<uint8_t>& kept, const NalUnit& nal) {
  return kept.size() == nal.size && std::memcmp(kept.data(), nal.data, nal.size) == 0;
}

// Groups NAL units into access units as it goes.
class Scanner {
 public:
  Scanner(const std::string& name, VideoStream& out, VideoScanOptions options)
      : name_(name), out_(out), options_(options) {}

  void nal(const NalUnit& nal) {
    if (nal.size == 0) return;
    if (forbidden_bit_set(nal)) throw ToolError(name_ + ": damaged NAL unit (forbidden_zero_bit set)" + at(nal.offset));
    const uint8_t type = nal.type();
    switch (type) {
      case h264::kNalSps:
        close_unit();
        sps(nal);
        return;
      case h264::kNalPps:
        close_unit();
        pps(nal);
        return;
      case h264::kNalSlice:
      case h264::kNalPartitionA:
      case h264::kNalIdrSlice:
        slice(nal);
        return;
      case h264::kNalPartitionB:
      case h264::kNalPartitionC:
      case 19:  // auxiliary coded picture
      case 20:  // coded slice extension
      case 21:
        if (open_) add(nal);
        return;
      case h264::kNalSei:
        // §7.4.1.2.3: SEI comes before the first slice of its access unit,
        // and goes into that unit's sample.
        close_unit();
        sei(nal);
        return;
      case h264::kNalAud:
      case 14: case 15: case 16: case 17: case 18:
        close_unit();
        return;
      default:
        // End of sequence or stream, filler, reserved and unspecified types
        // belong to the unit they follow and stay out of the samples.
        return;
    }
  }

  void finish() {
    close_unit();
    pending_sei_.clear();
    if (out_.sps_nals.empty()) {
      throw ToolError(name_ + ": no sequence parameter set (SPS) found; this is neither an H.264 nor an H.265 stream");
    }
    if (out_.pps_nals.empty()) throw ToolError(name_ + ": no picture parameter set (PPS) found");
    if (out_.units.empty()) {
      if (out_.dropped_leading) {
        out_.only_leading = true;
        throw ToolError(name_ + ": no IDR picture or recovery point found, so none of its " +
                       std::to_string(out_.dropped_leading) +
                       " pictures can be decoded on its own (--keep-leading keeps them all the same)");
      }
      throw ToolError(name_ + ": no coded pictures found");
    }
    drop_leading_of_recovery_point();
  }

 private:
  void sps(const NalUnit& nal) {
    h264::Sps parsed;
    if (!h264::parse_sps(nal.data, nal.size, parsed)) unreadable("sequence", nal);
    if (!keep_set(sets_.has_sps[parsed.id], out_.sps_nals, sps_index_[parsed.id], nal, "sequence")) return;
    if (out_.sps_nals.size() == 1) {
      out_.sps = parsed;
    } else if (parsed.width != out_.sps.width || parsed.height != out_.sps.height) {
      throw ToolError(name_ + ": a sequence parameter set" + at(nal.offset) + " gives another picture size (" +
                     std::to_string(parsed.width) + "x" + std::to_string(parsed.height) + " after " +
                     std::to_string(out_.sps.width) + "x" + std::to_string(out_.sps.height) +
                     "); one MP4 track holds one size, so split the stream there");
    }
    sets_.sps[parsed.id] = parsed;
  }

  void pps(const NalUnit& nal) {
    h264::Pps parsed;
    if (!h264::parse_pps(nal.data, nal.size, parsed)) unreadable("picture", nal);
    if (!sets_.has_sps[parsed.sps_id]) {
      // A stream cut anywhere may repeat its sets in any order before its
      // first picture; what comes after must be whole.
      if (!started_) return;
      throw ToolError(name_ + ": no sequence parameter set (SPS) with id " + std::to_string(parsed.sps_id) +
                     " was sent before the picture parameter set" + at(nal.offset));
    }
    if (!keep_set(sets_.has_pps[parsed.id], out_.pps_nals, pps_index_[parsed.id], nal, "picture")) return;
    sets_.pps[parsed.id] = parsed;
  }

  [[noreturn]] void unreadable(const char* kind, const NalUnit& nal) {
    throw ToolError(name_ + ": cannot read the " + kind + " parameter set" + at(nal.offset) + " (damaged or cut short)");
  }

  // The sample description holds every parameter set the stream uses: a new
  // id is kept (true), a repeat must be identical (false), and a set that
  // changes what an id means stops the scan.
  bool keep_set(bool& known, std::vector<std::vector<uint8_t>>& kept, std::size_t& index, const NalUnit& nal,
                const char* kind) {
    if (!known) {
      known = true;
      index = kept.size();
      kept.emplace_back(nal.data, nal.data + nal.size);
      return true;
    }
    if (!same_bytes(kept[index], nal)) {
      throw ToolError(name_ + ": the " + std::string(kind) + " parameter set changes" + at(nal.offset) +
                     " (the same id with other contents); one MP4 track holds one set per id, so split the stream there");
    }
    return false;
  }

  void sei(const NalUnit& nal) {
    uint32_t frames = 0;
    if (h264::find_recovery_point(nal.data, nal.size, frames)) recovery_point_ = true;
    if (!options_.strip_sei) pending_sei_.push_back(SampleNal{nal.data, static_cast<uint32_t>(nal.size)});
  }

  // A slice of a picture that is left out: counted once per picture, by its
  // first slice (first_mb_in_slice 0, which needs no parameter set to read).
  void drop(const NalUnit& nal, bool field) {
    h264::BitReader br(nal.data, nal.size);
    if (br.ue() == 0 && br.ok()) {
      ++out_.dropped_leading;
      if (field) ++out_.dropped_fields;
    }
    pending_sei_.clear();
    recovery_point_ = false;
  }

  void slice(const NalUnit& nal) {
    h264::SliceHeader sh;
    const bool readable = h264::parse_slice_header(nal.data, nal.size, sets_, sh);
    if (!started_) {
      // Pictures before the first parameter sets, or before the first point
      // where decoding can start, cannot be shown correctly by anyone; a
      // stream cut from a broadcast starts like this.
      const bool random_access = readable && (sh.idr() || recovery_point_);
      if (!readable || (!random_access && !options_.keep_leading)) return drop(nal, readable && sh.field_pic);
      started_ = true;
      started_at_idr_ = sh.idr();
    }
    if (!readable) {
      throw ToolError(name_ + ": cannot read the slice header" + at(nal.offset) +
                     " (damaged, cut short, or it names a parameter set that was not sent)");
    }
    if (open_ && starts_new_picture(first_, sh, sps_of(first_))) close_unit();
    if (!open_) {
      open_ = true;
      first_ = sh;
      unit_ = AccessUnit{};
      unit_.first_nal = static_cast<uint32_t>(out_.nals.size());
      unit_.input_offset = nal.offset;
      // A recovery point is a sync sample only where decoding starts: later
      // ones may have leading pictures that need what came before.
      unit_.key = sh.idr() || (out_.units.empty() && recovery_point_);
      recovery_point_ = false;
      for (const SampleNal& sei : pending_sei_) add_bytes(sei.data, sei.size);
      pending_sei_.clear();
    }
    add(nal);
  }

  const h264::Sps& sps_of(const h264::SliceHeader& sh) const { return sets_.sps[sets_.pps[sh.pps_id].sps_id]; }

  void add(const NalUnit& nal) { add_bytes(nal.data, static_cast<uint32_t>(nal.size)); }

  void add_bytes(const uint8_t* data, uint32_t size) {
    out_.nals.push_back(SampleNal{data, size});
    ++unit_.nal_count;
    unit_.sample_size += 4 + uint64_t{size};
  }

  void close_unit() {
    if (!open_) return;
    open_ = false;
    unit_.restart = out_.units.empty() || first_.idr() || first_.mmco5;
    unit_.poc = poc_.next(first_, sps_of(first_));
    out_.payload_bytes += unit_.sample_size;
    if (completes_field_pair()) {
      // The two fields of a frame are one sample (ISO/IEC 14496-15 §5.3.2):
      // their NAL units are adjacent, so the first field's unit grows.
      AccessUnit& pair = out_.units.back();
      pair.nal_count += unit_.nal_count;
      pair.sample_size += unit_.sample_size;
      pair.poc = std::min(pair.poc, unit_.poc);
      note_size(pair);
      waiting_field_ = false;
      return;
    }
    waiting_field_ = first_.field_pic;
    waiting_ = first_;
    note_size(unit_);
    out_.units.push_back(unit_);
  }

  // Decoding that starts at a recovery point that is not an IDR picture
  // cannot show the pictures that follow it in decoding order but come
  // before it in display order (an open GOP's leading pictures): they refer
  // to pictures before the start. They go unless asked for.
  void drop_leading_of_recovery_point() {
    auto& units = out_.units;
    if (options_.keep_leading || started_at_idr_) return;
    const int64_t start = units.front().poc;
    std::size_t kept = 1;
    for (std::size_t i = 1; i < units.size(); ++i) {
      if (units[i].restart) {
        std::copy(units.begin() + static_cast<std::ptrdiff_t>(i), units.end(),
                  units.begin() + static_cast<std::ptrdiff_t>(kept));
        kept += units.size() - i;
        break;
      }
      if (units[i].poc < start) {
        ++out_.dropped_leading;
        out_.payload_bytes -= units[i].sample_size;
        continue;
      }
      units[kept++] = units[i];
    }
    units.resize(kept);
  }

  // §3.30, §3.31: a field pairs with the unpaired field just before it when
  // the parities differ, the frame_num is the same, both or neither are
  // reference fields, and it is neither an IDR nor carries mmco 5.
  bool completes_field_pair() const {
    return waiting_field_ && first_.field_pic && first_.bottom_field != waiting_.bottom_field &&
           first_.frame_num == waiting_.frame_num && (first_.nal_ref_idc == 0) == (waiting_.nal_ref_idc == 0) &&
           !first_.idr() && !first_.mmco5;
  }

  void note_size(const AccessUnit& u) {
    out_.max_nals_per_unit = std::max(out_.max_nals_per_unit, u.nal_count);
    out_.max_sample_size = std::max(out_.max_sample_size, u.sample_size);
  }

  const std::string& name_;
  VideoStream& out_;
  const VideoScanOptions options_;
  h264::ParameterSets sets_;
  std::array<std::size_t, 32> sps_index_{};   // id to position in out_.sps_nals
  std::array<std::size_t, 256> pps_index_{};  // id to position in out_.pps_nals
  h264::PocCounter poc_;
  bool started_ = false;         // a random access point has been seen
  bool started_at_idr_ = false;
  bool recovery_point_ = false;  // an SEI of the coming unit holds a recovery point
  std::vector<SampleNal> pending_sei_;  // SEI of the coming unit
  bool open_ = false;
  h264::SliceHeader first_;
  AccessUnit unit_;
  bool waiting_field_ = false;  // the last unit is a field without its pair yet
  h264::SliceHeader waiting_;
};

}  // namespace

// Display order: pictures between two restarts are shown in order of their
// picture order count; a restart shows everything before it first (§C.4.4).
void order_for_display(const std::string& name, VideoStream& v) {
  const std::size_t n = v.units.size();
  v.display.assign(n, 0);
  std::vector<uint32_t> order;
  std::size_t begin = 0;
  while (begin < n) {
    std::size_t end = begin + 1;
    while (end < n && !v.units[end].restart) ++end;
    order.resize(end - begin);
    std::iota(order.begin(), order.end(), static_cast<uint32_t>(begin));
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return v.units[a].poc < v.units[b].poc; });
    for (std::size_t rank = 0; rank < order.size(); ++rank) {
      if (rank > 0 && v.units[order[rank]].poc == v.units[order[rank - 1]].poc) {
        const uint32_t later = std::max(order[rank], order[rank - 1]);
        throw ToolError(name + ": two pictures have the same picture order count (the second" +
                       at(v.units[later].input_offset) + "); their display order is unknown");
      }
      v.display[order[rank]] = static_cast<uint32_t>(begin + rank);
      if (order[rank] != begin + rank) v.reordered = true;
    }
    begin = end;
  }
}

void walk_annexb(const uint8_t* data, std::size_t size, const std::string& name,
                 const std::function<void(const NalUnit&)>& take, const std::function<void(const uint8_t*)>& read_to) {
  AnnexBSplitter splitter(data, size);
  const std::size_t leading = splitter.leading_bytes();
  if (leading == size) {
    throw ToolError(name + ": no Annex B start code (00 00 01) found; this is neither an H.264 nor an H.265 "
                    "elementary stream");
  }
  BeReader before(data, leading);
  while (before.remaining()) {
    if (before.u8() != 0) {
      throw ToolError(name + ": " + std::to_string(leading) +
                     " bytes before the first start code; this is not an H.264 or H.265 Annex B stream");
    }
  }
  NalUnit nal;
  while (splitter.next(nal)) {
    take(nal);
    if (read_to) read_to(nal.data);
  }
}

void scan_video(const uint8_t* data, std::size_t size, const std::string& name, VideoStream& out,
                const std::function<void(const uint8_t*)>& read_to, VideoScanOptions options) {
  Scanner scanner(name, out, options);
  walk_annexb(data, size, name, [&](const NalUnit& nal) { scanner.nal(nal); }, read_to);
  scanner.finish();
  order_for_display(name, out);
  out.codec = VideoCodec::kH264;
  out.width = out.sps.width;
  out.height = out.sps.height;
  out.reorder_limit = out.sps.bitstream_restriction ? out.sps.max_num_reorder_frames : (out.sps.profile_idc == 66 ? 0 : 16);
  out.has_vui_rate = vui_frame_rate(out.sps, out.vui_rate);
}

bool plausible_rate(uint64_t num, uint64_t den, FrameRate& out) noexcept {
  if (num == 0 || den == 0) return false;
  const uint64_t g = std::gcd(num, den);
  num /= g;
  den /= g;
  if (num > den * 1000 || num * 2 < den || num > 1000000 || den > 1000000) return false;
  out = FrameRate{static_cast<uint32_t>(num), static_cast<uint32_t>(den)};
  return true;
}

bool vui_frame_rate(const h264::Sps& sps, FrameRate& out) noexcept {
  if (!sps.timing_info_present || sps.num_units_in_tick == 0 || sps.time_scale == 0) return false;
  // §E.2.1: a frame lasts two ticks (one per field).
  return plausible_rate(sps.time_scale, uint64_t{2} * sps.num_units_in_tick, out);
}

}  // namespace boxlane::tool
