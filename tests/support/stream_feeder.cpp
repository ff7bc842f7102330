#include "support/stream_feeder.hpp"

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string_view>

namespace boxlane::test {

namespace {

// The client's pool index, or -1 when it is not in the table.
int pool_index(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const auto it = m_MP4Parse.stl_MapClient.find(std::string_view(client));
  if (it == m_MP4Parse.stl_MapClient.end()) return -1;
  std::lock_guard guard(*it->second->st_Locker);
  return it->second->nPoolIndex;
}

}  // namespace

int pending_events(const std::string& client) {
  const int index = pool_index(client);
  if (index < 0) return -1;
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  if (!Boxlane_Parse_GetPool(index, &list, &count)) return -1;
  int events = 0;
  for (int32_t i = 0; i < count; ++i)
    if (client == list[i]->tszClientAddr) events = list[i]->nEventCount;
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return events;
}

uint64_t parse_position(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const auto it = m_MP4Parse.stl_MapClient.find(std::string_view(client));
  if (it == m_MP4Parse.stl_MapClient.end()) return 0;
  std::lock_guard guard(*it->second->st_Locker);
  return it->second->nParsePos;
}

std::vector<QORVANE_MP4HDR> drain(const std::string& client) {
  std::vector<QORVANE_MP4HDR> headers;
  QORVANE_MP4HDR header;
  while (Boxlane_Parse_Recv(client.c_str(), &header, nullptr)) headers.push_back(header);
  return headers;
}

FeedResult feed(const std::string& client, const std::vector<uint8_t>& stream, const std::vector<std::size_t>& cuts) {
  std::vector<std::size_t> ends;
  for (std::size_t cut : cuts)
    if (cut > 0 && cut < stream.size()) ends.push_back(cut);
  ends.push_back(stream.size());
  std::sort(ends.begin(), ends.end());
  ends.erase(std::unique(ends.begin(), ends.end()), ends.end());

  FeedResult result;
  std::size_t offset = 0;
  bool ended = false;
  while (offset < stream.size() && !ended) {
    const std::size_t end = *std::upper_bound(ends.begin(), ends.end(), offset);
    ++result.sends;
    const bool sent = Boxlane_Parse_Send(client.c_str(), stream.data() + offset, static_cast<int32_t>(end - offset));
    const uint64_t code = Boxlane_GetLastError(nullptr);

    const int events = pending_events(client);
    std::size_t taken = 0;
    std::size_t next = end;
    QORVANE_MP4HDR header;
    uint64_t position = 0;
    while (Boxlane_Parse_Recv(client.c_str(), &header, &position)) {
      result.headers.push_back(header);
      result.positions.push_back(position);
      ++taken;
      // The splitter looks at nothing after an mdat header; the next box
      // starts where the mdat ends, which is the position Recv reports.
      if (header.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT) {
        if (header.nBoxSize == 0) ended = true;
        next = static_cast<std::size_t>(position);
      }
    }
    if (events >= 0) {
      result.events = std::max<int64_t>(result.events, 0) + events;
      if (static_cast<std::size_t>(events) != taken) result.events_matched = false;
    }
    if (!sent) {
      result.error = code;
      result.error_offset = offset;
      break;
    }
    offset = next;
  }
  result.final_position = parse_position(client);
  return result;
}

FeedResult feed_pieces(const std::string& client, const std::vector<uint8_t>& stream, std::size_t piece) {
  std::vector<std::size_t> cuts;
  for (std::size_t at = piece; at < stream.size(); at += piece) cuts.push_back(at);
  return feed(client, stream, cuts);
}

std::vector<std::size_t> random_cuts(std::size_t size, std::size_t count, uint32_t seed) {
  std::vector<std::size_t> cuts;
  if (size < 2) return cuts;
  std::mt19937 generator(seed);
  std::uniform_int_distribution<std::size_t> at(1, size - 1);
  for (std::size_t i = 0; i < count; ++i) cuts.push_back(at(generator));
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  return cuts;
}

}  // namespace boxlane::test
