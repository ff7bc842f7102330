#include "parse/holdings.hpp"

#include <atomic>

namespace boxlane::parse {
namespace {

std::atomic<uint64_t> g_limit{0};

// What the allocator keeps beside each block it hands out.
constexpr uint64_t kBlockOverhead = 16;

template <typename Vector>
uint64_t vector_bytes(const Vector& v) noexcept {
  return v.capacity() ? v.capacity() * sizeof(typename Vector::value_type) + kBlockOverhead : 0;
}

uint64_t string_bytes(const std::string& s) noexcept {
  return s.capacity() > std::string().capacity() ? s.capacity() + 1 + kBlockOverhead : 0;
}

// A node per element (with its link) and the bucket array.
template <typename Map>
constexpr uint64_t kNodeBytes = sizeof(typename Map::value_type) + sizeof(void*) + kBlockOverhead;
template <typename Map>
uint64_t map_bytes(const Map& map) noexcept {
  return map.size() * kNodeBytes<Map> + map.bucket_count() * sizeof(void*);
}
// What one insertion can add: a node, and the bucket array doubling (the old
// one is held until the new one is filled).
template <typename Map>
uint64_t map_growth(const Map* map) noexcept {
  return kNodeBytes<Map> + 2 * ((map ? map->bucket_count() : 0) + 1) * sizeof(void*);
}

// The deque allocates blocks of 512 bytes (at least one element) and a map
// of pointers to them. A deque that only grows at the back fills the map from
// its middle, and a full map is replaced by one of twice the size: up to four
// pointers a block.
template <typename Deque>
uint64_t deque_bytes(const Deque& deque) noexcept {
  constexpr uint64_t size = sizeof(typename Deque::value_type);
  constexpr uint64_t per_block = size < 512 ? 512 / size : 1;
  const uint64_t blocks = deque.size() / per_block + 1;
  return blocks * (per_block * size + kBlockOverhead) + (4 * blocks + 8) * sizeof(void*) + kBlockOverhead;
}

// The blocks of the lists that boxes append to, without what their elements own.
uint64_t list_bytes(const BOXLANE_TRACKINFO& track) noexcept {
  return vector_bytes(track.stl_ListSTts.fields) + vector_bytes(track.stl_ListCTts.fields) +
         vector_bytes(track.stl_ListSTsc.fields) + vector_bytes(track.stl_ListSTsz.fields) +
         vector_bytes(track.stl_ListSTco.fields) + vector_bytes(track.stl_ListCO64.fields) +
         vector_bytes(track.stl_ListSDtp) + vector_bytes(track.stl_ListSTss) + vector_bytes(track.stl_ListDinf);
}

}  // namespace

uint64_t client_limit() noexcept { return g_limit.load(std::memory_order_relaxed); }
void set_client_limit(uint64_t bytes) noexcept { g_limit.store(bytes, std::memory_order_relaxed); }

uint64_t track_bytes(const BOXLANE_TRACKINFO& track) noexcept {
  uint64_t n = list_bytes(track);
  for (const std::string& url : track.stl_ListDinf) n += string_bytes(url);
  const BOXLANE_TRACKCODEC& codec = track.stCodec;
  n += vector_bytes(codec.stl_ListSPS) + vector_bytes(codec.stl_ListPPS) + vector_bytes(codec.stl_AudioCfg) +
       vector_bytes(codec.stHEVC.stl_ListNalu);
  for (const auto& unit : codec.stl_ListSPS) n += vector_bytes(unit);
  for (const auto& unit : codec.stl_ListPPS) n += vector_bytes(unit);
  for (const auto& unit : codec.stHEVC.stl_ListNalu) n += vector_bytes(unit.stl_Bytes);
  return n;
}

uint64_t held_bytes(const QORVANE_MP4PARSE& record) noexcept {
  uint64_t n = sizeof(QORVANE_MP4PARSE) + vector_bytes(record.stl_ListBrand) + record.nTrackBytes +
               vector_bytes(record.stl_ListMoofData) + map_bytes(record.stl_MapTrex);
  if (const auto* queue = record.stl_ListMsg.get()) {
    n += deque_bytes(*queue);
    if (!queue->empty() && queue->back().ptszMsgBuffer) n += queue->back().nBufferSize + kBlockOverhead;
  }
  if (const auto* tracks = record.stl_MapTrack.get()) n += map_bytes(*tracks);
  const BOXLANE_FRAGMENTQUEUE& fragments = record.stFragments;
  n += deque_bytes(fragments.stl_ListFragment) + vector_bytes(fragments.stl_ListRun) +
       vector_bytes(fragments.stl_ListByte);
  return n;
}

uint64_t reader_growth(const QORVANE_MP4PARSE& record, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code,
                       uint64_t payload_length) noexcept {
  // A list that moves to a larger block holds both blocks until the copy is
  // done, so a reader that appends can add the whole new block: the old one
  // with the new entries, or with a quarter more, whichever is larger. The
  // list that grows is at most all of the track's lists (what their elements
  // own stays where it is); the fragment answers' arrays grow by doubling.
  // Summed only for the boxes whose readers append to the track's lists.
  const auto track_lists = [&record]() -> uint64_t {
    const BOXLANE_TRACKINFO* track = record.stl_MapTrack ? find_track(*record.stl_MapTrack, record.nCurrentTrack) : nullptr;
    return track ? list_bytes(*track) : 0;
  };
  const auto moved = [&](uint64_t added) {
    const uint64_t lists = track_lists();
    return lists + std::max(added, lists / 4) + kBlockOverhead;
  };
  switch (code) {
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP:
      // Four bytes a brand, in a list sized for the box.
      return vector_bytes(record.stl_ListBrand) + payload_length + kBlockOverhead;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TKHD:
      // Perhaps a new track record.
      return map_growth(record.stl_MapTrack.get());
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TREX:
      // Perhaps a new entry.
      return map_growth(&record.stl_MapTrex);
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_DINF:
      // Each dref entry longer than 12 bytes adds a location: a 32-byte
      // string, which holds more past that only when longer than 15. Their
      // list doubles, perhaps more than once in a box: at most twice the
      // track's lists and eight bytes a payload byte for the moving blocks,
      // and two a payload byte for what the strings hold.
      return 2 * (track_lists() + 4 * payload_length) + 2 * payload_length + kBlockOverhead;
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STZ2:
      // 4-bit sizes become 32-bit entries.
      return moved(8 * payload_length);
    case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF:
      return 2 * payload_length + deque_bytes(record.stFragments.stl_ListFragment) + kBlockOverhead +
             2 * (vector_bytes(record.stFragments.stl_ListRun) + vector_bytes(record.stFragments.stl_ListByte));
    default:
      return moved(2 * payload_length);
  }
}

}  // namespace boxlane::parse
