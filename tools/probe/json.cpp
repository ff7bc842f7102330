#include "platform/byte_order.hpp"
#include "tools/common/json_writer.hpp"
#include "tools/common/names.hpp"
#include "tools/probe/report.hpp"

#include <algorithm>
#include <span>

namespace boxlane::tool {
namespace {

void write_strings(JsonWriter& json, std::string_view name, const std::vector<std::string>& items) {
  json.key(name);
  json.begin_array();
  for (const auto& item : items) json.string(item);
  json.end_array();
}

void write_hex_list(JsonWriter& json, std::string_view name, const std::vector<std::span<const uint8_t>>& list) {
  json.key(name);
  json.begin_array();
  for (const auto unit : list) json.string(hex_bytes(unit.data(), unit.size()));
  json.end_array();
}

// The hvcC record (ISO/IEC 14496-15 §8.3.3.1), field by field.
void write_hevc(JsonWriter& json, const BOXLANE_HEVCINFO& h) {
  json.member("width", uint32_t{h.wWidth});
  json.member("height", uint32_t{h.wHeight});
  json.member("configuration_version", uint32_t{h.byConfigurationVersion});
  json.member("profile_space", uint32_t{h.byProfileSpace});
  json.member("tier", uint32_t{h.byTier});
  json.member("tier_name", h.byTier ? "High" : "Main");
  json.member("profile", uint32_t{h.byProfile});
  json.member("profile_name", hevc_profile_name(h.byProfile, h.nCompatibilityFlags));
  json.member("compatibility", h.nCompatibilityFlags);
  uint8_t constraints[6];
  for (int i = 0; i < 6; ++i) constraints[i] = static_cast<uint8_t>(h.nConstraintFlags >> (40 - 8 * i));
  json.member("constraints", hex_bytes(constraints, sizeof constraints));
  json.member("level", uint32_t{h.byLevel});
  json.member("level_name", hevc_level_name(h.byLevel));
  json.member("chroma_format", uint32_t{h.byChromaFormat});
  json.member("chroma_format_name", chroma_format_name(h.byChromaFormat));
  json.member("bit_depth", uint32_t{h.byBitDepthLuma});
  json.member("bit_depth_chroma", uint32_t{h.byBitDepthChroma});
  json.member("min_spatial_segmentation", uint32_t{h.wMinSpatialSegmentation});
  json.member("parallelism_type", uint32_t{h.byParallelismType});
  json.member("temporal_layers", uint32_t{h.byNumTemporalLayers});
  json.member("temporal_id_nested", h.byTemporalIdNested != 0);
  json.member("nal_length_size", uint32_t{h.byNALLengthSize});
  const ProbeHevcUnits units = split_hevc_units(h);
  write_hex_list(json, "vps", units.vps);
  write_hex_list(json, "sps", units.sps);
  write_hex_list(json, "pps", units.pps);
  write_hex_list(json, "other_units", units.other);
}

void write_codec(JsonWriter& json, const ProbeTrack& track) {
  json.key("codec");
  if (!track.codec) {
    json.null();
    return;
  }
  const BOXLANE_CODECINFO& c = *track.codec;
  const std::string fourcc = track.codec_fourcc();
  json.begin_object();
  json.member("fourcc", fourcc);
  json.member("data_reference_index", uint32_t{c.wDataRefIndex});
  if (fourcc == "avc1") {
    json.member("width", uint32_t{c.wWidth});
    json.member("height", uint32_t{c.wHeight});
    json.member("profile", uint32_t{c.byProfile});
    json.member("profile_name", avc_profile_name(c.byProfile, c.byCompatibility));
    json.member("compatibility", uint32_t{c.byCompatibility});
    json.member("level", uint32_t{c.byLevel});
    json.member("level_name", avc_level_name(c.byLevel, c.byProfile, c.byCompatibility));
    json.member("nal_length_size", uint32_t{c.byNALLengthSize});
    const ProbeParameterSets sets = split_parameter_sets(c);
    write_hex_list(json, "sps", sets.sps);
    write_hex_list(json, "pps", sets.pps);
  } else if (track.hevc) {
    write_hevc(json, *track.hevc);
  } else if (fourcc == "mp4a") {
    json.member("channels", uint32_t{c.wChannelCount});
    json.member("sample_size", uint32_t{c.wSampleSize});
    json.member("sample_rate", c.nSampleRate);
    json.member("object_type_indication", uint32_t{c.byObjectType});
    json.member("stream_type", uint32_t{c.byStreamType});
    json.member("buffer_size", c.nBufferSizeDB);
    json.member("max_bitrate", c.nMaxBitrate);
    json.member("avg_bitrate", c.nAvgBitrate);
    const auto length = static_cast<std::size_t>(std::clamp<int32_t>(c.nAudioCfgLen, 0, static_cast<int32_t>(sizeof c.byAudioCfg)));
    json.member("audio_specific_config", hex_bytes(c.byAudioCfg, length));
    if (track.audio.valid) {
      json.member("audio_object_type", track.audio.object_type);
      json.member("audio_object_name", aac_object_name(track.audio.object_type));
      json.member("config_sample_rate", track.audio.sample_rate);
      json.member("config_channels", track.audio.channel_config);
    }
  }
  json.member("truncated", c.bTruncated || (track.hevc && track.hevc->bTruncated));
  json.end_object();
}

// A table stays on one line: rows are what a script reads, and an hour of
// samples is a few hundred thousand of them.
template <typename Rows>
void write_table(JsonWriter& json, std::string_view name, const Rows& rows, int columns) {
  json.key(name);
  json.table(rows, columns, [](const auto& row, int i) { return column(row, i); });
}

void write_tables(JsonWriter& json, const ProbeTables& t) {
  json.key("tables");
  json.begin_object();
  write_table(json, "stts", t.stts, 2);
  write_table(json, "ctts", t.ctts, 2);
  write_table(json, "stsc", t.stsc, 3);
  write_table(json, "stsz", t.stsz, 1);
  write_table(json, "stco", t.stco, 1);
  json.key("stss");
  json.begin_array(true);
  for (const int32_t number : t.stss) json.number(number);
  json.end_array();
  json.key("sdtp");
  json.table(t.sdtp, 1, [](uint8_t flags, int) { return uint32_t{flags}; });
  json.end_object();
}

// Equal-length arrays, one element per sample in decode order: what a script
// loads into columns.
void write_samples(JsonWriter& json, const std::vector<IndexSample>& samples) {
  json.key("samples");
  json.begin_object();
  const std::size_t n = samples.size();
  json.key("decode_time");
  json.column(n, [&](std::size_t i) { return samples[i].decode; });
  json.key("composition_time");
  json.column(n, [&](std::size_t i) { return samples[i].composition; });
  json.key("duration");
  json.column(n, [&](std::size_t i) { return samples[i].duration; });
  json.key("size");
  json.column(n, [&](std::size_t i) { return samples[i].size; });
  json.key("offset");
  json.column(n, [&](std::size_t i) { return samples[i].offset; });
  json.key("sync");
  json.column(n, [&](std::size_t i) { return samples[i].sync; });
  json.end_object();
}

void write_track(JsonWriter& json, const ProbeTrack& track, bool samples) {
  const ProbeFacts& f = track.facts;
  json.begin_object();
  json.member("id", track.unsigned_id());
  json.member("complete", f.missing.empty());
  write_strings(json, "missing", f.missing);
  json.member("handler", track.handler());
  json.member("handler_name", track.handler_name());
  write_codec(json, track);
  json.member("timescale", track.mdhd.nTimeScale);
  json.member("duration", track.mdhd.nDuration);
  json.member("duration_seconds", f.duration_seconds);
  json.member("language", language_text(track.mdhd.wLanguage));
  json.member("width", track.tkhd.nWidth);
  json.member("height", track.tkhd.nHeight);
  // Every sample: the moov's and the fragments'.
  json.member("sample_count", f.samples);
  json.member("table_samples", f.sample_count);
  json.member("fragment_samples", f.fragment_samples);
  json.member("track_fragments", track.fragments.fragments);
  json.member("key_frames", f.key_frames);
  json.member("all_sync", f.all_sync);
  json.member("sample_bytes", f.sample_bytes);
  json.member("frame_rate", f.frame_rate);
  json.member("bit_rate", f.bit_rate);
  json.member("table_duration", f.table_duration);

  json.key("consistency");
  json.begin_object();
  json.member("consistent", f.problems.empty());
  json.member("stts_samples", f.sample_count);
  json.member("stsz_samples", f.stsz_count);
  json.member("stco_chunks", f.chunk_count);
  json.member("chunk_samples", f.chunk_samples);
  write_strings(json, "problems", f.problems);
  write_strings(json, "notes", f.notes);
  json.end_object();

  json.key("tkhd");
  json.begin_object(true);
  json.member("creation_time", track.tkhd.nCreateTime);
  json.member("modification_time", track.tkhd.nModifyTime);
  json.member("duration", track.tkhd.nDuration);
  json.member("layer", uint32_t{track.tkhd.wLayer});
  json.member("alternate_group", uint32_t{track.tkhd.wAlternateGroup});
  json.member("volume", uint32_t{track.tkhd.wVolume});
  json.end_object();
  json.key("mdhd");
  json.begin_object(true);
  json.member("creation_time", track.mdhd.nCreateTime);
  json.member("modification_time", track.mdhd.nModifyTime);
  json.member("language_code", uint32_t{track.mdhd.wLanguage});
  json.end_object();
  json.key("media_header");
  json.begin_object(true);
  json.member("graphics_mode", uint32_t{track.media_header.wGraphicsMode});
  json.key("opcolor");
  json.begin_array(true);
  for (const uint16_t v : track.media_header.wOpColor) json.number(uint32_t{v});
  json.end_array();
  json.member("balance", uint32_t{track.media_header.wBalance});
  json.end_object();

  write_tables(json, track.tables);
  if (track.tables.stsz.empty() && track.index.nConstantSize) {
    json.key("constant_sample_size");
    json.begin_object(true);
    json.member("size", track.index.nConstantSize);
    json.member("count", track.index.nConstantCount);
    json.end_object();
  }
  if (samples) write_samples(json, track.samples);
  json.end_object();
}

}  // namespace

bool write_json_report(const ProbeReport& report, std::FILE* sink, bool samples) {
  JsonWriter json(sink);
  json.begin_object();
  json.member("stream_bytes", report.stream_bytes);
  json.member("mode", std::string_view(report.strict ? "strict" : "extended"));
  // Whether every figure below is the whole file's; `missing` says what is
  // not, and each track says so again for itself.
  json.member("complete", report.complete());
  write_strings(json, "missing", report.missing);
  json.member("form", file_form(report));
  json.member("fragments", report.stream.nFragments);
  json.member("large_boxes", report.stream.nLargeBoxes);
  json.key("stream_stop");
  if (const std::string stop = stream_stop(report); stop.empty()) {
    json.null();
  } else {
    json.begin_object();
    json.member("offset", report.stream.nStopOffset);
    json.member("box", printable_text(report.stream.tszStopType, 4));
    json.member("why", stop);
    json.end_object();
  }

  json.key("file_type");
  if (report.refused_brands) {
    // Not read: `missing` says why.
    json.begin_object();
    json.key("major_brand");
    json.null();
    json.key("minor_version");
    json.null();
    json.key("compatible_brands");
    json.null();
    json.member("brand_count", report.refused_brands);
    json.end_object();
  } else if (report.have_ftyp) {
    json.begin_object();
    json.member("major_brand", report.major_brand);
    json.member("minor_version", report.minor_version);
    json.key("compatible_brands");
    json.begin_array(true);
    for (const auto& brand : report.compatible_brands) json.string(brand);
    json.end_array();
    json.end_object();
  } else {
    json.null();
  }

  json.key("movie");
  if (report.have_mvhd) {
    const QORVANE_HDRMVHD& m = report.mvhd;
    json.begin_object();
    json.member("timescale", m.nTimeScale);
    json.member("duration", m.nDuration);
    json.member("duration_seconds",
                m.nTimeScale ? static_cast<double>(m.nDuration) / m.nTimeScale : std::nan(""));
    json.member("rate", m.nRate);
    json.member("volume", uint32_t{m.wVolume});
    json.member("next_track_id", m.nNextTrackID);
    json.member("creation_time", m.nCreateTime);
    json.member("modification_time", m.nModifyTime);
    json.end_object();
  } else {
    json.null();
  }

  json.key("tracks");
  json.begin_array();
  for (const auto& track : report.tracks) write_track(json, track, samples);
  json.end_array();
  json.member("unlisted_tracks", report.unlisted_tracks);

  json.key("boxes");
  json.begin_array();
  walk_boxes(report, [&](const ProbeBox& box) {
    const QORVANE_MP4HDR& h = box.header;
    json.begin_object(true);
    json.member("type", std::string(box_name(h.enHType)));
    json.member("code", static_cast<int32_t>(h.enHType));
    json.member("offset", box.offset);
    json.member("size", h.nBoxSize);
    json.member("depth", box.depth);
    if (is_full_box(h.enHType)) {
      json.member("version", uint32_t{h.byVersion});
      json.member("flags", uint32_t{h.byFlags[0]} << 16 | uint32_t{h.byFlags[1]} << 8 | h.byFlags[2]);
    }
    // The two bytes are stored as they stand in the file: read big-endian, as every field of the box, they give
    // the same number on any host.
    if (h.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UUID)
      json.member("uuid_head", uint32_t{Olbrant_Endain_ntohs(h.wUUIDHead)});
    json.end_object();
  });
  json.end_array();
  json.end_object();
  json.flush();
  return json.ok();
}

}  // namespace boxlane::tool
