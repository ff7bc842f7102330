/*
 * Boxlane: an MP4 (ISO/IEC 14496-12) box writer and stream parser.
 *
 * This is the C interface. It compiles as C99 and as C++. Every function
 * returns true on success; on failure it returns false and leaves a code in
 * Boxlane_dwErrorCode (read it with Boxlane_GetLastError).
 *
 * Writer road: Boxlane_Packet_Insert, then per frame Boxlane_Packet_FrameVideo /
 * Boxlane_Packet_FrameAudio (append the returned bytes to your mdat), then the
 * boxes of the movie into buffers you own, then Boxlane_Packet_Delete.
 *
 * Parser road: Boxlane_Parse_Init once, Boxlane_Parse_Insert per client,
 * Boxlane_Parse_Send per received piece, a worker that waits with
 * Boxlane_Parse_WaitEvent, lists clients with Boxlane_Parse_GetPool and takes
 * one header record per box with Boxlane_Parse_Recv, then the queries. A
 * client inserted with Boxlane_Parse_InsertEx in the extended mode also reads
 * 64-bit sizes, co64, stz2 and movie fragments, whose samples the worker
 * takes with Boxlane_Parse_GetFragment after each moof's header record.
 *
 * Fragment road (ISO/IEC 14496-12 §8.8): Boxlane_Packet_FragmentMode right
 * after Insert, the init segment (ftyp, then a moov whose sample tables are
 * empty and which holds Boxlane_Packet_MVex), then per fragment the frames,
 * Boxlane_Packet_Fragment (moof and mdat header) and the frames' bytes.
 */
#ifndef BOXLANE_BOXLANE_H
#define BOXLANE_BOXLANE_H

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__) || defined(__clang__)
#define BOXLANE_API __attribute__((visibility("default")))
#else
#define BOXLANE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- errors */

/* Parser half: 0x091B00xx. */
#define BOXLANE_ERROR_PARSE_PARAMETER 0x091B0001 /* null or over-long client string, null data, negative length */
#define BOXLANE_ERROR_PARSE_MALLOC 0x091B0002    /* a reassembly buffer could not be allocated */
#define BOXLANE_ERROR_PARSE_NOTFOUND 0x091B0003  /* unknown client, or unknown track id */
#define BOXLANE_ERROR_PARSE_NODATA 0x091B0004    /* no header record is queued */
#define BOXLANE_ERROR_PARSE_NOTREADY 0x091B0005  /* the oldest queued box is still incomplete */
#define BOXLANE_ERROR_PARSE_NOTSUPPORT 0x091B0006 /* stream stopped: 64-bit box size, or a box too large */
#define BOXLANE_ERROR_PARSE_MALFORMED 0x091B0007 /* a box size field of 2 to 7 (or a 64-bit size below 16) */
#define BOXLANE_ERROR_PARSE_BUFFER 0x091B0008    /* the caller's array is too small for the answer */
#define BOXLANE_ERROR_PARSE_LIMIT 0x091B0009     /* the client would hold more than Boxlane_Parse_SetLimit allows */

/* Writer half: 0x091B10xx. */
#define BOXLANE_ERROR_PACKET_PARAMETER 0x091B1001 /* null pointer, negative or out-of-range length */
#define BOXLANE_ERROR_PACKET_MALLOC 0x091B1002    /* per-sample bookkeeping could not grow */
#define BOXLANE_ERROR_PACKET_NOTFOUND 0x091B1003  /* the client is not in the writer's table */
#define BOXLANE_ERROR_PACKET_NOTSUPPORT 0x091B1004 /* handler type greater than 4 */
#define BOXLANE_ERROR_PACKET_NODATA 0x091B1005    /* no composition offset has been recorded; no sample pending for a fragment */
#define BOXLANE_ERROR_PACKET_ORDER 0x091B1006     /* not in the client's mode: a fragment call before Boxlane_Packet_FragmentMode, FragmentMode after frames, a frame of a track the fragments do not have */
#define BOXLANE_ERROR_PACKET_FULL 0x091B1007      /* the pending fragment cannot take this frame: write it with Boxlane_Packet_Fragment first */

/* Task pool (copied unchanged into Boxlane_dwErrorCode by the parser's event
 * functions): 0x0A2E00xx. */
#define RENDAVO_ERROR_TASKPOOL_PARAMETER 0x0A2E0001 /* bad handle, pool index or out pointer; no pool */
#define RENDAVO_ERROR_TASKPOOL_TIMEOUT 0x0A2E0002   /* WaitEvent: nothing happened within the time-out */
#define RENDAVO_ERROR_TASKPOOL_MALLOC 0x0A2E0003    /* out of memory */
#define RENDAVO_ERROR_TASKPOOL_CLOSED 0x0A2E0004    /* the pool was destroyed while a worker waited */

/* Last error, process-wide and unsynchronised: read the code right after
 * the failing call. Boxlane_IsErrorOccur is true if the most recent call failed. */
extern BOXLANE_API bool Boxlane_IsErrorOccur;
extern BOXLANE_API uint64_t Boxlane_dwErrorCode;

/* ------------------------------------------------------------ box types */

/* A box's place in the moov tree: a container's code times ten plus the
 * child's position. Unknown boxes and free get 0. */
typedef enum {
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN = 0,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP = 1,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT = 2,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOV = 3,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UUID = 4,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVHD = 30,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAK = 31,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TKHD = 311,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EDTS = 312,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_ELST = 3121,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDIA = 313,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDHD = 3131,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HDLR = 3132,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MINF = 3133,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_VMHD = 31331,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SMHD = 31332,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HMHD = 31333,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_NMHD = 31334,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_DINF = 31335,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STBL = 31336,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD = 313361,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS = 313362,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC = 313363,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ = 313364,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO = 313365,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS = 313366,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS = 313367,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP = 313368,
  /* Read only by a client in the extended mode (Boxlane_Parse_InsertEx). A
   * client inserted with Boxlane_Parse_Insert reports each of these boxes as
   * UNKNOWN and skips it whole, children included. The codes follow the same
   * rule: moof, sidx, styp, emsg and mfra are top-level boxes 5 to 9, mvex the
   * third child of moov, co64 and stz2 the ninth and tenth of stbl. An sdtp
   * inside a traf keeps the sdtp code. */
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF = 5,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SIDX = 6,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STYP = 7,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EMSG = 8,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFRA = 9,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVEX = 32,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFHD = 51,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAF = 52,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFRA = 91,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFRO = 92,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TREX = 321,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MEHD = 322,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFHD = 521,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFDT = 522,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRUN = 523,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64 = 313369,
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STZ2 = 313370,
  /* Never a box's code. It makes every 32-bit value a valid value of the
   * enumeration, so a code from a C caller never leaves its range. */
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_INVALID = -2147483647 - 1
} ENUM_QORVANE_MORVALY_BOXLANE_HTYPE;

/* -------------------------------------------------------- parser records */

/* One queued record per box, handed out by Boxlane_Parse_Recv. */
typedef struct {
  uint64_t nBoxSize;                          /* as declared; 0 for size field 0, and for 1 unless the client is extended */
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE enHType; /* box type code */
  uint16_t wUUIDHead;                         /* uuid: the two bytes after the fourcc */
  uint8_t byVersion;                          /* full boxes: version */
  uint8_t byFlags[3];                         /* full boxes: flags as stored */
} QORVANE_MP4HDR;

typedef struct {
  char tszMajorBrand[8];
  uint32_t nMinorVersion;
  int32_t nBrandCount;
  /* Made by Boxlane_Parse_GetFTyp with Fundrel_Memory_Malloc: nBrandCount rows
   * of 8 bytes, each a NUL-terminated brand. Release with Fundrel_Memory_Free. */
  char** pptszCompatibleBrand;
} QORVANE_HDRFTYP;

typedef struct {
  uint64_t nCreateTime;
  uint64_t nModifyTime;
  uint64_t nDuration;
  uint32_t nTimeScale;
  uint32_t nRate;       /* raw 16.16 */
  uint32_t nNextTrackID;
  uint16_t wVolume;     /* raw 8.8 */
} QORVANE_HDRMVHD;

typedef struct {
  uint64_t nCreateTime;
  uint64_t nModifyTime;
  uint64_t nDuration;
  int32_t nTrackID;
  int32_t nWidth;  /* integer part of the 16.16 width */
  int32_t nHeight; /* integer part of the 16.16 height */
  uint16_t wLayer;
  uint16_t wAlternateGroup;
  uint16_t wVolume; /* raw 8.8 */
} QORVANE_HDRTKHD;

typedef struct {
  uint64_t nCreateTime;
  uint64_t nModifyTime;
  uint64_t nDuration;
  uint32_t nTimeScale;
  uint16_t wLanguage; /* pad bit and three 5-bit letters, packed */
} QORVANE_HDRMDHD;

typedef struct {
  char tszName[1024];
  char tszHandlerType[8]; /* e.g. "vide", "soun" */
} QORVANE_HDRHDLR;

typedef struct {
  uint16_t wGraphicsMode;
  uint16_t wOpColor[3];
  uint16_t wBalance; /* raw 8.8 */
} QORVANE_HDRVMSMHD;

/* An entry of stts (count, delta), ctts (count, offset), stsc (first chunk,
 * samples per chunk, description index), stsz (size) or stco (offset). */
typedef struct {
  uint32_t nValue1;
  uint32_t nValue2;
  uint32_t nValue3;
} QORVANE_HDRSAMPLENFO;

/* One sdtp byte: is_leading, sample_depends_on, sample_is_depended_on,
 * sample_has_redundancy, two bits each from the top. */
typedef struct {
  uint8_t bySampleFlags;
} QORVANE_HDRSDTP;

#define BOXLANE_CODEC_MAX_PARAMSETS 32
#define BOXLANE_CODEC_PARAMSET_BYTES 16384
#define BOXLANE_CODEC_AUDIOCFG_BYTES 1024

/* The first sample entry of a track's stsd, handed out by
 * Boxlane_Parse_GetTrackCodec. */
typedef struct {
  char tszCodec[8];          /* the entry's fourcc as stored, e.g. "avc1", "mp4a" */
  uint16_t wDataRefIndex;
  /* avc1 / avcC (ISO/IEC 14496-15 §5.3.3) */
  uint16_t wWidth;
  uint16_t wHeight;
  uint8_t byProfile;         /* AVCProfileIndication */
  uint8_t byCompatibility;   /* profile_compatibility */
  uint8_t byLevel;           /* AVCLevelIndication */
  uint8_t byNALLengthSize;   /* lengthSizeMinusOne + 1 */
  int32_t nSPSCount;
  int32_t nPPSCount;
  uint16_t wSPSLen[BOXLANE_CODEC_MAX_PARAMSETS];
  uint16_t wPPSLen[BOXLANE_CODEC_MAX_PARAMSETS];
  /* Every SPS in order, then every PPS, back to back without start codes. */
  uint8_t byParamSets[BOXLANE_CODEC_PARAMSET_BYTES];
  /* mp4a / esds (ISO/IEC 14496-14 §5.6, 14496-1 §7.2.6) */
  uint16_t wChannelCount;
  uint16_t wSampleSize;
  uint32_t nSampleRate;      /* integer part of the 16.16 samplerate */
  uint8_t byObjectType;      /* objectTypeIndication, 0x40 for AAC */
  uint8_t byStreamType;      /* the byte streamType << 2 | upStream << 1 | 1 */
  uint32_t nBufferSizeDB;
  uint32_t nMaxBitrate;
  uint32_t nAvgBitrate;
  int32_t nAudioCfgLen;
  uint8_t byAudioCfg[BOXLANE_CODEC_AUDIOCFG_BYTES]; /* AudioSpecificConfig */
  /* true when the entry held more parameter sets or configuration than fit
   * above; what fit is still handed out. */
  bool bTruncated;
} BOXLANE_CODECINFO;

#define BOXLANE_HEVC_MAX_NALUS 64

/* The hvcC record of a track's first sample entry when it is hvc1 or hev1
 * (ISO/IEC 14496-15 §8.3.3.1), handed out by Boxlane_Parse_GetTrackHEVC. */
typedef struct {
  char tszCodec[8];             /* "hvc1" or "hev1" as stored */
  uint16_t wWidth;              /* of the visual sample entry */
  uint16_t wHeight;
  uint8_t byConfigurationVersion; /* 1; 0 when the entry has no hvcC */
  uint8_t byProfileSpace;       /* general_profile_space */
  uint8_t byTier;               /* general_tier_flag */
  uint8_t byProfile;            /* general_profile_idc: 1 Main, 2 Main 10, ... */
  uint32_t nCompatibilityFlags; /* general_profile_compatibility_flags; flag 0 is the top bit */
  uint64_t nConstraintFlags;    /* general_constraint_indicator_flags, the low 48 bits */
  uint8_t byLevel;              /* general_level_idc: 30 times the level */
  uint16_t wMinSpatialSegmentation; /* min_spatial_segmentation_idc */
  uint8_t byParallelismType;
  uint8_t byChromaFormat;       /* chroma_format_idc: 1 is 4:2:0 */
  uint8_t byBitDepthLuma;       /* bit_depth_luma_minus8 + 8 */
  uint8_t byBitDepthChroma;
  uint16_t wAvgFrameRate;       /* frames per 256 seconds; 0: not given */
  uint8_t byConstantFrameRate;
  uint8_t byNumTemporalLayers;
  uint8_t byTemporalIdNested;
  uint8_t byNALLengthSize;      /* lengthSizeMinusOne + 1 */
  /* The NAL units of every array in stored order: unit i has NAL unit type
   * byNaluType[i], comes from an array whose array_completeness is
   * byArrayComplete[i], and is wNaluLen[i] bytes long. */
  int32_t nNaluCount;
  uint8_t byNaluType[BOXLANE_HEVC_MAX_NALUS];
  uint8_t byArrayComplete[BOXLANE_HEVC_MAX_NALUS];
  uint16_t wNaluLen[BOXLANE_HEVC_MAX_NALUS];
  /* The units back to back, without start codes or lengths. */
  uint8_t byNalus[BOXLANE_CODEC_PARAMSET_BYTES];
  /* true when the record held more units than fit above; what fit is still
   * handed out, whole units only. */
  bool bTruncated;
} BOXLANE_HEVCINFO;
/* ------------------------------------------------ extended parse clients */

/* Client flags of Boxlane_Parse_InsertEx. */
#define BOXLANE_PARSE_EXTENDED 0x00000001u /* the extended mode: 64-bit sizes, co64, stz2, fragments */

/* Why a client's stream ended (BOXLANE_STREAMINFO.nStop). */
#define BOXLANE_STOP_NONE 0      /* it has not */
#define BOXLANE_STOP_LARGESIZE 1 /* a box with a 64-bit size (size field 1) in a client not in the extended mode */
#define BOXLANE_STOP_MALFORMED 2 /* a size field of 2 to 7, or a 64-bit size below 16 */
#define BOXLANE_STOP_TOOLARGE 3  /* a box larger than the parser buffers (256 MiB), or a 64-bit size over 2^62 */
#define BOXLANE_STOP_TOEND 4     /* a box with size field 0: it runs to the end of the stream, so all that follows is its */
#define BOXLANE_STOP_LIMIT 5     /* the box would have taken the client past Boxlane_Parse_SetLimit's bound */

/* Where a client's stream stands (Boxlane_Parse_GetStream), in either mode. */
typedef struct {
  uint32_t nFlags;            /* the flags the client was inserted with; 0 for Boxlane_Parse_Insert */
  uint32_t nStop;             /* BOXLANE_STOP_* */
  uint64_t nStopOffset;       /* stream offset of the box that ended the stream */
  char tszStopType[8];        /* that box's fourcc as stored, then zero bytes */
  uint64_t nParsePos;         /* stream offset of the next box to be split */
  uint64_t nFragmentDuration; /* mehd fragment_duration (movie time scale); 0 without mehd */
  uint32_t nFragments;        /* moof boxes: read in the extended mode, passed over otherwise */
  uint32_t nLargeBoxes;       /* boxes with a 64-bit size that were followed */
  uint32_t nPendingFragments; /* track fragments waiting for Boxlane_Parse_GetFragment */
  uint32_t nDroppedFragments; /* track fragments released untaken to bound the client's memory */
  uint32_t nSkippedTrafs;     /* traf boxes left out: no whole tfhd, or a track no tkhd made */
  uint32_t nOutsideData;      /* track fragments whose data is not inside the mdat that follows their moof */
  uint8_t bMovieExtends;      /* an mvex was met: the movie announces fragments */
  uint8_t bSegmentType;       /* an styp was met */
  uint8_t bSegmentIndex;      /* an sidx was met */
  uint8_t bRandomAccess;      /* an mfra was met */
  uint32_t nReserved;
} BOXLANE_STREAMINFO;

/* A header record with the place of its box (Boxlane_Parse_RecvEx), in
 * either mode. */
typedef struct {
  QORVANE_MP4HDR stHdr; /* the record Boxlane_Parse_Recv hands out */
  uint64_t nOffset;     /* stream offset of the box's first byte */
  uint32_t nHeaderLen;  /* its size and type fields: 8, or 16 for size field 1 (a container's first child starts here) */
  uint32_t nReserved;
} BOXLANE_BOXINFO;

/* One sample, one record per sample in decode order
 * (Boxlane_Parse_GetTrackSamples, Boxlane_Parse_GetFragment). */
typedef struct {
  uint64_t nDecodeTime;     /* in the track's time scale */
  int64_t nCompositionTime; /* decode time plus the composition offset, before any edit list */
  uint64_t nOffset;         /* stream offset of the sample's first byte */
  uint32_t nDuration;
  uint32_t nSize;
  /* The sample's flags laid out as in ISO/IEC 14496-12 §8.8.3.1: is_leading
   * (bits 27-26), sample_depends_on (25-24), sample_is_depended_on (23-22),
   * sample_has_redundancy (21-20), sample_padding_value (19-17),
   * sample_is_non_sync_sample (16), sample_degradation_priority (15-0). */
  uint32_t nFlags;
  uint8_t bSync;         /* a sync sample: listed in stss (or no stss), or the non-sync bit clear */
  uint8_t bDependsKnown; /* bits 27-20 of nFlags come from the file: sdtp, or trun, tfhd or trex flags */
  uint8_t byReserved[2];
} BOXLANE_SAMPLEINFO;

/* Problems met in a track fragment (BOXLANE_FRAGMENTINFO.nProblems). */
#define BOXLANE_FRAGMENT_COUNT_CUT 0x01   /* a trun declared more samples than its box holds, or than one answer takes (1,048,576): the whole entries are kept */
#define BOXLANE_FRAGMENT_BAD_OFFSET 0x02  /* a trun's data would lie inside its moof or outside 64-bit offsets: its samples are left out */
#define BOXLANE_FRAGMENT_OVERLAP 0x04     /* its data overlaps that of an earlier traf of the same moof */
#define BOXLANE_FRAGMENT_NO_DEFAULTS 0x08 /* no trex names the track: fields that trun and tfhd leave out are 0 */
#define BOXLANE_FRAGMENT_SHORT_BOX 0x10   /* a tfdt or trun shorter than its fields: a short trun is left out, a short tfdt ignored */

/* One track fragment, the samples of one traf (Boxlane_Parse_GetFragment). */
typedef struct {
  int32_t nTrackID;
  uint32_t nSequence;         /* mfhd sequence_number; 0 without mfhd */
  uint64_t nMoofOffset;       /* stream offset of the moof */
  uint64_t nMoofSize;
  uint64_t nBaseDecodeTime;   /* decode time of its first sample: tfdt, or where the track's earlier samples end */
  uint64_t nDataStart;        /* stream offsets of the first byte of its sample data */
  uint64_t nDataEnd;          /* and of the byte after the last; equal to nDataStart when it has none */
  uint32_t nSampleCount;      /* its samples */
  uint32_t nTrafIndex;        /* its traf's place in the moof, from 0 */
  uint32_t nTfhdFlags;        /* tf_flags of its tfhd */
  uint32_t nDescriptionIndex; /* sample_description_index of the tfhd, else of the trex, else 0 */
  uint32_t nProblems;         /* BOXLANE_FRAGMENT_* */
  uint8_t bHasTfdt;
  uint8_t byReserved[3];
} BOXLANE_FRAGMENTINFO;

/* What the per-sample index knows about a track (Boxlane_Parse_GetTrackIndex). */
typedef struct {
  uint64_t nTableSamples;     /* samples of the moov's tables: what Boxlane_Parse_GetTrackSamples hands out */
  uint64_t nTableDuration;    /* sum of the stts deltas */
  uint32_t nConstantSize;     /* the stsz sample_size when it is not 0: one size for every sample */
  uint32_t nConstantCount;    /* the sample_count of that stsz */
  uint32_t nSizeCount;        /* sizes listed by stsz or stz2 */
  uint32_t nChunkCount;       /* chunk offsets, stco and co64 */
  uint8_t bLargeOffsets;      /* a co64 was met (read in the extended mode only) */
  uint8_t bCompactSizes;      /* an stz2 was met (read in the extended mode only) */
  uint8_t byCompactFieldSize; /* its field_size (4, 8 or 16; read in the extended mode only) */
  uint8_t bHasTrex;           /* a trex names the track */
  uint32_t nTrexDescriptionIndex;
  uint32_t nTrexDuration;
  uint32_t nTrexSize;
  uint32_t nTrexFlags;
  uint32_t nTrackFragments;   /* track fragments read for it */
  uint64_t nFragmentSamples;  /* their samples */
  uint64_t nFragmentEnd;      /* decode time just after the last of them */
} BOXLANE_TRACKINDEX;

/* --------------------------------------------------------- writer input */

#pragma pack(push, 1)
/* Describes one track's stream for Boxlane_Packet_STsd. Byte-packed: the byte
 * positions are part of the interface. Only the block that bVideo selects is
 * read. */
typedef struct tag_Qorvane_AVProtocol {
  uint8_t bVideo;               /*    0: non-zero: avc1 entry; zero: mp4a entry */
  int32_t nVideoCodec;          /*    1: codec number, 27 for H.264 (not read) */
  int32_t nVideoWidth;          /*    5: not read; the width comes from the last tkhd */
  int32_t nVideoHeight;         /*    9: not read */
  int32_t nVideoFrameRate;      /*   13: not read */
  int32_t nVideoBitRate;        /*   17: not read */
  int32_t nVideoProfile;        /*   21: not read */
  int32_t nVideoLevel;          /*   25: not read */
  int32_t nVideoGOP;            /*   29: not read */
  uint8_t byVideoReserved[20];  /*   33 */
  int32_t nVideoHdrLen;         /*   53: valid bytes in tszVideoHdr, 0 to 1024 */
  uint8_t tszVideoHdr[1024];    /*   57: SPS and PPS in Annex B form */
  uint8_t bAudio;               /* 1081: not read */
  int32_t nAudioCodec;          /* 1082: not read */
  int32_t nAudioProfile;        /* 1086: not read */
  int32_t nAudioFrameSize;      /* 1090: samples per frame (not read) */
  uint8_t byAudioReserved[12];  /* 1094 */
  int32_t nAudioChannel;        /* 1106: low 16 bits used */
  int32_t nAudioSampleRate;     /* 1110: low 16 bits used */
  int32_t nAudioSampleBit;      /* 1114: low 16 bits used */
  int32_t nAudioBitRate;        /* 1118: not read */
  int32_t nAudioCfgLen;         /* 1122: valid bytes in tszAudioCfg, 0 to 1024 */
  uint8_t tszAudioCfg[1024];    /* 1126: AudioSpecificConfig (ISO/IEC 14496-3) */
} tag_Qorvane_AVProtocol;
#pragma pack(pop)

/* ------------------------------------------------------ platform helpers */

/* An entry of the task pool's client list (Boxlane_Parse_GetPool). */
typedef struct {
  char tszClientAddr[128];
  int nEventCount;
} QORVANE_RENDAVO_TASKEVENT;

/* Allocates an array of nCount pointers, each to a zeroed block of nSize
 * bytes, in one allocation, and stores it in *pppArray. nCount 0 stores NULL
 * and succeeds; a negative count or size fails. Every array a query hands
 * out is made this way; release it with Fundrel_Memory_Free. */
BOXLANE_API bool Fundrel_Memory_Malloc(void*** pppArray, int nCount, int nSize);
/* Releases an array made by Fundrel_Memory_Malloc and sets *pppArray to NULL.
 * A NULL array is a no-op. */
BOXLANE_API void Fundrel_Memory_Free(void*** pppArray, int nCount);

/* ------------------------------------------------------------ last error */

/* Returns Boxlane_dwErrorCode. If pInt_SysError is not NULL, stores the
 * calling thread's errno there. */
BOXLANE_API uint64_t Boxlane_GetLastError(int32_t* pInt_SysError);

/* ---------------------------------------------------------------- parser */

/* Creates the task pool with nPoolCount pools (at least 1). Clients inserted
 * before Init (or after Destory) are not registered in the pool: no events
 * are counted for them. */
BOXLANE_API bool Boxlane_Parse_Init(int32_t nPoolCount);
/* Destroys the task pool and wakes its waiters. Clients stay. */
BOXLANE_API bool Boxlane_Parse_Destory(void);
/* Client strings are NUL-terminated and shorter than 128 bytes. */
BOXLANE_API bool Boxlane_Parse_Insert(const char* lpszClient);
BOXLANE_API bool Boxlane_Parse_Delete(const char* lpszClient);
/* Hands in the next piece of the client's stream, cut anywhere. The payload
 * of an mdat must not be sent: skip QORVANE_MP4HDR.nBoxSize - 8 bytes after
 * its header record arrives. A piece of length 0 (its pointer may be NULL)
 * changes nothing, but fails like any other for a client that is not there
 * or whose stream has stopped. */
BOXLANE_API bool Boxlane_Parse_Send(const char* lpszClient, const uint8_t* lpszMsgBuffer, int32_t nMsgLen);
/* Takes the oldest header record. pInt_ParsePos (may be NULL) receives the
 * stream offset of the next box to be split. */
BOXLANE_API bool Boxlane_Parse_Recv(const char* lpszClient, QORVANE_MP4HDR* pSt_MP4Hdr, uint64_t* pInt_ParsePos);
BOXLANE_API bool Boxlane_Parse_GetFTyp(const char* lpszClient, QORVANE_HDRFTYP* pSt_FTyp);
BOXLANE_API bool Boxlane_Parse_GetMVhd(const char* lpszClient, QORVANE_HDRMVHD* pSt_MVhd);
/* Writes i into slot i for every track id i from 0 to 9 that exists;
 * pInt_TrackList must have at least 10 slots. */
BOXLANE_API bool Boxlane_Parse_GetTrack(const char* lpszClient, int32_t* pInt_TrackList);
/* Any of the four out records may be NULL. */
BOXLANE_API bool Boxlane_Parse_GetTrackInfo(const char* lpszClient, int32_t nTrackID, QORVANE_HDRTKHD* pSt_TKhd, QORVANE_HDRMDHD* pSt_MDhd, QORVANE_HDRHDLR* pSt_HDlr, QORVANE_HDRVMSMHD* pSt_VMSMhd);
/* enHType selects stts, ctts, stsc, stsz or stco; any other code succeeds and
 * writes nothing. The array belongs to the caller (Fundrel_Memory_Free). */
BOXLANE_API bool Boxlane_Parse_GetTrackList(const char* lpszClient, int32_t nTrackID, QORVANE_HDRSAMPLENFO*** pppSt_ListInfo, int32_t* pInt_ListCount, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE enHType);
/* The stss sync-sample numbers (1-based). */
BOXLANE_API bool Boxlane_Parse_GetTrackKey(const char* lpszClient, int32_t nTrackID, int32_t*** pppInt_KeyList, int32_t* pInt_ListCount);
BOXLANE_API bool Boxlane_Parse_GetTrackSDtp(const char* lpszClient, int32_t nTrackID, QORVANE_HDRSDTP*** pppSt_ListSDtp, int32_t* pInt_ListCount);
/* The first sample entry of the track's stsd: codec fourcc, avcC parameter
 * sets or the mp4a/esds configuration. A track whose stsd has not been read
 * comes back zero. */
BOXLANE_API bool Boxlane_Parse_GetTrackCodec(const char* lpszClient, int32_t nTrackID, BOXLANE_CODECINFO* pSt_CodecInfo);
/* The hvcC of the track's first sample entry (hvc1 or hev1): its profile,
 * tier, level, picture format and parameter sets. A track whose first entry
 * is of another kind, or has no hvcC, comes back zero but for tszCodec, the
 * size and a configuration version of 0. */
BOXLANE_API bool Boxlane_Parse_GetTrackHEVC(const char* lpszClient, int32_t nTrackID, BOXLANE_HEVCINFO* pSt_HEVCInfo);
/* Like Boxlane_Parse_Insert, with the client's mode in nFlags: 0 is the mode
 * of Boxlane_Parse_Insert, BOXLANE_PARSE_EXTENDED the extended mode; any
 * other bit fails with BOXLANE_ERROR_PARSE_PARAMETER. A client already in the
 * table keeps its record and its mode. A client in the extended mode:
 *  - follows a box whose size field is 1: the 64-bit size is read from the 8
 *    bytes after the fourcc, the box header is 16 bytes long, and the header
 *    record carries the 64-bit size. After the header of such an mdat, skip
 *    nBoxSize - 16 bytes (Recv's position is the offset after the mdat in
 *    both cases). A 64-bit size below 16 stops the stream like a size field
 *    of 2 to 7; one over 2^62 like a box too large.
 *  - reads co64 into the chunk offsets and stz2 into the sample sizes. In
 *    Boxlane_Parse_GetTrackList the STCO list is the stco entries followed by
 *    the co64 entries, each co64 offset as its low 32 bits in nValue1 and its
 *    high 32 bits in nValue2; the CO64 code gives the co64 entries alone.
 *  - walks mvex (trex, mehd), moof (mfhd, traf, tfhd, tfdt, trun, sdtp),
 *    sidx, styp, emsg and mfra (tfra, mfro) with one header record per box.
 *    No box inside a moof changes the moov's tracks.
 *  - reads every moof, when its header record is queued, into one answer per
 *    traf for Boxlane_Parse_GetFragment, oldest first (at most 1,048,576
 *    samples an answer). Answers not taken are released oldest first while
 *    more than 1,048,576 samples or 4096 answers wait (counted in
 *    BOXLANE_STREAMINFO.nDroppedFragments), so a stream that never ends
 *    holds a bounded amount.
 * In both modes a box with size field 0 runs to the end of the stream: it is
 * queued once (nBoxSize 0), and every later piece is taken as its payload and
 * dropped, with Send succeeding and no further header record. */
BOXLANE_API bool Boxlane_Parse_InsertEx(const char* lpszClient, uint32_t nFlags);
/* The most bytes one parse client may hold at any moment, for every client
 * of either mode from its next box on: its queued header records, the buffer
 * of a box arriving in pieces, its brands, track records and tables (with a
 * table's old block while it moves to a larger one), and its fragment
 * answers. A box that would take a client past it is not read: the
 * client's stream stops there (BOXLANE_STREAMINFO.nStop BOXLANE_STOP_LIMIT)
 * and that Send fails with BOXLANE_ERROR_PARSE_LIMIT; later Sends fail with
 * BOXLANE_ERROR_PARSE_NOTSUPPORT, as for any stopped stream. What the client
 * read before stays, and taking its header records does not restart it. A
 * bounded client's reassembly buffer is as large as its box, not 10 MiB.
 * 0, the default, sets no such bound. Always true. */
BOXLANE_API bool Boxlane_Parse_SetLimit(uint64_t nMaxBytes);
/* The client's mode, whether and why its stream ended, and the kinds of box
 * it met. */
BOXLANE_API bool Boxlane_Parse_GetStream(const char* lpszClient, BOXLANE_STREAMINFO* pSt_StreamInfo);
/* Takes the oldest header record as Boxlane_Parse_Recv does, with where
 * its box starts in the stream and how long its size and type fields are:
 * a caller can place every box in the tree without counting sizes. */
BOXLANE_API bool Boxlane_Parse_RecvEx(const char* lpszClient, BOXLANE_BOXINFO* pSt_BoxInfo, uint64_t* pInt_ParsePos);
/* Every track id the client knows, in rising order of the unsigned track_ID
 * (so ids of 2^31 and more, which are keyed negative, come last). The array
 * belongs to the caller (Fundrel_Memory_Free). */
BOXLANE_API bool Boxlane_Parse_GetTrackIDs(const char* lpszClient, int32_t*** pppInt_TrackList, int32_t* pInt_ListCount);
/* Counts and defaults the per-sample index uses for a track. */
BOXLANE_API bool Boxlane_Parse_GetTrackIndex(const char* lpszClient, int32_t nTrackID, BOXLANE_TRACKINDEX* pSt_TrackIndex);
/* The samples of the moov's tables (any mode), worked out from stts, ctts,
 * stsc, stco/co64, stsz/stz2, stss and sdtp as ISO/IEC 14496-12 §8.6 and §8.7
 * define them: samples nFirst (from 0) onwards, in decode order, into the
 * caller's array of nCapacity records; *pInt_Count receives how many were
 * written, 0 from the last sample on. The track has
 * BOXLANE_TRACKINDEX.nTableSamples samples: as many as stsz sizes, stts
 * times and the chunks all cover. Asking for the next samples where the
 * last call ended costs only those samples; any other start walks the
 * tables' runs once. A ctts of version 0 holds unsigned offsets, of
 * version 1 signed ones (§8.6.1.3). */
BOXLANE_API bool Boxlane_Parse_GetTrackSamples(const char* lpszClient, int32_t nTrackID, uint32_t nFirst, BOXLANE_SAMPLEINFO* pSt_Samples, int32_t nCapacity, int32_t* pInt_Count);
/* Takes the oldest track fragment of a client in the extended mode: its
 * record, and its samples into the caller's array of nCapacity records
 * (*pInt_Count receives their number). The samples are worked out as
 * ISO/IEC 14496-12 §8.8 defines: fields a trun leaves out come from the tfhd,
 * then the trex; the data base is the tfhd's base_data_offset, else the moof
 * (default-base-is-moof, or the first traf), else the end of the previous
 * traf's data; a trun without data_offset follows the previous one; decode
 * times start at tfdt, else where the track's earlier samples (its moov
 * samples, then its fragments) end; composition offsets are unsigned in a
 * trun of version 0 and signed in version 1; first_sample_flags apply to
 * the first sample of a trun that has no per-sample flags. When nCapacity is
 * too small the record is still written, the fragment stays, and the call
 * fails with BOXLANE_ERROR_PARSE_BUFFER: ask with a NULL array and capacity
 * 0 to learn the count. No fragment waiting: BOXLANE_ERROR_PARSE_NODATA. */
BOXLANE_API bool Boxlane_Parse_GetFragment(const char* lpszClient, BOXLANE_FRAGMENTINFO* pSt_Fragment, BOXLANE_SAMPLEINFO* pSt_Samples, int32_t nCapacity, int32_t* pInt_Count);
/* The clients of pool nPoolIndex with pending events (array from
 * Fundrel_Memory_Malloc; count 0 and NULL when none). */
BOXLANE_API bool Boxlane_Parse_GetPool(int32_t nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr, int32_t* pInt_ListCount);
/* Waits until a client of the pool has events or ActiveEvent is called;
 * nTimeout in milliseconds, negative: no limit, 0: just look. */
BOXLANE_API bool Boxlane_Parse_WaitEvent(int32_t nPoolIndex, int32_t nTimeout);
BOXLANE_API bool Boxlane_Parse_ActiveEvent(int32_t nPoolIndex);

/* ---------------------------------------------------------------- writer */

/* Every box writer writes one whole box at the start of ptszMsgBuffer, which
 * the caller sizes, and stores the bytes written in *pInt_MsgLen. A failed
 * call leaves buffer and length untouched. Calls for one client must not
 * overlap; different clients may be used from different threads. */
BOXLANE_API bool Boxlane_Packet_Insert(const char* lpszClient);
BOXLANE_API bool Boxlane_Packet_Delete(const char* lpszClient);
/* A box header (size nPayloadLen + 8, the four bytes at lpszBoxType), followed
 * by the payload when lpszPayload is not NULL. With a NULL payload only the 8
 * header bytes are written: the form for containers and mdat. An mdat that may
 * pass 2^31 - 9 payload bytes needs Boxlane_Packet_HDRBox64. */
BOXLANE_API bool Boxlane_Packet_HDRBox(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const char* lpszBoxType, const uint8_t* lpszPayload, int32_t nPayloadLen);
/* ftyp: isom, minor 512, compatible isom iso2 avc1 mp41 (32 bytes). */
BOXLANE_API bool Boxlane_Packet_FTyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
/* mvhd (108 bytes). Stamps the creation time and keeps nTimeScale for the
 * track headers. nDuration 0: derived from the frame time. next_track_ID is
 * 2 whatever the number of tracks; a movie of tracks 1 to n must name n + 1
 * (ISO/IEC 14496-12 §8.2.2.3): it is the box's last four bytes, big-endian,
 * in both versions, for the caller to set. */
BOXLANE_API bool Boxlane_Packet_MVhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nDuration, int32_t nTimeScale);
/* tkhd (92 bytes). Tracks are numbered 1, 2, ... in call order. nVolume 0
 * marks a visual track (0x0100 is full volume). */
BOXLANE_API bool Boxlane_Packet_TKhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nVolume, int32_t nWidth, int32_t nHeight, int32_t nDuration);
/* mdhd (32 bytes) with the movie time scale and the duration of the last
 * visual track header. Use Boxlane_Packet_MDhdEx for a sound track. */
BOXLANE_API bool Boxlane_Packet_MDhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage);
/* mdhd (32 bytes) with the movie time scale and the given duration. */
BOXLANE_API bool Boxlane_Packet_MDhdEx(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage, uint32_t nDuration);
/* hdlr: 0 vide, 1 soun, 2 hint, 3 meta, 4 text (45 bytes for vide and soun,
 * 44 for the others). */
BOXLANE_API bool Boxlane_Packet_HDlr(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint8_t byHandlerType);
/* vmhd (20 bytes) and smhd (16 bytes). */
BOXLANE_API bool Boxlane_Packet_VMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
BOXLANE_API bool Boxlane_Packet_SMhd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int16_t wBalance);
/* dinf with a dref holding one self-contained url entry (36 bytes). */
BOXLANE_API bool Boxlane_Packet_DInf(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
/* edts holding an elst with one entry (36 bytes, ISO/IEC 14496-12 §8.6.6):
 * the track presents nSegmentDuration movie time-scale units starting at media
 * time nMediaTime. Put it in the trak after the tkhd. A track whose
 * composition offsets were shifted by D (see FrameVideo) uses nMediaTime D. */
BOXLANE_API bool Boxlane_Packet_EDts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint32_t nSegmentDuration, int32_t nMediaTime);

/* Recordings past 4 GiB or 2^32 ticks. Each writer below writes exactly the
 * bytes of its 32-bit counterpart while its values fit the 32-bit fields, and
 * the 64-bit form (ISO/IEC 14496-12 version 1, or a 64-bit box size) only
 * when one does not. The sizes given are exact. */

/* A 16-byte box header in the 64-bit form (ISO/IEC 14496-12 §4.2): size field
 * 1, the four bytes at lpszBoxType, then a 64-bit largesize of
 * nPayloadLen + 16. It is valid for any payload length, so a recording whose
 * mdat may pass 4 GiB writes it at the start (nPayloadLen 0) and writes it
 * again over the same 16 bytes when the length is known. No payload is
 * copied. A NULL type, or nPayloadLen above 2^64 - 17, fails with
 * BOXLANE_ERROR_PACKET_PARAMETER. */
BOXLANE_API bool Boxlane_Packet_HDRBox64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const char* lpszBoxType, uint64_t nPayloadLen);
/* mvhd as Boxlane_Packet_MVhd (it stamps the creation time and keeps
 * nTimeScale for the track headers), but nDuration is written as given, 0
 * included: 108 bytes (version 0) when nDuration is below 2^32, else 120
 * bytes (version 1: 64-bit times and duration, ISO/IEC 14496-12 §8.2.2). */
BOXLANE_API bool Boxlane_Packet_MVhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nDuration, int32_t nTimeScale);
/* tkhd as Boxlane_Packet_TKhd, nDuration written as given: 92 bytes (version
 * 0) when nDuration is below 2^32, else 104 bytes (version 1, §8.3.2). A
 * duration of 2^32 or more reaches Boxlane_Packet_MDhd as 0xFFFFFFFF; write
 * the media header with Boxlane_Packet_MDhd64. */
BOXLANE_API bool Boxlane_Packet_TKhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int32_t nVolume, int32_t nWidth, int32_t nHeight, uint64_t nDuration);
/* mdhd as Boxlane_Packet_MDhdEx: 32 bytes (version 0) when nDuration is below
 * 2^32, else 44 bytes (version 1, §8.4.2). */
BOXLANE_API bool Boxlane_Packet_MDhd64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint16_t wLanguage, uint64_t nDuration);
/* edts as Boxlane_Packet_EDts: 36 bytes (elst version 0) when
 * nSegmentDuration is below 2^32 and nMediaTime below 2^31, else 44 bytes
 * (elst version 1, §8.6.6). nMediaTime -1 is an empty edit; a media time
 * below -1 fails with BOXLANE_ERROR_PACKET_PARAMETER. */
BOXLANE_API bool Boxlane_Packet_EDts64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nSegmentDuration, int64_t nMediaTime);
/* stsd with one avc1/avcC (bVideo non-zero) or mp4a/esds entry. The box is
 * exactly this long (size the buffer so):
 *   video: 121 + S + P bytes, S and P the lengths of the first SPS and the
 *     first PPS in tszVideoHdr, without start codes (0 when none is found);
 *     121 + nVideoHdrLen is always enough.
 *   audio: with A = nAudioCfgLen, the AudioSpecificConfig length (each of
 *     the three ISO/IEC 14496-1 descriptor sizes takes a byte more once it
 *     passes 127):
 *       A    0 to  104: 89 + A     A  113 to  127: 91 + A
 *       A  105 to  112: 90 + A     A  128 to 1024: 92 + A
 *     e.g. 91 bytes for a 2-byte AAC-LC configuration.
 * The samplerate field takes the low 16 bits of nAudioSampleRate. */
BOXLANE_API bool Boxlane_Packet_STsd(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const tag_Qorvane_AVProtocol* pSt_AVProtocol);
/* stsd with one hvc1/hvcC entry for H.265 video (ISO/IEC 14496-15 §8.3.3).
 * lpszParamSets holds the stream's parameter sets in Annex B form
 * (start-code-prefixed NAL units), nParamSetsLen bytes, 1 to 65536: at least
 * one VPS, SPS and PPS, each readable (ISO/IEC 23008-2 §7.3.2). They go into
 * the hvcC arrays in the order given, repeats of identical bytes once, at
 * most 64 in all; other NAL units there are left out. Profile, tier, level,
 * chroma format, bit depths and the picture size (after the conformance
 * window) come from the sequence parameter sets, parallelismType from the
 * picture parameter sets. Samples must then carry NAL units with 4-byte
 * lengths and no parameter sets, as Boxlane_Packet_FrameAccessUnit writes
 * them. Buffer: 142 + nParamSetsLen bytes is always enough. Fails with
 * BOXLANE_ERROR_PACKET_PARAMETER when a parameter set is missing, unreadable
 * or cannot be described (bit depth above 15). */
BOXLANE_API bool Boxlane_Packet_STsdHEVC(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszParamSets, int32_t nParamSetsLen);
/* stsd with one avc1/avcC entry that carries every parameter set listed,
 * for a stream whose pictures use several (ISO/IEC 14496-15 §5.3.3).
 * pptszParamSet[i] points to an SPS or a PPS NAL unit (type 7 or 8) without
 * start code, pInt_ParamSetLen[i] is its length, 1 to 65535. SPSs and PPSs
 * each keep the order given. The first SPS (at least 4 bytes) gives profile,
 * compatibility and level; width and height come from the latest tkhd, as
 * for Boxlane_Packet_STsd. 1 to 31 SPSs and up to 255 PPSs; any other NAL
 * type, a null pointer or a length out of range fails with
 * BOXLANE_ERROR_PACKET_PARAMETER. The box is exactly 117 bytes plus 2 +
 * length for every set (121 + S + P for one of each). */
BOXLANE_API bool Boxlane_Packet_STsdParamSets(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* const* pptszParamSet, const int32_t* pInt_ParamSetLen, int32_t nParamSetCount);
/* Sample tables from the frames handed in so far, of the track bVideo
 * chooses. Exact sizes: stts 16 + 8 per run (the frames with a positive
 * duration, in order, start a new run wherever the duration changes); ctts
 * 16 + 8 per video frame with a positive offset; stss 16 + 4 per video frame
 * with nKeyFrame 1; stsc 28; stsz 20 + 4 per frame; stco 16 + 4 per frame. */
BOXLANE_API bool Boxlane_Packet_STts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo);
BOXLANE_API bool Boxlane_Packet_CTts(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
BOXLANE_API bool Boxlane_Packet_STss(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
BOXLANE_API bool Boxlane_Packet_STsc(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
BOXLANE_API bool Boxlane_Packet_STsz(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo);
BOXLANE_API bool Boxlane_Packet_STco(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo);
/* The chunk offsets of a track (ISO/IEC 14496-12 §8.7.5): each sample's
 * recorded file position plus nOffsetDelta. The box is an stco of
 * 16 + 4 x samples bytes while every offset is below 2^32, and a co64 of
 * 16 + 8 x samples bytes once one offset is 2^32 or more.
 * Boxlane_Packet_STco64Size gives the size beforehand.
 *
 * nOffsetDelta is for a caller who records positions before it knows where
 * the samples will lie. With the moov before the mdat, record each position
 * as if there were no moov and pass the moov's size as the delta; that size
 * depends on whether the tables are stco or co64, so find it by repeating
 * (delta = moov size with the table sizes STco64Size gives for that delta)
 * until it stops changing. It only grows, so this ends after one more round
 * per track.
 *
 * An offset below 0 or above 2^63 - 1, or a box larger than 2^31 - 1 bytes,
 * fails with BOXLANE_ERROR_PACKET_PARAMETER and writes nothing. */
BOXLANE_API bool Boxlane_Packet_STco64(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, bool bVideo, int64_t nOffsetDelta);
/* Stores in *pInt_BoxSize the number of bytes Boxlane_Packet_STco64 writes
 * for the same track and delta with the frames handed in so far. Writes no
 * box and changes nothing; fails as Boxlane_Packet_STco64 does, and with
 * BOXLANE_ERROR_PACKET_PARAMETER for a NULL pInt_BoxSize. */
BOXLANE_API bool Boxlane_Packet_STco64Size(const char* lpszClient, bool bVideo, int64_t nOffsetDelta, int32_t* pInt_BoxSize);
/* One H.264 NAL unit with its 4-byte start code in, the same bytes with the
 * start code replaced by the big-endian length out (buffer: nFrameLen bytes).
 * nFilePos is where the caller will put the sample in the file. nKeyFrame 1
 * marks a sync sample. nDuration and nCTSOffset are in the track's time scale;
 * 0 or less records none.
 *
 * Only positive composition offsets are recorded, so a stream with B-frames
 * must not hand in an offset of 0 or less: shift every offset of such a
 * stream by whole frame durations until all are positive, and write an edit
 * list (Boxlane_Packet_EDts) whose media time takes the shift back out. */
BOXLANE_API bool Boxlane_Packet_FrameVideo(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszFrame, int32_t nFrameLen, int64_t nFilePos, int32_t nKeyFrame, int32_t nDuration, int32_t nCTSOffset);
/* One sample made of several NAL units (an access unit of several slices).
 * pptszNalu[i] points to NAL unit i without a start code, pInt_NaluLen[i] is
 * its length. Each is written with its own 4-byte big-endian length (buffer:
 * the sum of 4 + length). Everything else as Boxlane_Packet_FrameVideo. */
BOXLANE_API bool Boxlane_Packet_FrameAccessUnit(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* const* pptszNalu, const int32_t* pInt_NaluLen, int32_t nNaluCount, int64_t nFilePos, int32_t nKeyFrame, int32_t nDuration, int32_t nCTSOffset);
/* One AAC frame; an ADTS header (7 bytes, 9 with CRC) is dropped (buffer:
 * nFrameLen bytes, less the header). */
BOXLANE_API bool Boxlane_Packet_FrameAudio(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, const uint8_t* lpszFrame, int32_t nFrameLen, int64_t nFilePos, int32_t nDuration);

/* -------------------------------------------------------------- fragments */

/* Boxlane_Packet_FragmentMode flag: keep a random access index (about 28
 * bytes per fragment and track) for Boxlane_Packet_MFra. */
#define BOXLANE_FRAGMENT_INDEX 1u

/* Switches a client that has not been handed a frame yet to fragments
 * (ISO/IEC 14496-12 §8.8). nVideoTrackID and nAudioTrackID are the track_IDs
 * of the moov's tracks (0: no such track; at least one, and not the same).
 * From then on:
 * - FrameVideo, FrameAccessUnit and FrameAudio keep each sample only until
 *   the next Boxlane_Packet_Fragment, which describes it and forgets it: the
 *   client's memory does not grow with the length of the recording. nFilePos
 *   is not used; the bytes they return go into the fragment's mdat, in the
 *   order the frames were handed in. nDuration 0 or less is a duration of 0.
 * - nCTSOffset is signed: the sample is presented nCTSOffset - nCTSShift
 *   after it is decoded, which may be negative (trun version 1). A caller
 *   whose offsets were made positive by a shift D (see FrameVideo) passes
 *   nCTSShift D, so the first picture is presented at its decode time and
 *   no edit list is needed; a caller with signed offsets passes 0.
 * - The sample table writers describe no samples: STts, STss, STsz and STco
 *   write the empty tables an init segment holds, and CTts fails with
 *   BOXLANE_ERROR_PACKET_NODATA. The whole recording's tables can no longer
 *   be asked for.
 * - A frame of a track given as 0 fails with BOXLANE_ERROR_PACKET_ORDER, and
 *   one the pending fragment cannot take (moof, mdat header and samples
 *   would pass 2^31 - 1 bytes) with BOXLANE_ERROR_PACKET_FULL; both change
 *   nothing.
 * Fails with BOXLANE_ERROR_PACKET_ORDER after frames or a second time. */
BOXLANE_API bool Boxlane_Packet_FragmentMode(const char* lpszClient, uint32_t nVideoTrackID, uint32_t nAudioTrackID, int32_t nCTSShift, uint32_t nFlags);
/* mvex for the init segment's moov: mehd with nDuration (movie time scale
 * units; version 1 past 32 bits) unless it is 0, then one trex per track,
 * video first, with sample description 1 and default sample flags
 * 0x01010000 (video: not a sync sample) or 0x02000000 (audio: sync).
 * Size: 8, + 16 with mehd (20 past 32 bits), + 32 per track. */
BOXLANE_API bool Boxlane_Packet_MVex(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, uint64_t nDuration);
/* Sizes, without changing anything (any pointer may be NULL):
 * *pInt_HeaderLen: what Boxlane_Packet_Fragment would write now, 0 when no
 * sample is pending; *pInt_MediaLen: the bytes of the pending samples, the
 * mdat payload that follows; *pInt_MFraLen: what Boxlane_Packet_MFra would
 * write (0 without BOXLANE_FRAGMENT_INDEX). The header is 24 bytes + per
 * track with pending samples 44 + 20 per stretch of its samples that the
 * other track does not interrupt + per sample 8 (audio), 12 (video) or 16
 * (video when a pending video sample has a composition offset), + 8. */
BOXLANE_API bool Boxlane_Packet_FragmentSize(const char* lpszClient, int32_t* pInt_HeaderLen, int64_t* pInt_MediaLen, int32_t* pInt_MFraLen);
/* The next fragment: a moof describing every sample handed in since the
 * previous one (mfhd sequence numbers 1, 2, 3, ...; a traf per track with
 * samples, its tfhd with default-base-is-moof, tfdt version 1 with the
 * track's decode time, and trun boxes with data offsets, durations, sizes,
 * composition offsets and, for video, sample flags), then the 8-byte header
 * of the mdat, whose payload is the samples' bytes in the order they were
 * handed in: the caller appends them right after. nFilePos is where the
 * caller puts the moof (kept for the mfra index). Fails with
 * BOXLANE_ERROR_PACKET_NODATA when no sample is pending. */
BOXLANE_API bool Boxlane_Packet_Fragment(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen, int64_t nFilePos);
/* styp opening a media segment: brand msdh (20 bytes). */
BOXLANE_API bool Boxlane_Packet_STyp(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
/* sidx (version 1, 52 bytes) indexing the pending fragment as one
 * subsegment: call it before Boxlane_Packet_Fragment and put it right
 * before the moof. It describes the video track when there is one, else
 * the audio track, in the mvhd time scale; the subsegment starts with a SAP
 * when that track's first pending sample is a sync sample. Fails with
 * BOXLANE_ERROR_PACKET_NODATA when that track has no pending sample. */
BOXLANE_API bool Boxlane_Packet_SIdx(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);
/* mfra for the end of a finished file: a tfra (version 1) per track with the
 * first sync sample of each fragment written so far, then mfro. Needs
 * BOXLANE_FRAGMENT_INDEX; size from Boxlane_Packet_FragmentSize, or
 * 24 + per track 24 + 28 per fragment in which it had a sync sample. */
BOXLANE_API bool Boxlane_Packet_MFra(const char* lpszClient, uint8_t* ptszMsgBuffer, int32_t* pInt_MsgLen);

#ifdef __cplusplus
}
#endif

#endif /* BOXLANE_BOXLANE_H */
