// The parse client table, the intake of pieces with the reassembly of boxes
// that arrive split, and the task-pool calls behind the parser's events.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/client_lookup.hpp"
#include "parse/holdings.hpp"
#include "parse/intake.hpp"
#include "platform/be_reader.hpp"
#include "platform/task_pool.hpp"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

using boxlane::clear_error;
using boxlane::fail;
namespace parse = boxlane::parse;

namespace boxlane::parse {

Split take_piece(CBoxlane_Parse& self, QORVANE_MP4PARSE& record, const uint8_t* data, std::size_t length) {
  BeReader piece(data, length);
  auto& queue = *record.stl_ListMsg;
  while (piece.remaining() != 0) {
    if (queue.empty() || finished(queue.back())) {
      const Split result = split_run(self, record, piece.current(), piece.remaining(), nullptr);
      return result == Split::media ? Split::stopped : result;
    }

    // Only the bytes the pending box still lacks are copied; whatever
    // follows it in the piece is split in place on the next turn.
    BOXLANE_MSGBUFFER& pending = queue.back();
    const std::size_t held_bytes = static_cast<std::size_t>(pending.nMsgLen);
    const std::size_t missing = static_cast<std::size_t>(pending.nBoxLen) - held_bytes;
    const std::size_t take = std::min(missing, piece.remaining());
    if (!reserve(pending, held_bytes + take, client_limit() != 0)) {
      fail(BOXLANE_ERROR_PARSE_MALLOC);
      return Split::grow_failed;
    }
    (void)piece.copy(pending.ptszMsgBuffer + held_bytes, take);
    pending.nMsgLen += static_cast<int32_t>(take);
    if (take < missing) return Split::done;

    HeldBuffer held;
    held.data = pending.ptszMsgBuffer;
    held.capacity = pending.nBufferSize;
    const std::size_t whole = static_cast<std::size_t>(pending.nMsgLen);
    queue.pop_back();
    const uint64_t start = record.nParsePos;  // where the held bytes stand in the stream
    const Split result = split_run(self, record, held.data, whole, &held);
    if (record.bToEnd) {
      // A box of size 0 completed here: the rest of the piece is its payload.
      record.nParsePos += piece.remaining();
      return Split::stopped;
    }
    if (result == Split::media) {
      // The mdat whose header completed goes on into this piece. Where it
      // also ends here, step over the rest of it and go on splitting.
      const uint64_t rest = record.nParsePos - (start + whole);
      if (rest >= piece.remaining()) return Split::stopped;
      (void)piece.skip(rest);
      continue;
    }
    if (result != Split::done) return result;
  }
  return Split::done;
}

}  // namespace boxlane::parse

CBoxlane_Parse::CBoxlane_Parse() = default;

CBoxlane_Parse::~CBoxlane_Parse() {
  // A table built later at the same address must not meet this one's records
  // in a thread's last lookup.
  parse::note_deletion();
  for (auto& [client, record] : stl_MapClient)
    if (record && record->stl_ListMsg) parse::release(*record->stl_ListMsg);
}

bool CBoxlane_Parse::Boxlane_Parse_Init(int nPoolCount) {
  clear_error();
  void* pool = Rendavo_TaskPool_CreateEx(nPoolCount);
  if (!pool) return fail(Rendavo_GetLastError(nullptr));
  if (void* old = parse::swap_pool_handle(*this, pool)) Rendavo_TaskPool_DestoryEx(old);
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_Destory() {
  clear_error();
  if (void* old = parse::swap_pool_handle(*this, nullptr)) Rendavo_TaskPool_DestoryEx(old);
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_Insert(const char* lpszClient) { return Boxlane_Parse_InsertEx(lpszClient, 0); }

bool CBoxlane_Parse::Boxlane_Parse_InsertEx(const char* lpszClient, uint32_t nFlags) {
  clear_error();
  if (!parse::valid_client(lpszClient) || (nFlags & ~uint32_t{BOXLANE_PARSE_EXTENDED}) != 0)
    return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  try {
    std::unique_lock table(st_RWLocker);
    if (stl_MapClient.find(std::string_view(lpszClient)) != stl_MapClient.end()) return true;
    auto record = std::make_unique<QORVANE_MP4PARSE>();
    std::memcpy(record->tszClient, lpszClient, std::strlen(lpszClient) + 1);
    record->stStream.nFlags = nFlags;
    QORVANE_MP4PARSE& inserted = *stl_MapClient.emplace(std::string(lpszClient), std::move(record)).first->second;
    // Entered into the pool under the table lock, as Delete leaves it, so
    // the entry is this record's own and never a deleted twin's.
    if (void* pool = parse::pool_handle(*this))
      inserted.stPoolEntry = Rendavo_TaskPool_AddrAttachEx(pool, lpszClient, &inserted.nPoolIndex);
    return true;
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
}

bool CBoxlane_Parse::Boxlane_Parse_SetLimit(uint64_t nMaxBytes) {
  clear_error();
  parse::set_client_limit(nMaxBytes);
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_Delete(const char* lpszClient) {
  clear_error();
  if (!parse::valid_client(lpszClient)) return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  std::unique_ptr<QORVANE_MP4PARSE> record;
  {
    std::unique_lock table(st_RWLocker);
    const auto it = stl_MapClient.find(std::string_view(lpszClient));
    if (it == stl_MapClient.end()) return true;
    record = std::move(it->second);
    stl_MapClient.erase(it);
    parse::note_deletion();
    if (record->stPoolEntry) (void)Rendavo_TaskPool_EntryDeleteEx(*record->stPoolEntry);
  }
  // Calls that found the record before it left the table either end before
  // this returns or, still waiting for its mutex, fail as not found.
  {
    std::lock_guard guard(*record->st_Locker);
    record->bDeleted = true;
  }
  boxlane::platform::wait_until_unused(record.get());
  // No call can reach the record any more: its buffers and tables are freed
  // outside every lock, so other clients do not wait for them.
  parse::release(*record->stl_ListMsg);
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_Send(const char* lpszClient, const uint8_t* lpszMsgBuffer, int nMsgLen) {
  clear_error();
  if (!parse::valid_client(lpszClient) || nMsgLen < 0 || (!lpszMsgBuffer && nMsgLen != 0))
    return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  return parse::with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    if (record.bStop) return fail(BOXLANE_ERROR_PARSE_NOTSUPPORT);
    if (nMsgLen == 0) return true;  // a known client that takes pieces: nothing to do
    // After a box of size 0 everything is that box's payload: taken, not split.
    if (record.bToEnd) {
      record.nParsePos += static_cast<uint64_t>(nMsgLen);
      return true;
    }
    const auto& queue = *record.stl_ListMsg;
    const bool pending = !queue.empty() && !parse::finished(queue.back());
    parse::Split result;
    try {
      result = parse::take_piece(*this, record, lpszMsgBuffer, static_cast<std::size_t>(nMsgLen));
    } catch (...) {
      return fail(BOXLANE_ERROR_PARSE_MALLOC);
    }
    switch (result) {
      case parse::Split::done:
      case parse::Split::stopped:
      case parse::Split::media:
        return true;
      // A piece that went through the append step was taken even when a
      // later tail found no memory; the code stays set for the caller.
      case parse::Split::no_memory:
        return pending;
      case parse::Split::refused:
      case parse::Split::grow_failed:
        return false;
    }
    return false;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_Build(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, int nMsgLen) {
  clear_error();
  if (!pSt_MP4Parse || nMsgLen < 0 || (!lpszMsgBuffer && nMsgLen != 0)) return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  try {
    const auto result = parse::take_piece(*this, *pSt_MP4Parse, lpszMsgBuffer, static_cast<std::size_t>(nMsgLen));
    return result == parse::Split::done || result == parse::Split::stopped || result == parse::Split::media;
  } catch (...) {
    return fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
}

bool CBoxlane_Parse::Boxlane_Parse_GetPool(int nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr, int* pInt_ListCount) {
  clear_error();
  void* pool = parse::pool_handle(*this);
  if (!pool) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  if (!Rendavo_TaskPool_AddrGetEx(pool, nPoolIndex, pppSt_ListAddr, pInt_ListCount)) return fail(Rendavo_GetLastError(nullptr));
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_WaitEvent(int nPoolIndex, int nTimeout) {
  clear_error();
  void* pool = parse::pool_handle(*this);
  if (!pool) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  if (!Rendavo_TaskPool_WaitEventEx(pool, nPoolIndex, nTimeout)) return fail(Rendavo_GetLastError(nullptr));
  return true;
}

bool CBoxlane_Parse::Boxlane_Parse_ActiveEvent(int nPoolIndex) {
  clear_error();
  void* pool = parse::pool_handle(*this);
  if (!pool) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  if (!Rendavo_TaskPool_ActiveEventEx(pool, nPoolIndex)) return fail(Rendavo_GetLastError(nullptr));
  return true;
}
