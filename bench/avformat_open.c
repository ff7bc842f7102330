/* Opens a file with libavformat and does nothing else: avformat_open_input
 * reads the moov and builds libavformat's index of every sample, which is
 * the work Boxlane's parser is compared with. Prints the index entries and
 * the time the call took; compare.sh also times the whole process.
 *
 * usage: avformat_open FILE */
#define _POSIX_C_SOURCE 199309L
#include <libavformat/avformat.h>

#include <stdio.h>
#include <time.h>

static double now_ms(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}

int main(int argc, char** argv) {
  AVFormatContext* ctx = NULL;
  double start, took;
  unsigned long entries = 0;
  unsigned i;
  int err;
  if (argc != 2) {
    fprintf(stderr, "usage: %s FILE\n", argv[0]);
    return 2;
  }
  start = now_ms();
  err = avformat_open_input(&ctx, argv[1], NULL, NULL);
  took = now_ms() - start;
  if (err < 0) {
    fprintf(stderr, "%s: %s\n", argv[1], av_err2str(err));
    return 1;
  }
  for (i = 0; i < ctx->nb_streams; ++i) entries += (unsigned long)avformat_index_get_entries_count(ctx->streams[i]);
  printf("%u streams, %lu index entries, %.3f ms\n", ctx->nb_streams, entries, took);
  avformat_close_input(&ctx);
  return 0;
}
