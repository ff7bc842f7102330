// tests/data/x264_sps_pps.h264 (ffmpeg -f lavfi -i testsrc=size=160x120:rate=25 -frames:v 1 -pix_fmt yuv420p -c:v
// libx264 -bsf:v filter_units=pass_types=7-8 -f h264): a 25-byte SPS (High, level 1.1) and a 6-byte PPS.
#include "platform/sanvik.hpp"
#include "support/paths.hpp"

#include <array>
#include <vector>

namespace {

using boxlane::test::hex;
using boxlane::test::unhex;
using Bytes = std::vector<uint8_t>;

const std::string kSps = "67 64 00 0B AC D9 42 84 7E 5C 04 40 00 00 03 00 40 00 00 0C 83 C5 0A 65 80";
const std::string kPps = "68 EB E3 CB 22 C0";

// What Sanvik_Parse_VideoHdr hands out; the lengths start at -1 so that one left unset shows.
struct Found {
  std::array<uint8_t, SANVIK_PARAMSET_CAPACITY> sps{}, pps{}, sei{};
  int sps_len = -1, pps_len = -1, sei_len = -1;
  bool ok;
  Found(const Bytes& in, int codec = 27) {
    ok = Sanvik_Parse_VideoHdr(in.data(), int(in.size()), codec, 0, sps.data(), pps.data(), nullptr, sei.data(),
                               &sps_len, &pps_len, nullptr, &sei_len);
  }
  std::string sps_hex() const { return hex(sps.data(), std::size_t(sps_len)); }
  std::string pps_hex() const { return hex(pps.data(), std::size_t(pps_len)); }
};

TEST(Sanvik, ParameterSetsOfAnX264Stream) {
  const Bytes stream = boxlane::test::read_file(boxlane::test::source_dir() + "/tests/data/x264_sps_pps.h264");
  const Found f(stream);
  std::array<uint8_t, 16> info{};
  EXPECT_TRUE(f.ok && Sanvik_Parse_SPSInfo(stream.data(), int(stream.size()), info.data()));
  EXPECT_EQ(std::tuple(f.sps_hex(), f.pps_hex(), hex(info.data(), 4)), std::tuple(kSps, kPps, "64 0B 00 00"));
  // Every prefix, an exact heap copy: only a prefix of the real unit comes out, never a start code that ends the
  // bytes; SPSInfo needs the SPS's header and three bytes.
  for (std::size_t n = 1; n < stream.size(); ++n) {
    const Bytes cut(stream.begin(), stream.begin() + long(n));
    const Found part(cut);
    EXPECT_EQ(kSps.rfind(part.sps_hex(), 0), 0u) << n;
    EXPECT_EQ(part.pps_len, n < 33 ? 0 : int(n) - 33) << n;
    EXPECT_EQ(part.ok, n > 33) << n;  // an SPS and a PPS, or nothing
    EXPECT_EQ(Sanvik_Parse_SPSInfo(cut.data(), int(cut.size()), info.data()), n >= 8) << n;
  }
  const Found other(stream, 173);
  EXPECT_EQ(std::tuple(other.ok, other.sps_len, other.pps_len, other.sei_len), std::tuple(false, 0, 0, 0))
      << "not H.264: nothing found, every length cleared";
}

TEST(Sanvik, FirstOfEachTypeWithinCapacity) {
  // Garbage, 3- and 4-byte start codes, an SEI, types 23 (reserved) and 24 (unspecified), an SPS's and a PPS's type
  // plus 16, padding zeros, then a second SPS and PPS that replace nothing.
  Found f(unhex("12 34 00 00 01 06 05 01 AA 80 00 00 01 17 AB 00 00 01 18 CD 00 00 00 00 01 " + kSps +
                " 00 00 00 01 " + kPps + " 00 00 01 67 42 C0 1E FF 00 00 01 68 CE 38 80"));
  EXPECT_EQ(std::tuple(f.sps_hex(), f.pps_hex(), hex(f.sei.data(), std::size_t(f.sei_len))),
            std::tuple(kSps, kPps, "06 05 01 AA 80"));
  EXPECT_FALSE(Found(unhex(kSps + kPps)).ok) << "bare units are not Annex B";

  // An SPS past the buffer is dropped, not cut, and no later one stands in for it; one of the capacity fits.
  Bytes big = unhex("00 00 00 01 67 64 00 1F");
  big.resize(4 + 1500, 0x11);
  const Bytes rest = unhex("00 00 01 " + kPps + " 00 00 01 " + kSps);
  big.insert(big.end(), rest.begin(), rest.end());
  f = Found(big);
  EXPECT_EQ(std::tuple(f.ok, f.sps_len, f.sps[0], f.pps_hex()), std::tuple(false, 0, 0, kPps));
  big.erase(big.begin() + 4 + SANVIK_PARAMSET_CAPACITY, big.begin() + 4 + 1500);
  EXPECT_EQ(Found(big).sps_len, SANVIK_PARAMSET_CAPACITY);

  // SPSInfo takes the first SPS by its type, whatever its nal_ref_idc; one cut before level_idc fails, leaves the
  // block as it was, and no later SPS stands in for it.
  std::array<uint8_t, 16> info{};
  for (const auto& [bytes, expected] : {std::pair<std::string, std::string>("00 00 01 27 4D 40 1E", "4D 1E 40"),
                                         {"00 00 01 67 42 40 00 00 01 " + kSps, "none 4D 1E 40"}}) {
    const Bytes in = unhex(bytes);
    const bool found = Sanvik_Parse_SPSInfo(in.data(), int(in.size()), info.data());
    EXPECT_EQ((found ? "" : "none ") + hex(info.data(), 3), expected);
  }
  // No bytes, a negative length, nowhere to write: refused.
  const Bytes all = unhex("00 00 01 " + kSps + " 00 00 01 " + kPps + " 00 00 01 06 05 01 AA 80");
  EXPECT_FALSE(Sanvik_Parse_SPSInfo(nullptr, 8, info.data()) || Sanvik_Parse_SPSInfo(all.data(), -1, info.data()) ||
               Sanvik_Parse_SPSInfo(all.data(), int(all.size()), nullptr));

  // A slot without a buffer or a length is passed over, though its length is still cleared (H.264 has no VPS);
  // without the PPS's length there is no PPS to deliver. A negative length: refused.
  std::array<uint8_t, SANVIK_PARAMSET_CAPACITY> sps_buf{}, pps_buf{}, sei_buf{};
  int sps_len = -1, pps_len = -1, vps_len = -1, sei_len = -1;
  const bool no_sei_buffer = Sanvik_Parse_VideoHdr(all.data(), int(all.size()), 27, 0, sps_buf.data(), pps_buf.data(),
                                                   nullptr, nullptr, &sps_len, &pps_len, &vps_len, &sei_len);
  EXPECT_EQ(std::tuple(no_sei_buffer, sps_len, pps_len, vps_len, sei_len), std::tuple(true, 25, 6, 0, 0));
  const bool no_lengths = Sanvik_Parse_VideoHdr(all.data(), int(all.size()), 27, 0, sps_buf.data(), pps_buf.data(),
                                                nullptr, sei_buf.data(), &sps_len, nullptr, nullptr, nullptr);
  EXPECT_EQ(std::tuple(no_lengths, sps_len, sei_buf[0]), std::tuple(false, 25, 0));
  EXPECT_FALSE(Sanvik_Parse_VideoHdr(all.data(), -1, 27, 0, sps_buf.data(), pps_buf.data(), nullptr, sei_buf.data(),
                                     &sps_len, &pps_len, nullptr, &sei_len));
}

}  // namespace
