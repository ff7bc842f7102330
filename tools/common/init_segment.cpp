#include "tools/common/init_segment.hpp"

#include <algorithm>
#include <cstring>
#include <string>

#include "boxlane/boxlane.h"
#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"

namespace boxlane::tool {

namespace {

// The free box in mvex that becomes mehd (16 or 20 bytes) and a smaller
// free box when the run finishes.
constexpr uint32_t kMehdRoom = 28;

void append(Bytes& to, const Bytes& from) { to.insert(to.end(), from.begin(), from.end()); }

// A free box of `size` bytes, at least its 8-byte header.
Bytes free_box(std::size_t size) {
  Bytes box(std::max<std::size_t>(size, 8), 0);
  BeWriter header(box.data(), 8);
  header.u32(static_cast<uint32_t>(box.size()));
  header.fourcc("free");
  return box;
}

class Builder {
 public:
  Builder(const char* client, const InitSegmentInput& in) : c(client), in_(in) {}

  Bytes wrap(const char* type, const Bytes& payload) {
    return call_box(type, payload.size() + 8, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_HDRBox(c, p, l, type, payload.data(), static_cast<int32_t>(payload.size()));
    });
  }

  // A trak with empty sample tables: the samples are in the fragments.
  Bytes track(bool video) {
    const InitTrack& t = video ? in_.video : in_.audio;
    const uint32_t width = video ? t.width : 0;
    const uint32_t height = video ? t.height : 0;
    Bytes trak = call_box("tkhd", 128, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_TKhd(c, p, l, video ? 0 : 0x0100, static_cast<int32_t>(width), static_cast<int32_t>(height), 0);
    });
    if (!t.edits.empty()) append(trak, edit_box(c, t.edits));
    // After the tkhd: the avc1 entry takes the picture size the last tkhd was given.
    Bytes stbl = t.stsd();
    append(stbl, call_box("stts", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STts(c, p, l, video); }));
    append(stbl, call_box("stsc", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STsc(c, p, l); }));
    append(stbl, call_box("stsz", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STsz(c, p, l, video); }));
    append(stbl, call_box("stco", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_STco(c, p, l, video); }));
    Bytes minf = video ? call_box("vmhd", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_VMhd(c, p, l); })
                       : call_box("smhd", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_SMhd(c, p, l, 0); });
    append(minf, call_box("dinf", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_DInf(c, p, l); }));
    append(minf, wrap("stbl", stbl));
    Bytes mdia = call_box("mdhd", 64, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_MDhdEx(c, p, l, t.language, 0);
    });
    append(mdia, call_box("hdlr", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_HDlr(c, p, l, video ? 0 : 1); }));
    append(mdia, wrap("minf", minf));
    append(trak, wrap("mdia", mdia));
    return wrap("trak", trak);
  }

 private:
  const char* c;  // the client, short for the many calls above
  const InitSegmentInput& in_;
};

}  // namespace

InitSegment build_init_segment(const char* client, const InitSegmentInput& in) {
  Builder b(client, in);
  const char* c = client;
  InitSegment out;
  Bytes file = call_box("ftyp", 64, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_FTyp(c, p, l); });
  Bytes moov = call_box("mvhd", 256, [&](uint8_t* p, int32_t* l) {
    if (!Boxlane_Packet_MVhd(c, p, l, 0, static_cast<int32_t>(in.timescale))) return false;
    name_next_track(p, *l, (in.video.present ? 1 : 0) + (in.audio.present ? 1 : 0));
    return true;
  });
  if (in.video.present) append(moov, b.track(true));
  if (in.audio.present) append(moov, b.track(false));
  Bytes mvex = call_box("mvex", 256, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_MVex(c, p, l, in.duration); });
  if (in.mehd_room) {
    // Room for mehd, filled in when the run finishes and the duration is
    // known; a run that is killed leaves a free box there.
    const Bytes room = free_box(kMehdRoom);
    mvex.insert(mvex.begin() + 8, room.begin(), room.end());
    BeWriter(mvex.data(), 4).u32(static_cast<uint32_t>(mvex.size()));
    out.mehd_at = file.size() + 8 + moov.size() + 8;
  }
  append(moov, mvex);
  append(file, b.wrap("moov", moov));
  out.bytes = std::move(file);
  return out;
}

Bytes mehd_in_room(const char* client, uint64_t duration) {
  // mvex is 8 bytes of header, then mehd, then the trex boxes.
  const Bytes mvex = call_box("mvex", 256, [&](uint8_t* p, int32_t* l) { return Boxlane_Packet_MVex(client, p, l, duration); });
  BeReader mehd_header(mvex.data() + 8, mvex.size() - 8);
  const std::size_t mehd = mehd_header.u32();
  Bytes room(mvex.begin() + 8, mvex.begin() + 8 + static_cast<std::ptrdiff_t>(mehd));
  append(room, free_box(kMehdRoom - mehd));
  return room;
}

}  // namespace boxlane::tool
