// Drives the box writer with call sequences, frames and stream descriptions
// made from the input. Every output goes into a heap buffer sized exactly to
// the largest box that call may give, so one byte too many is caught by the
// address sanitizer, and every reported length is checked against it.
#include <boxlane/boxlane.hpp>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

const char* const kClient = "fuzz-writer";

class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return pos_ >= size_; }
  uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint32_t u32() { return uint32_t{u8()} << 24 | uint32_t{u8()} << 16 | uint32_t{u8()} << 8 | u8(); }
  // Up to `max` bytes of the input, as a span that stays valid.
  std::vector<uint8_t> bytes(std::size_t max) {
    const std::size_t n = std::min<std::size_t>(max, size_ - std::min(pos_, size_));
    std::vector<uint8_t> out(data_ + pos_, data_ + pos_ + n);
    pos_ += n;
    return out;
  }

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// Calls a box writer with an exactly sized buffer and checks the length.
template <typename Call>
void write_box(std::size_t capacity, Call&& call) {
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[capacity ? capacity : 1]);
  int32_t size = -7;
  if (call(buffer.get(), &size)) {
    if (size < 0 || static_cast<std::size_t>(size) > capacity) std::abort();
  } else if (size != -7) {
    std::abort();  // a failed call must leave the length untouched
  }
}

// A 64-bit value from the input that is often near the 32-bit limits.
uint64_t wide(Input& in) {
  const uint8_t shape = in.u8();
  if (shape & 1) {
    const uint64_t high = in.u32();
    return high << 32 | in.u32();
  }
  return uint64_t{0xFFFFFFFF} - 64 + (shape >> 1);  // 2^32 - 65 to 2^32 + 62
}

// ISO/IEC 14496-1 expandable size: bytes needed for n.
std::size_t descriptor_len_size(std::size_t n) {
  std::size_t bytes = 1;
  while (n >>= 7) ++bytes;
  return bytes;
}

std::size_t audio_stsd_size(std::size_t cfg) {
  const std::size_t dsi = 1 + descriptor_len_size(cfg) + cfg;
  const std::size_t dcd_body = 13 + dsi;
  const std::size_t dcd = 1 + descriptor_len_size(dcd_body) + dcd_body;
  const std::size_t es_body = 3 + dcd + 3;
  const std::size_t es = 1 + descriptor_len_size(es_body) + es_body;
  return 16 + 36 + 12 + es;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input in(data, size);
  Boxlane_Packet_Insert(kClient);
  std::size_t video_frames = 0, audio_frames = 0;
  while (!in.empty()) {
    switch (in.u8() % 19) {
      case 0: {
        const int rate = static_cast<int>(in.u32()), sample_rate = static_cast<int>(in.u32());
        m_MP4Packet.Boxlane_Packet_SetTime(kClient, rate, sample_rate);
        break;
      }
      case 1: {
        const auto frame = in.bytes(in.u8() * 4u);
        write_box(frame.size(), [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_FrameVideo(kClient, b, n, frame.data(), static_cast<int32_t>(frame.size()),
                                           static_cast<int64_t>(in.u32()) << (in.u8() % 8), in.u8() % 3,
                                           static_cast<int8_t>(in.u8()), static_cast<int8_t>(in.u8()));
        });
        ++video_frames;
        break;
      }
      case 2: {
        const auto frame = in.bytes(in.u8() * 4u);
        write_box(frame.size(), [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_FrameAudio(kClient, b, n, frame.data(), static_cast<int32_t>(frame.size()),
                                           in.u32(), static_cast<int8_t>(in.u8()));
        });
        ++audio_frames;
        break;
      }
      case 3: {
        const int count = in.u8() % 6;
        std::vector<std::vector<uint8_t>> nals;
        std::vector<const uint8_t*> pointers;
        std::vector<int32_t> lengths;
        std::size_t total = 0;
        for (int i = 0; i < count; ++i) {
          nals.push_back(in.bytes(in.u8()));
          total += 4 + nals.back().size();
        }
        for (const auto& n : nals) {
          pointers.push_back(n.data());
          lengths.push_back(static_cast<int32_t>(n.size()));
        }
        write_box(total, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_FrameAccessUnit(kClient, b, n, pointers.data(), lengths.data(), count, in.u32(), 1,
                                                40, static_cast<int8_t>(in.u8()));
        });
        ++video_frames;
        break;
      }
      case 4: {
        const auto payload = in.bytes(in.u8());
        const bool with_payload = in.u8() & 1;
        write_box(payload.size() + 8, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_HDRBox(kClient, b, n, "free", with_payload ? payload.data() : nullptr,
                                       static_cast<int32_t>(payload.size()));
        });
        break;
      }
      case 5:
        write_box(108, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_MVhd(kClient, b, n, static_cast<int32_t>(in.u32()), static_cast<int32_t>(in.u32()));
        });
        write_box(120, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_MVhd64(kClient, b, n, wide(in), static_cast<int32_t>(in.u32()));
        });
        break;
      case 6:
        write_box(92, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_TKhd(kClient, b, n, in.u8() & 1 ? 0x100 : 0, static_cast<int32_t>(in.u32()),
                                     static_cast<int32_t>(in.u32()), static_cast<int32_t>(in.u32()));
        });
        write_box(104, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_TKhd64(kClient, b, n, in.u8() & 1 ? 0x100 : 0, static_cast<int32_t>(in.u32()),
                                       static_cast<int32_t>(in.u32()), wide(in));
        });
        break;
      case 7:
        write_box(32, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_MDhd(kClient, b, n, 0x55C4); });
        write_box(32, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_MDhdEx(kClient, b, n, 0x55C4, in.u32()); });
        write_box(44, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_MDhd64(kClient, b, n, 0x55C4, wide(in)); });
        break;
      case 8: {
        const uint8_t type = in.u8();
        write_box(45, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_HDlr(kClient, b, n, type % 8); });
        break;
      }
      case 9:
        write_box(36, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_FTyp(kClient, b, n); });
        write_box(20, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_VMhd(kClient, b, n); });
        write_box(16, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_SMhd(kClient, b, n, -1); });
        write_box(36, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_DInf(kClient, b, n); });
        write_box(36, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_EDts(kClient, b, n, in.u32(), static_cast<int32_t>(in.u32()));
        });
        write_box(44, [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_EDts64(kClient, b, n, wide(in), static_cast<int64_t>(wide(in)));
        });
        write_box(16, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_HDRBox64(kClient, b, n, "mdat", wide(in)); });
        break;
      case 10:
      case 11: {
        auto record = std::make_unique<tag_Qorvane_AVProtocol>();
        std::memset(record.get(), 0, sizeof *record);
        record->bVideo = in.u8() & 1;
        auto header = in.bytes(1100);
        header.reserve(1);  // a valid pointer for memcpy even when empty
        const int32_t claimed = static_cast<int32_t>(header.size()) - (in.u8() % 4 == 0 ? 40 : 0);
        if (record->bVideo) {
          std::memcpy(record->tszVideoHdr, header.data(), std::min<std::size_t>(header.size(), 1024));
          record->nVideoHdrLen = claimed;
        } else {
          std::memcpy(record->tszAudioCfg, header.data(), std::min<std::size_t>(header.size(), 1024));
          record->nAudioCfgLen = claimed;
          record->nAudioChannel = static_cast<int32_t>(in.u32());
          record->nAudioSampleRate = static_cast<int32_t>(in.u32());
        }
        const std::size_t valid = claimed < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(claimed), 1024);
        write_box(record->bVideo ? 121 + valid : audio_stsd_size(valid),
                  [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd(kClient, b, n, record.get()); });
        break;
      }
      case 12: {
        const bool video = in.u8() & 1;
        const std::size_t frames = video ? video_frames : audio_frames;
        write_box(16 + 8 * frames, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STts(kClient, b, n, video); });
        write_box(20 + 4 * frames, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsz(kClient, b, n, video); });
        write_box(16 + 4 * frames, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STco(kClient, b, n, video); });
        // The size STco64Size announces is exactly what STco64 writes, and
        // both refuse the same deltas.
        const int64_t delta = int64_t{static_cast<int32_t>(in.u32())} * (int64_t{1} << (in.u8() % 32));
        int32_t announced = -1;
        const bool sized = Boxlane_Packet_STco64Size(kClient, video, delta, &announced);
        write_box(sized ? static_cast<std::size_t>(announced) : 0, [&](uint8_t* b, int32_t* n) {
          const bool written = Boxlane_Packet_STco64(kClient, b, n, video, delta);
          if (written != sized || (written && *n != announced)) std::abort();
          return written;
        });
        break;
      }
      case 13:
        write_box(16 + 8 * video_frames, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_CTts(kClient, b, n); });
        write_box(16 + 4 * video_frames, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STss(kClient, b, n); });
        write_box(28, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsc(kClient, b, n); });
        break;
      case 15: {
        // H.265 parameter sets (or anything) for the hvc1 entry: 142 + the
        // input length is the most it may write.
        auto sets = in.bytes(in.u8() % 2 ? 300 : 70000);
        sets.reserve(1);
        write_box(142 + sets.size(), [&](uint8_t* b, int32_t* n) {
          return Boxlane_Packet_STsdHEVC(kClient, b, n, sets.data(), static_cast<int32_t>(sets.size()));
        });
        break;
      }
      case 14: {
        uint8_t encoded[8];
        int count = 0;
        const int value = static_cast<int>(in.u32() >> (in.u8() % 32));
        m_MP4Packet.Boxlane_Packet_DescriptorLen(encoded, &count, value);
        if (count < 1 || count > 5) std::abort();
        break;
      }
      case 16:
        Boxlane_Packet_FragmentMode(kClient, in.u8() % 3, in.u8() % 3, static_cast<int32_t>(in.u32()), in.u8() % 3);
        break;
      case 17: {
        // Every fragment box into a buffer of exactly the size announced.
        int32_t header = -1, mfra = -1;
        int64_t media = -1;
        if (!Boxlane_Packet_FragmentSize(kClient, &header, &media, &mfra)) break;
        if (header < 0 || media < 0 || mfra < 0) std::abort();
        write_box(8 + 20 + 2 * 32, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_MVex(kClient, b, n, in.u32()); });
        write_box(52, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_SIdx(kClient, b, n); });
        write_box(20, [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STyp(kClient, b, n); });
        write_box(static_cast<std::size_t>(header), [&](uint8_t* b, int32_t* n) {
          const bool ok = Boxlane_Packet_Fragment(kClient, b, n, in.u32());
          if (ok && *n != header) std::abort();
          return ok;
        });
        // The fragment may have added to the index.
        if (!Boxlane_Packet_FragmentSize(kClient, nullptr, nullptr, &mfra)) std::abort();
        write_box(static_cast<std::size_t>(mfra), [&](uint8_t* b, int32_t* n) { return Boxlane_Packet_MFra(kClient, b, n); });
        break;
      }
      default:
        // Start a new recording now and then.
        Boxlane_Packet_Delete(kClient);
        Boxlane_Packet_Insert(kClient);
        video_frames = audio_frames = 0;
        break;
    }
  }
  Boxlane_Packet_Delete(kClient);
  return 0;
}
