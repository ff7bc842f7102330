// Feeds a stream to a parse client the way a receiving application does: in
// pieces cut anywhere, taking the header records after every piece, and
// skipping each mdat payload once its header record has told its length.
#pragma once

#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace boxlane::test {

struct FeedResult {
  std::vector<QORVANE_MP4HDR> headers;  // in the order Recv handed them out
  uint64_t final_position = 0;          // the client's parse position at the end
  int64_t events = 0;                   // the pool's count before each drain, summed
  bool events_matched = true;           // every drain took as many records as the pool counted
  uint64_t error = 0;                   // the code of a failed Send, which ends the feed
};

// `client` must be inserted. Pieces end at the given stream offsets, every
// `piece` bytes when it is not 0, and at the end of the stream. After an mdat
// record the feed resumes at the box after the mdat; an mdat of size 0 ends it.
FeedResult feed(const std::string& client, const std::vector<uint8_t>& stream, std::vector<std::size_t> cuts = {},
                std::size_t piece = 0);
// The same records field by field, events, final position and error.
void expect_same_feed(const FeedResult& got, const FeedResult& want, const std::string& how);

// The pool's event count for the client (0 when not listed); -1 without a pool.
int pending_events(const std::string& client);
// The client's parse position, read under its locks; 0 for no such client.
uint64_t parse_position(const std::string& client);
// Takes every finished header record of the client.
std::vector<QORVANE_MP4HDR> drain(const std::string& client);

// Copies a list the library allocated and frees it.
template <class T>
std::vector<T> take_list(T** list, int32_t count) {
  std::vector<T> out;
  for (int32_t i = 0; i < count; ++i) out.push_back(*list[i]);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return out;
}

// The call failed and left the given code as the last error.
inline ::testing::AssertionResult fails_with(bool result, uint64_t code) {
  const uint64_t last = Boxlane_GetLastError(nullptr);
  if (!result && Boxlane_IsErrorOccur && last == code) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "returned " << result << " with last error " << last << ", wanted " << code;
}

}  // namespace boxlane::test
