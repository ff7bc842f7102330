#include "platform/sanvik.hpp"

#include "platform/adts.hpp"
#include "platform/annexb.hpp"
#include "platform/be_reader.hpp"
#include "platform/be_writer.hpp"

#include <cstddef>
#include <cstring>
#include <initializer_list>

namespace {

// ISO/IEC 14496-10 Table 7-1.
constexpr uint8_t kNalSei = 6;
constexpr uint8_t kNalSps = 7;
constexpr uint8_t kNalPps = 8;
constexpr int kCodecH264 = 27;

// One parameter set slot of Sanvik_Parse_VideoHdr: only the first unit of its
// type counts, and one that does not fit is dropped rather than truncated, so
// a later unit of the same type never takes its place.
struct Slot {
  uint8_t* buffer;
  int* length;
  bool taken = false;

  void offer(const boxlane::NalUnit& nal) noexcept {
    if (taken || !buffer || !length) return;
    taken = true;
    if (nal.size > static_cast<std::size_t>(SANVIK_PARAMSET_CAPACITY)) return;
    std::memcpy(buffer, nal.data, nal.size);
    *length = static_cast<int>(nal.size);
  }
  bool delivered() const noexcept { return length && *length > 0; }
};

}  // namespace

bool Sanvik_Parse_SPSInfo(const uint8_t* lpszMsgBuffer, int nMsgLen, uint8_t* pSt_SPSInfo) {
  if (!lpszMsgBuffer || nMsgLen < 0 || !pSt_SPSInfo) return false;
  boxlane::AnnexBSplitter splitter(lpszMsgBuffer, static_cast<std::size_t>(nMsgLen));
  boxlane::NalUnit nal;
  while (splitter.next(nal)) {
    if (nal.type() != kNalSps) continue;
    // ISO/IEC 14496-10 §7.3.2.1.1: profile_idc, the constraint_set flags, level_idc.
    boxlane::BeReader r(nal.data, nal.size);
    r.skip(1);
    const uint8_t profile = r.u8();
    const uint8_t constraints = r.u8();
    const uint8_t level = r.u8();
    if (!r.ok()) return false;
    boxlane::BeWriter w(pSt_SPSInfo, 16);
    w.u8(profile);
    w.u8(level);
    w.u8(constraints);
    return true;
  }
  return false;
}

bool Sanvik_Parse_VideoHdr(const uint8_t* lpszMsgBuffer, int nMsgLen, int nCodec, int /*nReserved*/,
                           uint8_t* ptszSPSBuffer, uint8_t* ptszPPSBuffer, uint8_t* ptszVPSBuffer,
                           uint8_t* ptszSEIBuffer, int* pInt_SPSLen, int* pInt_PPSLen, int* pInt_VPSLen,
                           int* pInt_SEILen) {
  if (!lpszMsgBuffer || nMsgLen < 0) return false;
  Slot sps{ptszSPSBuffer, pInt_SPSLen};
  Slot pps{ptszPPSBuffer, pInt_PPSLen};
  Slot sei{ptszSEIBuffer, pInt_SEILen};
  for (int* length : {pInt_SPSLen, pInt_PPSLen, pInt_VPSLen, pInt_SEILen})
    if (length) *length = 0;
  // H.264 has no video parameter set; the VPS slot is there for H.265 callers.
  (void)ptszVPSBuffer;
  if (nCodec != kCodecH264) return false;

  boxlane::AnnexBSplitter splitter(lpszMsgBuffer, static_cast<std::size_t>(nMsgLen));
  boxlane::NalUnit nal;
  while (splitter.next(nal)) {
    switch (nal.type()) {
      case kNalSps: sps.offer(nal); break;
      case kNalPps: pps.offer(nal); break;
      case kNalSei: sei.offer(nal); break;
      default: break;
    }
  }
  return sps.delivered() && pps.delivered();
}

bool Sanvik_Parse_AACInfo(const uint8_t* lpszMsgBuffer, int nMsgLen, int* pInt_Profile, int* pInt_SampleRate,
                          int* pInt_Channel, int* pInt_FrameLen) {
  if (!lpszMsgBuffer || nMsgLen < 0) return false;
  boxlane::AdtsHeader header;
  if (!boxlane::parse_adts(lpszMsgBuffer, static_cast<std::size_t>(nMsgLen), header)) return false;
  if (pInt_Profile) *pInt_Profile = header.profile;
  if (pInt_SampleRate) *pInt_SampleRate = static_cast<int>(header.sample_rate);
  if (pInt_Channel) *pInt_Channel = header.channel_config;
  if (pInt_FrameLen) *pInt_FrameLen = header.frame_length;
  return true;
}
