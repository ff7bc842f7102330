/* The public header as a C99 caller sees it: it compiles with -std=c99
 * -pedantic, its records have the sizes callers rely on, and the shared
 * library answers through it, with the last error as C callers read it. */
#include <boxlane/boxlane.h>

#include <errno.h>
#include <stddef.h>
#include <stdio.h>

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
  CHECK(Boxlane_Packet_FTyp("c99", box, &size) && Boxlane_Parse_Insert("c99"));
  CHECK(Boxlane_Parse_Send("c99", box, size) && Boxlane_Parse_Recv("c99", &hdr, &position));
  CHECK(hdr.nBoxSize == 32 && position == 32 && Boxlane_Parse_Delete("c99"));
  CHECK(Boxlane_Packet_Delete("c99"));
  CHECK(!Boxlane_Packet_FTyp("c99", box, &size) && Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_NOTFOUND);

  if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
