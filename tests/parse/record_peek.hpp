// A look into a parse client's record, taken under its locks, for tests that
// check what the library keeps rather than what it hands out.
#pragma once

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

namespace boxlane::test {

// A copy of the client's record fields the tests look at, taken under its locks.
struct Peek {
  bool stop = false;
  std::size_t queued = 0;
  bool back_finished = true;
  int32_t back_msg_len = 0;
  int32_t back_box_len = 0;
  std::size_t back_buffer = 0;
  std::string major_brand;
};

inline Peek peek(const std::string& client) {
  Peek p;
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const auto& record = *m_MP4Parse.stl_MapClient.find(std::string_view(client))->second;
  std::lock_guard guard(*record.st_Locker);
  p.stop = record.bStop;
  p.queued = record.stl_ListMsg->size();
  p.major_brand.assign(record.stFTyp.tszMajorBrand, ::strnlen(record.stFTyp.tszMajorBrand, sizeof record.stFTyp.tszMajorBrand));
  if (!record.stl_ListMsg->empty()) {
    const auto& back = record.stl_ListMsg->back();
    p.back_finished = back.bHdr && back.bComplete;
    p.back_msg_len = back.nMsgLen;
    p.back_box_len = back.nBoxLen;
    p.back_buffer = back.nBufferSize;
  }
  return p;
}

}  // namespace boxlane::test
