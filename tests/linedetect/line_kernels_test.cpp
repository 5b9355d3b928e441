// Equivalence of the vector line kernels with their plain twins (which define the bytes), plus
// the exact values the plain arithmetic must give.
#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <random>
#include <vector>

#include "linedetect/downscale.h"
#include "linedetect/hough.h"
#include "linedetect/line_kernels_cases.h"
#include "linedetect/sobel.h"

namespace {

using line_kernels::FirstDifference;
using line_kernels::RandomPlane;

constexpr uint8_t kGuard = 0xA5;   // bytes past the output must stay untouched

TEST(LineKernels, DownScaleNeonMatchesPlainEveryByte)
{
    uint32_t uSeed = 1;
    for (const line_kernels::Size &s : line_kernels::DownScaleSizes()) {
        const size_t n = (size_t)s.iWidth * s.iHeight;
        for (const std::vector<uint8_t> &src : {RandomPlane(n, uSeed++), std::vector<uint8_t>(n, 255)}) {
            for (int32_t iFactor : {4, 8}) {
                const int32_t iOutW = s.iWidth / iFactor, iOutH = s.iHeight / iFactor;
                const size_t uOut = (size_t)iOutW * iOutH;
                std::vector<uint8_t> ref(uOut + 16, kGuard), neon(uOut + 16, kGuard), direct(uOut + 16, kGuard);
                DownScaleData(src.data(), iFactor, s.iWidth, s.iHeight, ref.data());
                DownScaleData_NEON(src.data(), iFactor, s.iWidth, s.iHeight, neon.data());
                (iFactor == 4 ? DownScaleData16_NEON : DownScaleData64_NEON)(src.data(), s.iWidth, s.iHeight,
                                                                             direct.data());
                SCOPED_TRACE(testing::Message() << s.iWidth << "x" << s.iHeight << " factor " << iFactor
                                                << (src[0] == 255 && src[n - 1] == 255 ? " (255s)" : " (random)"));
                ASSERT_EQ(FirstDifference(ref.data(), neon.data(), iOutW, iOutH), "");
                ASSERT_EQ(FirstDifference(ref.data(), direct.data(), iOutW, iOutH), "");
                ASSERT_EQ(std::vector<uint8_t>(ref.begin() + uOut, ref.end()), std::vector<uint8_t>(16, kGuard));
                ASSERT_EQ(std::vector<uint8_t>(neon.begin() + uOut, neon.end()), std::vector<uint8_t>(16, kGuard));
            }
        }
    }
}

TEST(LineKernels, DownScaleRoundsHalfUpAndSkipsPartialBlocks)
{
    // 7 x 6 source, factor 4: one output, from the top-left block (sum 24) only.
    std::vector<uint8_t> src(7 * 6, 255);
    const uint8_t aucBlock[16] = {3, 1, 2, 0, 1, 2, 3, 0, 2, 1, 0, 3, 2, 1, 2, 1};
    for (int32_t i = 0; i < 16; i++) {
        src[(i / 4) * 7 + i % 4] = aucBlock[i];
    }
    for (auto pfn : {DownScaleData16, DownScaleData16_NEON}) {
        uint8_t aucOut[2] = {kGuard, kGuard};
        pfn(src.data(), 7, 6, aucOut);
        EXPECT_EQ(aucOut[0], 2);   // 24 / 16 = 1.5 rounds up
        EXPECT_EQ(aucOut[1], kGuard);
    }
    // All 255 stays 255: (4080 + 8) >> 4 and (16320 + 32) >> 6.
    std::vector<uint8_t> white(64 * 8, 255);
    uint8_t aucOut[16];
    DownScaleData_NEON(white.data(), 4, 64, 4, aucOut);
    DownScaleData_NEON(white.data(), 8, 64, 8, aucOut + 8);
    EXPECT_EQ(std::vector<uint8_t>(aucOut, aucOut + 16), std::vector<uint8_t>(16, 255));
    // Factors other than 4 and 8 write nothing.
    uint8_t aucNone[4] = {kGuard, kGuard, kGuard, kGuard};
    DownScaleData(white.data(), 2, 64, 8, aucNone);
    DownScaleData_NEON(white.data(), 16, 64, 8, aucNone);
    EXPECT_EQ(std::vector<uint8_t>(aucNone, aucNone + 4), std::vector<uint8_t>(4, kGuard));
}

TEST(LineKernels, SobelNeonMatchesPlainEveryByte)
{
    uint32_t uSeed = 100;
    for (const line_kernels::Size &s : line_kernels::SobelSizes()) {
        const size_t n = (size_t)s.iWidth * s.iHeight;
        // Full-range noise saturates the 8-bit magnitude; low-contrast noise sits on the thresholds.
        for (const std::vector<uint8_t> &src : {RandomPlane(n, uSeed++), RandomPlane(n, uSeed++, 0x1F)}) {
            // Every threshold on the small images, a spread with both extremes elsewhere.
            for (int32_t iThresh = 0; iThresh <= 255; iThresh += (n <= 400) ? 1 : 17) {
                std::vector<uint8_t> ref(n + 16, kGuard), neon(n + 16, kGuard);
                CalcSobel(src.data(), ref.data(), s.iWidth, s.iHeight, iThresh);
                CalcSobel_NEON(src.data(), neon.data(), s.iWidth, s.iHeight, iThresh);
                ASSERT_EQ(FirstDifference(ref.data(), neon.data(), s.iWidth, s.iHeight), "")
                    << s.iWidth << "x" << s.iHeight << " threshold " << iThresh << " seed " << uSeed;
                ASSERT_EQ(neon[n], kGuard);
            }
        }
    }
}

TEST(LineKernels, SobelThresholdIsInclusiveAndBordersStayZero)
{
    // A step of 10 between columns 5 and 6: |gx| = 40 on both columns, on every row but the
    // outer ones; heights 1 and 2 have no interior at all.
    const int32_t iW = 12, iH = 5;
    std::vector<uint8_t> step((size_t)iW * iH, 50);
    for (size_t i = 0; i < step.size(); i++) {
        step[i] += (i % iW >= 6) ? 10 : 0;
    }
    for (auto pfn : {CalcSobel, CalcSobel_NEON}) {
        for (int32_t h : {iH, 2, 1}) {
            for (int32_t iThresh : {40, 41}) {
                std::vector<uint8_t> out((size_t)iW * h, kGuard);
                pfn(step.data(), out.data(), iW, h, iThresh);
                for (int32_t i = 0; i < iW * h; i++) {
                    const int32_t x = i % iW, y = i / iW;
                    const bool bEdge = iThresh == 40 && y > 0 && y < h - 1 && (x == 5 || x == 6);
                    ASSERT_EQ(out[i], bEdge ? 255 : 0) << "x=" << x << " y=" << y << " h=" << h << " T=" << iThresh;
                }
            }
        }
    }
}

// A voting record over its own storage; uByteOffset shifts every array off 4-byte alignment.
struct VoteSetup {
    std::vector<uint8_t> storage;
    tagST_LINE_DETECT st;

    VoteSetup(const std::vector<uint32_t> &points, int32_t iRhoMax, size_t uByteOffset = 0)
        : storage(uByteOffset + 1440 + points.size() * 4 + (size_t)182 * (2 * iRhoMax + 3) * 4, 0)
    {
        uint8_t *p = storage.data() + uByteOffset;
        for (int32_t t = 0; t < 180; t++) {
            const float fAngle = (float)t * 0.017453292f;
            const int32_t aiCosSin[2] = {(int32_t)(cos((double)fAngle) * 32768.0),
                                         (int32_t)(sin((double)fAngle) * 32768.0)};
            memcpy(p + 8 * t, aiCosSin, 8);
        }
        if (!points.empty()) {
            memcpy(p + 1440, points.data(), points.size() * 4);
        }
        st = tagST_LINE_DETECT{(int32_t)points.size(), 180, iRhoMax, (int32_t *)p, (uint32_t *)(p + 1440),
                               (int32_t *)(p + 1440 + points.size() * 4)};
    }

    std::vector<int32_t> Accum() const
    {
        std::vector<int32_t> v((size_t)182 * (2 * st.iRhoMax + 3));
        memcpy(v.data(), st.piAccum, v.size() * 4);
        return v;
    }
};

TEST(LineKernels, CountLineProbNeonMatchesPlain)
{
    std::mt19937 rng(7);
    for (int32_t iCount : {0, 3, 4, 5, 7, 61, 1001}) {
        for (size_t uOffset : {0, 1, 3}) {
            const int32_t iW = 40 + (int32_t)(rng() % 200), iH = 30 + (int32_t)(rng() % 150);
            std::vector<uint32_t> points(iCount);
            for (uint32_t &p : points) {
                p = (rng() % iH) + ((rng() % iW) << 16);
            }
            const int32_t iRhoMax = HoughRhoMax(iW, iH), iCols = 2 * iRhoMax + 3;
            VoteSetup ref(points, iRhoMax, uOffset), neon(points, iRhoMax, uOffset);
            CountLineProb(&ref.st);
            CountLineProb_NEON(&neon.st);
            const std::vector<int32_t> a = ref.Accum(), b = neon.Accum();
            for (size_t i = 0; i < a.size(); i++) {
                ASSERT_EQ(a[i], b[i]) << iCount << " points in " << iW << "x" << iH << ", offset " << uOffset
                                      << ": first difference at theta " << (int32_t)(i / iCols) - 1 << " rho "
                                      << (int32_t)(i % iCols) - iRhoMax - 1;
            }
            // Each voting angle gets one vote per voting point (a multiple of four), the diagonal
            // bands and the guard band nothing.
            for (int32_t iRow = 0; iRow < 182; iRow++) {
                const int32_t t = iRow - 1;
                const bool bVotes = (t >= 0 && t <= 22) || (t >= 67 && t <= 112) || (t >= 157 && t <= 179);
                int64_t iSum = 0;
                for (int32_t c = 1; c < iCols - 1; c++) {
                    iSum += a[(size_t)iRow * iCols + c];
                }
                ASSERT_EQ(iSum, bVotes ? (iCount & ~3) : 0) << "theta " << t << ", " << iCount << " points";
            }
        }
    }
    // Five points: the fifth leaves no trace. And the shift floors: (40, 30) at theta 179 is
    // floor(-39.47) = -40, not -39.
    const std::vector<uint32_t> five = {3u + (5u << 16), 4u + (5u << 16), 5u + (5u << 16), 6u + (5u << 16),
                                        30u + (40u << 16)};
    VoteSetup first4(std::vector<uint32_t>(five.begin(), five.begin() + 4), 60), all5(five, 60);
    CountLineProb_NEON(&first4.st);
    CountLineProb_NEON(&all5.st);
    EXPECT_EQ(first4.Accum(), all5.Accum());
    VoteSetup far(std::vector<uint32_t>(4, 30u + (40u << 16)), 60);
    CountLineProb(&far.st);
    EXPECT_EQ(far.Accum()[(size_t)(179 + 1) * 123 + 60 + 1 - 40], 4);
}

}  // namespace
