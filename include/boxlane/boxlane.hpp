// Boxlane's C++ interface: the parser and writer classes behind the flat
// functions of boxlane.h, and their two process-wide singletons. Calling a
// member on m_MP4Parse or m_MP4Packet is the same as calling the flat function
// of the same name; the members without a flat export (SetTime, TimeCount,
// the descriptor length coders, the box readers) are reached only here.
#ifndef BOXLANE_BOXLANE_HPP
#define BOXLANE_BOXLANE_HPP

#include <boxlane/boxlane.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

// Records only the library looks into.
struct QORVANE_MP4PARSE;
struct BOXLANE_MSGBUFFER;
struct QORVANE_MP4PACKET;

// Hash for the client tables: looks a client up by std::string_view without
// building a std::string.
struct BOXLANE_CLIENTHASH {
  using is_transparent = void;
  std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
};

template <typename Record>
using BOXLANE_CLIENTMAP =
    std::unordered_map<std::string, std::unique_ptr<Record>, BOXLANE_CLIENTHASH, std::equal_to<>>;

class BOXLANE_API CBoxlane_Parse {
 public:
  CBoxlane_Parse();
  ~CBoxlane_Parse();
  CBoxlane_Parse(const CBoxlane_Parse&) = delete;
  CBoxlane_Parse& operator=(const CBoxlane_Parse&) = delete;

  // Clients, intake and the task pool.
  bool Boxlane_Parse_Init(int nPoolCount);
  bool Boxlane_Parse_Destory();
  bool Boxlane_Parse_Insert(const char* lpszClient);
  bool Boxlane_Parse_InsertEx(const char* lpszClient, uint32_t nFlags);
  bool Boxlane_Parse_SetLimit(uint64_t nMaxBytes);
  bool Boxlane_Parse_Delete(const char* lpszClient);
  bool Boxlane_Parse_Send(const char* lpszClient, const uint8_t* lpszMsgBuffer, int nMsgLen);
  bool Boxlane_Parse_Build(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, int nMsgLen);
  bool Boxlane_Parse_GetPool(int nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr, int* pInt_ListCount);
  bool Boxlane_Parse_WaitEvent(int nPoolIndex, int nTimeout);
  bool Boxlane_Parse_ActiveEvent(int nPoolIndex);

  // Splitter and header queue.
  bool Boxlane_Parse_Packet(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, int nMsgLen);
  bool Boxlane_Parse_Recv(const char* lpszClient, QORVANE_MP4HDR* pSt_MP4Hdr, uint64_t* pInt_ParsePos);
  bool Boxlane_Parse_RecvEx(const char* lpszClient, BOXLANE_BOXINFO* pSt_BoxInfo, uint64_t* pInt_ParsePos);

  // Box readers, called by the splitter with the payload (the bytes after the
  // 8-byte box header) and its exact length.
  bool Boxlane_Parse_FTyp(QORVANE_MP4PARSE* pSt_MP4Parse, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_MVhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_TKhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_MDhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_HDlr(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_VMhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_SMhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_Dinf(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STsd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STts(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_CTts(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STsc(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STsz(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STco(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STss(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_SDtp(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  // Readers of the extended mode (Boxlane_Parse_InsertEx).
  bool Boxlane_Parse_CO64(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_STz2(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_TRex(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  bool Boxlane_Parse_MEhd(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  // A whole moof: the box starts at the record's parse position, and its
  // header is as long as the queue entry says.
  bool Boxlane_Parse_MOof(QORVANE_MP4PARSE* pSt_MP4Parse, BOXLANE_MSGBUFFER* pSt_MSGBuffer, const uint8_t* lpszMsgBuffer, uint64_t nMsgLen);
  // Decodes an ISO/IEC 14496-1 expandable size field (at most 4 bytes read).
  int Boxlane_Parse_DescriptorLen(const uint8_t* lpszMsgBuffer, int* pInt_Count);

  // Queries.
  bool Boxlane_Parse_GetFTyp(const char* lpszClient, QORVANE_HDRFTYP* pSt_FTyp);
  bool Boxlane_Parse_GetMVhd(const char* lpszClient, QORVANE_HDRMVHD* pSt_MVhd);
  bool Boxlane_Parse_GetTrack(const char* lpszClient, int* pInt_TrackList);
  bool Boxlane_Parse_GetTrackInfo(const char* lpszClient, int nTrackID, QORVANE_HDRTKHD* pSt_TKhd, QORVANE_HDRMDHD* pSt_MDhd, QORVANE_HDRHDLR* pSt_HDlr, QORVANE_HDRVMSMHD* pSt_VMSMhd);
  bool Boxlane_Parse_GetTrackList(const char* lpszClient, int nTrackID, QORVANE_HDRSAMPLENFO*** pppSt_ListInfo, int* pInt_ListCount, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE enHType);
  bool Boxlane_Parse_GetTrackKey(const char* lpszClient, int nTrackID, int*** pppInt_KeyList, int* pInt_ListCount);
  bool Boxlane_Parse_GetTrackSDtp(const char* lpszClient, int nTrackID, QORVANE_HDRSDTP*** pppSt_ListSDtp, int* pInt_ListCount);
  bool Boxlane_Parse_GetTrackCodec(const char* lpszClient, int nTrackID, BOXLANE_CODECINFO* pSt_CodecInfo);
  bool Boxlane_Parse_GetTrackHEVC(const char* lpszClient, int nTrackID, BOXLANE_HEVCINFO* pSt_HEVCInfo);
  bool Boxlane_Parse_GetStream(const char* lpszClient, BOXLANE_STREAMINFO* pSt_StreamInfo);
  bool Boxlane_Parse_GetTrackIDs(const char* lpszClient, int*** pppInt_TrackList, int* pInt_ListCount);
  bool Boxlane_Parse_GetTrackIndex(const char* lpszClient, int nTrackID, BOXLANE_TRACKINDEX* pSt_TrackIndex);
  bool Boxlane_Parse_GetTrackSamples(const char* lpszClient, int nTrackID, uint32_t nFirst, BOXLANE_SAMPLEINFO* pSt_Samples, int nCapacity, int* pInt_Count);
  bool Boxlane_Parse_GetFragment(const char* lpszClient, BOXLANE_FRAGMENTINFO* pSt_Fragment, BOXLANE_SAMPLEINFO* pSt_Samples, int nCapacity, int* pInt_Count);

  void* xhPool = nullptr;
  std::shared_mutex st_RWLocker;
  BOXLANE_CLIENTMAP<QORVANE_MP4PARSE> stl_MapClient;
};

class BOXLANE_API CBoxlane_Packet {
 public:
  CBoxlane_Packet();
  ~CBoxlane_Packet();
  CBoxlane_Packet(const CBoxlane_Packet&) = delete;
  CBoxlane_Packet& operator=(const CBoxlane_Packet&) = delete;

  // Clients and timing.
  bool Boxlane_Packet_Insert(const char* lpszClient);
  bool Boxlane_Packet_Delete(const char* lpszClient);
  bool Boxlane_Packet_SetTime(const char* lpszClient, int nFrameRate, int nSampleRate);
  int64_t Boxlane_Packet_TimeCount(QORVANE_MP4PACKET* pSt_MP4Packet);

  // Box header and header boxes.
  bool Boxlane_Packet_HDRBox(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszBoxType, const uint8_t* lpszPayload, int nPayloadLen);
  bool Boxlane_Packet_FTyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_MVhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int nDuration, int nTimeScale);
  bool Boxlane_Packet_TKhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int nVolume, int nWidth, int nHeight, int nDuration);
  bool Boxlane_Packet_MDhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint16_t wLanguage);
  bool Boxlane_Packet_MDhdEx(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint16_t wLanguage, uint32_t nDuration);
  bool Boxlane_Packet_HDlr(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint8_t byHandlerType);
  bool Boxlane_Packet_VMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_SMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int16_t wBalance);
  bool Boxlane_Packet_DInf(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_EDts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint32_t nSegmentDuration, int nMediaTime);
  // 64-bit forms: version 1 (or a 64-bit box size) when a value needs it.
  bool Boxlane_Packet_HDRBox64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszBoxType, uint64_t nPayloadLen);
  bool Boxlane_Packet_MVhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint64_t nDuration, int nTimeScale);
  bool Boxlane_Packet_TKhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int nVolume, int nWidth, int nHeight, uint64_t nDuration);
  bool Boxlane_Packet_MDhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint16_t wLanguage, uint64_t nDuration);
  bool Boxlane_Packet_EDts64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint64_t nSegmentDuration, int64_t nMediaTime);

  // Sample description.
  bool Boxlane_Packet_STsd(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const tag_Qorvane_AVProtocol* pSt_AVProtocol);
  bool Boxlane_Packet_STsdHEVC(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const uint8_t* lpszParamSets, int nParamSetsLen);
  bool Boxlane_Packet_STsdParamSets(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const uint8_t* const* pptszParamSet, const int* pInt_ParamSetLen, int nParamSetCount);
  // Encodes an ISO/IEC 14496-1 expandable size field; always true.
  bool Boxlane_Packet_DescriptorLen(uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int nLen);

  // Sample tables.
  bool Boxlane_Packet_STts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, bool bVideo);
  bool Boxlane_Packet_CTts(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_STss(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_STsc(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_STsz(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, bool bVideo);
  bool Boxlane_Packet_STco(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, bool bVideo);
  bool Boxlane_Packet_STco64(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, bool bVideo, int64_t nOffsetDelta);
  bool Boxlane_Packet_STco64Size(const char* lpszClient, bool bVideo, int64_t nOffsetDelta, int* pInt_BoxSize);

  // Frames.
  bool Boxlane_Packet_FrameVideo(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const uint8_t* lpszFrame, int nFrameLen, int64_t nFilePos, int nKeyFrame, int nDuration, int nCTSOffset);
  bool Boxlane_Packet_FrameAccessUnit(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const uint8_t* const* pptszNalu, const int* pInt_NaluLen, int nNaluCount, int64_t nFilePos, int nKeyFrame, int nDuration, int nCTSOffset);
  bool Boxlane_Packet_FrameAudio(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, const uint8_t* lpszFrame, int nFrameLen, int64_t nFilePos, int nDuration);

  // Fragments.
  bool Boxlane_Packet_FragmentMode(const char* lpszClient, uint32_t nVideoTrackID, uint32_t nAudioTrackID, int nCTSShift, uint32_t nFlags);
  bool Boxlane_Packet_MVex(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, uint64_t nDuration);
  bool Boxlane_Packet_FragmentSize(const char* lpszClient, int* pInt_HeaderLen, int64_t* pInt_MediaLen, int* pInt_MFraLen);
  bool Boxlane_Packet_Fragment(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen, int64_t nFilePos);
  bool Boxlane_Packet_STyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_SIdx(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);
  bool Boxlane_Packet_MFra(const char* lpszClient, uint8_t* ptszMsgBuffer, int* pInt_MsgLen);

  // Changed, under the exclusive lock, whenever a client is removed, and
  // unique across instances, so that a thread may reuse its last lookup
  // without the lock while no client has left the table since. Only Delete
  // writes it; every other call only reads it.
  alignas(64) uint64_t nTableVersion;
  std::shared_mutex st_RWLocker;
  BOXLANE_CLIENTMAP<QORVANE_MP4PACKET> stl_MapClient;
};

extern BOXLANE_API CBoxlane_Parse m_MP4Parse;
extern BOXLANE_API CBoxlane_Packet m_MP4Packet;

#endif  // BOXLANE_BOXLANE_HPP
