// H.264 and AAC helpers that the box writer calls.
#pragma once

#include <cstdint>

// Fills a 16-byte information block from the first SPS in Annex B bytes:
// byte 0 profile_idc, byte 1 level_idc, byte 2 the constraint flags byte.
// False when no SPS is found; the block is then left as it was.
bool Sanvik_Parse_SPSInfo(const uint8_t* lpszMsgBuffer, int nMsgLen, uint8_t* pSt_SPSInfo);

// Finds the first SPS and the first PPS in Annex B bytes and copies each as a
// bare NAL unit (no start code) into its 1024-byte buffer, storing the
// length. A parameter set longer than 1024 bytes is not copied (its length
// stays 0). nCodec 27 is H.264; other codecs find nothing. The pointers for
// the two further parameter sets (VPS, SEI) and their lengths may be null.
bool Sanvik_Parse_VideoHdr(const uint8_t* lpszMsgBuffer, int nMsgLen, int nCodec, int nReserved,
                           uint8_t* ptszSPSBuffer, uint8_t* ptszPPSBuffer, uint8_t* ptszVPSBuffer,
                           uint8_t* ptszSEIBuffer, int* pInt_SPSLen, int* pInt_PPSLen, int* pInt_VPSLen,
                           int* pInt_SEILen);

// True when the bytes begin with a valid ADTS header (see parse_adts). Each
// out pointer may be null.
bool Sanvik_Parse_AACInfo(const uint8_t* lpszMsgBuffer, int nMsgLen, int* pInt_Profile, int* pInt_SampleRate,
                          int* pInt_Channel, int* pInt_FrameLen);

// SPS and PPS buffers hold this much.
inline constexpr int SANVIK_PARAMSET_CAPACITY = 1024;
