/* The public header as a C99 caller sees it: it compiles with -std=c99
 * -pedantic, its records have the sizes callers rely on, and the shared
 * library answers through it. */
#include <boxlane/boxlane.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;
#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

int main(void) {
  uint8_t box[256];
  int32_t size = -1;

  CHECK(sizeof(tag_Qorvane_AVProtocol) == 2150);
  CHECK(offsetof(tag_Qorvane_AVProtocol, nVideoHdrLen) == 53);
  CHECK(offsetof(tag_Qorvane_AVProtocol, tszVideoHdr) == 57);
  CHECK(offsetof(tag_Qorvane_AVProtocol, nAudioChannel) == 1106);
  CHECK(offsetof(tag_Qorvane_AVProtocol, nAudioCfgLen) == 1122);
  CHECK(offsetof(tag_Qorvane_AVProtocol, tszAudioCfg) == 1126);
  CHECK(sizeof(QORVANE_HDRSAMPLENFO) == 12);
  CHECK(sizeof(QORVANE_RENDAVO_TASKEVENT) == 132);
  CHECK(offsetof(BOXLANE_HEVCINFO, nConstraintFlags) == 24);
  CHECK(offsetof(BOXLANE_HEVCINFO, nNaluCount) == 48);
  CHECK(offsetof(BOXLANE_HEVCINFO, byNalus) == 308);
  CHECK(sizeof(BOXLANE_HEVCINFO) == 16696);
  CHECK(sizeof(BOXLANE_SAMPLEINFO) == 40);
  CHECK(sizeof(BOXLANE_FRAGMENTINFO) == 72);
  CHECK(sizeof(BOXLANE_STREAMINFO) == 72);
  CHECK(sizeof(BOXLANE_TRACKINDEX) == 72);

  /* Right after loading: no failure recorded. */
  CHECK(!Boxlane_IsErrorOccur);
  CHECK(Boxlane_GetLastError(NULL) == 0);

  CHECK(!Boxlane_Packet_Insert(NULL));
  CHECK(Boxlane_IsErrorOccur);
  CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_PARAMETER);
  CHECK(Boxlane_Packet_Insert("c99"));
  CHECK(!Boxlane_IsErrorOccur);
  CHECK(Boxlane_dwErrorCode == BOXLANE_ERROR_PACKET_PARAMETER);

  CHECK(Boxlane_Packet_FTyp("c99", box, &size));
  CHECK(size == 32);
  CHECK(memcmp(box + 4, "ftypisom", 8) == 0);
  /* The 64-bit forms, through the shared library. */
  CHECK(Boxlane_Packet_HDRBox64("c99", box, &size, "mdat", UINT64_C(0xFFFFFFF0)));
  CHECK(size == 16);
  CHECK(memcmp(box, "\0\0\0\1mdat\0\0\0\1\0\0\0\0", 16) == 0);
  CHECK(Boxlane_Packet_STco64Size("c99", true, INT64_C(1) << 32, &size));
  CHECK(size == 16);
  {
    /* An SPS and a PPS listed for the avcC: 117 + (2 + 4) + (2 + 2) bytes. */
    static uint8_t stsd[160];
    const uint8_t sps[] = {0x67, 0x42, 0xC0, 0x1E}, pps[] = {0x68, 0xCE};
    const uint8_t* const sets[] = {sps, pps};
    const int32_t lengths[] = {4, 2};
    CHECK(Boxlane_Packet_STsdParamSets("c99", stsd, &size, sets, lengths, 2));
    CHECK(size == 127);
  }
  CHECK(!Boxlane_Packet_FTyp("nobody", box, &size));
  CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_NOTFOUND);
  CHECK(!Boxlane_Packet_STsdHEVC("c99", box, &size, box, 0));
  CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_PARAMETER);

  /* Fragment mode through the shared library: an audio track alone. */
  {
    const uint8_t frame[4] = {0x21, 0x10, 0x05, 0x00};
    uint8_t sample[4];
    int32_t header = -1, mfra = -1;
    int64_t media = -1;
    CHECK(!Boxlane_Packet_MVex("c99", box, &size, 0));
    CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_ORDER);
    CHECK(Boxlane_Packet_FragmentMode("c99", 0, 1, 0, BOXLANE_FRAGMENT_INDEX));
    CHECK(Boxlane_Packet_MVex("c99", box, &size, 0));
    CHECK(size == 40);
    CHECK(Boxlane_Packet_FrameAudio("c99", sample, &size, frame, 4, 0, 1024));
    CHECK(Boxlane_Packet_FragmentSize("c99", &header, &media, &mfra));
    CHECK(header == 24 + 44 + 20 + 8 + 8 && media == 4 && mfra == 24 + 24);
    CHECK(Boxlane_Packet_Fragment("c99", box, &size, 0));
    CHECK(size == header);
    CHECK(memcmp(box + 4, "moof", 4) == 0);
    CHECK(!Boxlane_Packet_Fragment("c99", box, &size, 0));
    CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PACKET_NODATA);
  }
  CHECK(Boxlane_Packet_Delete("c99"));

  CHECK(!Boxlane_Parse_Send("nobody", box, 8));
  CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PARSE_NOTFOUND);
  CHECK(!Boxlane_Parse_GetTrackHEVC("nobody", 1, NULL));
  CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PARSE_PARAMETER);

  {
    /* The extended mode: a 64-bit mdat header is followed and reported. */
    static const uint8_t large_mdat[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't', 0, 0, 0, 1, 0, 0, 0, 16};
    QORVANE_MP4HDR hdr;
    BOXLANE_STREAMINFO stream;
    BOXLANE_FRAGMENTINFO fragment;
    int32_t count = -1;
    CHECK(!Boxlane_Parse_InsertEx("c99-ext", 2));
    CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PARSE_PARAMETER);
    CHECK(Boxlane_Parse_InsertEx("c99-ext", BOXLANE_PARSE_EXTENDED));
    /* A bound of a few KiB still takes an mdat header: its payload is never held. */
    CHECK(Boxlane_Parse_SetLimit(4096));
    CHECK(Boxlane_Parse_Send("c99-ext", large_mdat, 16));
    CHECK(Boxlane_Parse_SetLimit(0));
    CHECK(Boxlane_Parse_Recv("c99-ext", &hdr, NULL));
    CHECK(hdr.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT && hdr.nBoxSize == 0x100000010ull);
    CHECK(Boxlane_Parse_GetStream("c99-ext", &stream));
    CHECK(stream.nFlags == BOXLANE_PARSE_EXTENDED && stream.nLargeBoxes == 1 && stream.nParsePos == 0x100000010ull);
    CHECK(!Boxlane_Parse_GetFragment("c99-ext", &fragment, NULL, 0, &count));
    CHECK(Boxlane_GetLastError(NULL) == BOXLANE_ERROR_PARSE_NODATA);
    CHECK(Boxlane_Parse_Delete("c99-ext"));
  }

  if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
