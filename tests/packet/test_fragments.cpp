// The fragment writer against bytes written out by hand (ISO/IEC 14496-12 §8.8, §8.16), and what fragment mode refuses.
#include "writer_fixture.hpp"

#include "packet/fragments.hpp"

#include <climits>
#include <cstdint>
#include <tuple>

namespace boxlane::test {
namespace {

class FragmentTest : public WriterTest {
 protected:
  // Video track 1, audio track 2; offsets handed in are shifted by 3000.
  void fragments(uint32_t flags = 0, uint32_t video = 1, uint32_t audio = 2) {
    ASSERT_TRUE(Boxlane_Packet_FragmentMode(client(), video, audio, 3000, flags));
  }
  // Video, video, audio, video; offsets 0 and 6000 are -3000 and 3000 after the shift; key flag 1 marks sync.
  void first_fragment_samples() {
    EXPECT_EQ(video(10, 1, 3000, 0), bytes_hex("00000006 414141414141"));
    video(8, 2, 3000, 6000);
    EXPECT_EQ(audio(6, 1024), bytes_hex("212121212121"));
    video(6, 0, 3000, 6000);
  }
  std::string fragment(int64_t position = 0) { return box(Boxlane_Packet_Fragment, position); }
};

// Version 0 of mehd up to 2^32 - 1, version 1 from 2^32; the highest track_ID.
TEST_F(FragmentTest, MovieExtendsWithAndWithoutDuration) {
  fragments(0, 1, 0xFFFFFFFF);
  const std::string trex = "00000020 74726578 00000000 00000001 00000001 00000000 00000000 01010000"
                           "00000020 74726578 00000000 FFFFFFFF 00000001 00000000 00000000 02000000";
  EXPECT_EQ(box(Boxlane_Packet_MVex, uint64_t{0}), bytes_hex("00000048 6D766578" + trex));
  EXPECT_EQ(box(Boxlane_Packet_MVex, uint64_t{0xFFFFFFFF}),
            bytes_hex("00000058 6D766578 00000010 6D656864 00000000 FFFFFFFF" + trex));
  EXPECT_EQ(box(Boxlane_Packet_MVex, uint64_t{0x100000000}),
            bytes_hex("0000005C 6D766578 00000014 6D656864 01000000 00000001 00000000" + trex));
}

TEST_F(FragmentTest, MoofDescribesTheSamplesInTheOrderHandedIn) {
  fragments();
  first_fragment_samples();
  EXPECT_EQ(fragment(), bytes_hex(
      "000000E4 6D6F6F66 00000010 6D666864 00000000 00000001"
      "00000084 74726166 00000010 74666864 00020000 00000001 00000014 74666474 01000000 00000000 00000000"
      // Version 1: the offsets are signed. The first stretch starts at the mdat payload, 228 + 8 bytes on.
      "  00000034 7472756E 01000F01 00000002 000000EC"
      "    00000BB8 0000000A 02000000 FFFFF448 00000BB8 00000008 01010000 00000BB8"
      // The third video sample comes after the audio one: 10 + 8 + 6 bytes on.
      "  00000024 7472756E 01000F01 00000001 00000104 00000BB8 00000006 01010000 00000BB8"
      "00000048 74726166 00000010 74666864 00020000 00000002 00000014 74666474 01000000 00000000 00000000"
      "  0000001C 7472756E 00000301 00000001 000000FE 00000400 00000006"
      "00000026 6D646174"));

  // Video alone, no composition offsets after the shift: version 0, no offset field; decode time 3 x 3000.
  video(8, 1, 3000, 3000);
  EXPECT_EQ(fragment(), bytes_hex(
      "00000064 6D6F6F66 00000010 6D666864 00000000 00000002"
      "0000004C 74726166 00000010 74666864 00020000 00000001 00000014 74666474 01000000 00000000 00002328"
      "  00000020 7472756E 00000701 00000001 0000006C 00000BB8 00000008 02000000"
      "00000010 6D646174"));

  // Offsets that are all positive or 0 keep version 0, with the offset field.
  video(8, 1, 3000, 6000);
  video(8, 0, 3000, 3000);
  EXPECT_EQ(fragment(), bytes_hex(
      "00000078 6D6F6F66 00000010 6D666864 00000000 00000003"
      "00000060 74726166 00000010 74666864 00020000 00000001 00000014 74666474 01000000 00000000 00002EE0"
      "  00000034 7472756E 00000F01 00000002 00000080"
      "    00000BB8 00000008 02000000 00000BB8 00000BB8 00000008 01010000 00000000"
      "00000018 6D646174"));
}

// 2^32 - 1 ticks, the longest subsegment (a negative duration is 0), one more refused; then decode times past 2^32.
TEST_F(FragmentTest, LongestSubsegmentAndDecodeTimesPastThirtyTwoBits) {
  fragments(0, 1, 0);
  box(Boxlane_Packet_MVhd, 0, 90000);
  for (const int duration : {INT32_MAX, INT32_MAX, 1, -1}) video(5, 1, duration, 0);
  EXPECT_EQ(box(Boxlane_Packet_SIdx), bytes_hex("00000034 73696478 01000000 00000001 00015F90 00000000 00000000 "
                                                "00000000 00000000 0000 0001 000000B4 FFFFFFFF 90000000"));
  video(5, 0, 1, 0);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_SIdx);
  fragment();
  video(5, 1, 1, 3000);  // decoded and presented at 2^32: the sidx's earliest time and the tfdt
  EXPECT_EQ(box(Boxlane_Packet_SIdx).substr(20 * 3, 23), "00 00 00 01 00 00 00 00");
  EXPECT_EQ(fragment().substr(60 * 3, 23), "00 00 00 01 00 00 00 00");
}

TEST_F(FragmentTest, SegmentTypeAndIndex) {
  EXPECT_EQ(box(Boxlane_Packet_STyp), bytes_hex("00000014 73747970 6D736468 00000000 6D736468"));
  fragments();
  box(Boxlane_Packet_MVhd, 0, 90000);
  first_fragment_samples();
  // Earliest presentation -3000 is written as 0. The subsegment is the moof, mdat header and 30 bytes.
  EXPECT_EQ(box(Boxlane_Packet_SIdx),
            bytes_hex("00000034 73696478 01000000 00000001 00015F90 00000000 00000000 00000000 00000000"
                      "0000 0001 0000010A 00002328 90000000"));
  fragment();
  // The earliest presentation is the second sample's, a frame after the first's decode time and before its offset.
  video(8, 1, 3000, 9000);
  video(8, 0, 3000, 3000);
  EXPECT_EQ(box(Boxlane_Packet_SIdx),
            bytes_hex("00000034 73696478 01000000 00000001 00015F90 00000000 00002EE0 00000000 00000000"
                      "0000 0001 00000090 00001770 90000000"));
  fragment();
  // Audio handed in first: the index is still the video track's, whose first sample is no sync sample, so the
  // subsegment has no SAP. The moof holds a video traf of 76 bytes and an audio one of 72; decode time 5 x 3000.
  audio(6, 1024);
  video(8, 0, 3000, 3000);
  EXPECT_EQ(box(Boxlane_Packet_SIdx),
            bytes_hex("00000034 73696478 01000000 00000001 00015F90 00000000 00003A98 00000000 00000000"
                      "0000 0001 000000C2 00000BB8 00000000"));
  fragment();
  // Only audio pending: the video track has nothing to index.
  audio(6, 1024);
  refuses(BOXLANE_ERROR_PACKET_NODATA, Boxlane_Packet_SIdx);
}

// Each tfra entry is a track's first sync sample in a fragment, at its presentation time (0 for one before 0).
TEST_F(FragmentTest, RandomAccessIndexListsTheFirstSyncSampleOfEachFragment) {
  fragments(BOXLANE_FRAGMENT_INDEX);
  first_fragment_samples();
  int32_t header = -1, mfra = -1;
  int64_t media = -1;
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(std::tuple(header, media, mfra),
            std::tuple(24 + (44 + 2 * 20 + 3 * 16) + (44 + 20 + 8) + 8, 30, 24 + 2 * 24));
  fragment(1000);
  audio(6, 1024);
  audio(6, 1024);
  fragment(2000);
  // The first sync sample is the second of its stretch, after an audio sample.
  video(8, 0, 3000, 3000);
  audio(6, 1024);
  video(8, 1, 3000, 6000);
  fragment(0x100000000);
  video(8, 0, 3000, 3000);  // a fragment without a sync sample has no entry
  fragment(0x200000000);
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(std::tuple(header, media, mfra), std::tuple(0, 0, 24 + 2 * 24 + 5 * 28));  // nothing pending
  EXPECT_EQ(box(Boxlane_Packet_MFra), bytes_hex(
      "000000D4 6D667261"
      "00000050 74667261 01000000 00000001 0000003F 00000002"
      "  00000000 00000000 00000000 000003E8 00000001 00000001 00000001"
      "  00000000 00003A98 00000001 00000000 00000001 00000002 00000001"
      "0000006C 74667261 01000000 00000002 0000003F 00000003"
      "  00000000 00000000 00000000 000003E8 00000002 00000001 00000001"
      "  00000000 00000400 00000000 000007D0 00000001 00000001 00000001"
      "  00000000 00000C00 00000001 00000000 00000002 00000001 00000001"
      "00000010 6D66726F 00000000 000000D4"));
}

// Refusals leave buffer and length alone.
TEST_F(FragmentTest, Refusals) {
  const auto order = BOXLANE_ERROR_PACKET_ORDER, nodata = BOXLANE_ERROR_PACKET_NODATA, parameter = BOXLANE_ERROR_PACKET_PARAMETER;
  refuses(order, Boxlane_Packet_MVex, uint64_t{0});
  refuses(order, Boxlane_Packet_Fragment, int64_t{0});
  refuses(order, Boxlane_Packet_SIdx);
  refuses(order, Boxlane_Packet_MFra);
  int32_t header = -1, mfra = -1;
  int64_t media = -1;
  EXPECT_FALSE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(std::tuple(Boxlane_GetLastError(nullptr), header, media, mfra), std::tuple(order, -1, int64_t{-1}, -1));
  // Arguments are checked before a second FragmentMode is refused. Without the index, mfra takes no bytes; any
  // length pointer may be null.
  fragments(0, 0, 2);
  for (const auto& [video, audio, flags, code] : {std::tuple{0u, 0u, 0u, parameter}, {3u, 3u, 0u, parameter},
                                                   {1u, 2u, 2u, parameter}, {0u, 2u, 0u, order}}) {
    EXPECT_FALSE(Boxlane_Packet_FragmentMode(client(), video, audio, 0, flags));
    EXPECT_EQ(Boxlane_GetLastError(nullptr), code);
  }
  EXPECT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, nullptr) &&
              Boxlane_Packet_FragmentSize(client(), nullptr, nullptr, &mfra) && mfra == 0);
  refuses(nodata, Boxlane_Packet_Fragment, int64_t{0});
  refuses(nodata, Boxlane_Packet_SIdx);
  refuses(order, Boxlane_Packet_MFra);  // no index asked for
  const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
  refuses(order, Boxlane_Packet_FrameVideo, frame, 6, int64_t{0}, 1, 3000, 0);
  const uint8_t* const nalu[1] = {frame + 4};
  const int32_t nalu_length[1] = {INT_MAX - 4};  // INT_MAX bytes with its length: the most, not refused for it
  refuses(order, Boxlane_Packet_FrameAccessUnit, nalu, nalu_length, 1, int64_t{0}, 1, 3000, 0);
  audio(6, 1024);
  box(Boxlane_Packet_MVhd, 0, -1);  // no time scale
  refuses(order, Boxlane_Packet_SIdx);
  box(Boxlane_Packet_MVhd, 0, 90000);
  // Without video the index describes the audio track.
  EXPECT_EQ(box(Boxlane_Packet_SIdx), bytes_hex("00000034 73696478 01000000 00000002 00015F90 00000000 00000000 "
                                                "00000000 00000000 0000 0001 0000006E 00000400 90000000"));
  refuses(parameter, Boxlane_Packet_Fragment, int64_t{-1});
  // Without an audio track an audio frame has no place either; the index has no tfra for it.
  ASSERT_TRUE(Boxlane_Packet_Delete(client()) && Boxlane_Packet_Insert(client()));
  fragments(BOXLANE_FRAGMENT_INDEX, 1, 0);
  exact(8 + 32, Boxlane_Packet_MVex, uint64_t{0});
  refuses(order, Boxlane_Packet_FrameAudio, frame, 6, int64_t{0}, 1024);
  EXPECT_TRUE(Boxlane_Packet_FragmentSize(client(), nullptr, nullptr, &mfra) && mfra == 24 + 24) << mfra;
  exact(std::size_t(mfra), Boxlane_Packet_MFra);
  EXPECT_EQ(std::tuple(record().pFragments->listSample.size(), record().pFragments->nPayload), std::tuple(0u, 0u));
}

// The offset after the shift must fit trun's signed 32 bits, whichever way the shift goes.
TEST_F(FragmentTest, CompositionOffsetMustFitAfterTheShift) {
  const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
  // shift, the first offset past the edge, the last one within it, and that one as trun writes it
  const std::tuple<int32_t, int32_t, int32_t, const char*> cases[] = {{INT32_MAX, -2, -1, "80 00 00 00"},
                                                                      {-1, INT32_MAX, INT32_MAX - 1, "7F FF FF FF"}};
  for (const auto& [shift, past, last, written] : cases) {
    ASSERT_TRUE(Boxlane_Packet_Delete(client()) && Boxlane_Packet_Insert(client()));
    ASSERT_TRUE(Boxlane_Packet_FragmentMode(client(), 1, 0, shift, 0));
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameVideo, frame, 6, int64_t{0}, 1, 3000, past);
    video(6, 1, 3000, last);
    EXPECT_EQ(fragment().substr(100 * 3, 11), written) << "shift " << shift;
  }
}

// A fragment holds at most 2^31 - 1 bytes with its moof and mdat header; trun takes 12 bytes a sample, 16 with offsets.
TEST(FragmentLimit, FullFragmentRefusesTheNextFrame) {
  BOXLANE_FRAGMENTS f;
  f.stTrack[0].nTrackID = 1;
  const uint32_t most = INT32_MAX - (24 + 44 + 20 + 12) - 8;
  EXPECT_FALSE(packet::add_fragment_sample(f, {BOXLANE_FRAGMENTS::kVideo, most + 1, 1, 0, true}));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_FULL);
  EXPECT_TRUE(packet::add_fragment_sample(f, {BOXLANE_FRAGMENTS::kVideo, 0, 1, 0, true}));
  EXPECT_FALSE(packet::add_fragment_sample(f, {BOXLANE_FRAGMENTS::kVideo, most - 19, 1, 1, false}));
  EXPECT_TRUE(packet::add_fragment_sample(f, {BOXLANE_FRAGMENTS::kVideo, most - 20, 1, 1, false}));
  EXPECT_FALSE(packet::add_fragment_sample(f, {BOXLANE_FRAGMENTS::kVideo, 0, 1, 0, false}));
  EXPECT_EQ(std::tuple(f.listSample.size(), f.nPayload), std::tuple(2u, most - 20));
}

}  // namespace
}  // namespace boxlane::test
