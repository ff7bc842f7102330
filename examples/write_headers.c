/* Writes the header boxes of a one-track movie with the Boxlane writer and
 * prints each box as hex. Plain C99 against the installed library:
 *
 *   cc -std=c99 write_headers.c $(pkg-config --cflags --libs boxlane)
 */
#include <boxlane/boxlane.h>

#include <stdio.h>

static void dump(const char* name, const uint8_t* box, int32_t size) {
  printf("%-5s %3d bytes:", name, (int)size);
  for (int32_t i = 0; i < size; ++i) printf("%s%02X", (i % 16) ? " " : "\n  ", box[i]);
  printf("\n");
}

static int fail(const char* what) {
  fprintf(stderr, "%s failed: error 0x%08llX\n", what, (unsigned long long)Boxlane_GetLastError(NULL));
  return 1;
}

int main(void) {
  const char* client = "example";
  uint8_t box[256];
  int32_t size = 0;

  if (!Boxlane_Packet_Insert(client)) return fail("Boxlane_Packet_Insert");

  if (!Boxlane_Packet_FTyp(client, box, &size)) return fail("FTyp");
  dump("ftyp", box, size);
  if (!Boxlane_Packet_MVhd(client, box, &size, 10000, 1000)) return fail("MVhd");
  dump("mvhd", box, size);
  if (!Boxlane_Packet_TKhd(client, box, &size, 0, 1280, 720, 10000)) return fail("TKhd");
  dump("tkhd", box, size);
  /* "und" packed as three 5-bit letters (ISO/IEC 14496-12 §8.4.2.3). */
  if (!Boxlane_Packet_MDhd(client, box, &size, 0x55C4)) return fail("MDhd");
  dump("mdhd", box, size);
  if (!Boxlane_Packet_HDlr(client, box, &size, 0)) return fail("HDlr");
  dump("hdlr", box, size);
  if (!Boxlane_Packet_VMhd(client, box, &size)) return fail("VMhd");
  dump("vmhd", box, size);
  if (!Boxlane_Packet_DInf(client, box, &size)) return fail("DInf");
  dump("dinf", box, size);

  Boxlane_Packet_Delete(client);
  return 0;
}
