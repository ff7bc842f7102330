// The platform's bit parsers on arbitrary bytes: the Annex B splitter, the
// SPS and parameter-set finders, and the ADTS header test. Each must stay
// inside the bytes it is given and give answers that hold together.
#include "platform/adts.hpp"
#include "platform/annexb.hpp"
#include "platform/sanvik.hpp"

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // Copy into an exact heap block so any overread is caught.
  const std::vector<uint8_t> bytes(data, data + size);
  const uint8_t* p = bytes.data();
  const int len = static_cast<int>(size);

  boxlane::AnnexBSplitter splitter(p, size);
  boxlane::NalUnit nal;
  std::size_t end = 0;
  while (splitter.next(nal)) {
    if (nal.offset < end || nal.offset + nal.size > size) std::abort();
    end = nal.offset + nal.size;
  }

  uint8_t info[16] = {};
  Sanvik_Parse_SPSInfo(p, len, info);
  std::vector<uint8_t> sps(SANVIK_PARAMSET_CAPACITY), pps(SANVIK_PARAMSET_CAPACITY);
  int sps_len = 0, pps_len = 0;
  Sanvik_Parse_VideoHdr(p, len, 27, 0, sps.data(), pps.data(), nullptr, nullptr, &sps_len, &pps_len, nullptr, nullptr);
  if (sps_len < 0 || sps_len > SANVIK_PARAMSET_CAPACITY || pps_len < 0 || pps_len > SANVIK_PARAMSET_CAPACITY) std::abort();

  int profile = 0, rate = 0, channels = 0, frame_len = 0;
  if (Sanvik_Parse_AACInfo(p, len, &profile, &rate, &channels, &frame_len)) {
    if (frame_len < 7 || frame_len > len || rate <= 0) std::abort();
  }
  boxlane::AdtsHeader header;
  if (boxlane::parse_adts(p, size, header)) {
    if (header.frame_length < header.header_length || header.frame_length > size || header.sampling_index >= 13) std::abort();
    uint8_t config[2];
    boxlane::audio_specific_config(header, config);
  }
  return 0;
}
