#include "tools/remux/source.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "tools/common/tool_error.hpp"
#include "tools/common/parse_input.hpp"
#include "tools/common/names.hpp"
#include "tools/common/parse_session.hpp"

namespace boxlane::tool {
namespace {

constexpr char kClient[] = "boxlane-remux";
// Read, not mapped: the samples are copied from a mapping of their own,
// whose pages are let go as the copy moves on.
constexpr uint32_t kPiece = 64u << 10;

std::string field(const char* text, std::size_t size) { return std::string(text, strnlen(text, size)); }

[[noreturn]] void query_failed(const std::string& what) {
  const uint64_t code = Boxlane_GetLastError(nullptr);
  throw ToolError(what + " failed: " + hex_code(code) + " " + error_name(code));
}

// The parser client and its task pool, gone however the read ends.
class ParseClient {
 public:
  ParseClient() {
    if (!Boxlane_Parse_Init(1)) query_failed("starting the parser");
    if (!Boxlane_Parse_InsertEx(kClient, BOXLANE_PARSE_EXTENDED)) {
      Boxlane_Parse_Destory();
      query_failed("a parser client");
    }
  }
  ~ParseClient() {
    Boxlane_Parse_Delete(kClient);
    Boxlane_Parse_Destory();
  }
  ParseClient(const ParseClient&) = delete;
  ParseClient& operator=(const ParseClient&) = delete;
};

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// Fills codec, config/hevc and, when the writer cannot describe the track,
// why not.
void describe(SourceTrack& t) {
  auto config = std::make_shared<BOXLANE_CODECINFO>();
  if (!Boxlane_Parse_GetTrackCodec(kClient, t.id, config.get())) query_failed("the codec of track " + std::to_string(t.id));
  t.fourcc = field(config->tszCodec, sizeof config->tszCodec);
  const std::string four = lower(t.fourcc);
  if (t.handler == "vide" && (four == "avc1" || four == "avc3")) {
    t.codec = SourceCodec::kH264;
    t.config = config;
    if (four == "avc3") {
      // The library hands out the avcC of avc1 entries only; an avc3 stream may
      // also carry its parameter sets in the samples (ISO/IEC 14496-15 §5.3.2).
      t.unsupported = "it is an avc3 entry, whose avcC the reader does not take (avc1 only)";
    } else if (config->bTruncated) {
      t.unsupported = "its avcC holds more parameter sets than the reader keeps (" +
                      std::to_string(BOXLANE_CODEC_MAX_PARAMSETS) + " of each kind, " +
                      std::to_string(BOXLANE_CODEC_PARAMSET_BYTES) + " bytes)";
    } else if (config->nSPSCount < 1 || config->nPPSCount < 1 || config->wSPSLen[0] < 4 ||
               std::count(config->wSPSLen, config->wSPSLen + config->nSPSCount, 0) ||
               std::count(config->wPPSLen, config->wPPSLen + config->nPPSCount, 0)) {
      t.unsupported = "its avcC holds " + std::to_string(config->nSPSCount) + " SPS and " +
                      std::to_string(config->nPPSCount) +
                      " PPS; the writer needs one of each at least, none empty, the first SPS of 4 bytes or more";
    } else if (config->byNALLengthSize != 4) {
      t.unsupported = "its samples have " + std::to_string(config->byNALLengthSize) +
                      "-byte NAL unit lengths; the writer's avcC declares 4";
    }
  } else if (t.handler == "vide" && (four == "hvc1" || four == "hev1")) {
    t.codec = SourceCodec::kH265;
    t.sets_in_samples = four == "hev1";
    auto hevc = std::make_shared<BOXLANE_HEVCINFO>();
    if (!Boxlane_Parse_GetTrackHEVC(kClient, t.id, hevc.get())) query_failed("the hvcC of track " + std::to_string(t.id));
    t.hevc = hevc;
    if (hevc->byConfigurationVersion == 0 || hevc->nNaluCount == 0 || hevc->bTruncated) {
      t.unsupported = "its hvcC holds no parameter sets the writer can copy";
    } else if (hevc->byNALLengthSize != 4) {
      t.unsupported = "its samples have " + std::to_string(hevc->byNALLengthSize) +
                      "-byte NAL unit lengths; the writer's hvcC declares 4";
    }
  } else if (t.handler == "soun" && four == "mp4a") {
    t.codec = SourceCodec::kAac;
    t.config = config;
    // ISO/IEC 14496-1 Table 5: 0x40 is MPEG-4 audio, 0x66 to 0x68 the AAC
    // profiles of MPEG-2; other values (0x69, 0x6B: MP3) are not AAC.
    const uint8_t type = config->byObjectType;
    if (type != 0x40 && (type < 0x66 || type > 0x68)) {
      t.codec = SourceCodec::kOther;
      char text[64];
      std::snprintf(text, sizeof text, "its mp4a entry holds object type 0x%02X, not AAC", type);
      t.unsupported = text;
    } else if (config->nAudioCfgLen <= 0 || config->bTruncated) {
      t.unsupported = "its esds has no AudioSpecificConfig";
    } else if (config->nSampleRate > 0xFFFF) {
      t.unsupported = "its sample rate " + std::to_string(config->nSampleRate) +
                      " Hz does not fit the 16-bit field the writer fills";
    }
  } else {
    t.unsupported = "the writer describes H.264, H.265 and AAC tracks only";
  }
}

}  // namespace

std::string codec_name(const SourceTrack& t) {
  switch (t.codec) {
    case SourceCodec::kH264: return "H.264";
    case SourceCodec::kH265: return "H.265";
    case SourceCodec::kAac: return "AAC";
    case SourceCodec::kOther: break;
  }
  std::string four = t.fourcc;
  four.resize(4, '\0');  // a track without a sample entry has none
  std::string name(1, '\'');
  name += printable_text(four.data());
  return name += '\'';
}

Source read_source(const std::string& path, const uint8_t* data, std::size_t size) {
  ParseInput input;
  if (!input.open(path, false)) throw ToolError(input.error());
  ParseClient client;
  SessionResult session = run_session(kClient, 1, input, PieceSizes::fixed(kPiece), true);
  if (!session.ok) throw ToolError(session.error);

  BOXLANE_STREAMINFO stream{};
  if (!Boxlane_Parse_GetStream(kClient, &stream)) query_failed("the stream query");
  // The parser stopped at a box it declines (a size below its header, a box
  // over its limit): what follows was not read, and a remux would lose it.
  if (session.stop_code) {
    throw ToolError("the parser stopped at the box at byte " + std::to_string(stream.nStopOffset) + " (" +
                    hex_code(session.stop_code) + " " + error_name(session.stop_code) +
                    "); remux writes only what it has read whole");
  }
  if (stream.nDroppedFragments) {
    throw ToolError(std::to_string(stream.nDroppedFragments) + " track fragments were released before they were read");
  }
  QORVANE_HDRMVHD mvhd{};
  if (!Boxlane_Parse_GetMVhd(kClient, &mvhd) || mvhd.nTimeScale == 0) {
    throw ToolError("no movie header (moov/mvhd): not an MP4 file, or a fragment without its movie");
  }
  Source source;
  source.movie_timescale = mvhd.nTimeScale;
  source.fragmented = stream.nFragments > 0;
  const auto edits = read_edit_lists(data, size);

  int32_t** ids = nullptr;
  int32_t count = 0;
  if (!Boxlane_Parse_GetTrackIDs(kClient, &ids, &count)) query_failed("the track list");
  std::vector<int32_t> track_ids;
  for (int32_t i = 0; i < count; ++i) track_ids.push_back(*ids[i]);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ids), count);

  for (const int32_t id : track_ids) {
    SourceTrack t;
    t.id = id;
    QORVANE_HDRTKHD tkhd{};
    QORVANE_HDRMDHD mdhd{};
    QORVANE_HDRHDLR hdlr{};
    if (!Boxlane_Parse_GetTrackInfo(kClient, id, &tkhd, &mdhd, &hdlr, nullptr)) {
      query_failed("the headers of track " + std::to_string(t.unsigned_id()));
    }
    t.handler = field(hdlr.tszHandlerType, sizeof hdlr.tszHandlerType);
    t.timescale = mdhd.nTimeScale;
    t.language = mdhd.wLanguage;
    t.width = static_cast<uint32_t>(std::max(tkhd.nWidth, 0));
    t.height = static_cast<uint32_t>(std::max(tkhd.nHeight, 0));
    describe(t);
    if (t.timescale == 0 && t.unsupported.empty()) t.unsupported = "its mdhd has no time scale";
    BOXLANE_TRACKINDEX index{};
    if (!Boxlane_Parse_GetTrackIndex(kClient, id, &index))
      query_failed("the index of track " + std::to_string(t.unsigned_id()));
    std::string error;
    if (!fetch_table_samples(kClient, id, index.nTableSamples, t.samples, error)) throw ToolError(error);
    const auto fragments = session.fragments.tracks.find(id);
    if (fragments != session.fragments.tracks.end()) {
      if (fragments->second.problems) {
        char text[160];
        std::snprintf(text, sizeof text, "the track fragments of track %u are damaged (problems 0x%02X)",
                      t.unsigned_id(), fragments->second.problems);
        throw ToolError(text);
      }
      t.samples.insert(t.samples.end(), fragments->second.samples.begin(), fragments->second.samples.end());
    }
    for (const IndexSample& s : t.samples) {
      if (s.offset > size || s.size > size - s.offset) {
        throw ToolError("a sample of track " + std::to_string(t.unsigned_id()) + " at offset " + std::to_string(s.offset) +
                        " lies past the end of the input (" + std::to_string(size) + " bytes): truncated?");
      }
    }
    const auto list = edits.find(static_cast<uint32_t>(id));
    if (list != edits.end()) t.edits = list->second;
    source.tracks.push_back(std::move(t));
  }
  return source;
}

}  // namespace boxlane::tool
