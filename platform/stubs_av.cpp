// Scaffolding: replaced as the platform layer is built.
#include "platform/adts.hpp"
#include "platform/sanvik.hpp"
bool Sanvik_Parse_SPSInfo(const uint8_t*, int, uint8_t*) { return false; }
bool Sanvik_Parse_VideoHdr(const uint8_t*, int, int, int, uint8_t*, uint8_t*, uint8_t*, uint8_t*, int*, int*, int*, int*) { return false; }
bool Sanvik_Parse_AACInfo(const uint8_t*, int, int*, int*, int*, int*) { return false; }
namespace boxlane {
bool parse_adts(const uint8_t*, std::size_t, AdtsHeader&) noexcept { return false; }
void audio_specific_config(const AdtsHeader&, uint8_t*) noexcept {}
}
