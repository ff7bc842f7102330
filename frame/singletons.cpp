// Both singletons live in this one translation unit so their order is fixed:
// the parser is built first and, as the C++ runtime destroys in reverse
// order, the writer is destroyed first.
#include <boxlane/boxlane.hpp>

CBoxlane_Parse m_MP4Parse;
CBoxlane_Packet m_MP4Packet;
