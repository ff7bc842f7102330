// `boxlane probe`: reads an MP4 file or stream the way a network receiver
// would, through the parser road of the public interface, and shows what the
// parser found.
#include "tools/commands.hpp"
#include "tools/common/parse_input.hpp"
#include "tools/probe/report.hpp"
#include "tools/common/parse_session.hpp"

#include <boxlane/boxlane.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace boxlane::tool {
namespace {

constexpr const char* kUsage =
    "usage: boxlane probe [--piece N | --random-pieces MAX --seed S] [--pools N]\n"
    "                     [--strict] [--json] [--tables] [--samples] [--boxes] FILE|-\n"
    "\n"
    "Reads an MP4 file (or standard input, '-') in pieces, hands them to the stream\n"
    "parser and shows the file type, the movie and every track: codec, size, time\n"
    "scale, duration, samples, key frames, frame rate, bit rate, and whether the\n"
    "sample tables agree with each other. mdat payloads are skipped, never parsed.\n"
    "The parser client follows 64-bit box sizes, reads co64 and stz2 tables and\n"
    "movie fragments (moof), so samples count fragments too; the report names the\n"
    "file's form (progressive, fragmented) and says where and why reading stopped.\n"
    "A box of size 0 runs to the end of the input: probe stops reading there.\n"
    "\n"
    "  --piece N              send N bytes at a time (default: a file is mapped and\n"
    "                         sent in pieces of up to 64 MiB, standard input in\n"
    "                         pieces of 65536 bytes)\n"
    "  --random-pieces MAX    read pieces of 1 to MAX bytes, sizes drawn from --seed\n"
    "  --seed S               seed for --random-pieces (default 1)\n"
    "  --pools N              task pools for the parser's events (default 1)\n"
    "  --strict               insert the parser client in the basic mode: no 64-bit\n"
    "                         sizes, co64, stz2 or fragments (the report marks what is left)\n"
    "  --tables               also print every track's raw sample tables\n"
    "  --samples              also list every sample: decode and composition time,\n"
    "                         duration, size, offset and sync flag (in JSON, a\n"
    "                         \"samples\" object of equal-length arrays per track)\n"
    "  --boxes                also print the box tree the parser walked\n"
    "  --json                 print everything, tables and boxes included, as JSON\n"
    "\n"
    "Where the parser's rules keep values from the report (it stopped at a box, or\n"
    "--strict leaves fragments, co64 or stz2 tables unread), the report says so at\n"
    "the top and at each track it touches: INCOMPLETE and 'missing:' lines, and in\n"
    "JSON \"complete\": false with a \"missing\" list.\n"
    "\n"
    "Exit status: 0 when the report was printed, whole or with every gap marked;\n"
    "1 when the stream could not be read (the message names the parser's error code\n"
    "and the byte offset) or no movie header was read; 2 for bad usage.\n";

// A mapped file is sent in pieces this large: a movie header that fits in
// one is split where it lies, with no copy into the reassembly buffer, and
// the mdat payloads inside a piece are stepped over without being read.
constexpr uint64_t kMaxPiece = 64u << 20;
constexpr uint64_t kStreamPiece = 65536;
// The most a file's parser client may hold: this, and so much per byte of
// the file.
constexpr uint64_t kBoundBase = 16u << 20;
constexpr uint64_t kBoundPerByte = 4;

struct Options {
  uint64_t piece = 0;  // 0: the default for the input
  uint64_t random_max = 0;
  uint64_t seed = 1;
  uint64_t pools = 1;
  bool json = false;
  bool strict = false;
  TextOptions text;
  std::string path;
};

bool parse_number(const char* text, uint64_t low, uint64_t high, uint64_t& out) {
  const std::string_view s(text);
  const auto done = std::from_chars(s.data(), s.data() + s.size(), out);
  return done.ec == std::errc() && done.ptr == s.data() + s.size() && out >= low && out <= high;
}

int usage_error(const std::string& message) {
  std::fprintf(stderr, "boxlane probe: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

// 0 when parsed, else the exit status to return at once.
int parse_options(int argc, char** argv, Options& o) {
  bool have_seed = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg(argv[i]);
    auto value = [&](uint64_t low, uint64_t high, uint64_t& out) {
      if (i + 1 >= argc || !parse_number(argv[i + 1], low, high, out)) return false;
      ++i;
      return true;
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return -1;
    }
    if (arg == "--json") o.json = true;
    else if (arg == "--tables") o.text.tables = true;
    else if (arg == "--samples") o.text.samples = true;
    else if (arg == "--strict") o.strict = true;
    else if (arg == "--boxes") o.text.boxes = true;
    else if (arg == "--piece") {
      if (!value(1, kMaxPiece, o.piece)) return usage_error("--piece needs a size from 1 to " + std::to_string(kMaxPiece));
    } else if (arg == "--random-pieces") {
      if (!value(1, kMaxPiece, o.random_max))
        return usage_error("--random-pieces needs a size from 1 to " + std::to_string(kMaxPiece));
    } else if (arg == "--seed") {
      if (!value(0, UINT64_MAX, o.seed)) return usage_error("--seed needs a number");
      have_seed = true;
    } else if (arg == "--pools") {
      if (!value(1, 64, o.pools)) return usage_error("--pools needs a count from 1 to 64");
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usage_error("unknown option " + std::string(arg));
    } else if (o.path.empty()) {
      o.path = arg;
    } else {
      return usage_error("one input only");
    }
  }
  if (o.path.empty()) return usage_error("no input given (a file name, or - for standard input)");
  if (have_seed && !o.random_max) return usage_error("--seed goes with --random-pieces");
  return 0;
}

int fail(const std::string& source, const std::string& message) {
  std::fprintf(stderr, "boxlane probe: %s: %s\n", source.c_str(), message.c_str());
  return 1;
}

int probe(const Options& o) {
  ParseInput input;
  if (!input.open(o.path)) return fail(o.path, input.error());
  if (!Boxlane_Parse_Init(static_cast<int32_t>(o.pools))) {
    const uint64_t code = Boxlane_GetLastError(nullptr);
    return fail(input.name(), "the parser's task pool could not be made (code " + std::to_string(code) + ")");
  }
  static constexpr char kClient[] = "boxlane-probe";
  // The parser may hold a few times what it reads: tables as stored, a box
  // being put together, its records. What it holds past that comes from a
  // hostile shape (a track record per tkhd box, a brand list the size of the
  // file): the bound stops the stream there, and the report says where. An
  // input of unknown size (a pipe) keeps the parser's default.
  if (const uint64_t size = input.file_size(); size > 0) Boxlane_Parse_SetLimit(kBoundBase + kBoundPerByte * size);
  Boxlane_Parse_InsertEx(kClient, o.strict ? 0 : BOXLANE_PARSE_EXTENDED);
  const PieceSizes sizes = o.random_max ? PieceSizes::random(static_cast<uint32_t>(o.random_max), o.seed)
                                        : PieceSizes::fixed(static_cast<uint32_t>(
                                              o.piece ? o.piece : input.mapped() ? kMaxPiece : kStreamPiece));
  // The box list is kept only where it is shown.
  SessionResult session =
      run_session(kClient, static_cast<int>(o.pools), input, sizes, !o.strict, o.json || o.text.boxes);

  int status = 0;
  ProbeReport report;
  std::string error;
  if (!session.ok) {
    status = fail(input.name(), session.error);
  } else if (session.stream_bytes == 0) {
    status = fail(input.name(), "empty input");
  } else {
    report.stream_bytes = session.stream_bytes;
    place_records(report, std::move(session.records), session.summary);
    report.strict = o.strict;
    report.stop_code = session.stop_code;
    report.stopped_box_ends_input = session.stopped_box_ends_input;
    if (!collect_report(kClient, report, std::move(session.fragments), o.text.samples, error))
      status = fail(input.name(), error);
    else if (!report.have_mvhd)
      status = fail(input.name(), "no movie header (moov/mvhd) in " + std::to_string(session.stream_bytes) +
                                      " bytes: not an MP4 file, or a fragment without its movie" +
                                      (stream_stop(report).empty() ? "" : "; " + stream_stop(report)));
  }
  Boxlane_Parse_Delete(kClient);
  Boxlane_Parse_Destory();
  if (status) return status;

  bool written = true;
  if (o.json) {
    written = write_json_report(report, stdout, o.text.samples);
  } else {
    const std::string out = text_report(report, input.name(), o.text);
    written = std::fwrite(out.data(), 1, out.size(), stdout) == out.size();
  }
  if (std::fflush(stdout) != 0 || !written) return fail(input.name(), "cannot write the report");
  return 0;
}

}  // namespace

int probe_main(int argc, char** argv) {
  try {
    Options options;
    const int parsed = parse_options(argc, argv, options);
    if (parsed < 0) return 0;
    if (parsed > 0) return parsed;
    return probe(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "boxlane probe: %s\n", e.what());
    return 1;
  }
}

}  // namespace boxlane::tool
