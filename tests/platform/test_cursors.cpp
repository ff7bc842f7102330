#include "platform/annexb.hpp"
#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"
#include "support/paths.hpp"

#include <cstring>
#include <string>
#include <vector>

namespace {

using boxlane::BeReader;
using boxlane::test::hex;
using boxlane::test::unhex;

// Field decoding is exercised by every box reader; these are the boundaries.
TEST(BeReader, FailsPastTheEndWithoutMovingStaysFailedAndBoundsSubViews) {
  const auto data = unhex("AA BB CC DD EE");
  BeReader r(data.data(), data.size()), big(data.data(), data.size()), end(data.data(), data.size());
  uint8_t seen[4] = {};
  ASSERT_EQ(r.u16(), 0xAABBu);
  EXPECT_TRUE(r.u32() == 0 && !r.copy(seen, 4) && seen[0] == 0);  // an over-long read or copy reads nothing, stays
  EXPECT_EQ(r.position(), 2u);
  EXPECT_EQ(r.u24(), 0xCCDDEEu);  // what still fits reads, but the cursor stays failed
  EXPECT_FALSE(r.ok());
  // Sizes near 2^64 must not wrap into a small count; the end is a place to seek to; no bytes without data.
  EXPECT_FALSE(big.skip(~uint64_t{0}) || big.has(~uint64_t{0}) || BeReader(nullptr, 5).has(1));
  EXPECT_TRUE(end.seek(5) && end.ok() && end.remaining() == 0);
  EXPECT_FALSE(end.seek(6) || end.ok());
  // peek looks at what remains and never past it.
  EXPECT_TRUE(end.seek(3) && end.peek(1, seen[0]) && seen[0] == 0xEE && !end.peek(2, seen[0]));

  // A sub-view ends with its box, the parent moves past it; one past what remains fails the parent, not its position.
  const auto boxes = unhex("00000010 6D766864 01020304 05060708 99");
  BeReader p(boxes.data(), boxes.size()), again(boxes.data(), boxes.size());
  ASSERT_EQ(p.u32(), 16u);
  BeReader box = p.sub(12);
  EXPECT_EQ(p.u8(), 0x99u);
  EXPECT_EQ((std::vector<uint64_t>{box.u32(), box.u64(), box.u8()}),
            (std::vector<uint64_t>{0x6D766864, 0x0102030405060708, 0}));
  EXPECT_FALSE(box.ok());
  ASSERT_TRUE(again.skip(10));
  BeReader overlong = again.sub(8);
  EXPECT_FALSE(again.ok() || overlong.ok());
  EXPECT_EQ(again.position(), 10u);
}

// Column sums over records: an odd count, a column that ends its record, past 32 bits, records or fields past the end.
TEST(BeReader, SumsColumnsOfRecordsThatLieWhole) {
  const auto bytes = unhex("00000001 00000100 09090909 00000002 FFFFFFFF 09090909 00000003 00000005 09090909");
  BeReader whole(bytes.data(), bytes.size()), field(bytes.data(), bytes.size());
  const BeReader::Sums sums = whole.sum32(3, 12, 0, 4), last = whole.sum32(3, 12, 4, 8);
  EXPECT_EQ((std::vector<uint64_t>{sums.first, sums.second, last.first, last.second, whole.position()}),
            (std::vector<uint64_t>{6, 0x100 + 0xFFFFFFFFull + 5, 0x100 + 0xFFFFFFFFull + 5, 3 * 0x09090909ull, 0}));
  EXPECT_TRUE(whole.sum32(4, 12, 0, 4).first == 0 && !whole.ok());    // one record too many
  EXPECT_TRUE(field.sum32(3, 12, 0, 9).second == 0 && !field.ok());  // a field past its record
}

TEST(BeWriter, PatchesBoxSizesAndWritesNothingPastCapacity) {
  uint8_t buffer[64];
  std::memset(buffer, 0xEE, sizeof(buffer));
  boxlane::BeWriter w(buffer, 35);  // exactly what is written
  const auto outer = w.open("moov");
  const auto inner = w.open_full("mvhd", 1, 0x000203);
  w.u24(0xA1B2C3);
  w.u64(0x0102030405060708ull);
  EXPECT_EQ(w.close(inner), 23u);
  w.u16(0xBEEF);
  w.zeros(2);
  EXPECT_EQ(w.close(outer), 35u);
  ASSERT_TRUE(w.ok());
  EXPECT_EQ(hex(buffer, w.size() + 1),
            hex(unhex("00000023 6D6F6F76 00000017 6D766864 01000203 A1B2C3 0102030405060708 BEEF 0000 EE")));

  // Past the capacity nothing is written, the writer stays failed, and no size is patched over its placeholder.
  std::memset(buffer, 0xEE, sizeof(buffer));
  boxlane::BeWriter small(buffer, 12);
  const auto box = small.open("free");
  small.u16(0x1234);
  small.u32(0x55667788);  // would end at 14
  small.u8(0x99);         // fits
  small.close(box);
  EXPECT_TRUE(!small.ok() && small.size() == 10);
  EXPECT_EQ(hex(buffer, 12), hex(unhex("00000000 66726565 1234 EEEE")));
}

TEST(AnnexB, SplitsOnThreeAndFourByteStartCodes) {
  const struct {
    const char* stream;
    std::vector<const char*> units;
    std::size_t leading;
  } cases[] = {
      {"00000001 6742 000001 68CE 00000001 6588 84", {"6742", "68CE", "658884"}, 0},
      {"FF 12 00 000001 0910", {"0910"}, 2},  // bytes before the first start code are no unit
      // trailing_zero_8bits before the next start code and at the end are dropped; a zero inside a unit stays.
      {"000001 6500 80 0000 00000001 4101 000000", {"650080", "4101"}, 0},
      // A start code that ends the stream opens no unit and is not part of the last one.
      {"000001 6588 000001", {"6588"}, 0},
      {"000001 06 000002 000003 0001", {"06 000002 000003 0001"}, 0},  // 00 00 02/03 and 00 01 are no start codes
      {"000001 6588 01 000001 41", {"658801", "41"}, 0},          // a start code right after a 01 byte
      {"6588 8400", {}, 4},
  };
  for (const auto& c : cases) {
    const auto stream = unhex(c.stream);
    boxlane::AnnexBSplitter splitter(stream.data(), stream.size());
    std::vector<std::string> units, expected;
    for (boxlane::NalUnit nal; splitter.next(nal);) {
      EXPECT_EQ(nal.data, stream.data() + nal.offset);
      units.push_back(hex(nal.data, nal.size));
    }
    for (const char* u : c.units) expected.push_back(hex(unhex(u)));
    EXPECT_EQ(std::pair(units, splitter.leading_bytes()), std::pair(expected, c.leading)) << c.stream;
  }
}

}  // namespace
