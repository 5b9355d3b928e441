#include <gtest/gtest.h>

#include <sched.h>
#include <string.h>

#include "geometry/distortion_correct_cases.h"
#include "platform/platform.h"
#include "runtime/runtime.h"
#include "support/thread_fault.h"

namespace {

// The drivers log every worker start and the workers' affinity warnings go to stdout on
// machines with fewer than four cores: keep them out of the test output.
template <typename Fn>
void Quietly(Fn fn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    fn();
    (void)testing::internal::GetCapturedStdout();
    (void)testing::internal::GetCapturedStderr();
}

// A face case whose random coefficients leave no usable rectangle takes the next seeds until one
// does.
bool PrepareCase(tagST_DC_FRAMES *pstFrames, tagST_DC_CASE stCase)
{
    for (int32_t iTry = 0; iTry < 64; iTry++, stCase.uSeed += 1000) {
        if (pstFrames->Prepare(stCase)) {
            return true;
        }
        if (stCase.eModel < DC_FACE) {
            return false;
        }
    }
    return false;
}

// Whether some block origin of the rectangle maps onto the bottom row (bit 0) or the last column
// (bit 1): there the chroma row rounds up past the plane and the pair (or the neighbours) reach
// past the frame's end, which the exact-size frames make visible.
int32_t EdgeHits(const tagST_DC_FRAMES &stFrames)
{
    const tagST_LDC_PARA &stPara = *stFrames.pstPara;
    const int32_t *piArea = stFrames.Area();
    tagST_RADIAL_MODEL stM;
    GetRadialModel(&stPara, stPara.iLDCEnable == 1, &stM);
    int32_t iHits = 0;
    for (int32_t y = piArea[1]; y <= piArea[3]; y += 2) {
        for (int32_t x = piArea[0]; x <= piArea[2]; x += 2) {
            const float fDx = (float)x - stM.fCx;
            const float fDy = (float)y - stM.fCy;
            const float fF = RadialFactorGrouped(&stM, fDx * fDx + fDy * fDy);
            iHits |= (TruncF32ToS32(fF * fDy + stM.fCy) == stPara.iImgHeight - 1) ? 1 : 0;
            iHits |= (TruncF32ToS32(fF * fDx + stM.fCx) == stPara.iImgWidth - 1) ? 2 : 0;
        }
    }
    return iHits;
}

TEST(DistortionCorrect, NeonMatchesPlainOnEveryByteAndWritesOnlyTheRectangle)
{
    const std::vector<tagST_DC_CASE> vstCases = DcSweepCases();
    tagST_DC_FRAMES stFrames;
    std::vector<uint8_t> vucPlain;
    std::vector<uint8_t> vucNeon;
    int32_t iTails = 0;
    int32_t iGroupless = 0;
    int32_t iBottomRow = 0;
    int32_t iLastColumn = 0;
    for (const tagST_DC_CASE &stCase : vstCases) {
        ASSERT_TRUE(PrepareCase(&stFrames, stCase))
            << "no usable rectangle: " << DcDescribe(stCase, *stFrames.pstPara);
        const std::string strCase = DcDescribe(stFrames.stCase, *stFrames.pstPara);
        Quietly([&] {
            stFrames.Run(false, &vucPlain);
            stFrames.Run(true, &vucNeon);
        });
        const long iDiff = DcFirstDifference(vucPlain, vucNeon);
        ASSERT_EQ(iDiff, -1) << "first difference at " << stFrames.Where((size_t)iDiff) << ": plain "
                             << (int)vucPlain[iDiff] << ", neon " << (int)vucNeon[iDiff] << "; " << strCase;
        // Outside the rectangle the pattern stays; the identity model copies the rectangle exactly.
        std::vector<uint8_t> vucPattern;
        stFrames.FillPattern(&vucPattern);
        for (size_t i = 0; i < vucNeon.size(); i++) {
            const bool bInside = stFrames.InRectangle(i);
            if (!bInside || stCase.eModel == DC_IDENTITY) {
                ASSERT_EQ(vucNeon[i], bInside ? stFrames.vucSrc[i] : vucPattern[i])
                    << (bInside ? "identity changed " : "written outside the rectangle at ")
                    << stFrames.Where(i) << "; " << strCase;
            }
        }
        const int32_t *piArea = stFrames.Area();
        iTails += ((piArea[2] + 1 - piArea[0]) % 8) != 0;
        iGroupless += (piArea[2] + 1 - piArea[0]) < 8;
        iBottomRow += EdgeHits(stFrames) & 1;
        iLastColumn += EdgeHits(stFrames) >> 1;
    }
    // ... and the bottom row and the last column of the frame.
    EXPECT_GE(iBottomRow, 6);
    EXPECT_GE(iLastColumn, 6);
    // The sweep must reach the tail columns and rectangles with no whole group at all...
    EXPECT_GT(iTails, 20);
    EXPECT_GT(iGroupless, 5);
}

// Hand-worked values of the 7-bit filter, and the shortcut reading block k at o0 + 2k.
TEST(DistortionCorrect, InterpolatorArithmetic)
{
    const int32_t iPitch = 16;
    uint8_t aucSrc[16 * 4 * 3 / 2] = {};   // a 16 x 4 semi-planar frame
    for (int32_t i = 0; i < 16 * 4; i++) {
        aucSrc[i] = (uint8_t)((i & 1) ? 255 : 0);   // columns alternate 0 / 255
    }
    aucSrc[1 * iPitch + 2] = 100;
    aucSrc[1 * iPitch + 6] = 200;
    uint8_t aucDst[sizeof(aucSrc)] = {};
    tagST_RESAMPLE_PLANES stPlanes = {aucSrc, aucSrc + 64, aucSrc + 64, aucDst, aucDst + 64, aucDst + 64, iPitch, 4, 0,
                                      iPitch, {}, 0, 0};
    ResamplePreparePlanes(&stPlanes);
    // Offsets (0, 0, 6, 6) sum to 12: read as 0, 2, 4, 6. Fractions fx (0, 64, 127, 0), fy (0, 0, 0, 64).
    const tagST_GROUP_POS stPos = {{0.0f, 0.5f, 6.0f + 127.0f / 128.0f, 6.0f}, {0.0f, 0.0f, 0.0f, 0.5f}};
    ResampleGroups(&stPlanes, 0, 0, &stPos, 1);
    EXPECT_EQ(aucDst[0], 0);     // zero fractions return the sample itself
    EXPECT_EQ(aucDst[1], 255);
    // (0 * 64 + 255 * 64 + 32) >> 6 = 255, then (255 * 128 + 128) >> 8 = 128
    EXPECT_EQ(aucDst[2], 128);
    // (0 * 1 + 255 * 127 + 32) >> 6 = 506, (506 * 128 + 128) >> 8 = 253
    EXPECT_EQ(aucDst[4], 253);
    // row y + 1 of block 1 reads source row 1 from column 2 (o0 + 2), not from o1 = 0:
    // (100 * 64 + 255 * 64 + 32) >> 6 = 355, (355 * 128 + 128) >> 8 = 178
    EXPECT_EQ(aucDst[iPitch + 2], 178);
    // vertical only: upper (0 * 128 + 32) >> 6 = 0, lower (200 * 128 + 32) >> 6 = 400,
    // (0 * 64 + 400 * 64 + 128) >> 8 = 100
    EXPECT_EQ(aucDst[6], 100);
}

// The tail columns copy nearest samples at the truncated position; their chroma keeps its two
// deliberate differences from the groups: the interleaved pair is not aligned to its first byte
// (an odd column straddles two pairs) and planar halves round down.
TEST(DistortionCorrect, TailColumnsKeepTheirOwnChromaRounding)
{
    for (int32_t ePicType : {1, 2}) {
        const tagST_DC_CASE stCase = {22, 30, ePicType, DC_BARREL, {0, 0, 0, 0}, 9};
        tagST_DC_FRAMES stFrames;
        ASSERT_TRUE(stFrames.Prepare(stCase));
        std::vector<uint8_t> vucDst;
        Quietly([&] { stFrames.Run(true, &vucDst); });
        const tagST_PIC stDst = stFrames.Picture(vucDst.data());
        const tagST_PIC &stSrc = stFrames.stSrc;
        const int32_t *piArea = stFrames.Area();
        const int32_t iW = stCase.iWidth;
        tagST_RADIAL_MODEL stM;
        GetRadialModel(stFrames.pstPara.get(), 1, &stM);
        int32_t iOdd = 0;
        for (int32_t y = piArea[1]; y <= piArea[3]; y += 2) {
            for (int32_t x = piArea[0] + ((piArea[2] + 1 - piArea[0]) & ~7); x <= piArea[2]; x += 2) {
                const float fDx = (float)x - stM.fCx;
                const float fDy = (float)y - stM.fCy;
                const float fF = RadialFactorSerial(&stM, fDx * fDx + fDy * fDy);
                const int32_t iSx = TruncF32ToS32(stM.fCx + fF * fDx);
                const int32_t iSy = TruncF32ToS32(stM.fCy + fF * fDy);
                iOdd += (iSx & 1) | (iSy & 1);
                for (int32_t i = 0; i < 4; i++) {
                    ASSERT_EQ(stDst.pY[(y + i / 2) * iW + x + i % 2], stSrc.pY[(iSy + i / 2) * iW + iSx + i % 2])
                        << "luma (" << x + i % 2 << ", " << y + i / 2 << ") type " << ePicType;
                }
                if (ePicType == 1) {
                    for (int32_t i = 0; i < 2; i++) {
                        ASSERT_EQ(stDst.pU[(y / 2) * iW + x + i], stSrc.pU[(iSy >> 1) * iW + iSx + i])
                            << "chroma byte (" << x + i << ", " << y / 2 << ")";
                    }
                } else {
                    const int32_t iDst = (y / 2) * (iW >> 1) + x / 2;
                    const int32_t iSrc = (iSy >> 1) * (iW >> 1) + (iSx >> 1);
                    ASSERT_EQ(stDst.pU[iDst], stSrc.pU[iSrc]) << "U (" << x / 2 << ", " << y / 2 << ")";
                    ASSERT_EQ(stDst.pV[iDst], stSrc.pV[iSrc]) << "V (" << x / 2 << ", " << y / 2 << ")";
                }
            }
        }
        EXPECT_GT(iOdd, 4) << "the tail must reach odd source positions";
    }
}

// Rows of the four bands over iRows rows; empty when they do not cover the rows once, in order,
// each band starting on a row pair.
std::vector<int32_t> BandRows(int32_t iRows)
{
    std::vector<int32_t> viRows;
    int32_t iNext = 4;
    for (int32_t iIndex = 0; iIndex < LDC_THREAD_NUM; iIndex++) {
        int32_t iStart;
        int32_t iEnd;
        ResampleBandRows(4, iRows, iIndex, LDC_THREAD_NUM, &iStart, &iEnd);
        if (iStart != iNext || (iStart & 1) != 0) {
            return {};
        }
        iNext = iEnd;
        viRows.push_back(iEnd - iStart);
    }
    return iNext == 4 + iRows ? viRows : std::vector<int32_t>{};
}

TEST(DistortionCorrect, BandsAreEvenAndTheLastTakesTheRest)
{
    EXPECT_EQ(BandRows(1080), (std::vector<int32_t>{270, 270, 270, 270}));
    EXPECT_EQ(BandRows(1078), (std::vector<int32_t>{268, 268, 268, 274}));
    EXPECT_EQ(BandRows(6), (std::vector<int32_t>{0, 0, 0, 6}));
}

TEST(DistortionCorrect, WorkerStartFailureFallsBackToTheCallingThread)
{
    cpu_set_t stSaved;
    ASSERT_EQ(sched_getaffinity(0, sizeof(stSaved), &stSaved), 0);
    // The library's 4-byte affinity call can be refused where the kernel interface wants a
    // wider mask (qemu-aarch64): the pinning is then checked only where it can happen.
    int32_t iSavedMask = 0;
    for (int32_t i = 0; i < 32; i++) {
        iSavedMask |= CPU_ISSET(i, &stSaved) ? (1 << i) : 0;
    }
    const bool bCanPin = LdcSchedSetAffinity(LdcGetTid(), &iSavedMask) == 0;
    for (int32_t ePicType : {1, 2}) {
        const tagST_DC_CASE stCase = {50, 30, ePicType, DC_BARREL, {0, 0, 0, 0}, 11};
        tagST_DC_FRAMES stFrames;
        ASSERT_TRUE(stFrames.Prepare(stCase));
        std::vector<uint8_t> vucThreads;
        std::vector<uint8_t> vucFallback;
        std::string strLog;
        Quietly([&] { stFrames.Run(true, &vucThreads); });
        {
            ScopedThreadCreateFailure stFail(0);
            testing::internal::CaptureStderr();
            testing::internal::CaptureStdout();
            stFrames.Run(true, &vucFallback);
            (void)testing::internal::GetCapturedStdout();
            strLog = testing::internal::GetCapturedStderr();
        }
        EXPECT_NE(strLog.find("E/ZB5QU_QVLDC: Thread Create Failed i = 0!!!"), std::string::npos);
        EXPECT_EQ(DcFirstDifference(vucThreads, vucFallback), -1) << "type " << ePicType;
        // The calling thread claimed the first slot and stays pinned to processor 0.
        const int32_t *piState = stFrames.pstPara->aiThreadState;
        EXPECT_EQ(piState[0] * 1000 + piState[1] * 100 + piState[2] * 10 + piState[3], 1000);
        cpu_set_t stNow;
        ASSERT_EQ(sched_getaffinity(0, sizeof(stNow), &stNow), 0);
        if (bCanPin) {
            EXPECT_EQ(CPU_COUNT(&stNow), 1);
            EXPECT_TRUE(CPU_ISSET(0, &stNow));
        }
        ASSERT_EQ(sched_setaffinity(0, sizeof(stSaved), &stSaved), 0);
    }
}

#if defined(LDC_CHECK_READS)
// The checking build verifies every source offset before the read is made: an offset outside the
// frame block aborts with the kernel, the offset and the size of the source frame. (The kernels
// clamp their positions, so no frame reaches it any more; the check guards against regressions.)
TEST(DistortionCorrectDeathTest, CheckingBuildAbortsOnAReadOutsideTheFrame)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<uint8_t> vFrame(64 * 48 * 3 / 2);
    tagST_RESAMPLE_PLANES stPlanes = {vFrame.data(), vFrame.data() + 64 * 48, NULL, NULL, NULL, NULL, 64, 48, 0, 64,
                                      {}, 0, 0};
    ResamplePreparePlanes(&stPlanes);
    const tagST_SOURCE_EXTENT *pstSrc = &stPlanes.stExtent;
    EXPECT_DEATH(RESAMPLE_CHECK_READ(pstSrc, "test", vFrame.data() - 3, 1), "test reads 1 bytes at offset -3 of a 4608-byte source frame");
    EXPECT_DEATH(RESAMPLE_CHECK_READ(pstSrc, "test", vFrame.data() + 4600, 9), "reads 9 bytes at offset 4600 of a 4608-byte");
}
#endif

}  // namespace
