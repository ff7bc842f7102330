// Scaffolding: replaced member by member as the room is built.
#include <boxlane/boxlane.hpp>

#include "packet/packet_record.hpp"
CBoxlane_Packet::CBoxlane_Packet() = default;
CBoxlane_Packet::~CBoxlane_Packet() = default;
bool CBoxlane_Packet::Boxlane_Packet_Insert(const char*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_Delete(const char*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_SetTime(const char*, int, int) { return false; }
int64_t CBoxlane_Packet::Boxlane_Packet_TimeCount(QORVANE_MP4PACKET*) { return 0; }
bool CBoxlane_Packet::Boxlane_Packet_HDRBox(const char*, uint8_t*, int*, const char*, const uint8_t*, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_FTyp(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_MVhd(const char*, uint8_t*, int*, int, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_TKhd(const char*, uint8_t*, int*, int, int, int, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_MDhd(const char*, uint8_t*, int*, uint16_t) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_MDhdEx(const char*, uint8_t*, int*, uint16_t, uint32_t) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_HDlr(const char*, uint8_t*, int*, uint8_t) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_VMhd(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_SMhd(const char*, uint8_t*, int*, int16_t) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_DInf(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_EDts(const char*, uint8_t*, int*, uint32_t, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_STts(const char*, uint8_t*, int*, bool) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_CTts(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_STss(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_STsc(const char*, uint8_t*, int*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_STsz(const char*, uint8_t*, int*, bool) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_STco(const char*, uint8_t*, int*, bool) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_FrameVideo(const char*, uint8_t*, int*, const uint8_t*, int, int64_t, int, int, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_FrameAccessUnit(const char*, uint8_t*, int*, const uint8_t* const*, const int*, int, int64_t, int, int, int) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_FrameAudio(const char*, uint8_t*, int*, const uint8_t*, int, int64_t, int) { return false; }
