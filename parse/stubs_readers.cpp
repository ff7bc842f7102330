// Scaffolding: replaced member by member as the room is built.
#include <boxlane/boxlane.hpp>

bool CBoxlane_Parse::Boxlane_Parse_FTyp(QORVANE_MP4PARSE*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_MVhd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_TKhd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_MDhd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_HDlr(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_VMhd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_SMhd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Dinf(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STsd(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STts(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_CTts(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STsc(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STsz(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STco(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_STss(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_SDtp(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t) { return false; }
int CBoxlane_Parse::Boxlane_Parse_DescriptorLen(const uint8_t*, int*) { return 0; }
bool CBoxlane_Parse::Boxlane_Parse_GetFTyp(const char*, QORVANE_HDRFTYP*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetMVhd(const char*, QORVANE_HDRMVHD*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrack(const char*, int*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrackInfo(const char*, int, QORVANE_HDRTKHD*, QORVANE_HDRMDHD*, QORVANE_HDRHDLR*, QORVANE_HDRVMSMHD*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrackList(const char*, int, QORVANE_HDRSAMPLENFO***, int*, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrackKey(const char*, int, int***, int*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrackSDtp(const char*, int, QORVANE_HDRSDTP***, int*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetTrackCodec(const char*, int, BOXLANE_CODECINFO*) { return false; }
