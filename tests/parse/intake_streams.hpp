// Hand-built streams for the intake, splitter and cut tests: a movie with one
// video track holding every box the parser reads, wrapped in the top-level
// boxes a file carries around it.
#pragma once

#include "support/box_builder.hpp"

#include <string>

namespace boxlane::test {

inline Bytes movie_moov(const std::string& moov_fourcc = "moov") {
  Bytes mvhd, tkhd, mdhd, hdlr, stts, stss, ctts, stsc, stsz, stco, sdtp;
  mvhd.u32(0).u32(0).u32(1000).u32(200).u32(0x10000).u16(0x100).zeros(10).zeros(36).zeros(24).u32(2);
  tkhd.u32(0).u32(0).u32(1).u32(0).u32(200).zeros(8).zeros(8).zeros(36).u32(160u << 16).u32(120u << 16);
  mdhd.u32(0).u32(0).u32(12800).u32(2560).u16(0x55C4).u16(0);
  hdlr.u32(0).str("vide").zeros(12).str("VideoHandler").u8(0);
  stts.u32(1).u32(5).u32(512);
  stss.u32(1).u32(1);
  ctts.u32(2).u32(1).u32(1024).u32(4).u32(512);
  stsc.u32(1).u32(1).u32(5).u32(1);
  stsz.u32(0).u32(5).u32(900).u32(80).u32(70).u32(60).u32(50);
  stco.u32(1).u32(48);
  sdtp.u8(0x20).u8(0x10).u8(0x10).u8(0x10).u8(0x10);
  const Bytes avcc = box("avcC", Bytes{1, 0x42, 0xC0, 0x0D, 0xFF, 0xE1}
                                     .u16(4).u32(0x6742C00D).u8(1).u16(4).u32(0x68CE3C80));
  const Bytes avc1 = box("avc1", Bytes{}.zeros(6).u16(1).zeros(16).u16(160).u16(120).u32(0x480000).u32(0x480000)
                                     .u32(0).u16(1).zeros(32).u16(0x18).u16(0xFFFF).add(avcc));
  const Bytes stbl = box("stbl", cat({full_box("stsd", 0, 0, Bytes{}.u32(1).add(avc1)), full_box("stts", 0, 0, stts),
                                      full_box("stss", 0, 0, stss), full_box("ctts", 0, 0, ctts),
                                      full_box("stsc", 0, 0, stsc), full_box("stsz", 0, 0, stsz),
                                      full_box("stco", 0, 0, stco), full_box("sdtp", 0, 0, sdtp)}));
  const Bytes dinf = box("dinf", full_box("dref", 0, 0, Bytes{}.u32(1).add(full_box("url ", 0, 1))));
  const Bytes minf = box("minf", cat({full_box("vmhd", 0, 1, Bytes{}.zeros(8)), dinf, stbl}));
  const Bytes mdia = box("mdia", cat({full_box("mdhd", 0, 0, mdhd), full_box("hdlr", 0, 0, hdlr), minf}));
  const Bytes edts = box("edts", full_box("elst", 0, 0, Bytes{}.u32(1).u32(200).u32(1024).u32(0x10000)));
  const Bytes trak = box("trak", cat({full_box("tkhd", 0, 3, tkhd), edts, mdia}));
  // An unknown box with children: skipped whole, children included.
  const Bytes udta = box("udta", box("meta", box("hdlr", Bytes{}.zeros(24))));
  return box(moov_fourcc, cat({full_box("mvhd", 0, 0, mvhd), trak, udta}));
}

// The records of movie_moov, in stream order.
inline const std::vector<int> kMovieMoovCodes = {
    3,      30,     31,     311,    312,    3121,   313,    3131,   3132,   3133,   31331,
    31335,  31336,  313361, 313362, 313366, 313367, 313363, 313364, 313365, 313368, 0};

inline Bytes movie_ftyp() { return box("ftyp", Bytes{}.str("isom").u32(512).str("isomiso2avc1mp41")); }

// A uuid box whose two bytes after the fourcc are 0xAB 0xCD.
inline Bytes movie_uuid() { return box("uuid", Bytes{0xAB, 0xCD}.zeros(14).str("extension")); }

// ftyp, moov, free, uuid, mdat (with `payload` bytes), then a free box after
// the mdat that a sender reaches only by skipping the payload.
inline Bytes movie_file(std::size_t payload = 600, const std::string& moov_fourcc = "moov") {
  Bytes mdat_payload;
  // The payload looks like boxes, so a splitter that read into it would show.
  for (std::size_t i = 0; i + 8 <= payload; i += 8) mdat_payload.u32(8).str("ftyp");
  mdat_payload.zeros(payload % 8);
  return cat({movie_ftyp(), movie_moov(moov_fourcc), box("free", Bytes{}.zeros(5)), movie_uuid(),
              box("mdat", mdat_payload), box("free", Bytes{}.zeros(3))});
}

inline std::vector<int> movie_file_codes() {
  std::vector<int> codes{1};
  codes.insert(codes.end(), kMovieMoovCodes.begin(), kMovieMoovCodes.end());
  codes.insert(codes.end(), {0, 4, 2, 0});
  return codes;
}

}  // namespace boxlane::test
