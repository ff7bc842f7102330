// The boxlane program: `boxlane mux` writes H.264/AAC elementary streams into
// an MP4 file, `boxlane probe` shows what the parser reads from one,
// `boxlane remux` writes one again in another form.
#include "tools/commands.hpp"

#include <cstdio>
#include <cstring>

namespace {

void usage(std::FILE* out) {
  std::fputs(
      "usage: boxlane <command> [options]\n"
      "\n"
      "commands:\n"
      "  mux     write H.264 (Annex B) and AAC (ADTS) elementary streams into an MP4 file\n"
      "  probe   read an MP4 file or stream and show its file type, movie, tracks and tables\n"
      "  remux   write an MP4 file again, progressive or fragmented, without re-encoding\n"
      "\n"
      "Run 'boxlane <command> --help' for the options of a command.\n",
      out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  const char* command = argv[1];
  if (!std::strcmp(command, "--help") || !std::strcmp(command, "-h") || !std::strcmp(command, "help")) {
    usage(stdout);
    return 0;
  }
  if (!std::strcmp(command, "mux")) return boxlane::tool::mux_main(argc - 1, argv + 1);
  if (!std::strcmp(command, "probe")) return boxlane::tool::probe_main(argc - 1, argv + 1);
  if (!std::strcmp(command, "remux")) return boxlane::tool::remux_main(argc - 1, argv + 1);
  std::fprintf(stderr, "boxlane: unknown command '%s'\n\n", command);
  usage(stderr);
  return 2;
}
