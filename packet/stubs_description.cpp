// Scaffolding: replaced member by member as the room is built.
#include <boxlane/boxlane.hpp>

bool CBoxlane_Packet::Boxlane_Packet_STsd(const char*, uint8_t*, int*, const tag_Qorvane_AVProtocol*) { return false; }
bool CBoxlane_Packet::Boxlane_Packet_DescriptorLen(uint8_t*, int*, int) { return false; }
