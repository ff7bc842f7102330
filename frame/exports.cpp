// The flat C functions. Each forwards its arguments unchanged to the member
// of the same name on a singleton; checks, locking and errors are the member's.
#include <boxlane/boxlane.hpp>

extern "C" {

bool Boxlane_Parse_Init(int32_t nPoolCount) { return m_MP4Parse.Boxlane_Parse_Init(nPoolCount); }
bool Boxlane_Parse_Destory(void) { return m_MP4Parse.Boxlane_Parse_Destory(); }
bool Boxlane_Parse_Insert(const char* lpszClient) { return m_MP4Parse.Boxlane_Parse_Insert(lpszClient); }
bool Boxlane_Parse_InsertEx(const char* lpszClient, uint32_t nFlags) { return m_MP4Parse.Boxlane_Parse_InsertEx(lpszClient, nFlags); }
bool Boxlane_Parse_SetLimit(uint64_t nMaxBytes) { return m_MP4Parse.Boxlane_Parse_SetLimit(nMaxBytes); }
bool Boxlane_Parse_Delete(const char* lpszClient) { return m_MP4Parse.Boxlane_Parse_Delete(lpszClient); }
bool Boxlane_Parse_Send(const char* lpszClient, const uint8_t* lpszMsgBuffer, int32_t nMsgLen) { return m_MP4Parse.Boxlane_Parse_Send(lpszClient, lpszMsgBuffer, nMsgLen); }
bool Boxlane_Parse_Recv(const char* lpszClient, QORVANE_MP4HDR* pSt_MP4Hdr, uint64_t* pInt_ParsePos) { return m_MP4Parse.Boxlane_Parse_Recv(lpszClient, pSt_MP4Hdr, pInt_ParsePos); }
bool Boxlane_Parse_RecvEx(const char* lpszClient, BOXLANE_BOXINFO* pSt_BoxInfo, uint64_t* pInt_ParsePos) { return m_MP4Parse.Boxlane_Parse_RecvEx(lpszClient, pSt_BoxInfo, pInt_ParsePos); }
bool Boxlane_Parse_GetFTyp(const char* lpszClient, QORVANE_HDRFTYP* pSt_FTyp) { return m_MP4Parse.Boxlane_Parse_GetFTyp(lpszClient, pSt_FTyp); }
bool Boxlane_Parse_GetMVhd(const char* lpszClient, QORVANE_HDRMVHD* pSt_MVhd) { return m_MP4Parse.Boxlane_Parse_GetMVhd(lpszClient, pSt_MVhd); }
bool Boxlane_Parse_GetTrack(const char* lpszClient, int32_t* pInt_TrackList) { return m_MP4Parse.Boxlane_Parse_GetTrack(lpszClient, pInt_TrackList); }
bool Boxlane_Parse_GetTrackInfo(const char* lpszClient, int32_t nTrackID, QORVANE_HDRTKHD* pSt_TKhd, QORVANE_HDRMDHD* pSt_MDhd, QORVANE_HDRHDLR* pSt_HDlr, QORVANE_HDRVMSMHD* pSt_VMSMhd) { return m_MP4Parse.Boxlane_Parse_GetTrackInfo(lpszClient, nTrackID, pSt_TKhd, pSt_MDhd, pSt_HDlr, pSt_VMSMhd); }
bool Boxlane_Parse_GetTrackList(const char* lpszClient, int32_t nTrackID, QORVANE_HDRSAMPLENFO*** pppSt_ListInfo, int32_t* pInt_ListCount, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE enHType) { return m_MP4Parse.Boxlane_Parse_GetTrackList(lpszClient, nTrackID, pppSt_ListInfo, pInt_ListCount, enHType); }
bool Boxlane_Parse_GetTrackKey(const char* lpszClient, int32_t nTrackID, int32_t*** pppInt_KeyList, int32_t* pInt_ListCount) { return m_MP4Parse.Boxlane_Parse_GetTrackKey(lpszClient, nTrackID, pppInt_KeyList, pInt_ListCount); }
bool Boxlane_Parse_GetTrackSDtp(const char* lpszClient, int32_t nTrackID, QORVANE_HDRSDTP*** pppSt_ListSDtp, int32_t* pInt_ListCount) { return m_MP4Parse.Boxlane_Parse_GetTrackSDtp(lpszClient, nTrackID, pppSt_ListSDtp, pInt_ListCount); }
bool Boxlane_Parse_GetTrackCodec(const char* lpszClient, int32_t nTrackID, BOXLANE_CODECINFO* pSt_CodecInfo) { return m_MP4Parse.Boxlane_Parse_GetTrackCodec(lpszClient, nTrackID, pSt_CodecInfo); }
bool Boxlane_Parse_GetTrackHEVC(const char* lpszClient, int32_t nTrackID, BOXLANE_HEVCINFO* pSt_HEVCInfo) { return m_MP4Parse.Boxlane_Parse_GetTrackHEVC(lpszClient, nTrackID, pSt_HEVCInfo); }
bool Boxlane_Parse_GetStream(const char* lpszClient, BOXLANE_STREAMINFO* pSt_StreamInfo) { return m_MP4Parse.Boxlane_Parse_GetStream(lpszClient, pSt_StreamInfo); }
bool Boxlane_Parse_GetTrackIDs(const char* lpszClient, int32_t*** pppInt_TrackList, int32_t* pInt_ListCount) { return m_MP4Parse.Boxlane_Parse_GetTrackIDs(lpszClient, pppInt_TrackList, pInt_ListCount); }
bool Boxlane_Parse_GetTrackIndex(const char* lpszClient, int32_t nTrackID, BOXLANE_TRACKINDEX* pSt_TrackIndex) { return m_MP4Parse.Boxlane_Parse_GetTrackIndex(lpszClient, nTrackID, pSt_TrackIndex); }
bool Boxlane_Parse_GetTrackSamples(const char* lpszClient, int32_t nTrackID, uint32_t nFirst, BOXLANE_SAMPLEINFO* pSt_Samples, int32_t nCapacity, int32_t* pInt_Count) { return m_MP4Parse.Boxlane_Parse_GetTrackSamples(lpszClient, nTrackID, nFirst, pSt_Samples, nCapacity, pInt_Count); }
bool Boxlane_Parse_GetFragment(const char* lpszClient, BOXLANE_FRAGMENTINFO* pSt_Fragment, BOXLANE_SAMPLEINFO* pSt_Samples, int32_t nCapacity, int32_t* pInt_Count) { return m_MP4Parse.Boxlane_Parse_GetFragment(lpszClient, pSt_Fragment, pSt_Samples, nCapacity, pInt_Count); }
bool Boxlane_Parse_GetPool(int32_t nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr, int32_t* pInt_ListCount) { return m_MP4Parse.Boxlane_Parse_GetPool(nPoolIndex, pppSt_ListAddr, pInt_ListCount); }
bool Boxlane_Parse_WaitEvent(int32_t nPoolIndex, int32_t nTimeout) { return m_MP4Parse.Boxlane_Parse_WaitEvent(nPoolIndex, nTimeout); }
bool Boxlane_Parse_ActiveEvent(int32_t nPoolIndex) { return m_MP4Parse.Boxlane_Parse_ActiveEvent(nPoolIndex); }
bool Boxlane_Packet_Insert(const char* lpszClient) { return m_MP4Packet.Boxlane_Packet_Insert(lpszClient); }
bool Boxlane_Packet_Delete(const char* lpszClient) { return m_MP4Packet.Boxlane_Packet_Delete(lpszClient); }
bool Boxlane_Packet_HDRBox(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const char* lpszBoxType, const uint8_t* lpszPayload, int32_t nPayloadLen) { return m_MP4Packet.Boxlane_Packet_HDRBox(lpszClient, ptszMsgBuffer, pInt_MsgLen, lpszBoxType, lpszPayload, nPayloadLen); }
bool Boxlane_Packet_FTyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_FTyp(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_MVhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nDuration, int32_t nTimeScale) { return m_MP4Packet.Boxlane_Packet_MVhd(lpszClient, ptszMsgBuffer, pInt_MsgLen, nDuration, nTimeScale); }
bool Boxlane_Packet_TKhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nVolume, int32_t nWidth, int32_t nHeight, int32_t nDuration) { return m_MP4Packet.Boxlane_Packet_TKhd(lpszClient, ptszMsgBuffer, pInt_MsgLen, nVolume, nWidth, nHeight, nDuration); }
bool Boxlane_Packet_MDhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage) { return m_MP4Packet.Boxlane_Packet_MDhd(lpszClient, ptszMsgBuffer, pInt_MsgLen, wLanguage); }
bool Boxlane_Packet_MDhdEx(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage, uint32_t nDuration) { return m_MP4Packet.Boxlane_Packet_MDhdEx(lpszClient, ptszMsgBuffer, pInt_MsgLen, wLanguage, nDuration); }
bool Boxlane_Packet_HDlr(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint8_t byHandlerType) { return m_MP4Packet.Boxlane_Packet_HDlr(lpszClient, ptszMsgBuffer, pInt_MsgLen, byHandlerType); }
bool Boxlane_Packet_VMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_VMhd(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_SMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int16_t wBalance) { return m_MP4Packet.Boxlane_Packet_SMhd(lpszClient, ptszMsgBuffer, pInt_MsgLen, wBalance); }
bool Boxlane_Packet_DInf(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_DInf(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_EDts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint32_t nSegmentDuration, int32_t nMediaTime) { return m_MP4Packet.Boxlane_Packet_EDts(lpszClient, ptszMsgBuffer, pInt_MsgLen, nSegmentDuration, nMediaTime); }
bool Boxlane_Packet_HDRBox64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const char* lpszBoxType, uint64_t nPayloadLen) { return m_MP4Packet.Boxlane_Packet_HDRBox64(lpszClient, ptszMsgBuffer, pInt_MsgLen, lpszBoxType, nPayloadLen); }
bool Boxlane_Packet_MVhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nDuration, int32_t nTimeScale) { return m_MP4Packet.Boxlane_Packet_MVhd64(lpszClient, ptszMsgBuffer, pInt_MsgLen, nDuration, nTimeScale); }
bool Boxlane_Packet_TKhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nVolume, int32_t nWidth, int32_t nHeight, uint64_t nDuration) { return m_MP4Packet.Boxlane_Packet_TKhd64(lpszClient, ptszMsgBuffer, pInt_MsgLen, nVolume, nWidth, nHeight, nDuration); }
bool Boxlane_Packet_MDhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage, uint64_t nDuration) { return m_MP4Packet.Boxlane_Packet_MDhd64(lpszClient, ptszMsgBuffer, pInt_MsgLen, wLanguage, nDuration); }
bool Boxlane_Packet_EDts64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nSegmentDuration, int64_t nMediaTime) { return m_MP4Packet.Boxlane_Packet_EDts64(lpszClient, ptszMsgBuffer, pInt_MsgLen, nSegmentDuration, nMediaTime); }
bool Boxlane_Packet_STsd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const tag_Qorvane_AVProtocol* pSt_AVProtocol) { return m_MP4Packet.Boxlane_Packet_STsd(lpszClient, ptszMsgBuffer, pInt_MsgLen, pSt_AVProtocol); }
bool Boxlane_Packet_STsdHEVC(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszParamSets, int32_t nParamSetsLen) { return m_MP4Packet.Boxlane_Packet_STsdHEVC(lpszClient, ptszMsgBuffer, pInt_MsgLen, lpszParamSets, nParamSetsLen); }
bool Boxlane_Packet_STsdParamSets(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* const* pptszParamSet, const int32_t* pInt_ParamSetLen, int32_t nParamSetCount) { return m_MP4Packet.Boxlane_Packet_STsdParamSets(lpszClient, ptszMsgBuffer, pInt_MsgLen, pptszParamSet, pInt_ParamSetLen, nParamSetCount); }
bool Boxlane_Packet_STts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo) { return m_MP4Packet.Boxlane_Packet_STts(lpszClient, ptszMsgBuffer, pInt_MsgLen, bVideo); }
bool Boxlane_Packet_CTts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_CTts(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_STss(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_STss(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_STsc(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_STsc(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_STsz(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo) { return m_MP4Packet.Boxlane_Packet_STsz(lpszClient, ptszMsgBuffer, pInt_MsgLen, bVideo); }
bool Boxlane_Packet_STco(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo) { return m_MP4Packet.Boxlane_Packet_STco(lpszClient, ptszMsgBuffer, pInt_MsgLen, bVideo); }
bool Boxlane_Packet_STco64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo, int64_t nOffsetDelta) { return m_MP4Packet.Boxlane_Packet_STco64(lpszClient, ptszMsgBuffer, pInt_MsgLen, bVideo, nOffsetDelta); }
bool Boxlane_Packet_STco64Size(const char* lpszClient, bool bVideo, int64_t nOffsetDelta, int32_t* pInt_BoxSize) { return m_MP4Packet.Boxlane_Packet_STco64Size(lpszClient, bVideo, nOffsetDelta, pInt_BoxSize); }
bool Boxlane_Packet_FrameVideo(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszFrame, int32_t nFrameLen, int64_t nFilePos, int32_t nKeyFrame, int32_t nDuration, int32_t nCTSOffset) { return m_MP4Packet.Boxlane_Packet_FrameVideo(lpszClient, ptszMsgBuffer, pInt_MsgLen, lpszFrame, nFrameLen, nFilePos, nKeyFrame, nDuration, nCTSOffset); }
bool Boxlane_Packet_FrameAccessUnit(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* const* pptszNalu, const int32_t* pInt_NaluLen, int32_t nNaluCount, int64_t nFilePos, int32_t nKeyFrame, int32_t nDuration, int32_t nCTSOffset) { return m_MP4Packet.Boxlane_Packet_FrameAccessUnit(lpszClient, ptszMsgBuffer, pInt_MsgLen, pptszNalu, pInt_NaluLen, nNaluCount, nFilePos, nKeyFrame, nDuration, nCTSOffset); }
bool Boxlane_Packet_FrameAudio(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszFrame, int32_t nFrameLen, int64_t nFilePos, int32_t nDuration) { return m_MP4Packet.Boxlane_Packet_FrameAudio(lpszClient, ptszMsgBuffer, pInt_MsgLen, lpszFrame, nFrameLen, nFilePos, nDuration); }
bool Boxlane_Packet_FragmentMode(const char* lpszClient, uint32_t nVideoTrackID, uint32_t nAudioTrackID, int32_t nCTSShift, uint32_t nFlags) { return m_MP4Packet.Boxlane_Packet_FragmentMode(lpszClient, nVideoTrackID, nAudioTrackID, nCTSShift, nFlags); }
bool Boxlane_Packet_MVex(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nDuration) { return m_MP4Packet.Boxlane_Packet_MVex(lpszClient, ptszMsgBuffer, pInt_MsgLen, nDuration); }
bool Boxlane_Packet_FragmentSize(const char* lpszClient, int32_t* pInt_HeaderLen, int64_t* pInt_MediaLen, int32_t* pInt_MFraLen) { return m_MP4Packet.Boxlane_Packet_FragmentSize(lpszClient, pInt_HeaderLen, pInt_MediaLen, pInt_MFraLen); }
bool Boxlane_Packet_Fragment(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int64_t nFilePos) { return m_MP4Packet.Boxlane_Packet_Fragment(lpszClient, ptszMsgBuffer, pInt_MsgLen, nFilePos); }
bool Boxlane_Packet_STyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_STyp(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_SIdx(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_SIdx(lpszClient, ptszMsgBuffer, pInt_MsgLen); }
bool Boxlane_Packet_MFra(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen) { return m_MP4Packet.Boxlane_Packet_MFra(lpszClient, ptszMsgBuffer, pInt_MsgLen); }

}  // extern "C"
