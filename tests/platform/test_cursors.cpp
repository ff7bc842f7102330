#include "platform/annexb.hpp"
#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"
#include "platform/byte_order.hpp"
#include "support/paths.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using boxlane::AnnexBSplitter;
using boxlane::BeReader;
using boxlane::BeWriter;
using boxlane::NalUnit;
using boxlane::test::hex;
using boxlane::test::unhex;

template <typename T>
std::string stored(T value) {
  uint8_t bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  return hex(bytes, sizeof(T));
}

TEST(ByteOrder, ConversionsStoreBigEndian) {
  EXPECT_EQ(stored(Olbrant_Endain_htonl(0x11223344u)), hex(unhex("11 22 33 44")));
  EXPECT_EQ(stored(Olbrant_Endain_htons(uint16_t{0xA1B2})), hex(unhex("A1 B2")));
  EXPECT_EQ(stored(Olbrant_Endain_ntohl64(0x0102030405060708ull)), hex(unhex("01 02 03 04 05 06 07 08")));

  uint32_t wire32;
  std::memcpy(&wire32, unhex("DE AD BE EF").data(), 4);
  EXPECT_EQ(Olbrant_Endain_ntohl(wire32), 0xDEADBEEFu);
  uint16_t wire16;
  std::memcpy(&wire16, unhex("80 01").data(), 2);
  EXPECT_EQ(Olbrant_Endain_ntohs(wire16), 0x8001u);
}

TEST(BeReader, FieldsAreBigEndian) {
  const auto data = unhex("01 0203 040506 0708090A 0B0C0D0E0F101112 FFFFFFFE");
  BeReader r(data.data(), data.size());
  EXPECT_EQ(r.u8(), 0x01u);
  EXPECT_EQ(r.u16(), 0x0203u);
  EXPECT_EQ(r.u24(), 0x040506u);
  EXPECT_EQ(r.u32(), 0x0708090Au);
  EXPECT_EQ(r.u64(), 0x0B0C0D0E0F101112ull);
  EXPECT_EQ(r.i32(), -2);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.remaining(), 0u);
}

TEST(BeReader, ReadsPastTheEndFailStayAndStick) {
  const auto data = unhex("AA BB CC DD EE");
  BeReader r(data.data(), data.size());
  ASSERT_EQ(r.u16(), 0xAABBu);

  // Each over-long request reads nothing and leaves the position.
  EXPECT_EQ(r.u32(), 0u);
  EXPECT_EQ(r.position(), 2u);
  EXPECT_FALSE(r.ok());
  EXPECT_EQ(r.u64(), 0u);
  EXPECT_FALSE(r.skip(4));
  uint8_t out[4] = {1, 2, 3, 4};
  EXPECT_FALSE(r.copy(out, 4));
  EXPECT_EQ(hex(out, 4), hex(unhex("01 02 03 04")));
  EXPECT_EQ(r.bytes(4), nullptr);
  EXPECT_FALSE(r.seek(6));
  uint8_t peeked = 0;
  EXPECT_FALSE(r.peek(3, peeked));
  EXPECT_EQ(r.position(), 2u);

  // What still fits reads correctly, but the cursor stays failed.
  EXPECT_EQ(r.u24(), 0xCCDDEEu);
  EXPECT_FALSE(r.ok());

  // Sizes near 2^64 must not wrap into a small count.
  BeReader big(data.data(), data.size());
  EXPECT_FALSE(big.skip(~uint64_t{0}));
  EXPECT_FALSE(big.has(~uint64_t{0}));
  EXPECT_EQ(big.position(), 0u);

  BeReader empty(nullptr, 10);
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty.u8(), 0u);
  EXPECT_FALSE(empty.ok());
  EXPECT_EQ(empty.current(), nullptr);
}

TEST(BeReader, SubViewsAreBoundedAndAdvanceTheParent) {
  const auto data = unhex("00000010 6D766864 01020304 05060708 99");
  BeReader r(data.data(), data.size());
  ASSERT_EQ(r.u32(), 16u);
  BeReader box = r.sub(12);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.position(), 16u);
  EXPECT_EQ(r.u8(), 0x99u);

  EXPECT_EQ(box.size(), 12u);
  EXPECT_EQ(box.u32(), 0x6D766864u);
  BeReader inner = box.sub(4);
  EXPECT_EQ(inner.u32(), 0x01020304u);
  EXPECT_EQ(inner.u8(), 0u);  // the view ends where its box ends
  EXPECT_FALSE(inner.ok());
  EXPECT_TRUE(box.ok());
  EXPECT_EQ(box.u32(), 0x05060708u);

  // A view longer than what remains fails the parent, not the position.
  BeReader again(data.data(), data.size());
  ASSERT_TRUE(again.skip(10));
  BeReader overlong = again.sub(8);
  EXPECT_FALSE(again.ok());
  EXPECT_EQ(again.position(), 10u);
  EXPECT_FALSE(overlong.ok());
  EXPECT_EQ(overlong.size(), 0u);

  // An empty view at the very end is fine.
  ASSERT_TRUE(r.ok());
  BeReader tail = r.sub(0);
  EXPECT_TRUE(r.ok());
  EXPECT_TRUE(tail.ok());
  EXPECT_EQ(tail.remaining(), 0u);
}

TEST(BeWriter, BoxesGetTheirSizesPatched) {
  uint8_t buffer[64];
  std::memset(buffer, 0xEE, sizeof(buffer));
  BeWriter w(buffer, sizeof(buffer));
  const auto outer = w.open("moov");
  const auto inner = w.open_full("mvhd", 1, 0x000203);
  w.u24(0xA1B2C3);
  w.u64(0x0102030405060708ull);
  EXPECT_EQ(w.close(inner), 23u);
  w.u16(0xBEEF);
  w.zeros(2);
  EXPECT_EQ(w.close(outer), 35u);
  ASSERT_TRUE(w.ok());
  EXPECT_EQ(hex(buffer, w.size()), hex(unhex("00000023 6D6F6F76"
                                              "00000017 6D766864 01000203 A1B2C3 0102030405060708"
                                              "BEEF 0000")));
  EXPECT_EQ(buffer[w.size()], 0xEE);
}

TEST(BeWriter, WritesPastCapacityWriteNothing) {
  uint8_t buffer[12];
  std::memset(buffer, 0xEE, sizeof(buffer));
  BeWriter w(buffer, 10);
  const auto box = w.open("free");
  w.u16(0x1234);
  w.u32(0x55667788);  // would end at 14
  EXPECT_FALSE(w.ok());
  EXPECT_EQ(w.size(), 10u);
  w.u8(0x99);  // fits, but the writer stays failed
  EXPECT_EQ(w.size(), 10u);
  w.close(box);
  // The size was never patched over the placeholder, and nothing spilled.
  EXPECT_EQ(hex(buffer, 12), hex(unhex("00000000 66726565 1234 EEEE")));
}

std::vector<std::string> split(const std::vector<uint8_t>& stream, std::size_t* leading = nullptr) {
  AnnexBSplitter splitter(stream.data(), stream.size());
  std::vector<std::string> units;
  NalUnit nal;
  while (splitter.next(nal)) {
    EXPECT_EQ(nal.data, stream.data() + nal.offset);
    units.push_back(hex(nal.data, nal.size));
  }
  if (leading) *leading = splitter.leading_bytes();
  return units;
}

TEST(AnnexB, SplitsOnThreeAndFourByteStartCodes) {
  using Units = std::vector<std::string>;
  const auto h = [](const char* text) { return hex(unhex(text)); };
  std::size_t leading = 99;

  EXPECT_EQ(split(unhex("00000001 6742 000001 68CE 00000001 6588 84"), &leading),
            (Units{h("6742"), h("68CE"), h("658884")}));
  EXPECT_EQ(leading, 0u);

  // Bytes before the first start code are not a unit.
  EXPECT_EQ(split(unhex("FF 12 00 000001 0910"), &leading), (Units{h("0910")}));
  EXPECT_EQ(leading, 2u);

  // trailing_zero_8bits before the next start code and at the end are dropped;
  // a zero inside a unit stays.
  EXPECT_EQ(split(unhex("000001 6500 80 0000 00000001 4101 000000")), (Units{h("650080"), h("4101")}));

  // A start code that ends the stream opens no unit and is not part of the last one.
  EXPECT_EQ(split(unhex("000001 6588 000001")), (Units{h("6588")}));
  EXPECT_EQ(split(unhex("000001 6588 00000001")), (Units{h("6588")}));

  // 00 00 02 and 00 00 03 are not start codes.
  EXPECT_EQ(split(unhex("000001 06 000002 000003 01")), (Units{h("06 000002 000003 01")}));

  EXPECT_TRUE(split({}, &leading).empty());
  EXPECT_EQ(leading, 0u);
  EXPECT_TRUE(split(unhex("6588 8400"), &leading).empty());
  EXPECT_EQ(leading, 4u);
  AnnexBSplitter null_stream(nullptr, 16);
  NalUnit nal;
  EXPECT_FALSE(null_stream.next(nal));
}

}  // namespace
