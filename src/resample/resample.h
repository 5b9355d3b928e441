// The resampling core that the lens remap and the projective warp share. Both produce an output
// rectangle of a YUV 4:2:0 frame in 2 x 2 blocks from a source frame of the same size and layout:
// each block's top-left pixel gets a source position, luma is bilinear with 7-bit weights at
// that position (the block's other pixels one source pixel to the right or below, with the same
// weights), chroma is the nearest sample. They differ only in how the positions are computed.
//
// A stage hands the core a job: the frames, the rectangle, a column table, and two position
// functions (one for the groups of four blocks, one for the tail blocks right of the last whole
// group). The core splits the rows into bands on four pinned workers, asks the stage for the
// positions of a run of groups, and samples them:
//
//   resample_bands.cpp   column table, band split, workers and their fallback, the band loop
//   resample.cpp         plain samplers: they define the bytes (groups, tail, single blocks)
//   resample_neon.cpp    ResampleGroups_neon, the vector twin of ResampleGroups
//
// Every read stays inside the source frame: positions are clamped per block and axis
// (ResampleClampIndex), and the few reads that still could leave it are clamped too (below).
#ifndef LDC_RESAMPLE_RESAMPLE_H
#define LDC_RESAMPLE_RESAMPLE_H

#include <stddef.h>
#include <stdint.h>

#include "platform/neon.h"

#define RESAMPLE_GROUP_COLS 8        // output columns per group: four 2 x 2 blocks
#define RESAMPLE_QUAD_BYTES 16       // one column-table entry: the x of the group's four blocks
#define RESAMPLE_CONTIGUOUS_SUM 12   // (o1 - o0) + (o2 - o0) + (o3 - o0) of adjacent blocks

// ---- The source frame as the samplers read it --------------------------------------------------
// A frame is one block: the luma plane, then its chroma plane(s); a luma neighbour read below the
// last row continues into the chroma, as it always has. The block ends after W * (H >> 1)
// interleaved chroma bytes (semi-planar) or after the V plane's (W >> 1) * (H >> 1) bytes
// (planar); the caller's buffer ends there. The clamps only move reads that would leave it:
//   - a chroma row beyond the last chroma row is the last row (the bottom luma row rounds its
//     chroma row up to one past the plane);
//   - a chroma pair (byte, planar) that starts past the plane's last pair (byte) is the last one;
//   - a luma read past the block's last byte reads that byte (only frames of fewer than six rows,
//     whose chroma is too short for the two neighbour rows, and wide loads at the block's very
//     end get there; the vector sampler then gathers byte by byte instead of loading wide).
// Built with LDC_CHECK_READS, the samplers also verify every source offset against the block and
// abort with the sampler's name, the offset and the block size.
typedef struct tagST_SOURCE_EXTENT {
    const uint8_t *pucBase;   // the luma plane, first byte of the block
    int32_t iLumaLast;        // last offset from pucBase inside the block
    int32_t iChromaRowLast;   // last chroma row
    int32_t iChromaLast;      // last valid start of a chroma read: pair (semi-planar) or byte (planar)
    int32_t iWideLast;        // last base offset whose three 9-byte rows (wide loads) stay inside
    int32_t bShortFrame;      // the neighbours two rows below the bottom row can pass the block's end
} tagST_SOURCE_EXTENT;

static inline int32_t ResampleMinS32(int32_t iA, int32_t iB)
{
    return iA < iB ? iA : iB;
}

#if defined(LDC_CHECK_READS)
void ResampleCheckReadFailed(const char *pcSampler, ptrdiff_t lOffset, int32_t iBytes, int32_t iBlockBytes);
static inline void ResampleCheckRead(const tagST_SOURCE_EXTENT *pstSrc, const char *pcSampler,
                                     const uint8_t *pucRead, int32_t iBytes)
{
    const ptrdiff_t lOffset = pucRead - pstSrc->pucBase;
    if (lOffset < 0 || lOffset + iBytes > (ptrdiff_t)pstSrc->iLumaLast + 1) {
        ResampleCheckReadFailed(pcSampler, lOffset, iBytes, pstSrc->iLumaLast + 1);
    }
}
#define RESAMPLE_CHECK_READ(pstSrc, pcSampler, pucRead, iBytes) \
    ResampleCheckRead((pstSrc), (pcSampler), (pucRead), (iBytes))
#else
// Off: the arguments are only named, nothing is evaluated at run time.
#define RESAMPLE_CHECK_READ(pstSrc, pcSampler, pucRead, iBytes) \
    ((void)sizeof(pstSrc), (void)sizeof(pcSampler), (void)sizeof(pucRead), (void)sizeof(iBytes))
#endif

// One luma byte at offset iOff from the block start, clamped to the block's last byte.
static inline uint8_t ResampleLumaAt(const tagST_SOURCE_EXTENT *pstSrc, const char *pcSampler, int32_t iOff)
{
    const uint8_t *pucRead = pstSrc->pucBase + ResampleMinS32(iOff, pstSrc->iLumaLast);
    RESAMPLE_CHECK_READ(pstSrc, pcSampler, pucRead, 1);
    return *pucRead;
}

// Offset of chroma sample (column term iColTerm, row iRow) in a plane of pitch iPitchC, with the
// row and then the start clamped into the plane.
static inline int32_t ResampleChromaOffset(const tagST_SOURCE_EXTENT *pstSrc, int32_t iColTerm, int32_t iRow,
                                           int32_t iPitchC)
{
    return ResampleMinS32(iColTerm + ResampleMinS32(iRow, pstSrc->iChromaRowLast) * iPitchC, pstSrc->iChromaLast);
}

// Sum of the distances of blocks 1..3 to block 0, each saturated to 16 bits: the contiguity
// test. Only the sum is tested, so offsets such as (0, 0, 6, 6) count as contiguous too and then
// read blocks 1 and 2 from o0 + 2 and o0 + 4; kept so by design, the chroma follows the verdict.
static inline int32_t ResampleSpreadSum(const int32_t aiOffset[4])
{
    int32_t iSum = 0;
    for (int32_t k = 1; k < 4; k++) {
        const int32_t iDelta = aiOffset[k] - aiOffset[0];
        iSum += iDelta > INT16_MAX ? INT16_MAX : (iDelta < INT16_MIN ? INT16_MIN : iDelta);
    }
    return iSum;
}

// Largest block column (row) whose bilinear neighbours stay in the frame: W - 2 (H - 2), 0 for a
// side below 2.
static inline int32_t ResampleInnerLimit(int32_t iSize)
{
    return iSize > 2 ? iSize - 2 : 0;
}

// One axis of a block's source position, clamped into the frame: the truncated position iRaw
// limited to [0, iInner]; *pbInside is 0 when that moved it (the fraction is then 0). Positions
// outside the frame thus repeat the edge samples: a homography fitted to a few faces, or a lens
// model that is not monotonic over the frame, can map output pixels far outside the source.
// Working on the integer part, NaN (truncated to 0) and infinities need no compare of their own.
static inline int32_t ResampleClampIndex(int32_t iRaw, int32_t iInner, int32_t *pbInside)
{
    const int32_t iV = iRaw < 0 ? 0 : (iRaw > iInner ? iInner : iRaw);
    *pbInside = (iV == iRaw);
    return iV;
}

// ResampleClampIndex on four lanes with the fraction trunc(128 s) - 128 trunc(s) of each lane in
// wrapping 32-bit lanes, zeroed where the lane moved: integer max / min / compare, native on
// 32-bit ARM (its float compares are not IEEE and compilers turn them into scalar ones).
static inline int32x4_t ResampleClampIndex_neon(float32x4_t vS, int32x4_t vInner, int32x4_t *pvFrac)
{
    const int32x4_t vRaw = VcvtqS32F32(vS);
    const int32x4_t vIdx = vminq_s32(vmaxq_s32(vRaw, vdupq_n_s32(0)), vInner);
#if defined(__aarch64__)
    // One multiply-subtract; on 32-bit ARM its constant would take a register the samplers need.
    const int32x4_t vFrac = vmlsq_n_s32(VcvtqS32F32Q7(vS), vRaw, 128);
#else
    const int32x4_t vFrac = vsubq_s32(VcvtqS32F32Q7(vS), vshlq_n_s32(vRaw, 7));
#endif
    *pvFrac = vandq_s32(vFrac, vreinterpretq_s32_u32(vceqq_s32(vIdx, vRaw)));
    return vIdx;
}

// ---- Frames --------------------------------------------------------------------------------------
// Source and destination of one resampling, the same size and layout. Semi-planar: pucSrcU /
// pucDstU address the interleaved chroma plane (pitch W) and the V pointers are not read.
// Planar: U and V planes of pitch W >> 1. The last three fields are derived by
// ResamplePreparePlanes.
typedef struct tagST_RESAMPLE_PLANES {
    const uint8_t *pucSrcY;
    const uint8_t *pucSrcU;
    const uint8_t *pucSrcV;
    uint8_t *pucDstY;
    uint8_t *pucDstU;
    uint8_t *pucDstV;
    int32_t iWidth;    // W, the luma pitch
    int32_t iHeight;   // H
    int32_t bPlanar;
    // The groups' destination chroma row of luma row y starts (y * iChromaRowWidth) / 2
    // (semi-planar) or / 4 (planar) bytes into its plane. The warp passes W (semi-planar) or
    // W & ~1 (planar: rows W >> 1 apart); the remap passes W, which for a planar frame of odd
    // width places its group rows half a byte further per row pair, as it always has.
    int32_t iChromaRowWidth;
    tagST_SOURCE_EXTENT stExtent;
    int32_t iInnerX;   // ResampleInnerLimit of W and H
    int32_t iInnerY;
} tagST_RESAMPLE_PLANES;

// Fills the derived fields from the others (frames of at least 2 x 2 pixels).
void ResamplePreparePlanes(tagST_RESAMPLE_PLANES *pstPlanes);

// Offset of the groups' destination chroma row of the row pair at iY (see iChromaRowWidth).
static inline int32_t ResampleGroupChromaRow(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY)
{
    return (iY * pstPlanes->iChromaRowWidth) / (pstPlanes->bPlanar ? 4 : 2);
}

// ---- Positions -----------------------------------------------------------------------------------
// Source positions of four blocks, lane k for block k: the blocks of one group (output columns
// x, x + 2, x + 4, x + 6), or up to four tail blocks.
typedef struct tagST_GROUP_POS {
    float afX[4];
    float afY[4];
} tagST_GROUP_POS;

// The row pair whose groups a stage maps, with room for a running term that a stage carries
// from one run of groups to the next (the warp's denominators).
typedef struct tagST_RESAMPLE_ROW {
    int32_t iY;
    float afCarry[4];
} tagST_RESAMPLE_ROW;

// A stage's positions of groups iFirst .. iFirst + iCount - 1 of the row pair pstRow->iY into
// pstPos[0 .. iCount - 1]; pucColumns is the column-table entry of group iFirst (any byte
// address). Called with iFirst = 0 first and then along the row in order.
typedef void (*ResampleGroupsFn)(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                                 const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
// A stage's positions of the iBlocks (1..4) tail blocks at output columns iX, iX + 2, ... of the
// row pair iY, nearest-sampled.
typedef void (*ResampleTailFn)(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

// ---- Jobs ------------------------------------------------------------------------------------------
// One resampling as a stage hands it to the core; read-only for the workers.
typedef struct tagST_RESAMPLE_JOB {
    tagST_RESAMPLE_PLANES stPlanes;
    int32_t iLeft;   // output rectangle: first column and row (even), columns and rows; a
    int32_t iTop;    // rectangle with no columns or no rows writes nothing
    int32_t iCols;
    int32_t iRows;
    const uint8_t *pucColumns;   // column table from iLeft (ResampleFillColumns)
    const void *pStage;          // handed to the position functions
    ResampleGroupsFn pfnGroups;
    ResampleTailFn pfnTail;
    int32_t *piThreadState;      // the instance's four affinity slots and their masks
    int32_t *piThreadMask;
} tagST_RESAMPLE_JOB;

// Column table of a rectangle starting at iX: iEntries quadruples x + 8k + {0, 2, 4, 6} as floats,
// written bytewise (the table may start at any byte of a working buffer).
void ResampleFillColumns(uint8_t *pucTable, int32_t iX, int32_t iEntries);

// A job over the rectangle piArea (left, top, right, bottom; inclusive) of a frame of iWidth x
// iHeight, whose planes are ppucSrc / ppucDst (luma, first chroma, second chroma; iPlanar: three
// planes, chroma rows iWidth apart as the remap has always read them), with its column table built
// at pucColumns and the instance's affinity slots; the caller adds the stage and its functions.
void ResampleAreaJob(int32_t iPlanar, int32_t iWidth, int32_t iHeight, uint8_t *const *ppucSrc,
                     uint8_t *const *ppucDst, const int32_t *piArea, uint8_t *pucColumns, int32_t *piThreadState,
                     int32_t *piThreadMask, tagST_RESAMPLE_JOB *pstJob);

// Rows [*piStart, *piEnd) of band iIndex of iCount over iRows rows from iTop: even shares, so that
// every band starts on a row pair, and the last band takes the remainder.
void ResampleBandRows(int32_t iTop, int32_t iRows, int32_t iIndex, int32_t iCount, int32_t *piStart,
                      int32_t *piEnd);

// Resamples the job's rectangle on four workers, each pinned through the first free affinity slot
// (the slots are reset first); when they cannot be started, the calling thread does the whole
// rectangle itself and stays pinned. Per band: every row pair's groups, then the tail blocks of
// every row pair. ResampleFrame_neon samples with the vector twin. Return 0.
int32_t ResampleFrame(const tagST_RESAMPLE_JOB *pstJob);
int32_t ResampleFrame_neon(const tagST_RESAMPLE_JOB *pstJob);

// Samplers of one row pair iY (planes prepared). ResampleGroups: group g of iCount writes output
// columns iX + 8g .. + 7 of rows iY, iY + 1 and their chroma from the block positions pstPos[g]:
// bilinear luma, and the chroma pair (semi-planar) or the U and V bytes (planar) at the nearest
// chroma position ((x + 1) >> 1, (y + 1) >> 1). Four blocks whose luma offsets pass the
// contiguity test are read as one strip from block 0's, their chroma as one run from block 0's.
// ResampleGroups_neon gives the same bytes.
void ResampleGroups(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX, const tagST_GROUP_POS *pstPos,
                    int32_t iCount);
void ResampleGroups_neon(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                         const tagST_GROUP_POS *pstPos, int32_t iCount);
// Tail blocks at output columns iX, iX + 2, ...: the nearest samples at the truncated position,
// no interpolation. Their chroma keeps two deliberate differences from the groups: the
// interleaved pair starts at the source column as it is (an odd column straddles two pairs) and
// planar halves round down.
void ResampleNearestBlocks(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                           const tagST_GROUP_POS *pstPos, int32_t iBlocks);
// One block at output (iX, iY) from the clamped source position (iIx, iIy) with the weights ucFx,
// ucFy (0..127), chroma as in the groups: the single-block form for callers with their own
// position rules.
void ResampleBilinearBlock(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iX, int32_t iY, int32_t iIx,
                           int32_t iIy, uint8_t ucFx, uint8_t ucFy);

#endif
