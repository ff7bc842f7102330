// The H.264 syntax parser on hand-made bit strings that the random units of test_h264_generated.cpp never are.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "platform/h264.hpp"
#include "support/paths.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::h264;
using boxlane::test::Bits;
using boxlane::test::unhex;
using Nal = std::vector<uint8_t>;

TEST(H264BitReader, EmulationPreventionAndTheLargestCodes) {
  // The 03 after two zeros is dropped and counting zeros starts again after it, so an 03 after the next single
  // zero is data. A code of 32 leading zeros, one past the largest, fails instead of wrapping.
  const Nal again = unhex("06 0000 03 00 03"), huge = unhex("67 00000000 80000000 00");
  BitReader hr(huge.data(), huge.size());
  EXPECT_EQ(BitReader(again.data(), again.size()).bits(32), 0x00000003u);
  EXPECT_EQ((std::tuple{hr.ue(), hr.ok()}), (std::tuple{0u, false}));
}

// The largest slice group map a PPS may have: 1024 x 1024 map units, the most the SPS limits allow, each with a
// 1-bit slice_group_id of two groups; one unit more is refused.
TEST(H264ParameterSets, LargestSliceGroupMap) {
  for (const uint32_t units : {1048576u, 1048577u}) {
    Bits b = Bits().ue(0).ue(0).u(2, 0).ue(1).ue(6).ue(units - 1);
    b.bits.resize(b.bits.size() + units);
    const Nal nal = b.ue(0).ue(0).u(3, 0).se(0).se(0).se(0).u(3, 0).nal(3, kNalPps);
    Pps pps;
    EXPECT_EQ(parse_pps(nal.data(), nal.size(), pps), units == 1048576u) << units;
  }
}

// §7.3.2.3.1, §D.1.8 by hand: the recovery point after other messages (one of 600 bytes: FF FF 5A); not type 261.
TEST(H264Sei, RecoveryPointAmongOtherMessages) {
  const std::pair<std::string, int> cases[] = {
      {"06 06 02 24 40 80", 3},                                                // recovery_frame_cnt 3
      {"06 05 11 11111111111111111111111111111111 78 06 01 C4 80", 0},         // after user data
      {"06 05 FF FF 5A " + std::string(1200, '1') + " 06 02 07 B1 80", 60},    // after 600 bytes of it; 11 bits
      {"06 04 02 B5 00 80", -1},                                               // registered user data only
      {"06 FF 06 01 C4 80", -1},                                               // type 261
      {"06 06 02 24", -1},                                                     // cut in the payload
      {"06 06 01 02 80", -1},                                                  // recovery_frame_cnt cut short
      {"65 06 01 C4 80", -1},                                                  // not an SEI NAL unit
  };
  for (const auto& [bytes, frames] : cases) {
    const auto nal = unhex(bytes);
    uint32_t found = 99;
    EXPECT_EQ(find_recovery_point(nal.data(), nal.size(), found) ? int(found) : -1, frames) << bytes;
  }
}

}  // namespace
