// The resampling core's harness: the vector sampler against the plain one on random and edge
// positions, and both stages on it (the remap's radial model, the warp's matrix) vector against
// plain over their sweeps, every byte of the frame compared and the first differing pixel named;
// then the core's own rules (bands, worker fallback, the filter's arithmetic, the read check).
#include <gtest/gtest.h>

#include <sched.h>

#include "geometry/distortion_correct_cases.h"
#include "platform/platform.h"
#include "resample/resample_cases.h"
#include "runtime/runtime.h"
#include "support/harness.h"
#include "support/thread_fault.h"
#include "warp/affine_transform_cases.h"

namespace {

// The drivers log every worker start, and the workers' affinity warnings go to stdout on machines
// with fewer than four cores: keep them out of the test output.
template <typename Fn>
void Quietly(Fn fn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    fn();
    (void)testing::internal::GetCapturedStdout();
    (void)testing::internal::GetCapturedStderr();
}

TEST(Resample, GroupSamplersAgreeOnRandomAndEdgePositions)
{
    for (const tagST_RS_CASE &c : RsCases()) {
        const size_t uBytes = (size_t)c.iWidth * c.iHeight * 3 / 2;
        const std::vector<uint8_t> vucSrc = ldc_test::RandomBytes(uBytes, c.uSeed);   // exact size
        ASSERT_EQ("", ldc_test::CompareTwins(ldc_test::FrameLayout(c.iWidth, c.iHeight, c.ePicType),
                                             [&](bool bNeon, uint8_t *pucDst) {
                                                 const tagST_RESAMPLE_PLANES stPlanes = RsPlanes(c, vucSrc.data(), pucDst);
                                                 for (int32_t iY : RsRows(c)) {
                                                     const std::vector<tagST_GROUP_POS> vstPos = RsPositions(c, iY);
                                                     (bNeon ? ResampleGroups_neon : ResampleGroups)(
                                                         &stPlanes, iY, 0, vstPos.data(), (int32_t)vstPos.size());
                                                 }
                                             }))
            << RsDescribe(c);
    }
}

// The remap's sweep: vector against plain, nothing written outside the rectangle, and the identity
// model copying it.
TEST(Resample, RemapVectorMatchesPlainAndWritesOnlyTheRectangle)
{
    tagST_DC_FRAMES stFrames;
    int32_t aiCounts[2] = {};   // rectangles with tail columns, rectangles without a whole group
    for (const tagST_DC_CASE &stCase : DcSweepCases()) {
        ASSERT_TRUE(DcPrepare(&stFrames, stCase)) << "no usable rectangle: " << DcDescribe(stCase, *stFrames.pstPara);
        const std::string strCase = DcDescribe(stFrames.stCase, *stFrames.pstPara);
        const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(stCase.iWidth, stCase.iHeight, stCase.ePicType);
        std::string strDiff;
        Quietly([&] {
            strDiff = ldc_test::CompareTwins(stLayout, [&](bool bNeon, uint8_t *pucDst) { stFrames.Run(bNeon, pucDst); });
        });
        ASSERT_EQ("", strDiff) << strCase;
        ldc_test::GuardedBytes stOut(stFrames.uFrameBytes, 0x5A);
        Quietly([&] { stFrames.Run(true, stOut.Data()); });
        for (size_t i = 0; i < stFrames.uFrameBytes; i++) {
            const bool bInside = stFrames.InRectangle(i);
            if (!bInside || stCase.eModel == DC_IDENTITY) {
                ASSERT_EQ(stOut.Data()[i], bInside ? stFrames.vucSrc[i] : 0x5A)
                    << (bInside ? "identity changed byte " : "written outside the rectangle at byte ") << i << "; "
                    << strCase;
            }
        }
        const int32_t *piArea = stFrames.Area();
        aiCounts[0] += ((piArea[2] + 1 - piArea[0]) % 8) != 0;
        aiCounts[1] += (piArea[2] + 1 - piArea[0]) < 8;
    }
    EXPECT_GT(aiCounts[0], 20);
    EXPECT_GT(aiCounts[1], 5);
}

// The warp's sweep: vector driver against the plain twin, the border keeping its bytes.
TEST(Resample, WarpVectorMatchesPlainAndWritesOnlyTheArea)
{
    for (const AffineCase &c : AffineCaseList()) {
        AffineFrame src(c.iWidth, c.iHeight, c.iPicType);
        src.Fill(0xA5u + (uint32_t)c.iWidth);
        std::vector<uint8_t> vucTable(RESAMPLE_QUAD_BYTES * ((c.iWidth + 7) / 8) + 3);
        tagST_LDC_PARA stPara{};
        stPara.ePicType = c.iPicType;
        const auto Run = [&](bool bNeon, uint8_t *pucDst) {
            tagST_PIC stDst = AffinePicture(c.iWidth, c.iHeight, c.iPicType, pucDst);
            tagST_REGISTRATION_AREA stArea = c.stArea;
            float *pfM = const_cast<float *>(c.afMatrix);
            // The table at an odd address, as the working buffer may give.
            if (bNeon) {
                AffineTransform_neon(&stPara, &src.pic, &src.pic, &stDst, pfM, &stArea, vucTable.data() + 3);
            } else {
                AffineTransformBands(&stPara, &src.pic, &stDst, pfM, &stArea, vucTable.data() + 3,
                                     c.iPicType == LDC_PIC_YUV420, 0);
            }
        };
        const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(c.iWidth, c.iHeight, c.iPicType);
        std::string strDiff;
        Quietly([&] { strDiff = ldc_test::CompareTwins(stLayout, Run); });
        ASSERT_EQ("", strDiff) << AffineDescribe(c);
        ldc_test::GuardedBytes stOut(src.FrameBytes(), 0x5A);
        Quietly([&] { Run(true, stOut.Data()); });
        size_t uChanged = 0;
        for (size_t i = 0; i < src.FrameBytes(); i++) {
            int32_t x, y;
            AffineBytePosition(c.iWidth, c.iHeight, c.iPicType, i, &x, &y);
            const tagST_REGISTRATION_AREA &a = c.stArea;
            const bool bInside = x >= a.iStartX && x < a.iStartX + a.iWidth && y >= a.iStartY && y < a.iStartY + a.iHeight;
            ASSERT_TRUE(bInside || stOut.Data()[i] == 0x5A) << "written outside the area at byte " << i << "; " << AffineDescribe(c);
            uChanged += stOut.Data()[i] != 0x5A;
        }
        EXPECT_GT(uChanged, 0u) << AffineDescribe(c);
    }
}

// The tail's nearest samples: luma at the truncated position, the interleaved chroma pair from the
// source column as it is (an odd one straddles two pairs), planar halves rounded down, where the
// groups round halves up.
TEST(Resample, TailBlocksTakeNearestSamplesWithTheirOwnChromaRule)
{
    for (int32_t ePicType : {1, 2}) {
        const tagST_RS_CASE c = {16, 8, ePicType, RS_SPREAD, 5};
        const std::vector<uint8_t> vucSrc = ldc_test::RandomBytes(16 * 8 * 3 / 2, 5);
        std::vector<uint8_t> vucDst(vucSrc.size(), 0);
        const tagST_RESAMPLE_PLANES stPlanes = RsPlanes(c, vucSrc.data(), vucDst.data());
        const tagST_GROUP_POS stPos = {{3.9f, 5.2f, 0.0f, 13.5f}, {3.7f, 1.0f, 6.99f, 0.0f}};
        const int32_t aiX[4] = {3, 5, 0, 13};
        const int32_t aiY[4] = {3, 1, 6, 0};
        ResampleNearestBlocks(&stPlanes, 2, 4, &stPos, 4);   // blocks at (4, 2), (6, 2), (8, 2), (10, 2)
        for (int32_t j = 0; j < 4; j++) {
            const int32_t iX = 4 + 2 * j;
            for (int32_t i = 0; i < 4; i++) {
                ASSERT_EQ(vucDst[(2 + i / 2) * 16 + iX + i % 2], vucSrc[(aiY[j] + i / 2) * 16 + aiX[j] + i % 2])
                    << "luma of block " << j << ", type " << ePicType;
            }
            if (ePicType == 1) {
                for (int32_t i = 0; i < 2; i++) {
                    ASSERT_EQ(stPlanes.pucDstU[16 + iX + i], stPlanes.pucSrcU[(aiY[j] >> 1) * 16 + aiX[j] + i])
                        << "chroma byte " << i << " of block " << j;
                }
            } else {
                const int32_t iSrc = (aiY[j] >> 1) * 8 + (aiX[j] >> 1);
                ASSERT_EQ(stPlanes.pucDstU[8 + iX / 2], stPlanes.pucSrcU[iSrc]) << "U of block " << j;
                ASSERT_EQ(stPlanes.pucDstV[8 + iX / 2], stPlanes.pucSrcV[iSrc]) << "V of block " << j;
            }
        }
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

TEST(Resample, BandsAreEvenAndTheLastTakesTheRest)
{
    EXPECT_EQ(BandRows(1080), (std::vector<int32_t>{270, 270, 270, 270}));
    EXPECT_EQ(BandRows(1078), (std::vector<int32_t>{268, 268, 268, 274}));
    EXPECT_EQ(BandRows(6), (std::vector<int32_t>{0, 0, 0, 6}));
}

// Workers that cannot be started: the calling thread resamples the whole rectangle with the same
// bytes, claims the first affinity slot and stays pinned to processor 0.
TEST(Resample, WorkerStartFailureFallsBackToTheCallingThread)
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
        tagST_DC_FRAMES stFrames;
        ASSERT_TRUE(stFrames.Prepare({50, 30, ePicType, DC_BARREL, {0, 0, 0, 0}, 11}));
        std::vector<uint8_t> vucThreads(stFrames.uFrameBytes, 0x5A);
        std::vector<uint8_t> vucFallback(vucThreads);
        std::string strLog;
        Quietly([&] { stFrames.Run(true, vucThreads.data()); });
        {
            ScopedThreadCreateFailure stFail(0);
            testing::internal::CaptureStderr();
            testing::internal::CaptureStdout();
            stFrames.Run(true, vucFallback.data());
            (void)testing::internal::GetCapturedStdout();
            strLog = testing::internal::GetCapturedStderr();
        }
        EXPECT_NE(strLog.find("E/ZB5QU_QVLDC: Thread Create Failed i = 0!!!"), std::string::npos);
        EXPECT_EQ("", ldc_test::FirstDifference(ldc_test::FrameLayout(50, 30, ePicType), vucThreads.data(),
                                                vucFallback.data()))
            << "type " << ePicType;
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

// Hand-worked values of the 7-bit filter, and the contiguity shortcut reading block k at o0 + 2k.
TEST(Resample, FilterArithmetic)
{
    const tagST_RS_CASE c = {16, 4, 1, RS_FOLDED, 0};
    uint8_t aucSrc[16 * 4 * 3 / 2] = {};
    for (int32_t i = 0; i < 16 * 4; i++) {
        aucSrc[i] = (uint8_t)((i & 1) ? 255 : 0);   // columns alternate 0 / 255
    }
    aucSrc[16 + 2] = 100;
    aucSrc[16 + 6] = 200;
    // Offsets (0, 0, 6, 6) sum to 12: read as 0, 2, 4, 6. Fractions fx (0, 64, 127, 0), fy (0, 0, 0, 64).
    const tagST_GROUP_POS stPos = {{0.0f, 0.5f, 6.0f + 127.0f / 128.0f, 6.0f}, {0.0f, 0.0f, 0.0f, 0.5f}};
    for (bool bNeon : {false, true}) {
        uint8_t aucDst[sizeof(aucSrc)] = {};
        const tagST_RESAMPLE_PLANES stPlanes = RsPlanes(c, aucSrc, aucDst);
        (bNeon ? ResampleGroups_neon : ResampleGroups)(&stPlanes, 0, 0, &stPos, 1);
        EXPECT_EQ(aucDst[0], 0);     // zero fractions return the sample itself
        EXPECT_EQ(aucDst[1], 255);
        // (0 * 64 + 255 * 64 + 32) >> 6 = 255, then (255 * 128 + 128) >> 8 = 128
        EXPECT_EQ(aucDst[2], 128);
        // (0 * 1 + 255 * 127 + 32) >> 6 = 506, (506 * 128 + 128) >> 8 = 253
        EXPECT_EQ(aucDst[4], 253);
        // row y + 1 of block 1 reads source row 1 from column 2 (o0 + 2), not from o1 = 0:
        // (100 * 64 + 255 * 64 + 32) >> 6 = 355, (355 * 128 + 128) >> 8 = 178
        EXPECT_EQ(aucDst[16 + 2], 178);
        // vertical only: upper (0 * 128 + 32) >> 6 = 0, lower (200 * 128 + 32) >> 6 = 400,
        // (0 * 64 + 400 * 64 + 128) >> 8 = 100
        EXPECT_EQ(aucDst[6], 100);
    }
}

#if defined(LDC_CHECK_READS)
// The checking build verifies every source offset before the read is made: an offset outside the
// frame block aborts with the sampler, the offset and the size of the source frame. (Positions
// are clamped, so no frame reaches it; the check guards against regressions.)
TEST(ResampleDeathTest, CheckingBuildAbortsOnAReadOutsideTheFrame)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<uint8_t> vFrame(64 * 48 * 3 / 2);
    const tagST_RESAMPLE_PLANES stPlanes = RsPlanes({64, 48, 0, RS_SPREAD, 0}, vFrame.data(), vFrame.data());
    const tagST_SOURCE_EXTENT *pstSrc = &stPlanes.stExtent;
    EXPECT_DEATH(RESAMPLE_CHECK_READ(pstSrc, "test", vFrame.data() - 3, 1), "test reads 1 bytes at offset -3 of a 4608-byte source frame");
    EXPECT_DEATH(RESAMPLE_CHECK_READ(pstSrc, "test", vFrame.data() + 4600, 9), "reads 9 bytes at offset 4600 of a 4608-byte");
}
#endif

}  // namespace
