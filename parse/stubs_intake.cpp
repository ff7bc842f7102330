// Scaffolding: replaced member by member as the room is built.
#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"
CBoxlane_Parse::CBoxlane_Parse() = default;
CBoxlane_Parse::~CBoxlane_Parse() = default;
bool CBoxlane_Parse::Boxlane_Parse_Init(int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Destory() { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Insert(const char*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Delete(const char*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Send(const char*, const uint8_t*, int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Build(QORVANE_MP4PARSE*, const uint8_t*, int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_GetPool(int, QORVANE_RENDAVO_TASKEVENT***, int*) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_WaitEvent(int, int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_ActiveEvent(int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Packet(QORVANE_MP4PARSE*, const uint8_t*, int) { return false; }
bool CBoxlane_Parse::Boxlane_Parse_Recv(const char*, QORVANE_MP4HDR*, uint64_t*) { return false; }
