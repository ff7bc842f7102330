// The box splitter: cuts a run of bytes into ISO/IEC 14496-12 boxes in
// stream order, steps into the containers of the moov tree, hands each known
// box's payload to its reader and queues one header record per box, with one
// task-pool event each. Boxes are read in place; only an unfinished tail is
// copied. Also Recv, which hands the queued records out oldest first.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/box_table.hpp"
#include "parse/client_lookup.hpp"
#include "parse/intake.hpp"
#include "platform/be_reader.hpp"
#include "platform/task_pool.hpp"

#include <cstring>

namespace boxlane::parse {
namespace {

constexpr uint64_t kBoxHeader = 8;

void queue_finished(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, BOXLANE_MSGBUFFER& entry) {
  entry.bHdr = true;
  entry.bComplete = true;
  record.stl_ListMsg->push_back(entry);
  if (void* pool = pool_handle(self)) Rendavo_TaskPool_AddrIncEx(pool, record.nPoolIndex, record.tszClient);
}

// Keeps the rest of the run, which holds no whole box, until more arrives.
// `needed` is the box size, or 8 while the header itself is incomplete.
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
  } else if (!reserve(tail, have)) {
    queue.pop_back();
    fail(BOXLANE_ERROR_PARSE_MALLOC);
    return first ? Split::no_memory : Split::done;
  } else {
    (void)run.copy(tail.ptszMsgBuffer, have);
  }
  tail.nMsgLen = static_cast<int32_t>(have);
  return Split::done;
}

Split stop_stream(QORVANE_MP4PARSE& record, uint64_t code) {
  record.bStop = true;
  fail(code);
  return Split::refused;
}

}  // namespace

Split split_run(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, const uint8_t* data, std::size_t length,
                HeldBuffer* held) {
  BeReader run(data, length);
  for (bool first = true; run.remaining() != 0; first = false) {
    clear_error();
    const uint64_t left = run.remaining();
    if (left < kBoxHeader) return store_tail(record, run, kBoxHeader, 0, held, first);

    BeReader box = run;
    const uint32_t size_field = box.u32();
    const BoxRow& row = find_box(box.u32());
    BOXLANE_MSGBUFFER entry;
    entry.st_MP4Hdr.enHType = row.code;

    // A 64-bit size (ISO/IEC 14496-12 §4.2) is not followed: the box is
    // reported with size 0 and the stream ends here.
    if (size_field == 1) {
      record.bStop = true;
      queue_finished(self, record, entry);
      return Split::stopped;
    }
    if (size_field != 0 && size_field < kBoxHeader) return stop_stream(record, BOXLANE_ERROR_PARSE_MALFORMED);
    // Size 0 runs to the end of the stream, which here is the end of the run.
    const bool to_end = size_field == 0;
    const uint64_t size = to_end ? left : size_field;
    if (row.kind != BoxKind::media_data && size > kMaxBufferedBox)
      return stop_stream(record, BOXLANE_ERROR_PARSE_NOTSUPPORT);

    if (size > left && row.kind != BoxKind::media_data) return store_tail(record, run, size, size, held, first);

    entry.st_MP4Hdr.nBoxSize = to_end ? 0 : size;
    // mdat is never read or buffered. One that lies inside the run is
    // stepped over; when its payload reaches past the run, the rest of the
    // run is media the sender skips, and the next run starts after the mdat.
    if (row.kind == BoxKind::media_data) {
      queue_finished(self, record, entry);
      record.nParsePos += size;
      if (to_end) return Split::stopped;
      if (size > left) return Split::media;
      (void)run.skip(size);
      continue;
    }

    const uint64_t payload_length = size - kBoxHeader;
    const uint8_t* payload = box.bytes(payload_length);
    if (row.kind == BoxKind::uuid) {
      BeReader head(payload, payload_length);
      uint8_t stored[2];
      if (head.copy(stored, sizeof stored)) std::memcpy(&entry.st_MP4Hdr.wUUIDHead, stored, sizeof stored);
    }
    if (row.reader) row.reader(self, &record, &entry, payload, payload_length);
    queue_finished(self, record, entry);

    if (to_end) {
      record.nParsePos += size;
      return Split::stopped;
    }
    // The tree is walked flat: after a container header comes its first child.
    const uint64_t step = row.kind == BoxKind::container ? kBoxHeader : size;
    record.nParsePos += step;
    (void)run.skip(step);
  }
  return Split::done;
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

bool CBoxlane_Parse::Boxlane_Parse_Recv(const char* lpszClient, QORVANE_MP4HDR* pSt_MP4Hdr, uint64_t* pInt_ParsePos) {
  if (!pSt_MP4Hdr) {
    boxlane::clear_error();
    return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
  }
  int pool_index = 0;
  const bool taken = boxlane::parse::with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    auto& queue = *record.stl_ListMsg;
    if (queue.empty()) return boxlane::fail(BOXLANE_ERROR_PARSE_NODATA);
    if (!boxlane::parse::finished(queue.front())) return boxlane::fail(BOXLANE_ERROR_PARSE_NOTREADY);
    *pSt_MP4Hdr = queue.front().st_MP4Hdr;
    if (pInt_ParsePos) *pInt_ParsePos = record.nParsePos;
    queue.pop_front();
    pool_index = record.nPoolIndex;
    return true;
  });
  // Counted down outside both locks, so a worker never holds them while the
  // pool wakes or blocks.
  if (taken)
    if (void* pool = boxlane::parse::pool_handle(*this)) Rendavo_TaskPool_AddrDecEx(pool, pool_index, lpszClient);
  return taken;
}
