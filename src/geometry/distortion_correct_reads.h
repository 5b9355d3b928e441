// The source frame block of the remap and warp kernels and the clamps that keep every read inside
// it. A frame is one block: the luma plane, then its chroma plane(s); a luma neighbour read below
// the last row continues into the chroma, as it always has. The block ends after W * (H >> 1)
// interleaved chroma bytes (semi-planar) or after the V plane's (W >> 1) * (H >> 1) bytes
// (planar). The caller's input buffer ends there, so no read may pass it.
//
// The clamps only move reads that would have left the block (or, for chroma, their plane):
//   - a chroma row beyond the last chroma row is the last row (the bottom luma row rounds its
//     chroma row up to one past the plane);
//   - a chroma pair (byte, planar) that starts past the plane's last pair (byte) is the last one;
//   - a luma read past the block's last byte reads that byte (only frames of fewer than six rows,
//     whose chroma is too short for the two neighbour rows, and wide loads at the block's very
//     end get there; the vector bodies then gather byte by byte instead of loading wide).
// Built with LDC_CHECK_READS, the kernels also verify every source offset they use against the
// block and abort with the kernel's name, the offset and the block size.
#ifndef LDC_GEOMETRY_DISTORTION_CORRECT_READS_H
#define LDC_GEOMETRY_DISTORTION_CORRECT_READS_H

#include <stddef.h>
#include <stdint.h>

#include "platform/neon.h"
#include "records/ldc_para.h"

// Extent of one source frame block as the kernels address it.
typedef struct tagST_SRC_BLOCK {
    const uint8_t *pucBase;   // the luma plane, first byte of the block
    int32_t iLumaLast;        // last offset from pucBase inside the block
    int32_t iChromaRowLast;   // last chroma row
    int32_t iChromaLast;      // last valid start of a chroma read: pair (semi-planar) or byte (planar)
    int32_t iWideLast;        // last base offset whose three 9-byte rows (wide loads) stay inside
    int32_t bShortFrame;      // the neighbours two rows below the bottom row can pass the block's end
} tagST_SRC_BLOCK;

// W and H of the frame; pY, pU, pV its planes (pU: start of the interleaved plane when
// semi-planar). Frames of at least 2 x 2 pixels.
static inline tagST_SRC_BLOCK LdcSourceBlock(const uint8_t *pucY, const uint8_t *pucU, const uint8_t *pucV,
                                             int32_t iWidth, int32_t iHeight, int32_t bPlanar)
{
    const int32_t iChromaBytes = bPlanar ? (iWidth >> 1) * (iHeight >> 1) : iWidth * (iHeight >> 1);
    const uint8_t *pucLastPlane = bPlanar ? pucV : pucU;
    tagST_SRC_BLOCK stBlock;
    stBlock.pucBase = pucY;
    stBlock.iLumaLast = (int32_t)(pucLastPlane - pucY) + iChromaBytes - 1;
    stBlock.iChromaRowLast = (iHeight >> 1) - 1;
    stBlock.iChromaLast = iChromaBytes - (bPlanar ? 1 : 2);
    stBlock.iWideLast = stBlock.iLumaLast - 2 * iWidth - 8;
    // A base offset is at most W H - 1 and its neighbours reach 2 W + 2 bytes further.
    stBlock.bShortFrame = (iWidth * iHeight + 2 * iWidth + 1 > stBlock.iLumaLast) ? 1 : 0;
    return stBlock;
}

static inline int32_t LdcMinS32(int32_t iA, int32_t iB)
{
    return iA < iB ? iA : iB;
}

// Checking build: abort on a read outside the block. pcKernel names the kernel, pucRead the first
// byte read and iBytes how many follow it.
#if defined(LDC_CHECK_READS)
void LdcCheckReadFailed(const char *pcKernel, ptrdiff_t lOffset, int32_t iBytes, int32_t iBlockBytes);
static inline void LdcCheckRead(const tagST_SRC_BLOCK *pstBlock, const char *pcKernel, const uint8_t *pucRead,
                                int32_t iBytes)
{
    const ptrdiff_t lOffset = pucRead - pstBlock->pucBase;
    if (lOffset < 0 || lOffset + iBytes > (ptrdiff_t)pstBlock->iLumaLast + 1) {
        LdcCheckReadFailed(pcKernel, lOffset, iBytes, pstBlock->iLumaLast + 1);
    }
}
#define LDC_CHECK_READ(pstBlock, pcKernel, pucRead, iBytes) LdcCheckRead((pstBlock), (pcKernel), (pucRead), (iBytes))
#else
// Off: the arguments are only named, nothing is evaluated at run time.
#define LDC_CHECK_READ(pstBlock, pcKernel, pucRead, iBytes) \
    ((void)sizeof(pstBlock), (void)sizeof(pcKernel), (void)sizeof(pucRead), (void)sizeof(iBytes))
#endif

// One luma byte at offset iOff from the block start, clamped to the block's last byte.
static inline uint8_t LdcLumaAt(const tagST_SRC_BLOCK *pstBlock, const char *pcKernel, int32_t iOff)
{
    const uint8_t *pucRead = pstBlock->pucBase + LdcMinS32(iOff, pstBlock->iLumaLast);
    LDC_CHECK_READ(pstBlock, pcKernel, pucRead, 1);
    return *pucRead;
}

// Rows 0..2 (pitch iPitch) of a group of four 2 x 2 blocks at luma offsets aiOffset (o0 + 2k for
// a contiguous group) with every read clamped: the left sample of each output column to
// aaucA[row], the right one to aaucB[row]. The vector bodies' path for frames of fewer than six
// rows and for wide loads that would pass the block's end.
static inline void LdcGatherRowsClamped(const tagST_SRC_BLOCK *pstBlock, const char *pcKernel, int32_t iPitch,
                                        const int32_t aiOffset[4], int32_t bContiguous, uint8_t aaucA[3][8],
                                        uint8_t aaucB[3][8])
{
    for (int32_t r = 0; r < 3; r++) {
        for (int32_t k = 0; k < 4; k++) {
            const int32_t iBase = (bContiguous ? aiOffset[0] + 2 * k : aiOffset[k]) + r * iPitch;
            for (int32_t j = 0; j < 2; j++) {
                aaucA[r][2 * k + j] = LdcLumaAt(pstBlock, pcKernel, iBase + j);
                aaucB[r][2 * k + j] = LdcLumaAt(pstBlock, pcKernel, iBase + j + 1);
            }
        }
    }
}

// Offset of chroma sample (column term iColTerm, row iRow) in a plane of pitch iPitchC, with the
// row and then the start clamped into the plane.
static inline int32_t LdcChromaOffset(const tagST_SRC_BLOCK *pstBlock, int32_t iColTerm, int32_t iRow,
                                      int32_t iPitchC)
{
    return LdcMinS32(iColTerm + LdcMinS32(iRow, pstBlock->iChromaRowLast) * iPitchC, pstBlock->iChromaLast);
}


// Largest block column (row) whose bilinear neighbours stay in the frame: W - 2 (H - 2), 0 for a
// side below 2.
static inline int32_t LdcInnerLimit(int32_t iSize)
{
    return iSize > 2 ? iSize - 2 : 0;
}

// One axis of a block's source position, clamped into the frame: the truncated position iRaw
// limited to [0, iInner]; *pbInside is 0 when that moved it (the caller then zeroes the
// fraction). Positions outside the frame thus repeat the edge samples. A homography fitted to a
// few faces, or a lens model that is not monotonic over the frame, can map output pixels far
// outside the source; without the clamp the kernels would read other memory. Working on the
// integer part, NaN (truncated to 0) and infinities need no compare of their own.
static inline int32_t LdcClampIndex(int32_t iRaw, int32_t iInner, int32_t *pbInside)
{
    const int32_t iV = iRaw < 0 ? 0 : (iRaw > iInner ? iInner : iRaw);
    *pbInside = (iV == iRaw);
    return iV;
}

// LdcClampIndex on four lanes with the fraction trunc(128 s) - 128 trunc(s) of each lane, zeroed
// where the lane moved: integer max / min / compare, native on 32-bit ARM (its float compares
// are not IEEE and compilers turn them into scalar ones).
static inline int32x4_t LdcClampIndex_neon(float32x4_t vS, int32x4_t vInner, int32x4_t *pvFrac)
{
    const int32x4_t vRaw = VcvtqS32F32(vS);
    const int32x4_t vIdx = vminq_s32(vmaxq_s32(vRaw, vdupq_n_s32(0)), vInner);
    const int32x4_t vFrac = vsubq_s32(VcvtqS32F32(vmulq_n_f32(vS, 128.0f)), vshlq_n_s32(vRaw, 7));
    *pvFrac = vandq_s32(vFrac, vreinterpretq_s32_u32(vceqq_s32(vIdx, vRaw)));
    return vIdx;
}

#endif
