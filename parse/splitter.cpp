// The box splitter: cuts a run of bytes into ISO/IEC 14496-12 boxes in
// stream order, steps into the containers of the moov tree, hands each known
// box's payload to its reader and queues one header record per box, with one
// task-pool event each. Boxes are read in place; only an unfinished tail is
// copied. Also Recv, which hands the queued records out oldest first.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/box_table.hpp"
#include "parse/client_lookup.hpp"
#include "parse/holdings.hpp"
#include "parse/intake.hpp"
#include "parse/reader_frame.hpp"
#include "platform/be_reader.hpp"
#include "platform/task_pool.hpp"

#include <cstring>

namespace boxlane::parse {
namespace {

constexpr uint64_t kBoxHeader = 8;
constexpr uint64_t kLargeHeader = 16;
// A 64-bit size beyond this is no size a stream could reach; the parse
// position must stay far from overflowing however many follow.
constexpr uint64_t kMaxLargeBox = uint64_t{1} << 62;

void queue_finished(QORVANE_MP4PARSE& record, BOXLANE_MSGBUFFER& entry) {
  entry.bHdr = true;
  entry.bComplete = true;
  record.stl_ListMsg->push_back(entry);
  if (record.stPoolEntry) (void)Rendavo_TaskPool_EntryIncEx(*record.stPoolEntry);
}

// Keeps the rest of the run, which holds no whole box, until more arrives.
// `needed` is the box size, or the header length while the header itself is
// incomplete.
Split store_tail(QORVANE_MP4PARSE& record, BeReader& run, uint64_t needed, uint64_t box_size, HeldBuffer* held,
                 bool first) {
  const std::size_t have = run.remaining();
  auto& queue = *record.stl_ListMsg;
  BOXLANE_MSGBUFFER& tail = queue.emplace_back();
  tail.nBoxLen = static_cast<int32_t>(needed);
  tail.bHdr = box_size != 0;  // a partial header knows no size yet
  tail.st_MP4Hdr.nBoxSize = box_size;
  if (held && held->data) {
    std::memmove(held->data, run.current(), have);
    tail.ptszMsgBuffer = held->data;
    tail.nBufferSize = held->capacity;
    held->data = nullptr;
  } else if (!reserve(tail, have, client_limit() != 0)) {
    queue.pop_back();
    fail(BOXLANE_ERROR_PARSE_MALLOC);
    return first ? Split::no_memory : Split::done;
  } else {
    (void)run.copy(tail.ptszMsgBuffer, have);
  }
  tail.nMsgLen = static_cast<int32_t>(have);
  return Split::done;
}

// Notes where and why the stream ended, for Boxlane_Parse_GetStream.
void note_stop(QORVANE_MP4PARSE& record, uint32_t why, const uint8_t* type) {
  BOXLANE_STREAMINFO& stream = record.stStream;
  stream.nStop = why;
  stream.nStopOffset = record.nParsePos;
  std::memcpy(stream.tszStopType, type, 4);
}

Split stop_stream(QORVANE_MP4PARSE& record, uint32_t why, const uint8_t* type, uint64_t code) {
  record.bStop = true;
  note_stop(record, why, type);
  fail(code);
  return Split::refused;
}

// What either mode notes about boxes of the extended mode it meets; a client
// in the basic mode still reports them as UNKNOWN and skips them.
void note_box(QORVANE_MP4PARSE& record, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  BOXLANE_STREAMINFO& stream = record.stStream;
  switch (code) {
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF: ++stream.nFragments; break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVEX: stream.bMovieExtends = 1; break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STYP: stream.bSegmentType = 1; break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SIDX: stream.bSegmentIndex = 1; break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFRA: stream.bRandomAccess = 1; break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64:
      if (BOXLANE_TRACKINFO* track = current_track(&record)) track->bLargeOffsets = true;
      break;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STZ2:
      if (BOXLANE_TRACKINFO* track = current_track(&record)) track->bCompactSizes = true;
      break;
    default: break;
  }
}

// ISO/IEC 14496-12 §8.8.4: a moof's media data usually follows it in the
// next mdat. Track fragments whose data lies elsewhere are counted.
void check_moof_data(QORVANE_MP4PARSE& record, uint64_t payload_start, uint64_t end) {
  for (const auto& [first, last] : record.stl_ListMoofData)
    if (last > first && (first < payload_start || last > end)) ++record.stStream.nOutsideData;
  record.stl_ListMoofData.clear();
}

// Keeps the record's sum of its tracks' tables right across one reader: the
// reader changes the current track's tables, or makes a new (empty) track.
class TrackBytes {
 public:
  explicit TrackBytes(QORVANE_MP4PARSE& record) noexcept
      : id_(record.nCurrentTrack), tracks_(record.stl_MapTrack ? record.stl_MapTrack->size() : 0) {
    const BOXLANE_TRACKINFO* track = record.stl_MapTrack ? find_track(*record.stl_MapTrack, id_) : nullptr;
    bytes_ = track ? track_bytes(*track) : 0;
  }
  void update(QORVANE_MP4PARSE& record) const noexcept {
    if (!record.stl_MapTrack) return;
    if (const BOXLANE_TRACKINFO* track = find_track(*record.stl_MapTrack, id_))
      record.nTrackBytes += track_bytes(*track) - bytes_;
    // A track that is new holds what its first reader put there.
    if (record.nCurrentTrack != id_ && record.stl_MapTrack->size() > tracks_)
      if (const BOXLANE_TRACKINFO* track = find_track(*record.stl_MapTrack, record.nCurrentTrack))
        record.nTrackBytes += track_bytes(*track);
  }

 private:
  int32_t id_;
  std::size_t tracks_;
  uint64_t bytes_;
};

}  // namespace

Split split_run(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, const uint8_t* data, std::size_t length,
                HeldBuffer* held) {
  BeReader run(data, length);
  const bool wide = extended(record);
  for (bool first = true; run.remaining() != 0; first = false) {
    clear_error();
    const uint64_t left = run.remaining();
    if (left < kBoxHeader) return store_tail(record, run, kBoxHeader, 0, held, first);

    BeReader box = run;
    const uint32_t size_field = box.u32();
    const uint8_t* type = run.current() + 4;
    const BoxRow& found = find_box(box.u32());
    const BoxRow* row = (found.traits & kExtended) && !wide ? &kUnknownBox : &found;
    BOXLANE_MSGBUFFER entry;
    entry.st_MP4Hdr.enHType = row->code;
    entry.nOffset = record.nParsePos;

    uint64_t header = kBoxHeader;
    uint64_t size = size_field;
    if (size_field == 1) {
      // A client in the basic mode does not follow a 64-bit size
      // (ISO/IEC 14496-12 §4.2): the box is reported with size 0 and the
      // stream ends here.
      if (!wide) {
        entry.byHeaderLen = kLargeHeader;
        note_box(record, found.code);
        record.bStop = true;
        note_stop(record, BOXLANE_STOP_LARGESIZE, type);
        queue_finished(record, entry);
        return Split::stopped;
      }
      if (left < kLargeHeader) return store_tail(record, run, kLargeHeader, 0, held, first);
      header = kLargeHeader;
      size = box.u64();
      if (size < kLargeHeader) return stop_stream(record, BOXLANE_STOP_MALFORMED, type, BOXLANE_ERROR_PARSE_MALFORMED);
      if (size > kMaxLargeBox) return stop_stream(record, BOXLANE_STOP_TOOLARGE, type, BOXLANE_ERROR_PARSE_NOTSUPPORT);
    } else if (size_field != 0 && size_field < kBoxHeader) {
      return stop_stream(record, BOXLANE_STOP_MALFORMED, type, BOXLANE_ERROR_PARSE_MALFORMED);
    }
    // Size 0 runs to the end of the stream (ISO/IEC 14496-12 §4.2): the run
    // holds what has arrived of it, and all that comes later is its too.
    const bool to_end = size_field == 0;
    if (to_end) size = left;
    if (row->kind != BoxKind::media_data && size > kMaxBufferedBox)
      return stop_stream(record, BOXLANE_STOP_TOOLARGE, type, BOXLANE_ERROR_PARSE_NOTSUPPORT);

    // A bounded client takes a box only while all it then holds stays
    // within the bound: the buffer for a box still arriving, or the header
    // record and what the box's reader can add (with the buffer being split).
    if (const uint64_t limit = client_limit()) {
      const bool buffered = size > left && row->kind != BoxKind::media_data;
      const bool read = !buffered && row->reader && row->kind != BoxKind::media_data;
      const uint64_t adds = kQueuedRecordBytes + (buffered ? size : 0) +
                            (read ? reader_growth(record, row->code, size - header) : 0);
      const uint64_t splitting = held && held->data ? held->capacity : 0;
      if (held_bytes(record) + splitting + adds > limit)
        return stop_stream(record, BOXLANE_STOP_LIMIT, type, BOXLANE_ERROR_PARSE_LIMIT);
    }
    if (size > left && row->kind != BoxKind::media_data) return store_tail(record, run, size, size, held, first);

    const bool in_moof = wide && record.nParsePos < record.nMoofEnd;
    if (!in_moof) note_box(record, found.code);
    if (header == kLargeHeader) ++record.stStream.nLargeBoxes;
    entry.byHeaderLen = static_cast<uint8_t>(header);
    entry.st_MP4Hdr.nBoxSize = to_end ? 0 : size;
    if (to_end) {
      record.bToEnd = true;
      note_stop(record, BOXLANE_STOP_TOEND, type);
    }
    // mdat is never read or buffered. One that lies inside the run is
    // stepped over; when its payload reaches past the run, the rest of the
    // run is media the sender skips, and the next run starts after the mdat.
    if (row->kind == BoxKind::media_data) {
      if (wide) check_moof_data(record, record.nParsePos + header, to_end ? UINT64_MAX : record.nParsePos + size);
      queue_finished(record, entry);
      record.nParsePos += size;
      if (to_end) return Split::stopped;
      if (size > left) return Split::media;
      (void)run.skip(size);
      continue;
    }

    const uint64_t payload_length = size - header;
    const uint8_t* payload = box.bytes(payload_length);
    if (row->kind == BoxKind::uuid) {
      BeReader head(payload, payload_length);
      uint8_t stored[2];
      if (head.copy(stored, sizeof stored)) std::memcpy(&entry.st_MP4Hdr.wUUIDHead, stored, sizeof stored);
    }
    // Inside a moof only the moof's own reader has read anything: no box
    // there may change the movie's tracks.
    if (in_moof) {
      if (row->traits & kFullBox) read_version_flags(self, &record, &entry, payload, payload_length);
    } else if (row->reader) {
      const TrackBytes before(record);
      row->reader(self, &record, &entry, payload, payload_length);
      before.update(record);
      if (row->code == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF) record.nMoofEnd = record.nParsePos + size;
    }
    queue_finished(record, entry);

    if (to_end) {
      record.nParsePos += size;
      return Split::stopped;
    }
    // The tree is walked flat: after a container header comes its first child.
    const uint64_t step = row->kind == BoxKind::container ? header : size;
    record.nParsePos += step;
    (void)run.skip(step);
  }
  return Split::done;
}

bool read_version_flags(CBoxlane_Parse&, QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER* entry, const uint8_t* payload,
                        uint64_t length) {
  take_version_flags(entry, BeReader(payload, length));
  return true;
}

}  // namespace boxlane::parse

bool CBoxlane_Parse::Boxlane_Parse_Packet(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, int nMsgLen) {
  boxlane::clear_error();
  if (!pSt_MP4Parse || nMsgLen < 0 || (!lpszMsgBuffer && nMsgLen != 0)) return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
  try {
    const auto result = boxlane::parse::split_run(*this, *pSt_MP4Parse, lpszMsgBuffer, static_cast<std::size_t>(nMsgLen), nullptr);
    return result == boxlane::parse::Split::done || result == boxlane::parse::Split::stopped ||
           result == boxlane::parse::Split::media;
  } catch (...) {
    return boxlane::fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
}

namespace {

// Hands out the oldest finished record, with where its box lies when asked.
bool take_record(CBoxlane_Parse& self, const char* client, QORVANE_MP4HDR* header, BOXLANE_BOXINFO* place,
                 uint64_t* parse_pos) {
  return boxlane::parse::with_client(self, client, [&](QORVANE_MP4PARSE& record) {
    auto& queue = *record.stl_ListMsg;
    if (queue.empty()) return boxlane::fail(BOXLANE_ERROR_PARSE_NODATA);
    const BOXLANE_MSGBUFFER& entry = queue.front();
    if (!boxlane::parse::finished(entry)) return boxlane::fail(BOXLANE_ERROR_PARSE_NOTREADY);
    *header = entry.st_MP4Hdr;
    if (place) {
      place->nOffset = entry.nOffset;
      place->nHeaderLen = entry.byHeaderLen;
      place->nReserved = 0;
    }
    if (parse_pos) *parse_pos = record.nParsePos;
    queue.pop_front();
    // Counted down on the record's own pool entry and under its mutex, as
    // the splitter counts up: the pool's count and the queue move together,
    // and a client deleted and entered again meanwhile is not touched.
    if (record.stPoolEntry) (void)Rendavo_TaskPool_EntryDecEx(*record.stPoolEntry);
    return true;
  });
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_Recv(const char* lpszClient, QORVANE_MP4HDR* pSt_MP4Hdr, uint64_t* pInt_ParsePos) {
  if (!pSt_MP4Hdr) {
    boxlane::clear_error();
    return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
  }
  return take_record(*this, lpszClient, pSt_MP4Hdr, nullptr, pInt_ParsePos);
}

bool CBoxlane_Parse::Boxlane_Parse_RecvEx(const char* lpszClient, BOXLANE_BOXINFO* pSt_BoxInfo, uint64_t* pInt_ParsePos) {
  if (!pSt_BoxInfo) {
    boxlane::clear_error();
    return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
  }
  return take_record(*this, lpszClient, &pSt_BoxInfo->stHdr, pSt_BoxInfo, pInt_ParsePos);
}
