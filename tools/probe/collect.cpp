// Asks the parser, through its public queries only, for everything it
// stored about the stream.
#include "tools/probe/model.hpp"
#include "tools/common/names.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <span>
#include <type_traits>

namespace boxlane::tool {
namespace {

const BOXLANE_CODECINFO kNoCodec{};

std::string field_text(const char* field, std::size_t size) {
  return std::string(field, strnlen(field, size));
}

std::string query_error(const std::string& what, int32_t track) {
  const uint64_t code = Boxlane_GetLastError(nullptr);
  return what + (track >= 0 ? " of track " + std::to_string(track) : std::string()) + " failed: " +
         hex_code(code) + " " + error_name(code);
}

// Every query array is made by Fundrel_Memory_Malloc: count pointers to
// blocks of one element each (a brand row is 8 bytes); the caller releases it.
template <typename Element, typename List, typename Convert>
void take_array(Element** list, int32_t count, List& out, Convert convert) {
  if (list && count > 0) {
    out.reserve(static_cast<std::size_t>(count));
    for (const Element* element : std::span(list, static_cast<std::size_t>(count))) out.push_back(convert(element));
  }
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
}

// One table through GetTrackList, each row cut down to the row type.
template <typename Row, typename Allocator>
bool fetch_table(const char* client, ProbeTrack& track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code,
                 std::vector<Row, Allocator>& out, std::string& error) {
  QORVANE_HDRSAMPLENFO** list = nullptr;
  int32_t count = 0;
  if (!Boxlane_Parse_GetTrackList(client, track.id, &list, &count, code)) {
    error = query_error(std::string("the ") + std::string(box_name(code)) + " table", track.id);
    return false;
  }
  take_array(list, count, out, [](const QORVANE_HDRSAMPLENFO* e) {
    if constexpr (std::is_same_v<Row, uint32_t>) return e->nValue1;
    else if constexpr (std::is_same_v<Row, ProbeRun>) return ProbeRun{e->nValue1, e->nValue2};
    else return *e;
  });
  return true;
}

bool fetch_tables(const char* client, ProbeTrack& track, std::string& error) {
  ProbeTables& t = track.tables;
  if (!fetch_table(client, track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS, t.stts, error) ||
      !fetch_table(client, track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS, t.ctts, error) ||
      !fetch_table(client, track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC, t.stsc, error) ||
      !fetch_table(client, track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ, t.stsz, error) ||
      !fetch_table(client, track, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO, t.stco, error))
    return false;
  int32_t** keys = nullptr;
  int32_t key_count = 0;
  if (!Boxlane_Parse_GetTrackKey(client, track.id, &keys, &key_count)) {
    error = query_error("the stss table", track.id);
    return false;
  }
  take_array(keys, key_count, t.stss, [](const int32_t* v) { return *v; });
  QORVANE_HDRSDTP** flags = nullptr;
  int32_t flag_count = 0;
  if (!Boxlane_Parse_GetTrackSDtp(client, track.id, &flags, &flag_count)) {
    error = query_error("the sdtp table", track.id);
    return false;
  }
  take_array(flags, flag_count, t.sdtp, [](const QORVANE_HDRSDTP* v) { return v->bySampleFlags; });
  return true;
}

}  // namespace

std::string ProbeTrack::handler() const { return field_text(hdlr.tszHandlerType, sizeof hdlr.tszHandlerType); }
std::string ProbeTrack::handler_name() const { return field_text(hdlr.tszName, sizeof hdlr.tszName); }
std::string ProbeTrack::codec_fourcc() const {
  return codec ? field_text(codec->tszCodec, sizeof codec->tszCodec) : std::string();
}

bool ProbeTrack::is_hevc() const {
  std::string fourcc = codec_fourcc();
  std::transform(fourcc.begin(), fourcc.end(), fourcc.begin(), [](unsigned char c) { return std::tolower(c); });
  return fourcc == "hvc1" || fourcc == "hev1";
}

void place_records(ProbeReport& report, std::deque<BOXLANE_BOXINFO> records, const RecordSummary& summary) {
  report.boxes = std::move(records);
  report.records = summary;
  report.have_ftyp = summary.ftyp;
  report.have_mvhd = summary.mvhd;
}

bool collect_report(const char* client, ProbeReport& report, FragmentLog fragments, bool samples, std::string& error) {
  if (!Boxlane_Parse_GetStream(client, &report.stream)) {
    error = query_error("the stream query", -1);
    return false;
  }

  // ISO/IEC 14496-12 §4.3: 16 bytes of header, brand and version, then
  // four bytes a brand.
  const uint64_t ftyp_size = report.records.largest_ftyp;
  if (ftyp_size > 16 + 4 * kMaxBrands) {
    report.refused_brands = (ftyp_size - 16) / 4;
  } else {
    QORVANE_HDRFTYP ftyp{};
    if (!Boxlane_Parse_GetFTyp(client, &ftyp)) {
      error = query_error("the file type query", -1);
      return false;
    }
    report.major_brand = field_text(ftyp.tszMajorBrand, sizeof ftyp.tszMajorBrand);
    report.minor_version = ftyp.nMinorVersion;
    take_array(ftyp.pptszCompatibleBrand, ftyp.nBrandCount, report.compatible_brands,
               [](const char* row) { return field_text(row, 8); });
  }

  if (!Boxlane_Parse_GetMVhd(client, &report.mvhd)) {
    error = query_error("the movie header query", -1);
    return false;
  }

  // Every track id, in both modes; GetTrack names only ids 0 to 9.
  int32_t** ids = nullptr;
  int32_t id_count = 0;
  if (!Boxlane_Parse_GetTrackIDs(client, &ids, &id_count)) {
    error = query_error("the track id query", -1);
    return false;
  }
  std::shared_ptr<BOXLANE_CODECINFO> codec;  // the next query's answer
  std::vector<int32_t> track_ids;
  take_array(ids, id_count, track_ids, [](const int32_t* id) { return *id; });
  for (const int32_t id : track_ids) {
    ProbeTrack& track = report.tracks.emplace_back();
    track.id = id;
    if (id < 0 || id > 9) ++report.unlisted_tracks;
    if (!Boxlane_Parse_GetTrackInfo(client, id, &track.tkhd, &track.mdhd, &track.hdlr, &track.media_header) ||
        !Boxlane_Parse_GetTrackIndex(client, id, &track.index)) {
      error = query_error("the header query", id);
      return false;
    }
    if (!codec) codec = std::make_shared<BOXLANE_CODECINFO>();
    if (Boxlane_Parse_GetTrackCodec(client, id, codec.get())) {
      track.audio = read_audio_config(*codec);
      if (std::memcmp(codec.get(), &kNoCodec, sizeof kNoCodec) == 0) {
        track.codec = std::shared_ptr<const BOXLANE_CODECINFO>(std::shared_ptr<void>(), &kNoCodec);
      } else {
        track.codec = std::move(codec);
      }
    }
    if (track.is_hevc()) {
      auto hevc = std::make_unique<BOXLANE_HEVCINFO>();
      if (Boxlane_Parse_GetTrackHEVC(client, id, hevc.get())) track.hevc = std::move(hevc);
    }
    if (!fetch_tables(client, track, error)) return false;
    if (const auto taken = fragments.tracks.find(id); taken != fragments.tracks.end())
      track.fragments = std::move(taken->second);
    if (samples) {
      if (!fetch_table_samples(client, id, track.index.nTableSamples, track.samples, error)) return false;
      track.samples.insert(track.samples.end(), track.fragments.samples.begin(), track.fragments.samples.end());
    }
    track.facts = derive_facts(track, report.strict);
  }
  mark_missing(report);
  return true;
}

}  // namespace boxlane::tool
