// The parser's answers to hand-written boxes, as text. Each row feeds its boxes to one box reader (in an allocation
// of exactly their size, so the address sanitizer sees any read past the end) or whole streams through
// Boxlane_Parse_Send; then one dumper prints everything the queries answer for the row's client, one line an answer
// (none where every value is 0), with what no query shows: version and flags taken into the header record, the
// current track, list capacity reserved past the entries, the parameter sets the record keeps. Rows of "every prefix"
// give a box's reader each length of its payload in turn and show at which length each answer comes. The expected text,
// tests/data/parse_answers.txt, was read line by line against ISO/IEC 14496-12, 14496-1 and 14496-15 when written.
// After a change meant to alter an answer, BOXLANE_UPDATE_ANSWERS=1 writes it anew: read its diff before committing.
#include "parse_fixtures.hpp"

#include <cctype>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;
using Reader = bool (P::*)(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t);
const std::pair<std::string_view, Reader> kReaders[] = {
    {"mvhd", &P::Boxlane_Parse_MVhd}, {"tkhd", &P::Boxlane_Parse_TKhd}, {"mdhd", &P::Boxlane_Parse_MDhd},
    {"hdlr", &P::Boxlane_Parse_HDlr}, {"vmhd", &P::Boxlane_Parse_VMhd}, {"smhd", &P::Boxlane_Parse_SMhd},
    {"dinf", &P::Boxlane_Parse_Dinf}, {"stsd", &P::Boxlane_Parse_STsd}, {"stts", &P::Boxlane_Parse_STts},
    {"ctts", &P::Boxlane_Parse_CTts}, {"stsc", &P::Boxlane_Parse_STsc}, {"stsz", &P::Boxlane_Parse_STsz},
    {"stz2", &P::Boxlane_Parse_STz2}, {"stco", &P::Boxlane_Parse_STco}, {"co64", &P::Boxlane_Parse_CO64},
    {"sdtp", &P::Boxlane_Parse_SDtp}, {"trex", &P::Boxlane_Parse_TRex}, {"mehd", &P::Boxlane_Parse_MEhd},
    {"stss", &P::Boxlane_Parse_STss}, {"moof", &P::Boxlane_Parse_MOof}};

std::string fmt(const char* format, auto... values) {
  char line[512];
  std::snprintf(line, sizeof line, format, values...);
  return line;
}
// Bytes in hex, or characters quoted; a run of more than four equal ones as byte*count or c{count}.
std::string runs(std::string_view s, bool text = false) {
  std::string out = text ? "\"" : "";
  for (std::size_t i = 0, j; i < s.size(); i = j) {
    for (j = i; j < s.size() && s[j] == s[i]; ++j) {}
    if (text) out += j - i > 4 ? fmt("%c{%zu}", s[i], j - i) : std::string(s.substr(i, j - i));
    else out.append(i ? " " : "").append(j - i > 4 ? fmt("%02X*%zu", uint8_t(s[i]), j - i) : hex(reinterpret_cast<const uint8_t*>(&s[i]), j - i));
  }
  return out + (text ? "\"" : "");
}
std::string runs(const uint8_t* p, std::size_t n) { return runs(std::string_view(reinterpret_cast<const char*>(p), n)); }
std::string chars(std::string_view s) { return runs(s, true); }
std::string named(uint64_t code) {
  const char* names[] = {"ok", "PARAMETER", "MALLOC", "NOTFOUND", "NODATA", "NOTREADY", "NOTSUPPORT", "MALFORMED"};
  return code == 0 || (code > 0x091B0000 && code < 0x091B0008) ? names[code ? code - 0x091B0000 : 0] : fmt("%llX", code);
}
std::string result(bool ok) {
  return ok ? "ok" : named(Boxlane_GetLastError(nullptr)) + std::string(Boxlane_IsErrorOccur ? "" : " unflagged");
}
// Named values, names ending in # in hex and in - signed, as a line; none when every value is 0.
std::string line(const std::string& head, std::string_view names, std::initializer_list<uint64_t> values, const std::string& tail = "") {
  std::string out = head;
  for (const uint64_t v : values) {
    const std::string_view name = names.substr(0, names.find(' '));
    names.remove_prefix(std::min(names.size(), name.size() + 1));
    const char* form = name.ends_with('#') ? " %.*s 0x%llX" : name.ends_with('-') ? " %.*s %lld" : " %.*s %llu";
    out += fmt(form, int(name.size() - name.ends_with('#') - name.ends_with('-')), name.data(), (unsigned long long)v);
  }
  return std::all_of(values.begin(), values.end(), [](uint64_t v) { return v == 0; }) && tail.empty() ? "" : out + tail + "\n";
}

// The codec query's answer as one line, sets and configuration in hex, with the sets the record keeps.
std::string codec_text(const BOXLANE_CODECINFO& c, const BOXLANE_TRACKCODEC& kept) {
  std::string sets;
  for (int i = 0, at = 0; i < c.nSPSCount + c.nPPSCount; at += i < c.nSPSCount ? c.wSPSLen[i] : c.wPPSLen[i - c.nSPSCount], ++i)
    sets += (i == c.nSPSCount ? " | " : " ") + runs(c.byParamSets + at, i < c.nSPSCount ? c.wSPSLen[i] : c.wPPSLen[i - c.nSPSCount]) + ";";
  return fmt("  codec %s ref %u %ux%u avc %u/%u/%u len %u sets", c.tszCodec, c.wDataRefIndex, c.wWidth, c.wHeight,
             c.byProfile, c.byCompatibility, c.byLevel, c.byNALLengthSize) + sets +
         fmt(" audio %uch %ubit %uHz oti %u st %u buf %u max %u avg %u asc ", c.wChannelCount, c.wSampleSize, c.nSampleRate,
             c.byObjectType, c.byStreamType, c.nBufferSizeDB, c.nMaxBitrate, c.nAvgBitrate) +
         runs(c.byAudioCfg, std::size_t(c.nAudioCfgLen)) + (c.bTruncated ? " cut" : "") +
         fmt(" kept %zu+%zu\n", kept.stl_ListSPS.size(), kept.stl_ListPPS.size());
}

std::string dump_track(const char* c, int32_t id, const BOXLANE_TRACKINFO& track) {
  QORVANE_HDRTKHD t{};
  QORVANE_HDRMDHD m{};
  QORVANE_HDRHDLR h{};
  QORVANE_HDRVMSMHD v{};
  const std::string found = fmt("track %d: ", id) + result(Boxlane_Parse_GetTrackInfo(c, id, &t, &m, &h, &v));
  std::string out = line(found, "id- created# modified# duration# width- height- layer group volume#",
                         {uint64_t(t.nTrackID), t.nCreateTime, t.nModifyTime, t.nDuration, uint64_t(t.nWidth),
                          uint64_t(t.nHeight), t.wLayer, t.wAlternateGroup, t.wVolume});
  out += line("  mdhd", "created# modified# scale duration# language#", {m.nCreateTime, m.nModifyTime, m.nTimeScale, m.nDuration, m.wLanguage});
  out += h.tszHandlerType[0] || h.tszName[0] ? "  hdlr " + chars(h.tszHandlerType) + " " + chars(h.tszName) + "\n" : "";
  out += line("  vmhd", "mode# red# green# blue# balance#", {v.wGraphicsMode, v.wOpColor[0], v.wOpColor[1], v.wOpColor[2], v.wBalance});
  std::string dref;
  for (const std::string& location : track.stl_ListDinf) dref += " " + chars(location);
  out += dref.empty() ? "" : "  dref" + dref + "\n";
  // Every list code with its entries; the codes of no table write nothing.
  const std::tuple<const char*, int32_t, int> codes[] = {
      {"stts", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS, 2}, {"ctts", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS, 2},
      {"stsc", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC, 3}, {"stsz", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ, 1},
      {"stco", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO, 1}, {"co64", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64, 1},
      {"stss code", ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, 0}, {"code 99999", 99999, 0}};
  for (const auto& [name, code, fields] : codes) {
    QORVANE_HDRSAMPLENFO** list = nullptr;
    int32_t n = -7;
    const bool ok = Boxlane_Parse_GetTrackList(c, id, &list, &n, static_cast<ENUM_QORVANE_MORVALY_BOXLANE_HTYPE>(code));
    if (ok && (fields ? n == 0 : n == -7 && !list)) continue;
    out += fmt("  %s: ", name) + result(ok) + (n == -7 ? " count untouched" : "");
    for (const QORVANE_HDRSAMPLENFO& e : take_list(list, std::max(n, 0))) {
      const int shown = e.nValue3 ? 3 : e.nValue2 ? std::max(fields, 2) : fields;
      out += fmt(" %u", e.nValue1) + (shown > 1 ? fmt(":%u", e.nValue2) : "") + (shown > 2 ? fmt(":%u", e.nValue3) : "");
    }
    out += "\n";
  }
  // The tables are reserved exactly: no capacity past their fields.
  const auto spare = [](const auto&... lists) { return ((lists.capacity() - lists.size()) + ...); };
  const std::size_t room = spare(track.stl_ListSTts.fields, track.stl_ListCTts.fields, track.stl_ListSTsc.fields,
                                 track.stl_ListSTsz.fields, track.stl_ListSTco.fields, track.stl_ListCO64.fields, track.stl_ListSDtp);
  out += room ? fmt("  spare %zu fields\n", room) : "";
  int32_t n = 0, **keys = nullptr;
  QORVANE_HDRSDTP** sdtp = nullptr;
  std::string list;
  if (Boxlane_Parse_GetTrackKey(c, id, &keys, &n))
    for (const int32_t key : take_list(keys, n)) list += fmt(" %d", key);
  out += list.empty() ? "" : "  stss" + list + "\n";
  list.clear();
  if (Boxlane_Parse_GetTrackSDtp(c, id, &sdtp, &n))
    for (const QORVANE_HDRSDTP f : take_list(sdtp, n)) list += fmt(" %02X", f.bySampleFlags);
  out += list.empty() ? "" : "  sdtp" + list + "\n";
  BOXLANE_CODECINFO codec, zero{};
  std::memset(&codec, 0xCD, sizeof codec);
  const std::string answer = Boxlane_Parse_GetTrackCodec(c, id, &codec) ? codec_text(codec, track.stCodec) : "  codec " + result(false) + "\n";
  out += answer == codec_text(zero, {}) ? "" : answer;
  BOXLANE_HEVCINFO x;
  std::memset(&x, 0xCD, sizeof x);
  if (!Boxlane_Parse_GetTrackHEVC(c, id, &x) || x.tszCodec[0] == 'h') {
    std::string units;
    for (int i = 0, at = 0; i < x.nNaluCount; at += x.wNaluLen[i++])
      units += fmt(" %u%s:", x.byNaluType[i], x.byArrayComplete[i] ? "c" : "") + runs(x.byNalus + at, x.wNaluLen[i]) + ";";
    out += line(fmt("  hevc %s %ux%u", x.tszCodec, x.wWidth, x.wHeight),
                "version space tier profile compat# constraint# level segment# parallel chroma luma chroma fps constant "
                "layers nested length cut units", {x.byConfigurationVersion, x.byProfileSpace, x.byTier, x.byProfile,
                x.nCompatibilityFlags, x.nConstraintFlags, x.byLevel, x.wMinSpatialSegmentation, x.byParallelismType,
                x.byChromaFormat, x.byBitDepthLuma, x.byBitDepthChroma, x.wAvgFrameRate, x.byConstantFrameRate,
                x.byNumTemporalLayers, x.byTemporalIdNested, x.byNALLengthSize, x.bTruncated, uint64_t(x.nNaluCount)}, units);
  }
  BOXLANE_TRACKINDEX i{};
  const std::string indexed = "  index " + result(Boxlane_Parse_GetTrackIndex(c, id, &i));
  out += line(indexed,
              "samples duration constant count sizes chunks large compact field trex description duration size flags# "
              "fragments samples end", {i.nTableSamples, i.nTableDuration, i.nConstantSize, i.nConstantCount, i.nSizeCount,
              i.nChunkCount, i.bLargeOffsets, i.bCompactSizes, i.byCompactFieldSize, i.bHasTrex, i.nTrexDescriptionIndex,
              i.nTrexDuration, i.nTrexSize, i.nTrexFlags, i.nTrackFragments, i.nFragmentSamples, i.nFragmentEnd});
  // Windows of two from every start, backwards, then of one from every other start, each past where the one before
  // ended, agree with one read from the first; that read comes last, so the walk ends after the last sample.
  const std::vector<BOXLANE_SAMPLEINFO> all = table_samples(c, id);
  std::vector<std::pair<uint32_t, int>> windows;  // first, length
  for (uint32_t first = uint32_t(all.size()); first-- > 0;) windows.emplace_back(first, 2);
  for (uint32_t first = 0; first < all.size(); first += 2) windows.emplace_back(first, 1);
  for (const auto& [first, length] : windows) {
    BOXLANE_SAMPLEINFO two[2];
    const bool ok = Boxlane_Parse_GetTrackSamples(c, id, first, two, length, &n);
    if (!ok || n != std::min(length, int(all.size() - first)) || text(two[0]) != text(all[first]))
      out += fmt("  window from %u: %s %d ", first, result(ok).c_str(), n) + text(two[0]) + "\n";
  }
  for (const BOXLANE_SAMPLEINFO& sample : table_samples(c, id)) out += "  " + text(sample) + "\n";
  return out;
}

std::string dump(const std::string& client) {
  const char* c = client.c_str();
  QORVANE_HDRFTYP f{};
  std::memset(f.tszMajorBrand, 'X', sizeof f.tszMajorBrand - 1);  // the whole field is written, its NUL too
  std::string out = "ftyp " + result(Boxlane_Parse_GetFTyp(c, &f));
  out += " " + chars(f.tszMajorBrand) + fmt(" %X", f.nMinorVersion);
  for (int i = 0; i < f.nBrandCount; ++i) out.append(" ").append(chars(f.pptszCompatibleBrand[i]));
  Fundrel_Memory_Free(reinterpret_cast<void***>(&f.pptszCompatibleBrand), f.nBrandCount);
  out = out == "ftyp ok \"\" 0" ? "" : out + "\n";
  QORVANE_HDRMVHD m{};
  const std::string got = "mvhd " + result(Boxlane_Parse_GetMVhd(c, &m));
  out += line(got, "created# modified# scale duration# rate# volume# next",
              {m.nCreateTime, m.nModifyTime, m.nTimeScale, m.nDuration, m.nRate, m.wVolume, m.nNextTrackID});
  BOXLANE_STREAMINFO s{};
  const std::string streamed = "stream " + result(Boxlane_Parse_GetStream(c, &s));
  out += line(streamed, "mode# stop at position mehd moofs large pending dropped skipped outside mvex styp sidx mfra",
              {s.nFlags, s.nStop, s.nStopOffset, s.nParsePos, s.nFragmentDuration, s.nFragments, s.nLargeBoxes,
               s.nPendingFragments, s.nDroppedFragments, s.nSkippedTrafs, s.nOutsideData, s.bMovieExtends, s.bSegmentType,
               s.bSegmentIndex, s.bRandomAccess}, s.tszStopType[0] ? " type " + chars(s.tszStopType) : "");
  for (const Fragment& f : take_fragments(client)) {
    const BOXLANE_FRAGMENTINFO& i = f.info;
    out += line("fragment", "track- sequence moof size base data end samples traf tfhd# description problems# tfdt",
                {uint64_t(i.nTrackID), i.nSequence, i.nMoofOffset, i.nMoofSize, i.nBaseDecodeTime, i.nDataStart, i.nDataEnd,
                 i.nSampleCount, i.nTrafIndex, i.nTfhdFlags, i.nDescriptionIndex, i.nProblems, i.bHasTfdt});
    for (const BOXLANE_SAMPLEINFO& sample : f.samples) out += "  " + text(sample) + "\n";
  }
  int32_t slots[10], count = 0, **ids = nullptr;
  std::fill(std::begin(slots), std::end(slots), -7);
  std::string text = "slots " + result(Boxlane_Parse_GetTrack(c, slots));
  for (const int32_t s : slots) text += s == -7 ? " ." : fmt(" %d", s);
  out += text == "slots ok . . . . . . . . . ." ? "" : text + "\n";
  text = "ids " + result(Boxlane_Parse_GetTrackIDs(c, &ids, &count));
  const std::vector<int32_t> listed = take_list(ids, count);
  for (const int32_t id : listed) text += fmt(" %d", id);
  out += text == "ids ok" ? "" : text + "\n";
  for (const int32_t id : listed) out += dump_track(c, id, record_of(client)->stl_MapTrack->at(id));
  return out;
}

// Calls that fail, as their error code, and what they leave untouched.
std::string refusals(const char* c) {
  int32_t n = -7;
  QORVANE_HDRTKHD tkhd{0, 0, 0, 99, 0, 0, 0, 0, 0}, alone;
  BOXLANE_CODECINFO codec;
  BOXLANE_HEVCINFO hevc;
  const uint8_t byte = 5;
  std::string out = "< ids(null) " + result(Boxlane_Parse_GetTrackIDs(c, nullptr, &n));
  out += ", info(absent) " + result(Boxlane_Parse_GetTrackInfo(c, 12345, &tkhd, nullptr, nullptr, nullptr));
  out += fmt(" id %d, codec(absent) ", tkhd.nTrackID) + result(Boxlane_Parse_GetTrackCodec(c, 12345, &codec));
  out += ", hevc(absent) " + result(Boxlane_Parse_GetTrackHEVC(c, 12345, &hevc));
  out += ", info(1, tkhd alone) " + result(Boxlane_Parse_GetTrackInfo(c, 1, &alone, nullptr, nullptr, nullptr));
  QORVANE_HDRMDHD mdhd;
  out += ", info(1, mdhd alone) " + result(Boxlane_Parse_GetTrackInfo(c, 1, nullptr, &mdhd, nullptr, nullptr));
  out += ", hevc(1, null) " + result(Boxlane_Parse_GetTrackHEVC(c, 1, nullptr));
  out += ", samples(1, null, 0) " + result(Boxlane_Parse_GetTrackSamples(c, 1, 0, nullptr, 0, &n));
  out += fmt(" %d, samples(1, null, 1) ", n);
  out += result(Boxlane_Parse_GetTrackSamples(c, 1, 0, nullptr, 1, &n));
  out += ", samples(absent) " + result(Boxlane_Parse_GetTrackSamples(c, 12345, 0, nullptr, 0, &n));
  out += ", descriptor(count null) " + result(m_MP4Parse.Boxlane_Parse_DescriptorLen(&byte, nullptr) != 0);
  n = -7;
  out += ", descriptor(bytes null) " + result(m_MP4Parse.Boxlane_Parse_DescriptorLen(nullptr, &n) != 0);
  BOXLANE_MSGBUFFER entry{};
  int refused = !m_MP4Parse.Boxlane_Parse_FTyp(nullptr, &byte, 1);
  for (const auto& [name, read] : kReaders) refused += !(m_MP4Parse.*read)(nullptr, &entry, &byte, 1);
  out += fmt(" count %d, readers of a null record refused %d;", n, refused);
  // Called without a header record, each reader still reads: version 1 and flags 7, on track 1 from the tkhd on.
  const std::string scratch = std::string(c) + "/no header record";
  const Bytes made = tkhd_payload(1), full = Bytes{}.full(1, 7);
  int took = Boxlane_Parse_Insert(scratch.c_str()) ? 0 : -100;
  for (const auto& [name, read] : kReaders) {
    const Bytes& payload = name == "tkhd" ? made : full;
    took += (m_MP4Parse.*read)(record_of(scratch), nullptr, payload.data(), payload.size());
  }
  out += fmt(" readers without a header record took %d, track %d;", took, record_of(scratch)->nCurrentTrack);
  Boxlane_Parse_Delete(scratch.c_str());
  out += " null outputs, bad sizes, names and pools; what GetFragment, Insert, GetStream, Send and Recv refuse:";
  QORVANE_HDRSAMPLENFO** list = nullptr;
  QORVANE_HDRSDTP** sdtp = nullptr;
  int32_t** ids = nullptr;
  BOXLANE_SAMPLEINFO two[2];
  BOXLANE_FRAGMENTINFO fragment;
  BOXLANE_TRACKINDEX index;
  const std::string too_long(128, 'x');
  const std::function<bool()> calls[] = {
      [&] { return Boxlane_Parse_GetFTyp(c, nullptr); },
      [&] { return Boxlane_Parse_GetMVhd(c, nullptr); },
      [&] { return Boxlane_Parse_GetTrack(c, nullptr); },
      [&] { return Boxlane_Parse_GetTrackList(c, 1, nullptr, &n, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS); },
      [&] { return Boxlane_Parse_GetTrackList(c, 1, &list, nullptr, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS); },
      [&] { return Boxlane_Parse_GetTrackIDs(c, &ids, nullptr); },
      [&] { return Boxlane_Parse_GetTrackKey(c, 1, nullptr, &n); },
      [&] { return Boxlane_Parse_GetTrackKey(c, 1, &ids, nullptr); },
      [&] { return Boxlane_Parse_GetTrackCodec(c, 1, nullptr); },
      [&] { return Boxlane_Parse_GetTrackSDtp(c, 1, nullptr, &n); },
      [&] { return Boxlane_Parse_GetTrackSDtp(c, 1, &sdtp, nullptr); },
      [&] { return Boxlane_Parse_GetTrackIndex(c, 1, nullptr); },
      [&] { return Boxlane_Parse_GetTrackSamples(c, 1, 0, two, -1, &n); },
      [&] { return Boxlane_Parse_GetTrackSamples(c, 1, 0, two, 2, nullptr); },
      [&] { return Boxlane_Parse_GetFragment(c, nullptr, two, 2, &n); },
      [&] { return Boxlane_Parse_GetFragment(c, &fragment, two, 2, nullptr); },
      [&] { return Boxlane_Parse_Delete(nullptr); },
      [&] { return Boxlane_Parse_Delete(too_long.c_str()); },
      [&] { return Boxlane_Parse_ActiveEvent(1); },
      [&] { return Boxlane_Parse_GetTrackIndex(nullptr, 1, &index); },
      [&] { return Boxlane_Parse_GetTrackIndex(too_long.c_str(), 1, &index); },
      [&] { return Boxlane_Parse_GetFragment(c, &fragment, two, -1, &n); }, [&] { return Boxlane_Parse_GetFragment(c, &fragment, nullptr, 2, &n); },
      [&] { return Boxlane_Parse_Insert(nullptr); }, [&] { return Boxlane_Parse_Insert(too_long.c_str()); },
      [&] { return Boxlane_Parse_InsertEx("flags/bad", 2); }, [&] { return Boxlane_Parse_GetStream(c, nullptr); },
      [&] { return Boxlane_Parse_Send(too_long.c_str(), &byte, 1); }, [&] { return Boxlane_Parse_Send(c, nullptr, 8); },
      [&] { return Boxlane_Parse_Send(c, &byte, -1); }, [&] { return Boxlane_Parse_Recv(c, nullptr, nullptr); },
      [&] { return Boxlane_Parse_RecvEx(c, nullptr, nullptr); }};
  for (const auto& call : calls) out.append(" ").append(result(call()));
  return out;
}

// What one step did: a reader's result with the version and flags it took and the current track; a Send's result;
// a feed's (in pieces ending at `cuts`) with each record and its place; a descriptor size; a window of two samples
// of track 1 from the given first sample.
std::string step(const std::string& client, std::string_view what, const Bytes& bytes, const std::vector<std::size_t>& cuts) {
  QORVANE_MP4PARSE& record = *record_of(client);
  auto exact = std::make_unique<uint8_t[]>(std::max<std::size_t>(bytes.size(), 1));
  if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
  const std::string head = fmt("< %.*s %zu: ", int(what.size()), what.data(), bytes.size());
  int32_t n = -1;
  BOXLANE_SAMPLEINFO two[2]{};
  if (what == "ftyp") return head + result(m_MP4Parse.Boxlane_Parse_FTyp(&record, exact.get(), bytes.size()));
  if (what.starts_with("send")) return head + result(send(client, bytes));
  if (what == "ask") return refusals(client.c_str());
  if (what == "dump") {
    const std::string all = dump(client);  // once: it takes the fragment answers
    return "< dump\n" + all.substr(0, all.size() - 1);
  }
  if (what.starts_with("feed")) {
    const FeedResult fed = feed(client, bytes, cuts);
    std::string out = head + named(fed.error) + (fed.events_matched ? "" : " events unmatched");
    for (std::size_t i = 0; const QORVANE_MP4HDR& h : fed.headers) {
      const auto [at, header] = fed.places[i++];
      out += fmt("\n  %d at %llu size %llu", int(h.enHType), (unsigned long long)at, (unsigned long long)h.nBoxSize) +
             (header != 8 ? fmt(" header %u", header) : "") + (h.byVersion || h.byFlags[0] || h.byFlags[1] || h.byFlags[2] ?
             fmt(" v%u flags %02X%02X%02X", h.byVersion, h.byFlags[0], h.byFlags[1], h.byFlags[2]) : "") +
             (h.wUUIDHead ? fmt(" uuid %04X", h.wUUIDHead) : "");
    }
    return out;
  }
  if (what == "descriptor") {
    const int value = m_MP4Parse.Boxlane_Parse_DescriptorLen(exact.get(), &n);
    return "< descriptor " + hex(bytes) + fmt(": %d in %d", value, n);
  }
  if (what == "window") {
    const std::string ok = result(Boxlane_Parse_GetTrackSamples(client.c_str(), 1, bytes[0], two, 2, &n));
    return fmt("< window from %u: %s %d: ", bytes[0], ok.c_str(), n) + text(two[0]) + "; " + text(two[1]);
  }
  BOXLANE_MSGBUFFER entry{};
  const auto reader = std::find_if(std::begin(kReaders), std::end(kReaders), [&](const auto& r) { return r.first == what; });
  const std::string ok = result((m_MP4Parse.*reader->second)(&record, &entry, exact.get(), bytes.size()));
  const QORVANE_MP4HDR& h = entry.st_MP4Hdr;
  return head + ok + fmt(" v%u flags %02X%02X%02X track %d", h.byVersion, h.byFlags[0], h.byFlags[1], h.byFlags[2], record.nCurrentTrack);
}

struct Step { std::string what; Bytes bytes; std::vector<std::size_t> cuts = {}; };
struct Row {
  std::string name;
  std::vector<Step> steps;
  bool prefixes = false;
  std::function<Bytes(const Bytes& prefix, std::size_t whole)> wrap = {};  // what a prefix is sent in
};

// Every prefix of the row's last step, after its other steps, each on a client of its own: the answers to the empty
// one, then each length at which a line comes ("+", the line it replaces, of the same first word, not shown) or goes.
std::string prefixes(const std::string& client, const Row& row, uint32_t mode) {
  const Step& last = row.steps.back();
  std::vector<std::string> before;
  std::string out;
  for (std::size_t n = 0; n <= last.bytes.size(); ++n) {
    Boxlane_Parse_InsertEx(client.c_str(), mode);
    for (auto s = row.steps.begin(); s + 1 != row.steps.end(); ++s) step(client, s->what, s->bytes, s->cuts);
    Bytes prefix = last.bytes;
    prefix.resize(n);
    const std::string took = step(client, last.what, row.wrap ? row.wrap(prefix, last.bytes.size()) : prefix, {});
    std::istringstream all((row.wrap ? "" : last.what + took.substr(took.find(':')) + "\n") + dump(client));
    Boxlane_Parse_Delete(client.c_str());
    std::vector<std::string> now;
    for (std::string l; std::getline(all, l);) now.push_back(l);
    const auto word = [](const std::string& l) { return l.substr(0, l.find(' ', l.find_first_not_of(' '))); };
    for (const std::string& l : now)
      if (std::find(before.begin(), before.end(), l) == before.end()) out += fmt("%zu + ", n) + l + "\n";
    for (const std::string& l : before)
      if (std::none_of(now.begin(), now.end(), [&](const std::string& k) { return k == l || word(k) == word(l); }))
        out += fmt("%zu - ", n) + l + "\n";
    before = std::move(now);
  }
  return out;
}

Step T(uint32_t id, uint32_t width = 0, uint32_t height = 0, uint8_t version = 0) { return {"tkhd", tkhd_payload(id, width, height, version)}; }
Bytes cut(Bytes b) { return b.pop_back(), b; }
Bytes u32s(uint8_t version, const std::vector<uint32_t>& fields) {
  Bytes p = Bytes{}.full(version, 0);
  for (const uint32_t v : fields) p.u32(v);
  return p;
}
Step stz2(uint8_t field, uint32_t count, const Bytes& entries) { return {"stz2", Bytes{}.full(0, 0).u24(0).u8(field).u32(count).add(entries)}; }
Bytes stsd(const std::vector<uint8_t>& entry, uint32_t count = 1) { return Bytes{}.full(0, 0).u32(count).add(entry); }
Step visual(const char* type, uint16_t width, const std::vector<uint8_t>& config, uint32_t count = 1) {
  Bytes fixed = Bytes{}.zeros(6).u16(1).zeros(16).u16(width).u16(width * 3 / 4).u32(0x00480000).u32(0x00480000).u32(0).u16(1);
  fixed.zeros(32).u16(0x18).u16(0xFFFF);
  return {"stsd", stsd(box(type, cat({fixed, box("colr", Bytes{}.str("nclx").u16(1).u16(1).u16(1).u8(0)), config})), count)};
}
// Parameter sets or units, each after its 16-bit length; n of one byte each (0, 1, ... or all `only`).
Bytes units(const std::vector<Bytes>& sets) {
  Bytes out;
  for (const Bytes& set : sets) out.u16(uint16_t(set.size())).add(set);
  return out;
}
std::vector<Bytes> ones(std::size_t n, int only = -1) {
  std::vector<Bytes> out;
  for (std::size_t i = 0; i < n; ++i) out.push_back(Bytes{uint8_t(only < 0 ? i : only)});
  return out;
}
// avcC of profile 100 level 3.1 with 4-byte lengths and the given sets.
Step avc(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps, uint32_t count = 1) {
  const Bytes avcc = Bytes{}.add(unhex("01 64 00 1F FF")).u8(uint8_t(0xE0 | sps.size())).add(units(sps)).u8(uint8_t(pps.size()));
  return visual("avc1", 16, box("avcC", Bytes{avcc}.add(units(pps))), count);
}
Step mp4a(const std::vector<uint8_t>& esds_body, uint16_t sound_version = 0) {
  Bytes fixed = Bytes{}.zeros(6).u16(1).u16(sound_version).zeros(6).u16(2).u16(16).zeros(4).u32(44100u << 16);
  fixed.zeros(sound_version == 1 ? 16 : sound_version == 2 ? 36 : 0);
  return {"stsd", stsd(box("mp4a", cat({fixed, box("free"), box("esds", Bytes{}.full(0, 0).add(esds_body))})))};
}
// An ES_Descriptor around `config` with its SLConfigDescriptor after the DecoderConfigDescriptor (ISO/IEC 14496-1
// §7.2.6.5), so that a descriptor size read too large takes in bytes that are no configuration.
Step aac_config(const Bytes& config) {
  const Bytes decoder = Bytes{}.add(unhex("40 15 000000 0001F400 0001F400")).add(descriptor(5, config));
  return mp4a(descriptor(3, Bytes{}.u16(2).u8(0).add(descriptor(4, decoder)).add(descriptor(6, {0x02}))));
}
// An hvcC whose every field differs from its neighbours: space 2, tier 1, profile 3, level 123, segmentation 0xABC,
// parallelism 2, 4:2:2, 12/9 bits, 24 fps, constant rate 1, 5 layers, nested, 2-byte lengths; then `count` arrays.
Step hevc(const std::vector<uint8_t>& arrays, int count = 1) {
  const std::vector<uint8_t> fixed = unhex("01 A3 40000001 B000 00000003 7B FABC FE FE FC F9 1800 6D");
  return visual("hvc1", 64, box("hvcC", cat({fixed, count < 0 ? Bytes{} : Bytes{uint8_t(count)}, arrays})));
}
Step sps_array(const std::vector<Bytes>& sets) { return hevc(Bytes{}.u8(0x80 | 33).u16(uint16_t(sets.size())).add(units(sets))); }
// A unit that leaves `last` bytes of the query's units' area, then one of `last` bytes and one of a byte.
Step filled(uint16_t last) {
  return sps_array({Bytes{}.zeros(BOXLANE_CODEC_PARAMSET_BYTES - 100), Bytes{}.zeros(last), {0x44}});
}
Bytes movie(const std::vector<Bytes>& tables) { return cat({movie_ftyp(), moov_box({trak_box(1, 1000, tables)})}); }

// The box with its type in capital letters.
Bytes capitals(Bytes b) {
  for (std::size_t i = 4; i < 8; ++i) b[i] = uint8_t(std::toupper(b[i]));
  return b;
}

constexpr uint32_t kSync = 0x02000000, kNonSync = 0x01010000;  // depends on no other sample; on others, non-sync
// Track 1 (90 kHz, empty tables), track 2 (48 kHz, two samples), mehd, trex, three moof + mdat pairs (ISO/IEC
// 14496-12 §8.8), styp, sidx, emsg, mfra.
Bytes fragmented() {
  const auto build_moov = [](uint32_t chunk) {
    return moov_box({trak_box(1, 90000, {table_box("stts", {}), table_box("stsc", {}), stsz_box(0, 0), table_box("stco", {})}),
                     trak_box(2, 48000, {table_box("stts", {{2, 1024}}), table_box("stsc", {{1, 2, 1}}), stsz_box(0, 2, {10, 20}),
                                         table_box("stco", {{chunk}})}),
                     box("mvex", cat({full_box("mehd", 1, 0, Bytes{}.u64(0x100000000ull)),
                                      trex_box(1, 1, 3000, 0, kNonSync), trex_box(2, 1, 1024, 300, kSync)}))});
  };
  Bytes stream = movie_ftyp();
  stream.add(build_moov(uint32_t(stream.size() + build_moov(0).size() + 8))).add(box("mdat", Bytes{}.zeros(30)));
  // moof 1: track 1 based on the moof, tfdt v1, first-sample flags, signed offsets; track 2 on trex, no base or tfdt,
  // an sdtp, which describes no track of the moov.
  stream.add(moof_with_offset([](int32_t offset) {
    return moof_box(1, {box("traf", cat({tfhd_box(0x020000, 1), full_box("tfdt", 1, 0, Bytes{}.u64(90000)),
                                        trun_box(1, 0x001 | 0x004 | 0x200 | 0x800,
                                                 {{0, 100, 0, 0}, {0, 50, 0, uint32_t(-1000)}, {0, 60, 0, 2000}}, offset, kSync)})),
                        box("traf", cat({tfhd_box(0, 2), trun_box(0, 0x100, {{1024}, {512}}), full_box("sdtp", 0, 0, Bytes{0x20, 0x10})}))});
  })).add(box("mdat", Bytes{}.zeros(810)));
  // moof 2: an explicit base, tfhd defaults over the trex's, no tfdt, two truns.
  const auto moof2 = uint32_t(stream.size());
  stream.add(moof_with_offset([&](int32_t offset) {
    return moof_box(2, {box("traf", cat({tfhd_box(0x2B, 1, {0, moof2, 2, 2000, kNonSync}),
                                        trun_box(0, 0x001 | 0x100 | 0x200 | 0x400, {{2000, 5, kSync}, {2000, 6, kNonSync}}, offset),
                                        trun_box(0, 0x200 | 0x800, {{0, 7, 0, 0xFFFFFFFFu}})}))});
  })).add(box("mdat", Bytes{}.zeros(18)));
  // moof 3: the first traf without a base flag is based on the moof; its boxes' types in capitals; a tfhd of
  // version 1, whose flags are still the 24 bits after the version.
  stream.add(moof_with_offset([](int32_t offset) {
    return moof_box(3, {capitals(box("traf", cat({capitals(full_box("tfhd", 1, 0, Bytes{}.u32(2))),
                                                 capitals(trun_box(0, 0x001, {{}}, offset))})))});
  })).add(box("mdat", Bytes{}.zeros(300)));
  return stream.add(cat({box("styp", Bytes{}.str("msdh").u32(0)), full_box("sidx", 1, 0, Bytes{}.zeros(32)),
                         full_box("emsg", 1, 2, Bytes{}.zeros(12)),
                         box("mfra", cat({full_box("tfra", 1, 0, Bytes{}.zeros(12)), full_box("mfro", 0, 0, Bytes{}.u32(16))}))}));
}
// An ftyp and `bad`, fed in pieces ending at `cuts`, which stops the stream; then one ftyp more.
Row stopped(const std::string& name, const char* feed, const Bytes& bad, std::vector<std::size_t> cuts = {}) {
  return {name, {{feed, cat({movie_ftyp(), bad}), std::move(cuts)}, {"send", movie_ftyp()}, {"send", {}}}};
}
// After the tracks and defaults of fragment_prefix(), a moof and an mdat of `mdat` bytes.
Row lie(const std::string& name, const Bytes& moof, std::size_t mdat) {
  return {"fragments: " + name, {{"sendx", cat({fragment_prefix(), moof, box("mdat", Bytes{}.zeros(mdat))})}}};
}
Bytes one_traf(const Bytes& children) { return moof_box(1, {box("traf", children)}); }
// The box with size 0 (to its parent's end), or with a 64-bit size (size field 1).
Bytes resized(const Bytes& b, bool wide) {
  Bytes out = Bytes{}.u32(wide ? 1 : 0).add({b.begin() + 4, b.begin() + 8});
  if (wide) out.u64(b.size() + 8);
  return out.add({b.begin() + 8, b.end()});
}

// Every prefix of `last`'s bytes after `setup` (see prefixes()).
Row every(const std::string& name, std::vector<Step> setup, const Step& last) {
  setup.push_back(last);
  return {"every prefix: " + name, std::move(setup), true};
}
// Every prefix of a box's payload, sent as the box `type` in a fragmented stream made by `around`, with a free box
// after it that keeps the stream's size (and every offset) the same.
Row every_in(const std::string& type, const Bytes& payload, const std::function<Bytes(const Bytes& box)>& around) {
  return {"every prefix in a stream: " + type, {{"sendx", payload}}, true, [=](const Bytes& prefix, std::size_t whole) {
    return around(cat({box(type, prefix), box("free", Bytes{}.zeros(whole - prefix.size()))}));
  }};
}

std::vector<Row> rows() {
  const auto mvhd0 = [](uint32_t flags) {
    return Bytes{}.full(0, flags).u32(1).u32(2).u32(1000).u32(5000).u32(0x00010000).u16(0x0100).zeros(70).u32(3);
  };
  const auto hdlr = [](std::string_view type, const std::string& name) { return Bytes{}.full(0, 0).u32(0).str(type).zeros(12).str(name); };
  const auto dinf = [](uint32_t count, const std::vector<uint8_t>& entries) {
    return Step{"dinf", box("dref", Bytes{}.full(0, 0x000102).u32(count).add(entries))};
  };
  const Bytes s = full_box("url ", 0, 0, Bytes{}.str("s").u8(0));
  const Bytes stts = table_box("stts", {{5, 1}}), stsz = stsz_box(0, 5, {1, 2, 3, 4, 5});
  const Bytes stco = table_box("stco", {{10}, {20}}), stsc = table_box("stsc", {{1, 3, 1}});
  const uint64_t far = uint64_t{5} << 30;
  const Bytes wide = movie({table_box("stts", {{4, 10}}), table_box("ctts", {{1, 20}, {3, uint32_t(-10)}}, 1),
                            table_box("stsc", {{1, 3, 1}}), stsz_box(8, 4), table_box("stco", {{1000}}),
                            full_box("co64", 0, 0, Bytes{}.u32(1).u64(far + 1000))});
  const std::string rich = "03 80808027 0001 E0 0007 03 616263 0009 04 80808014 40 15 001800 0001F400 00017700 "
                           "05 80808002 1210 06 01 02";
  const std::string plain = "03 19 0002 00 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02";
  const Bytes asc = Bytes{}.add(std::vector<uint8_t>(BOXLANE_CODEC_AUDIOCFG_BYTES, 0x12));
  const Bytes one = trun_box(0, 0, {{}});
  const Bytes to_end = cat({fragment_prefix(), based(1, [](int32_t off) { return trun_box(0, 0x201, {{0, 9}}, off); }), box("mdat", Bytes{}.zeros(9), 0)});
  const uint32_t limit = 256u << 20;
  const auto at = [](int32_t delta, uint32_t flags, const std::vector<Entry>& entries) {
    return [=](int32_t off) { return trun_box(0, flags, entries, off + delta); };
  };
  return {
      {"mvhd of version 2, read as version 1, then one of version 0 a byte short",
       {{"mvhd", Bytes{}.full(2, 0).u64(0x100000001ull).u64(0x100000002ull).u32(90000).u64(0x100000005ull).u32(0).u16(0).zeros(70).u32(7)},
        {"mvhd", cut(mvhd0(9))}}},
      {"tkhd of versions 0 and 2 (read as 1), a negative width and height, an id again, one of 2^31 + 1, both versions a byte short, ids 0, 9, 10",
       {T(1, 0x05000000, 0x02D00000), T(2, 0xFFFF0000, 0xFFFE8000, 2), T(1, 0x01000000), T(0x80000001u),
        {"tkhd", cut(tkhd_payload(9))}, {"tkhd", cut(tkhd_payload(9, 0, 0, 1))}, T(0), T(9), T(10),
        {"hdlr", hdlr("vide", std::string("V\0", 2))}, {"ask", {}}}},
      {"descriptor sizes of one to four bytes, and one that runs on",
       {{"descriptor", {0x05, 0x80, 0x80, 0x80}}, {"descriptor", {0xFF, 0x7F, 0xFF, 0xFF}},
        {"descriptor", {0x80, 0x80, 0x80, 0x05}}, {"descriptor", {0x81, 0x80, 0x80, 0x80}}}},
      {"hdlr: a name longer than the field; none; a byte short of the fixed part",
       {T(1), {"hdlr", hdlr("soun", std::string(3000, 'n'))}, T(2), {"hdlr", hdlr("meta", "")}, {"hdlr", cut(hdlr("text", ""))}}},
      {"dref: url, self-contained url, urn, a location past 1023 bytes; a bare 8-byte entry, sizes 0 and past the payload, a count past it, a count short of the entries",
       {T(1), dinf(4, cat({full_box("url ", 0, 0, Bytes{}.str("http://x/a.mp4").u8(0).str("junk")), full_box("url ", 0, 1),
                           full_box("urn ", 0, 0, Bytes{}.str("urn:a").u8(0).str("loc").u8(0)),
                           full_box("url ", 0, 0, Bytes{}.str(std::string(2000, 'u')))})),
        T(2), dinf(4, cat({s, box("url "), s, box("url ", {}, 0), s})), dinf(2, cat({s, box("url ", Bytes{}.str("abcd"), 64)})), dinf(0x7FFFFFFF, s),
        T(3), dinf(1, cat({s, s}))}},
      {"sample tables: a second box appends (a small one to room for a quarter more), counts past the payload or of 2^31 and more, stz2 of every field size",
       {T(4), {"stsz", u32s(0, {1024, 10, 5, 6})}, {"stsz", u32s(0, {0, 3, 7, 8, 9})},
        T(5), {"stco", u32s(0, {2, 48, 0xFFFFFFF0})}, {"stco", u32s(0, {1, 96})}, T(6), {"stts", u32s(0, {1000, 1, 2, 3, 4, 5})},
        T(7), {"stsc", u32s(0, {0x7FFFFFFF, 1, 1})}, {"stsc", u32s(0, {0x80000000, 1, 1})}, {"stsc", u32s(0, {0xFFFFFFFF, 1, 1})},
        T(8), {"stsz", u32s(0, {0, 0x7FFFFFFF, 9})}, {"stsz", u32s(0, {0, 0x80000000, 9})}, {"stsz", u32s(0, {0, 0xFFFFFFFF, 9})},
        T(9), stz2(4, 3, {0x12, 0x3F}), T(10), stz2(4, 9, {0xAB}), T(11), stz2(8, 3, {7, 255}), T(12), stz2(16, 2, {0x12, 0x34, 0xFF}),
        T(13), stz2(5, 2, {1, 2}), T(14), stz2(8, 0x80000000, {1, 2}), {"sdtp", Bytes{}.full(0, 0)},
        {"sdtp", Bytes{}.full(0, 0).u8(0x20).u8(0x10).u8(0xA6).zeros(5)},
        {"sdtp", Bytes{}.full(0, 0).u8(0x10)}, T(99), {"stco", u32s(0, {1, 48})}, {"co64", u32s(0, {1, 1, 2})}}},
      {"avc1: reserved bits set, a PPS past the avcC, types in capitals; the 78 fixed bytes alone, an avcC after the entry; 31 SPS and 255 PPS, entry_count 0 and 1; "
       "a second stsd for a track keeps the first, of two entries; entries of 15 and 16 bytes, a box after each; an avcC of 6 bytes, no PPS count",
       {T(1), visual("avc1", 320, box("avcC", unhex("01 64 00 1F FF E2 0004 6764001F 0002 6701 03 0002 68EE 0003 68EBE3 0001 68"))),
        T(2), visual("AVC1", 320, box("AVCC", unhex("01 42 C0 0D FD E1 0002 6742 02 0001 68 0032 68"))),
        T(3), {"stsd", stsd(cat({box("avc1", Bytes{}.zeros(6).u16(1).zeros(16).u16(64).u16(48).zeros(50)), box("avcC", unhex("01 4D 40 1E FF E0"))}))},
        T(4), avc(ones(31), ones(255), 0), T(5), avc(ones(31), ones(255)), T(6), avc(ones(1), ones(1), 2), visual("avc1", 64, {}),
        T(7), {"stsd", stsd(cat({box("avc1", Bytes{}.zeros(7)), box("free", Bytes{}.zeros(9))}))},
        T(8), {"stsd", stsd(cat({box("avc1", Bytes{}.zeros(7).u8(1)), box("free", Bytes{}.zeros(8))}))},
        T(9), visual("avc1", 320, box("avcC", unhex("01 4D 40 1E FF E0")))}},
      {"descriptions cut short: an avcC of 5 bytes; two SPS counted, one there; an SPS past the avcC, then bytes that "
       "would read as a PPS; an hvcC unit past the box; a DecoderConfigDescriptor of 12 bytes; a sound entry of version 2 "
       "without its 36 bytes, an esds of 32 in their place; an ES_Descriptor whose URL runs past it, an OCR_ES_Id flag "
       "and a DecoderConfigDescriptor after the URL's length",
       {T(1), visual("avc1", 320, box("avcC", unhex("01 4D 40 1E FF"))),
        T(2), visual("avc1", 320, box("avcC", unhex("01 64 00 1F FF E2 0002 6764"))),
        T(3), visual("avc1", 320, box("avcC", unhex("01 64 00 1F FF E2 0002 6764 0009 01 0001 68"))),
        T(4), hevc(unhex("A1 0002 0002 4201 0009 44")), T(5), mp4a(unhex("03 14 0002 00 04 0C 40 15 000000 0001F400 0001F4 06 01 02")),
        T(6), {"stsd", stsd(box("mp4a", cat({Bytes{}.zeros(6).u16(1).u16(2).zeros(6).u16(2).u16(16).zeros(4).u32(44100u << 16),
                                             full_box("esds", 0, 0, unhex("03 12 0002 00 04 0D 40 15 000000 0001F400 0001F400"))})))},
        T(7), mp4a(unhex("03 14 0002 60 FF 00 04 0D 40 15 000000 0001F400 0001F400"))}},
      {"codec query: sets past the byte area, a set that fits after one that does not; 32 and 33 PPS; an AudioSpecificConfig of 1024 and 1025 bytes",
       {T(1), avc({{0x67, 0x42}, Bytes{}.add(std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 3, 0x11)), {0x67, 0x43}, {0x67}}, ones(40, 0x68)),
        T(2), avc(ones(1, 0x67), ones(BOXLANE_CODEC_MAX_PARAMSETS, 0x68)), T(3), avc(ones(1, 0x67), ones(BOXLANE_CODEC_MAX_PARAMSETS + 1, 0x68)),
        T(4), aac_config(asc), T(5), aac_config(Bytes{asc}.u8(0x13))}},
      {"mp4a: sound entries v1 and v2; one longer than its box; a size past 4 bytes; no DecoderSpecificInfo; an OCR_ES_Id and no URL",
       {T(2), mp4a(unhex(plain), 1), T(3), mp4a(unhex("03 7F" + plain.substr(5)), 2),
        T(4), mp4a(unhex("03 1D 0002 00 04 15 40 15 000000 0001F400 0001F400 05 81808080 02 1190 06 01 02")),
        T(5), mp4a(unhex("03 15 0002 00 04 0D 6B 15 000600 0001F400 0001F400 06 01 02")),
        T(6), mp4a(unhex("03 1B 0002 20 0007 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02"))}},
      {"hvc1: every field differs, an array's reserved bit set; units filling the area and a byte more, a unit after; 64 and 65 units; the shortest hvcC and less; one array declared of two",
       {T(1), hevc(unhex("A0 0001 0003 40010C  21 0002 0002 4201 0004 42010102  67 0002 0000 0001 4E"), 3),
        T(2), filled(100), T(3), filled(101), T(4), sps_array(ones(64)), T(5), sps_array(ones(65)), T(6), hevc({}, 0),
        T(7), hevc({}, -1), T(8), hevc(unhex("A0 0001 0003 40010C  21 0002 0002 4201 0004 42010102"), 1)}},
      {"index: five samples in chunks of 2, 2, 1 and none, every table, runs of no samples, an unsigned offset of 2^31; then two more samples and a fifth chunk",
       {{"send", movie({table_box("stts", {{3, 1000}, {0, 700}, {2, 500}}), table_box("ctts", {{1, 2000}, {0, 5}, {2, 0}, {2, 0x80000000}}),
                        table_box("stsc", {{1, 2, 1}, {3, 1, 1}}), stsz_box(0, 5, {10, 20, 30, 40, 50}),
                        table_box("stco", {{100}, {200}, {300}, {400}}), table_box("stss", {{1}, {4}}),
                        full_box("sdtp", 0, 0, Bytes{0x20, 0x10, 0x10, 0x24, 0x10})})},
        {"dump", {}},
        {"send", moov_box({trak_box(1, 1000, {table_box("stts", {{2, 7}}), stsz_box(0, 2, {60, 70}), table_box("stco", {{500}})})})},
        {"window", {5}}}},
      {"index: constant size, stco and co64 past 4 GiB, a negative ctts v1 offset, no stss or sdtp", {{"sendx", wide}}},
      {"index: the same in the basic mode, which reads no co64; in moovs of their own, an stz2, which it reads none of either (track 2), "
       "times past 2^64 (3), a vmhd met in a stream: graphicsmode 0x40 and opcolor 0x8000 x3 (4)",
       {{"send", wide}, {"send", moov_box({trak_box(2, 1000, {stts, stsc, box("stz2", stz2(8, 5, {1, 2, 3, 4, 5}).bytes), stco})})},
        {"send", moov_box({trak_box(3, 1000, {table_box("stts", {{0xFFFFFFFF, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF}}), stsc, stsz, stco})})},
        {"send", moov_box({trak_box(4, 1000, {}, full_box("vmhd", 0, 1, Bytes{}.u16(0x40).u16(0x8000).u16(0x8000).u16(0x8000)))})}}},
      {"index: a window past a run of 2^33 ticks; an stss that repeats an entry",
       {{"send", movie({table_box("stts", {{2, 0xFFFFFFFF}, {3, 1}}), stsc, stsz, stco, table_box("stss", {{1}, {1}, {2}})})},
        {"window", {2}}}},
      {"index: a first_chunk of 0; two entries past the chunks; an empty chunk between two others; first_chunk not increasing",
       {{"send", cat({movie_ftyp(), moov_box({trak_box(1, 1000, {stts, table_box("stsc", {{0, 3, 1}}), stsz, stco}),
                                               trak_box(2, 1000, {stts, table_box("stsc", {{4, 3, 1}, {5, 3, 1}}), stsz, stco}),
                                               trak_box(3, 1000, {stts, table_box("stsc", {{1, 2, 1}, {2, 0, 1}, {3, 3, 1}}), stsz,
                                                                  table_box("stco", {{10}, {20}, {30}})}),
                                               trak_box(4, 1000, {stts, table_box("stsc", {{1, 1, 1}, {1, 4, 1}}), stsz, stco})})})}}},
      {"fragments: records, samples and answers of three moofs", {{"feedx", fragmented()}}},
      {"fragments: the basic mode reads none of their boxes", {{"feed", fragmented()}}},
      {"fragments: a moof whose mdat never comes, then one whose mdat does: only the second's data is checked",
       {{"feedx", cat({fragment_prefix(), based(1, at(0, 0x201, {{0, 9}})), based(1, at(0, 0x201, {{0, 9}})),
                       box("mdat", Bytes{}.zeros(9))})}}},
      lie("data ending where the moof starts", one_traf(cat({tfhd_box(0x020000, 1), trun_box(0, 0x201, {{0, 100}}, -100)})), 0),
      lie("a negative data_offset past an explicit base; one exactly at it (data from byte 0)",
          one_traf(cat({tfhd_box(0x01, 1, {0, 1000}), trun_box(0, 0x201, {{0, 100}}, -2000), trun_box(0, 0x201, {{0, 9}}, -1000)})), 100),
      lie("a data_offset that carries an explicit base past 2^64",
          one_traf(cat({tfhd_box(0x01, 1, {0xFFFFFFFF, 0xFFFFFF00}), trun_box(0, 0x201, {{0, 16}}, 0x200)})), 16),
      // The explicit base holds over default-base-is-moof; the traf without a tfhd keeps its index; flags of
      // sample_depends_on 1 with sample_is_non_sync_sample clear make a sync sample.
      lie("a traf without a tfhd, then one whose tfhd sets both bases", moof_with_offset([](int32_t off) {
            const auto base = uint32_t(fragment_prefix().size() + off - 16);
            return moof_box(1, {box("traf", trun_box(0, 0x200, {{0, 9}})),
                                box("traf", cat({tfhd_box(0x020001, 1, {0, base}), trun_box(0, 0x601, {{0, 9, 0x01000000}}, 16)}))});
          }), 9),
      {"fragments: an mdat of size 0 after the moof, none of its data sent yet", {{"feedx", to_end, {to_end.size() - 9}}}},
      lie("two tfhd in a traf: the first holds", one_traf(cat({tfhd_box(0, 1), tfhd_box(0, 9), one})), 100),
      lie("two tfdt in a traf: the first holds", based(1, [](int32_t off) {
        return cat({full_box("tfdt", 0, 0, Bytes{}.u32(5)), full_box("tfdt", 0, 0, Bytes{}.u32(9)), trun_box(0, 0x001, {{}}, off)});
      }), 100),
      lie("a moof with a 64-bit size", resized(one_traf(cat({tfhd_box(0x020000, 1), one})), true), 100),
      // What trun and tfhd leave out is 0; flags 0: a sync sample of unstated dependencies, unless first_sample_flags.
      lie("a track without trex", based(3, [](int32_t off) {
            return cat({full_box("tfdt", 0, 0, Bytes{}.u32(77)), trun_box(0, 0x205, {{0, 5}, {0, 6}}, off, kNonSync)});
          }), 11),
      lie("data starting exactly where the moof ends", based(1, at(-8, 0x201, {{0, 8}})), 0),
      lie("two mfhd in a moof: the first holds", moof_with_offset([](int32_t off) {
            return box("moof", cat({full_box("mfhd", 0, 0, Bytes{}.u32(5)), full_box("mfhd", 0, 0, Bytes{}.u32(6)),
                                    box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x001, {{}}, off)}))}));
          }), 100),
      {"fragments: a second mdat after the one the moof's data is in",
       {{"sendx", cat({fragment_prefix(), based(1, at(0, 0x201, {{0, 9}})), box("mdat", Bytes{}.zeros(9)), box("mdat", Bytes{}.zeros(5))})}}},
      {"fragments: data starting 8 bytes into an mdat of 64-bit size, inside its header",
       {{"sendx", cat({fragment_prefix(), based(1, at(0, 0x201, {{0, 9}})), resized(box("mdat", Bytes{}.zeros(9)), true)})}}},
      lie("a trun of 64-bit size", based(1, [](int32_t off) { return resized(trun_box(0, 0x001, {{}}, off), true); }), 100),
      lie("a trun of size 0, last in its traf", based(1, [](int32_t off) { return resized(trun_box(0, 0x201, {{0, 9}}, off), false); }), 9),
      lie("a trun without its sample_count", based(1, [](int32_t) { return full_box("trun", 0, 0); }), 0),
      lie("a trun of no samples whose data_offset names the moof's start, then one of 9 bytes in the mdat",
          based(1, [](int32_t off) { return cat({trun_box(0, 0x201, {}, 0), trun_box(0, 0x201, {{0, 9}}, off)}); }), 9),
      lie("a trun whose size runs past its traf", based(1, [](int32_t off) {
            Bytes trun = trun_box(0, 0x201, {{0, 9}}, off);
            trun[3] += 4;
            return trun;
          }), 9),
      lie("the second traf's data just before the first's, whose second trun's lies before its first's", moof_with_offset([](int32_t off) {
            return moof_box(1, {box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x201, {{0, 9}}, off + 18), trun_box(0, 0x201, {{0, 9}}, off + 9)})),
                                box("traf", cat({tfhd_box(0x020000, 2), trun_box(0, 0x201, {{0, 9}}, off)}))});
          }), 27),
      lie("an explicit base whose data runs past 2^64",
          one_traf(cat({tfhd_box(0x01, 1, {0xFFFFFFFF, 0xFFFFFF80}), trun_box(0, 0x201, {{0, 0x100}}, 0)})), 0),
      lie("data running a byte past its mdat", based(1, at(0, 0x201, {{0, 9}})), 8),
      {"a co64, an stz2 and an stss before any track",
       {{"sendx", cat({movie_ftyp(), full_box("co64", 0, 0, Bytes{}.u32(1).u64(5)), full_box("stz2", 0, 0, Bytes{}.u24(0).u8(8).u32(1).u8(3)),
                       full_box("stss", 0, 0, Bytes{}.u32(1).u32(1)), moov_box({trak_box(1, 1000, {})})})}}},
      {"a moof of 64-bit size in the basic mode, its header cut, stops the stream and is counted",
       {{"feed", cat({movie_ftyp(), resized(one_traf(cat({tfhd_box(0x020000, 1), one})), true)}),
         {movie_ftyp().size() + 4}}, {"send", movie_ftyp()}}},
      stopped("stop: size 7", "feed", box("moov", Bytes{}.zeros(40), 7)),
      stopped("stop: a 64-bit size of 2^62 + 1", "feedx", Bytes{}.u32(1).str("mdat").u64((uint64_t{1} << 62) + 1)),
      stopped("stop: a 64-bit size of 8, short of its header", "feedx", Bytes{}.u32(1).str("free").u64(8)),
      {"64-bit sizes of exactly their header, the first cut after 10 of its bytes, and of an mdat of 2^62",
       {{"feedx", cat({movie_ftyp(), Bytes{}.u32(1).str("free").u64(16), Bytes{}.u32(1).str("mdat").u64(uint64_t{1} << 62)}),
         {movie_ftyp().size() + 10}}}},
      {"a box of exactly 256 MiB waits for the rest", {{"send", box("moov", Bytes{}.zeros(100), limit)}}},
      every("ftyp", {}, {"ftyp", Bytes{}.str("isom").u32(0x200).str("isom").str("avc1")}),
      every("mvhd of version 0", {}, {"mvhd", mvhd0(0)}),
      every("mvhd of version 1", {}, {"mvhd", Bytes{}.full(1, 0).u64(1).u64(2).u32(90000).u64(0x100000005ull).u32(0x00020000)
                                                 .u16(0x0080).zeros(70).u32(7)}),
      every("tkhd of version 0", {}, T(7, 0x01400000, 0x00F00000)),
      every("tkhd of version 1", {}, T(8, 0x01400000, 0x00F00000, 1)),
      every("mdhd of version 0", {T(1)}, {"mdhd", Bytes{}.full(0, 0).u32(1).u32(2).u32(600).u32(4).u16(0x15C7).u16(0)}),
      every("mdhd of version 1", {T(1)}, {"mdhd", Bytes{}.full(1, 0).u64(1).u64(2).u32(600).u64(0x100000004ull).u16(0x15C7).u16(0)}),
      every("hdlr", {T(1)}, {"hdlr", hdlr("soun", "Snd")}),
      every("vmhd", {T(1)}, {"vmhd", Bytes{}.full(0, 1).u16(0x40).u16(1).u16(2).u16(3)}),
      every("smhd after another", {T(1), {"smhd", Bytes{}.full(0, 0).u16(0x0100).u16(0)}}, {"smhd", Bytes{}.full(0, 0).u16(0xFF80).u16(0)}),
      every("dref", {T(1)}, dinf(2, cat({full_box("url ", 0, 0, Bytes{}.str("ab").u8(0)), full_box("urn ", 0, 0, Bytes{}.str("u").u8(0))}))),
      every("stts", {T(1)}, {"stts", u32s(0, {2, 3, 1000, 1, 500})}),
      every("ctts of version 1", {T(1)}, {"ctts", u32s(1, {2, 1, uint32_t(-2), 4, 2048})}),
      every("stsc", {T(1)}, {"stsc", u32s(0, {2, 1, 5, 1, 3, 2, 1})}),
      every("stsz of sizes", {T(1)}, {"stsz", u32s(0, {0, 3, 7, 8, 9})}),
      every("stsz of one size", {T(1)}, {"stsz", u32s(0, {1024, 10})}),
      every("stz2 of 16-bit sizes", {T(1)}, stz2(16, 2, {0x12, 0x34, 0x56, 0x78})),
      every("stco", {T(1)}, {"stco", u32s(0, {2, 48, 0xFFFFFFF0})}),
      every("co64", {{"sendx", {}}, T(1)}, {"co64", Bytes{}.full(0, 0).u32(2).u64(far).u64(7)}),
      every("sdtp", {T(1)}, {"sdtp", Bytes{}.full(0, 0).u8(0x20).u8(0x10).u8(0xA6)}),
      every("avc1", {T(1)}, visual("avc1", 320, box("avcC", unhex("01 64 00 1F FF E1 0004 6764001F 01 0002 68EE")))),
      every("hvc1", {T(1)}, hevc(unhex("A0 0001 0003 40010C  21 0002 0002 4201 0004 42010102"), 2)),
      every("mp4a", {T(1)}, mp4a(unhex(rich))),
      every("trex", {T(1)}, {"trex", Bytes{}.full(0, 0).u32(1).u32(2).u32(3).u32(4).u32(0x01010000)}),
      every("mehd of version 1", {}, {"mehd", Bytes{}.full(1, 0).u64(0x100000001ull)}),
      every_in("mfhd", Bytes{}.full(0, 0).u32(7), [](const Bytes& mfhd) {
        return cat({fragment_prefix(), moof_with_offset([&](int32_t off) {
          return box("moof", cat({mfhd, box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x201, {{0, 9}}, off)}))}));
        }), box("mdat", Bytes{}.zeros(9))});
      }),
      every_in("tfhd", Bytes{}.full(0, 0x3B).u32(3).u64(fragment_prefix().size()).u32(1).u32(20).u32(5).u32(kNonSync), [](const Bytes& tfhd) {
        return cat({fragment_prefix(), moof_with_offset([&](int32_t off) {
          return moof_box(1, {box("traf", cat({tfhd, trun_box(0, 0x001, {{}, {}}, off)}))});
        }), box("mdat", Bytes{}.zeros(10))});
      }),
      every_in("tfdt", Bytes{}.full(1, 0).u64(0x100000002ull), [](const Bytes& tfdt) {
        return cat({fragment_prefix(), based(1, [&](int32_t off) { return cat({tfdt, trun_box(0, 0x201, {{0, 9}}, off)}); }),
                    box("mdat", Bytes{}.zeros(9))});
      }),
      every_in("trun", Bytes{}.full(0, 0xF05).u32(2).u32(120).u32(kSync).u32(20).u32(5).u32(kNonSync).u32(3).u32(30).u32(6).u32(0).u32(4),
               [](const Bytes& trun) { return cat({fragment_prefix(), one_traf(cat({tfhd_box(0x020000, 2), trun})), box("mdat", Bytes{}.zeros(11))}); }),
  };
}

TEST(Answers, EveryQueryAnswersWhatTheBoxesSay) {
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  std::string all;
  for (std::size_t n = 0; const Row& row : rows()) {
    const std::string client = "answers/" + std::to_string(n++);
    const bool extended = std::any_of(row.steps.begin(), row.steps.end(), [](const Step& s) { return s.what.ends_with('x'); });
    std::string text = "= " + row.name + "\n";
    if (row.prefixes) {
      all += text + prefixes(client, row, extended ? BOXLANE_PARSE_EXTENDED : 0);
      continue;
    }
    ASSERT_TRUE(Boxlane_Parse_InsertEx(client.c_str(), extended ? BOXLANE_PARSE_EXTENDED : 0));
    for (const Step& s : row.steps) text += step(client, s.what, s.bytes, s.cuts) + "\n";
    all += text + dump(client);
    Boxlane_Parse_Delete(client.c_str());
  }
  Boxlane_Parse_Destory();
  EXPECT_TRUE(matches_expected(all, "parse_answers.txt", "BOXLANE_UPDATE_ANSWERS", "= "));
}

}  // namespace
}  // namespace boxlane::test
