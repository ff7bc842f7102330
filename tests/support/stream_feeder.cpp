#include "support/stream_feeder.hpp"

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <utility>

namespace boxlane::test {

namespace {

// Pool index and parse position of a client; -1 and 0 when it is not in the table.
std::pair<int, uint64_t> look(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const auto it = m_MP4Parse.stl_MapClient.find(std::string_view(client));
  if (it == m_MP4Parse.stl_MapClient.end()) return {-1, 0};
  std::lock_guard guard(*it->second->st_Locker);
  return {it->second->nPoolIndex, it->second->nParsePos};
}

}  // namespace

int pending_events(const std::string& client) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  const int index = look(client).first;
  if (index < 0 || !Boxlane_Parse_GetPool(index, &list, &count)) return -1;
  int events = 0;
  for (const auto& event : take_list(list, count))
    if (client == event.tszClientAddr) events = event.nEventCount;
  return events;
}

uint64_t parse_position(const std::string& client) { return look(client).second; }

std::vector<QORVANE_MP4HDR> drain(const std::string& client) {
  std::vector<QORVANE_MP4HDR> headers;
  QORVANE_MP4HDR header;
  while (Boxlane_Parse_Recv(client.c_str(), &header, nullptr)) headers.push_back(header);
  return headers;
}

FeedResult feed(const std::string& client, const std::vector<uint8_t>& stream, std::vector<std::size_t> cuts,
                std::size_t piece) {
  for (std::size_t at = piece; piece && at < stream.size(); at += piece) cuts.push_back(at);
  std::vector<std::size_t> ends{stream.size()};
  for (std::size_t cut : cuts)
    if (cut > 0 && cut < stream.size()) ends.push_back(cut);
  std::sort(ends.begin(), ends.end());

  FeedResult result;
  bool ended = false;
  for (std::size_t offset = 0; offset < stream.size() && !ended;) {
    const std::size_t end = *std::upper_bound(ends.begin(), ends.end(), offset);
    const bool sent = Boxlane_Parse_Send(client.c_str(), stream.data() + offset, static_cast<int32_t>(end - offset));
    const uint64_t code = Boxlane_GetLastError(nullptr);
    const int events = pending_events(client);
    std::size_t taken = 0;
    std::size_t next = end;
    QORVANE_MP4HDR header;
    uint64_t position = 0;
    for (; Boxlane_Parse_Recv(client.c_str(), &header, &position); ++taken) {
      result.headers.push_back(header);
      // The next box starts where the mdat ends, the position Recv reports;
      // an mdat inside the piece was stepped over: go on after the piece.
      if (header.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT) {
        ended = header.nBoxSize == 0;
        next = std::max(end, static_cast<std::size_t>(position));
      }
    }
    result.events += std::max(events, 0);
    result.events_matched = result.events_matched && (events < 0 || static_cast<std::size_t>(events) == taken);
    if (!sent) {
      result.error = code;
      break;
    }
    offset = next;
  }
  result.final_position = parse_position(client);
  return result;
}

void expect_same_feed(const FeedResult& got, const FeedResult& want, const std::string& how) {
  ASSERT_EQ(got.headers.size(), want.headers.size()) << how;
  for (std::size_t i = 0; i < want.headers.size(); ++i) {
    const QORVANE_MP4HDR& a = got.headers[i];
    const QORVANE_MP4HDR& b = want.headers[i];
    ASSERT_TRUE(a.nBoxSize == b.nBoxSize && a.enHType == b.enHType && a.wUUIDHead == b.wUUIDHead &&
                a.byVersion == b.byVersion && std::equal(a.byFlags, a.byFlags + 3, b.byFlags))
        << how << ", record " << i;
  }
  EXPECT_EQ(got.final_position, want.final_position) << how;
  EXPECT_EQ(got.events, want.events) << how;
  EXPECT_TRUE(got.events_matched) << how;
  EXPECT_EQ(got.error, want.error) << how;
}

}  // namespace boxlane::test
