// tests/data/x264_sps_pps.h264 holds the SPS and PPS of a one-frame libx264
// stream, made with
//   ffmpeg -f lavfi -i testsrc=size=160x120:rate=25 -frames:v 1 -pix_fmt yuv420p -c:v libx264
//          -bsf:v filter_units=pass_types=7-8 -f h264 x264_sps_pps.h264
// It is 00 00 00 01, a 25-byte SPS (High profile 100, level 1.1), 00 00 00 01
// and a 6-byte PPS.
#include "platform/sanvik.hpp"
#include "support/paths.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

using boxlane::test::hex;
using boxlane::test::unhex;
using Bytes = std::vector<uint8_t>;

Bytes fixture() { return boxlane::test::read_file(boxlane::test::source_dir() + "/tests/data/x264_sps_pps.h264"); }

const Bytes kSps = unhex("67 64 00 0b ac d9 42 84 7e 5c 04 40 00 00 03 00 40 00 00 0c 83 c5 0a 65 80");
const Bytes kPps = unhex("68 eb e3 cb 22 c0");

struct Found {
  std::array<uint8_t, SANVIK_PARAMSET_CAPACITY> sps{}, pps{}, sei{};
  int sps_len = 0, pps_len = 0, sei_len = 0;
  bool ok = false;
  Bytes sps_bytes() const { return Bytes(sps.begin(), sps.begin() + std::max(sps_len, 0)); }
  Bytes pps_bytes() const { return Bytes(pps.begin(), pps.begin() + std::max(pps_len, 0)); }
};

Found find(const Bytes& stream, bool with_sei = false) {
  Found f;
  f.ok = Sanvik_Parse_VideoHdr(stream.data(), int(stream.size()), 27, 0, f.sps.data(), f.pps.data(), nullptr,
                               with_sei ? f.sei.data() : nullptr, &f.sps_len, &f.pps_len, nullptr,
                               with_sei ? &f.sei_len : nullptr);
  return f;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kStart4 = {0, 0, 0, 1};
const Bytes kStart3 = {0, 0, 1};

TEST(Sanvik, ParameterSetsOfAnX264Stream) {
  const Bytes stream = fixture();
  ASSERT_EQ(stream, cat({kStart4, kSps, kStart4, kPps})) << "fixture changed";

  const Found f = find(stream);
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(hex(f.sps_bytes()), hex(kSps));
  EXPECT_EQ(hex(f.pps_bytes()), hex(kPps));
  EXPECT_TRUE(std::all_of(f.sps.begin() + 25, f.sps.end(), [](uint8_t b) { return b == 0; }));

  std::array<uint8_t, 16> info{};
  ASSERT_TRUE(Sanvik_Parse_SPSInfo(stream.data(), int(stream.size()), info.data()));
  EXPECT_EQ(info[0], 100);  // profile_idc: High
  EXPECT_EQ(info[1], 11);   // level_idc: 1.1
  EXPECT_EQ(info[2], 0);    // constraint flags
  EXPECT_TRUE(std::all_of(info.begin() + 3, info.end(), [](uint8_t b) { return b == 0; }));
}

TEST(Sanvik, StartCodesAndUnitOrder) {
  const Bytes sei = unhex("06 05 01 aa 80");
  const Bytes other_sps = unhex("67 42 c0 1e ff");
  const Bytes other_pps = unhex("68 ce 38 80");

  // Three-byte start codes, garbage before the first, trailing zero bytes
  // between units, an SEI first, a second SPS and PPS later: the first of
  // each type wins and no start code or padding comes along.
  const Bytes mixed = cat({unhex("12 34"), kStart3, sei, {0, 0}, kStart3, kSps, kStart4, kPps, kStart3, other_sps,
                           kStart3, other_pps});
  Found f = find(mixed, true);
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(hex(f.sps_bytes()), hex(kSps));
  EXPECT_EQ(hex(f.pps_bytes()), hex(kPps));
  EXPECT_EQ(f.sei_len, 5);

  std::array<uint8_t, 16> info{};
  ASSERT_TRUE(Sanvik_Parse_SPSInfo(mixed.data(), int(mixed.size()), info.data()));
  EXPECT_EQ(info[0], 100);

  // PPS before SPS is found just the same.
  f = find(cat({kStart3, other_pps, kStart3, other_sps}));
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(hex(f.sps_bytes()), hex(other_sps));
  EXPECT_EQ(hex(f.pps_bytes()), hex(other_pps));
  ASSERT_TRUE(Sanvik_Parse_SPSInfo(cat({kStart3, other_pps, kStart3, other_sps}).data(), 15, info.data()));
  EXPECT_EQ(info[0], 0x42);
  EXPECT_EQ(info[1], 0x1e);
  EXPECT_EQ(info[2], 0xc0);

  // Bare NAL units without any start code are not Annex B: nothing found.
  const Bytes bare = cat({kSps, kPps});
  f = find(bare);
  EXPECT_FALSE(f.ok);
  EXPECT_EQ(f.sps_len, 0);
  EXPECT_EQ(f.pps_len, 0);
  info.fill(0x5A);
  EXPECT_FALSE(Sanvik_Parse_SPSInfo(bare.data(), int(bare.size()), info.data()));
  EXPECT_EQ(info[0], 0x5A) << "block left as it was";
}

TEST(Sanvik, OversizedParameterSetIsDroppedNotTruncated) {
  Bytes big_sps = {0x67, 0x64, 0x00, 0x1f};
  big_sps.resize(1500, 0x11);
  const Bytes stream = cat({kStart4, big_sps, kStart4, kPps, kStart4, kSps});
  Found f;
  f.sps.fill(0xEE);
  f.ok = Sanvik_Parse_VideoHdr(stream.data(), int(stream.size()), 27, 0, f.sps.data(), f.pps.data(), nullptr,
                               nullptr, &f.sps_len, &f.pps_len, nullptr, nullptr);
  EXPECT_FALSE(f.ok);
  EXPECT_EQ(f.sps_len, 0) << "a later SPS does not stand in for the first";
  EXPECT_TRUE(std::all_of(f.sps.begin(), f.sps.end(), [](uint8_t b) { return b == 0xEE; })) << "nothing copied";
  EXPECT_EQ(hex(f.pps_bytes()), hex(kPps));

  // Exactly the capacity still fits.
  big_sps.resize(SANVIK_PARAMSET_CAPACITY);
  f = find(cat({kStart4, big_sps, kStart4, kPps}));
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(f.sps_len, SANVIK_PARAMSET_CAPACITY);
}

TEST(Sanvik, TruncatedAndInvalidInput) {
  const Bytes stream = fixture();
  // Every prefix as an exact-size heap copy: nothing past the length is read
  // and what comes out is a prefix of the real unit.
  for (std::size_t n = 0; n <= stream.size(); ++n) {
    const Bytes cut(stream.begin(), stream.begin() + std::ptrdiff_t(n));
    const Found f = find(cut);
    ASSERT_GE(f.sps_len, 0);
    ASSERT_LE(std::size_t(f.sps_len), kSps.size());
    EXPECT_TRUE(std::equal(f.sps.begin(), f.sps.begin() + f.sps_len, kSps.begin())) << n;
    EXPECT_LE(std::size_t(f.pps_len), n < 33 ? 0 : n - 33) << n;

    std::array<uint8_t, 16> info{};
    info.fill(0x5A);
    const bool has_info = Sanvik_Parse_SPSInfo(cut.data(), int(cut.size()), info.data());
    // profile, constraints and level are the three bytes after the NAL header.
    EXPECT_EQ(has_info, n >= 8) << n;
    EXPECT_EQ(info[0], has_info ? 100 : 0x5A) << n;
  }

  Found f;
  EXPECT_FALSE(Sanvik_Parse_VideoHdr(stream.data(), -1, 27, 0, f.sps.data(), f.pps.data(), nullptr, nullptr,
                                     &f.sps_len, &f.pps_len, nullptr, nullptr));
  EXPECT_FALSE(Sanvik_Parse_VideoHdr(nullptr, 40, 27, 0, f.sps.data(), f.pps.data(), nullptr, nullptr, &f.sps_len,
                                     &f.pps_len, nullptr, nullptr));
  // Another codec number finds nothing, and says so through the lengths too.
  f.sps_len = f.pps_len = 7;
  EXPECT_FALSE(Sanvik_Parse_VideoHdr(stream.data(), int(stream.size()), 173, 0, f.sps.data(), f.pps.data(), nullptr,
                                     nullptr, &f.sps_len, &f.pps_len, nullptr, nullptr));
  EXPECT_EQ(f.sps_len, 0);
  EXPECT_EQ(f.pps_len, 0);

  std::array<uint8_t, 16> info{};
  EXPECT_FALSE(Sanvik_Parse_SPSInfo(stream.data(), -5, info.data()));
  EXPECT_FALSE(Sanvik_Parse_SPSInfo(nullptr, 40, info.data()));
  EXPECT_FALSE(Sanvik_Parse_SPSInfo(stream.data(), int(stream.size()), nullptr));
}

}  // namespace
