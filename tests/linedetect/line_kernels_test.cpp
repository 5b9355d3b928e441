// The line kernels: each plain routine against a direct formula written another way, and each
// NEON twin against its plain routine, byte for byte, over the sweeps of line_kernels_cases.h.
#include <gtest/gtest.h>

#include <math.h>
#include <stdlib.h>

#include "linedetect/downscale.h"
#include "linedetect/hough.h"
#include "linedetect/line_kernels_cases.h"
#include "linedetect/sobel.h"
#include "support/harness.h"

namespace {

using ldc_test::CompareTwins;
using ldc_test::FirstDifference;
using ldc_test::RandomBytes;

// The mean of each whole block, rounded half up in double.
std::vector<uint8_t> BlockMeans(const std::vector<uint8_t> &vucSrc, int32_t iW, int32_t iH, int32_t iF)
{
    std::vector<uint8_t> vucOut((size_t)(iW / iF) * (iH / iF));
    for (size_t i = 0; i < vucOut.size(); i++) {
        const size_t uX0 = i % (iW / iF) * iF, uY0 = i / (iW / iF) * iF;
        double dSum = 0.0;
        for (int32_t k = 0; k < iF * iF; k++) {
            dSum += vucSrc[(uY0 + k / iF) * iW + uX0 + k % iF];
        }
        vucOut[i] = (uint8_t)floor(dSum / (iF * iF) + 0.5);
    }
    return vucOut;
}

TEST(LineKernels, DownScaleIsTheRoundedBlockMeanOnBothTwins)
{
    uint32_t uSeed = 1;
    for (const line_kernels::Size &s : line_kernels::DownScaleSizes()) {
        const size_t n = (size_t)s.iWidth * s.iHeight;
        for (const std::vector<uint8_t> &vucSrc : {RandomBytes(n, uSeed++), std::vector<uint8_t>(n, 255)}) {
            for (int32_t iF : {4, 8}) {
                const ldc_test::tagST_TEST_LAYOUT stOut = ldc_test::ImageLayout(s.iWidth / iF, s.iHeight / iF);
                const auto fnRun = [&](bool bNeon, uint8_t *pucOut) {
                    (bNeon ? DownScaleData_NEON : DownScaleData)(vucSrc.data(), iF, s.iWidth, s.iHeight, pucOut);
                };
                ldc_test::GuardedBytes stPlain(stOut.uBytes, 0);
                fnRun(false, stPlain.Data());
                SCOPED_TRACE(testing::Message() << s.iWidth << "x" << s.iHeight << " factor " << iF);
                ASSERT_EQ("", FirstDifference(stOut, BlockMeans(vucSrc, s.iWidth, s.iHeight, iF).data(),
                                              stPlain.Data()) + stPlain.GuardReport());
                ASSERT_EQ("", CompareTwins(stOut, fnRun));
            }
        }
    }
    // Other factors write nothing.
    const std::vector<uint8_t> vucWhite(64 * 16, 255);
    ldc_test::GuardedBytes stNone(16, 7);
    DownScaleData(vucWhite.data(), 2, 64, 16, stNone.Data());
    DownScaleData_NEON(vucWhite.data(), 16, 64, 16, stNone.Data());
    EXPECT_EQ(std::vector<uint8_t>(16, 7), std::vector<uint8_t>(stNone.Data(), stNone.Data() + 16));
}

// |gx| + |gy| from the two 3 x 3 kernels as tables; -1 on the border, which is never an edge.
std::vector<int32_t> SobelMagnitudes(const std::vector<uint8_t> &vucSrc, int32_t iW, int32_t iH)
{
    static const int32_t aiKx[9] = {-1, 0, 1, -2, 0, 2, -1, 0, 1};
    static const int32_t aiKy[9] = {1, 2, 1, 0, 0, 0, -1, -2, -1};
    std::vector<int32_t> viMag((size_t)iW * iH, -1);
    for (int32_t y = 1; y + 1 < iH; y++) {
        for (int32_t x = 1; x + 1 < iW; x++) {
            int32_t iGx = 0, iGy = 0;
            for (int32_t k = 0; k < 9; k++) {
                const int32_t p = vucSrc[(size_t)(y - 1 + k / 3) * iW + x - 1 + k % 3];
                iGx += aiKx[k] * p;
                iGy += aiKy[k] * p;
            }
            viMag[(size_t)y * iW + x] = abs(iGx) + abs(iGy);
        }
    }
    return viMag;
}

TEST(LineKernels, SobelThresholdsTheL1MagnitudeOnBothTwins)
{
    uint32_t uSeed = 100;
    for (const line_kernels::Size &s : line_kernels::SobelSizes()) {
        const size_t n = (size_t)s.iWidth * s.iHeight;
        const ldc_test::tagST_TEST_LAYOUT stOut = ldc_test::ImageLayout(s.iWidth, s.iHeight);
        // Full-range noise saturates the 8-bit magnitude; low-contrast noise sits on the thresholds.
        for (const std::vector<uint8_t> &vucSrc : {RandomBytes(n, uSeed++), RandomBytes(n, uSeed++, 0x1F)}) {
            const std::vector<int32_t> viMag = SobelMagnitudes(vucSrc, s.iWidth, s.iHeight);
            // Every threshold on the small images, a spread with both extremes elsewhere.
            for (int32_t iThresh = 0; iThresh <= 255; iThresh += (n <= 400) ? 1 : 17) {
                std::vector<uint8_t> vucExpected(n);
                for (size_t i = 0; i < n; i++) {
                    vucExpected[i] = viMag[i] >= iThresh ? 255 : 0;   // equal to the threshold is an edge
                }
                const auto fnRun = [&](bool bNeon, uint8_t *pucOut) {
                    (bNeon ? CalcSobel_NEON : CalcSobel)(vucSrc.data(), pucOut, s.iWidth, s.iHeight, iThresh);
                };
                ldc_test::GuardedBytes stPlain(n, 0x5A);
                fnRun(false, stPlain.Data());
                SCOPED_TRACE(testing::Message() << s.iWidth << "x" << s.iHeight << " threshold " << iThresh);
                ASSERT_EQ("", FirstDifference(stOut, vucExpected.data(), stPlain.Data()) + stPlain.GuardReport());
                ASSERT_EQ("", CompareTwins(stOut, fnRun));
            }
        }
    }
}

// Voting on random points, the record's arrays misaligned as the working buffer may leave them:
// the plain counts against rho = floor((x cos + y sin) / 2^15) taken in double, for the angles
// within 22 degrees of the axes and the points four at a time; the NEON counts against the plain.
TEST(LineKernels, VotingCountsFlooredRhoOnBothTwins)
{
    int32_t aiTrig[360];
    for (int32_t t = 0; t < 180; t++) {
        const double dAngle = (double)((float)t * 0.017453292f);
        aiTrig[2 * t] = (int32_t)(cos(dAngle) * 32768.0);
        aiTrig[2 * t + 1] = (int32_t)(sin(dAngle) * 32768.0);
    }
    std::mt19937 rng(7);
    for (int32_t iCount : {0, 3, 4, 5, 7, 61, 1001}) {
        for (size_t uMisalign : {0, 1, 3}) {
            const int32_t iW = 40 + (int32_t)(rng() % 200), iH = 30 + (int32_t)(rng() % 150);
            const int32_t iRhoMax = HoughRhoMax(iW, iH), iCols = 2 * iRhoMax + 3;
            std::vector<uint32_t> vuPoints(iCount);
            for (uint32_t &u : vuPoints) {
                u = (rng() % iH) + ((rng() % iW) << 16);
            }
            const size_t uAccum = sizeof(aiTrig) + 4 * vuPoints.size();
            const ldc_test::tagST_TEST_PLANE stPlane = {"accumulator (x = R + 1 + rho, y = theta + 1)", 0, iCols,
                                                        182, iCols * 4, 4};
            const ldc_test::tagST_TEST_LAYOUT stAccum = {(size_t)182 * iCols * 4, {stPlane}};
            const auto fnRun = [&](bool bNeon, uint8_t *puc) {
                memcpy(puc, aiTrig, sizeof(aiTrig));
                if (iCount > 0) {
                    memcpy(puc + sizeof(aiTrig), vuPoints.data(), 4 * vuPoints.size());
                }
                memset(puc + uAccum, 0, stAccum.uBytes);
                tagST_LINE_DETECT st = {iCount, 180, iRhoMax, (int32_t *)puc, (uint32_t *)(puc + sizeof(aiTrig)),
                                        (int32_t *)(puc + uAccum)};
                (bNeon ? CountLineProb_NEON : CountLineProb)(&st);
            };
            std::vector<int32_t> viExpected(stAccum.uBytes / 4, 0);
            for (int32_t t = 0; t < 180; t++) {
                const bool bVotes = t <= 22 || t >= 157 || (t >= 67 && t <= 112);
                for (int32_t i = 0; bVotes && i < (iCount & ~3); i++) {
                    const double dX = vuPoints[i] >> 16, dY = vuPoints[i] & 0xFFFF;
                    const int32_t iRho = (int32_t)floor((dX * aiTrig[2 * t] + dY * aiTrig[2 * t + 1]) / 32768.0);
                    viExpected[(size_t)(t + 1) * iCols + iRhoMax + 1 + iRho]++;
                }
            }
            ldc_test::GuardedBytes stPlain(uAccum + stAccum.uBytes, 0, uMisalign);
            fnRun(false, stPlain.Data());
            SCOPED_TRACE(testing::Message() << iCount << " points in " << iW << "x" << iH << ", misaligned by "
                                            << uMisalign);
            ASSERT_EQ("", FirstDifference(stAccum, (const uint8_t *)viExpected.data(), stPlain.Data() + uAccum) +
                              stPlain.GuardReport());
            ldc_test::tagST_TEST_LAYOUT stWhole = {uAccum + stAccum.uBytes, {stPlane}};
            stWhole.vstPlanes[0].uOffset = uAccum;
            ASSERT_EQ("", CompareTwins(stWhole, fnRun, 0, uMisalign));
        }
    }
}

}  // namespace
