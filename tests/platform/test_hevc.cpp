// The H.265 syntax parser on sequence parameter sets written out by hand from ISO/IEC 23008-2, field by field, for
// what the generated units (test_hevc_generated.cpp) do not reach: values that wrap round 32 bits, sets of 17
// predicted deltas, a height off the coding block grid and a 32x32 scaling list predicted from below the first.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <vector>

#include "platform/hevc.hpp"
#include "support/hevc_units.hpp"
#include "support/rbsp_writer.hpp"

namespace {

using namespace boxlane::hevc;
using boxlane::test::Bits;
using boxlane::test::HandSps;
using Nal = std::vector<uint8_t>;

bool accepted(const HandSps& hand) {
  const Nal nal = hand.nal();
  Sps sps;
  return parse_sps(nal.data(), nal.size(), sps);
}

// st_ref_pic_set written out: explicit negative and positive deltas ...
Bits explicit_rps(const std::vector<uint32_t>& negative, const std::vector<uint32_t>& positive) {
  Bits b;
  b.ue(uint32_t(negative.size())).ue(uint32_t(positive.size()));
  for (uint32_t d : negative) b.ue(d - 1).u(1, 1);
  for (uint32_t d : positive) b.ue(d - 1).u(1, 1);
  return b;
}
// ... or predicted from the set before: used_by_curr_pic_flag and use_delta_flag for each delta and delta_rps.
Bits predicted_rps(int32_t delta_rps, const std::vector<std::array<bool, 2>>& flags) {
  Bits b;
  b.u(1, 1).u(1, delta_rps < 0).ue(uint32_t(std::abs(delta_rps)) - 1);
  for (const auto& f : flags) f[0] ? b.u(1, 1) : b.u(1, 0).u(1, f[1]);
  return b;
}

// Under sps_max_dec_pic_buffering 16: a set of 15 negative (or positive) deltas, one predicted from it with
// delta_rps -1 (or +1) of 16, and one predicted from that with `delta_rps`, of the 17 deltas it could keep all but
// `unused` (-1: all).
void sixteen(HandSps& s, bool negative, int32_t delta_rps, int unused) {
  std::vector<std::array<bool, 2>> all(16, {true, true}), but(17, {true, true});
  if (unused >= 0) but[std::size_t(unused)] = {false, false};
  s.buffering_minus1 = 15;
  const std::vector<uint32_t> ones(15, 1);  // -1 to -15, or +1 to +15
  s.rps = {negative ? explicit_rps(ones, {}) : explicit_rps({}, ones),
           predicted_rps(negative ? -1 : 1, all), predicted_rps(delta_rps, but)};
}

TEST(HevcParameterSets, LimitsOnBothSides) {
  // Each row sets one field to the largest (or smallest) value allowed and to one past it.
  const struct {
    const char* what;
    void (*set)(HandSps&, bool past);
  } limits[] = {
      {"height a multiple of MinCbSizeY", [](HandSps& s, bool p) { s.height = p ? 716 : 720; }},
      {"width a multiple of MinCbSizeY", [](HandSps& s, bool p) { s.width = p ? 1276 : 1280; }},
      // A coded value that 32-bit arithmetic would wrap round to MinTbLog2SizeY 0, MaxTbLog2SizeY 0,
      // Log2MinIpcmCbSizeY 0 or a conformance window of 0 (2^31 pairs of columns).
      {"conf_win_left_offset 639 of 1280 (4:2:0)", [](HandSps& s, bool p) { s.window_left = p ? 0x80000000 : 639; }},
      {"log2_min_luma_transform_block_size_minus2 0", [](HandSps& s, bool p) { s.tb_minus2 = p ? 0xFFFFFFFE : 0; }},
      {"log2_diff_max_min_luma_transform_block_size 3", [](HandSps& s, bool p) { s.tb_diff = p ? 0xFFFFFFFE : 3; }},
      {"log2_min_pcm_luma_coding_block_size_minus3 0",
       [](HandSps& s, bool p) { s.pcm = true, s.pcm_min_minus3 = p ? 0xFFFFFFFD : 0; }},
      {"scaling_list_pred_matrix_id_delta 1 of a 32x32 list",
       [](HandSps& s, bool p) { s.scaling_list = true, s.pred_delta_32 = p ? 2 : 1; }},
      // A set predicted from one of 16 deltas may keep the most a set holds, 16, not all 17 it could (7-61, 7-62).
      {"16 deltas kept negative", [](HandSps& s, bool p) { sixteen(s, true, -1, p ? -1 : 16); }},
      {"16 deltas kept positive", [](HandSps& s, bool p) { sixteen(s, false, 1, p ? -1 : 0); }},
      {"16 positive deltas turned negative", [](HandSps& s, bool p) { sixteen(s, false, -17, p ? -1 : 0); }},
      {"16 negative deltas turned positive", [](HandSps& s, bool p) { sixteen(s, true, 17, p ? -1 : 16); }},
  };
  for (const auto& limit : limits) {
    HandSps at, past;
    limit.set(at, false);
    limit.set(past, true);
    EXPECT_EQ(std::pair(accepted(at), accepted(past)), std::pair(true, false)) << limit.what;
  }
}

}  // namespace
