/* The public header as a C99 caller sees it: it compiles with -std=c99
 * -pedantic, its records have the sizes callers rely on, and the shared
 * library answers through it, with the last error as C callers read it. */
#include <boxlane/boxlane.h>

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;
static void check(int ok, int line, const char* what) {
  failures += !ok;
  if (!ok) fprintf(stderr, "%s:%d: %s\n", __FILE__, line, what);
}
#define CHECK(cond) check(cond, __LINE__, #cond)

int main(void) {
  uint8_t box[256];
  int32_t size = -1, sys = -1;
  uint64_t position = 0;
  QORVANE_MP4HDR hdr;
  BOXLANE_BOXINFO place;
  static const uint8_t large_mdat[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't', 0, 0, 0, 1, 0, 0, 0, 16};

  CHECK(sizeof(tag_Qorvane_AVProtocol) == 2150);
  CHECK(offsetof(tag_Qorvane_AVProtocol, tszAudioCfg) == 1126);
  CHECK(sizeof(QORVANE_HDRSAMPLENFO) == 12);
  CHECK(sizeof(QORVANE_RENDAVO_TASKEVENT) == 132);
  CHECK(offsetof(BOXLANE_HEVCINFO, byNalus) == 308);
  CHECK(sizeof(BOXLANE_HEVCINFO) == 16696);
  CHECK(sizeof(BOXLANE_SAMPLEINFO) == 40);
  CHECK(sizeof(BOXLANE_FRAGMENTINFO) == 72);
  CHECK(sizeof(BOXLANE_STREAMINFO) == 72);
  CHECK(sizeof(BOXLANE_BOXINFO) == 40 && offsetof(BOXLANE_BOXINFO, nOffset) == 24);
  CHECK(sizeof(BOXLANE_TRACKINDEX) == 72);

  /* Right after loading: no failure recorded. */
  CHECK(!Boxlane_IsErrorOccur && Boxlane_dwErrorCode == 0);
  CHECK(!Boxlane_Packet_Insert(NULL));
  errno = EACCES;
  CHECK(Boxlane_IsErrorOccur && Boxlane_GetLastError(&sys) == BOXLANE_ERROR_PACKET_PARAMETER && sys == EACCES);
  CHECK(Boxlane_Packet_Insert("c99"));
  CHECK(!Boxlane_IsErrorOccur && Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_PARAMETER);
  CHECK(Boxlane_Packet_HDRBox64("c99", box, &size, "mdat", UINT64_C(0xFFFFFFF0)));
  CHECK(size == 16 && memcmp(box, "\0\0\0\1mdat\0\0\0\1\0\0\0\0", 16) == 0);
  CHECK(Boxlane_Packet_FragmentMode("c99", 0, 1, 0, BOXLANE_FRAGMENT_INDEX));
  CHECK(Boxlane_Packet_MVex("c99", box, &size, 0) && size == 40);
  CHECK(Boxlane_Packet_Delete("c99"));
  CHECK(!Boxlane_Packet_FTyp("c99", box, &size) && Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_NOTFOUND);

  /* The extended parse mode: a 64-bit mdat header is followed and reported. */
  CHECK(Boxlane_Parse_InsertEx("c99-ext", BOXLANE_PARSE_EXTENDED));
  CHECK(Boxlane_Parse_Send("c99-ext", large_mdat, 16));
  CHECK(Boxlane_Parse_Recv("c99-ext", &hdr, &position));
  CHECK(hdr.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT && hdr.nBoxSize == 0x100000010ull);
  CHECK(position == 0x100000010ull);
  CHECK(Boxlane_Parse_Send("c99-ext", large_mdat, 16) && Boxlane_Parse_RecvEx("c99-ext", &place, NULL));
  CHECK(place.stHdr.nBoxSize == 0x100000010ull && place.nOffset == 0x100000010ull && place.nHeaderLen == 16);
  CHECK(Boxlane_Parse_Delete("c99-ext") && !Boxlane_IsErrorOccur);
  CHECK(!Boxlane_Parse_Recv("c99-ext", &hdr, NULL) && Boxlane_IsErrorOccur);

  if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
