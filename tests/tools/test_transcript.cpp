// The boxlane program's whole answer, word for word, to a table of inputs and options (transcript.sh):
// every summary, message and exit status, and a digest and probe's report of every file it writes.
// The expected text, tests/data/transcript.txt, was read line by line when written; the other suites
// judge the same files with FFmpeg, GStreamer and mp4box.js. After a change meant to alter the output,
// BOXLANE_UPDATE_TRANSCRIPT=1 writes the file anew: read its diff before committing it.
#include "support/box_builder.hpp"
#include "support/handmade_h264.hpp"
#include "support/hevc_units.hpp"
#include "support/paths.hpp"
#include "tools/mux_runner.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

using Frames = std::vector<uint8_t>;

// The bundled ADTS stream (stereo AAC LC at 48 kHz) with each header changed by `edit` (ISO/IEC 14496-3
// §1.A.2.2.1: byte 2 holds the profile, sampling_frequency_index and channel_configuration's high bit).
Frames adts_edited(const std::function<void(uint8_t*)>& edit) {
  Frames adts = read_file(source_dir() + "/tests/data/sample.aac");
  for (std::size_t at = 0; at + 7 <= adts.size(); at += adts_length(&adts[at])) edit(&adts[at]);
  return adts;
}

void set_rate(uint8_t* h, int index) { h[2] = uint8_t((h[2] & 0xC3) | index << 2); }
void set_channels(uint8_t* h, int config) {
  h[2] = uint8_t((h[2] & 0xFE) | config >> 2), h[3] = uint8_t((h[3] & 0x3F) | (config & 3) << 6);
}

TEST(Transcript, EveryCommandSaysAndWritesWhatItDidBefore) {
  if (tool_path().empty()) GTEST_SKIP() << "the boxlane program is not built";
  const std::string dir = temp_dir() + "/", data = source_dir() + "/tests/data";
  const Frames h264 = read_file(data + "/sample.h264"), aac = read_file(data + "/sample.aac");
  // A recording that starts in the middle of a GOP: parameter sets and SEI, then the P pictures before
  // the second IDR picture (at byte 61527 of the stream).
  Frames mid(h264.begin(), h264.begin() + 726);
  mid.insert(mid.end(), h264.begin() + 4994, h264.end());
  // H.265 (IDR, trailing pictures, then parameter sets and a CRA picture with RASL pictures): from its first
  // trailing picture on, and with an end of sequence before the second parameter sets.
  const Frames h265 = read_file(data + "/main10_cra.h265"), eos = {0, 0, 0, 1, 0x48, 0x01};
  Frames lead(h265.begin(), h265.begin() + 2373), ended = h265;
  lead.insert(lead.end(), h265.begin() + 3275, h265.end());
  ended.insert(ended.begin() + 3484, eos.begin(), eos.end());
  Frames sei_cra = h265;  // without the second VPS, SPS and PPS
  sei_cra.erase(sei_cra.begin() + 3484, sei_cra.begin() + 3566);
  // x264's open GOPs from the second one on: parameter sets, a recovery point SEI, an I picture, leading B pictures.
  const Frames open = read_file(data + "/open_gop.h264");
  // 1.1 MB of ADTS, then a frame whose sync is lost: past the first pieces a live reader takes.
  Frames long_aac;
  for (int i = 0; i < 26; ++i) long_aac.insert(long_aac.end(), aac.begin(), aac.end());
  long_aac.insert(long_aac.end(), 100, 0x55);
  // A movie whose last box is a 64-bit mdat: the ftyp gives up two of its four brands for the longer header,
  // so every chunk offset stays.
  ASSERT_EQ(run(shell_quote(tool_path()) + " mux -q --faststart -a " + shell_quote(data + "/sample.aac") + " -o " +
                shell_quote(dir + "narrow.mp4")), 0);
  const Frames narrow = read_file(dir + "narrow.mp4");
  const TopBox mdat = top_boxes(narrow).back();
  Bytes wide = Bytes().u32(24).add(Frames(narrow.begin() + 4, narrow.begin() + 24));
  wide.add(Frames(narrow.begin() + 32, narrow.begin() + long(mdat.offset))).u32(1).str("mdat").u64(mdat.size + 8);
  wide.add(Frames(narrow.begin() + long(mdat.offset) + 8, narrow.end()));
  using P = HandmadePicture;
  // A one-picture stream, then SPSs or PPSs 1 to `last`; an SPS 1 a macroblock taller (ISO/IEC 14496-10 §7.3.2.1.1).
  const Frames one = handmade_h264({{}}), start = {0, 0, 0, 1};
  const auto with_ids = [](Frames stream, uint32_t last, auto set) {
    for (uint32_t id = 1; id <= last; ++id) stream = cat({stream, set(id)});
    return stream;
  };
  const auto hevc_pps = [&](uint32_t id) { return cat({start, hand_pps(id)}); };
  const Frames taller =
      Bits().u(8, 66).u(8, 0xC0).u(8, 10).ue(1).ue(0).ue(2).ue(1).u(1, 0).ue(0).ue(1).u(4, 0xC).nal(3, 7);
  std::vector<P> seventy_k(70000, {P::kSkipped});  // an IDR picture, then skipped P pictures
  seventy_k[0].kind = P::kIdr;
  HandSps sps1;  // an SPS of another id and size
  sps1.id = 1, sps1.width = 640, sps1.height = 360;
  const std::vector<std::pair<std::string, Frames>> inputs = {
      {"mid_gop.h264", mid}, {"cut.h264", Frames(h264.begin(), h264.begin() + 100000)},
      {"cut.aac", Frames(aac.begin(), aac.begin() + 20000)}, {"empty", {}},
      {"two_pps.h264", handmade_h264({{P::kIdr, 0, 0x40}, {P::kSkipped, 1}, {P::kIntra, 0, 0x90}, {P::kSkipped, 1}})},
      {"recovery.h264", handmade_h264({{P::kSkipped}, {P::kIntra, 0, 0x60, true}, {P::kSkipped}, {P::kSkipped}})},
      {"recovery_idr.h264", handmade_h264({{P::kSkipped}, {P::kIntra, 0, 0x60, true}, {P::kSkipped}, {}, {P::kSkipped}})},
      {"captions.h264", handmade_h264({{P::kIdr, 0, 0x40, false, true}, {P::kSkipped, 0, 0, false, true}})},
      {"aac_96k.aac", adts_edited([](uint8_t* h) { set_rate(h, 0); })},
      {"aac_mono_8k.aac", adts_edited([](uint8_t* h) { set_rate(h, 11), set_channels(h, 1); })},
      {"aac_7.1.aac", adts_edited([](uint8_t* h) { set_channels(h, 7); })},
      {"aac_7350.aac", adts_edited([](uint8_t* h) { set_rate(h, 12); })},
      {"aac_pce.aac", with_pce(aac, 2)}, {"aac_crc.aac", reframed(aac, {}, true)},
      {"lead.h265", lead}, {"eos.h265", ended}, {"sei_cra.h265", sei_cra},
      {"open_cut.h264", Frames(open.begin() + 1943, open.end())},
      {"long.aac", long_aac}, {"wide.mp4", wide},
      {"one.h264", one}, {"two.h264", handmade_h264({{}, {P::kSkipped}})}, {"taller.h264", cat({one, start, taller})},
      {"sps_32.h264", with_ids(one, 31, handmade_sps)},
      {"pps_255.h264", with_ids(one, 254, handmade_pps)}, {"pps_256.h264", with_ids(one, 255, handmade_pps)},
      {"pps_1_61.h265", with_ids({}, 61, hevc_pps)}, {"pps_62.h265", hevc_pps(62)},
      {"long70k.h264", handmade_h264(seventy_k)}, {"idr4100.h264", handmade_h264(std::vector<P>(4100))},
      {"mmco5.h264", handmade_h264({{}, {P::kSkipped}, {P::kSkipped, 0, 0x80, false, false, true}, {P::kSkipped}})},
      {"sps1.h265", cat({start, sps1.nal()})}};
  for (const auto& [name, bytes] : inputs) write_file(dir + name, bytes);

  std::string got;
  const std::string script = shell_quote(source_dir() + "/tests/tools/transcript.sh");
  ASSERT_EQ(run("cd " + shell_quote(dir) + " && bash " + script + " " + shell_quote(tool_path()) + " " +
                    shell_quote(data) + " 2>&1", &got), 0) << got;
  EXPECT_TRUE(matches_expected(got, "transcript.txt", "BOXLANE_UPDATE_TRANSCRIPT", "$ "));
}

}  // namespace
}  // namespace boxlane::test
