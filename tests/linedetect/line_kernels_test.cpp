// Equivalence of the vector line kernels with their plain twins (which define the bytes), plus
// the handful of exact values the plain arithmetic must give.
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

struct Plane {
    const char *pcName;
    std::vector<uint8_t> data;
};

std::vector<Plane> DownScaleSources(int32_t iWidth, int32_t iHeight, uint32_t uSeed)
{
    const size_t n = (size_t)iWidth * iHeight;
    std::vector<Plane> planes = {{"random", RandomPlane(n, uSeed)},
                                 {"all-255", std::vector<uint8_t>(n, 255)},
                                 {"scene", line_kernels::RenderScene(iWidth, iHeight, uSeed)}};
    return planes;
}

TEST(LineKernels, DownScaleNeonMatchesPlainEveryByte)
{
    uint32_t uSeed = 1;
    for (const line_kernels::Size &s : line_kernels::DownScaleSizes()) {
        for (const Plane &src : DownScaleSources(s.iWidth, s.iHeight, uSeed++)) {
            for (int32_t iFactor : {4, 8}) {
                const int32_t iOutW = s.iWidth / iFactor, iOutH = s.iHeight / iFactor;
                const size_t uOut = (size_t)iOutW * iOutH;
                std::vector<uint8_t> ref(uOut + 16, kGuard), neon(uOut + 16, kGuard), direct(uOut + 16, kGuard);
                DownScaleData(src.data.data(), iFactor, s.iWidth, s.iHeight, ref.data());
                DownScaleData_NEON(src.data.data(), iFactor, s.iWidth, s.iHeight, neon.data());
                if (iFactor == 4) {
                    DownScaleData16_NEON(src.data.data(), s.iWidth, s.iHeight, direct.data());
                } else {
                    DownScaleData64_NEON(src.data.data(), s.iWidth, s.iHeight, direct.data());
                }
                SCOPED_TRACE(testing::Message() << src.pcName << " " << s.iWidth << "x" << s.iHeight << " factor "
                                                << iFactor);
                ASSERT_EQ(FirstDifference(ref.data(), neon.data(), iOutW, iOutH), "");
                ASSERT_EQ(FirstDifference(ref.data(), direct.data(), iOutW, iOutH), "");
                for (size_t i = uOut; i < ref.size(); i++) {
                    ASSERT_EQ(ref[i], kGuard) << "plain wrote past the output at " << i;
                    ASSERT_EQ(neon[i], kGuard) << "neon wrote past the output at " << i;
                }
            }
        }
    }
}

TEST(LineKernels, DownScaleRoundsHalfUpAndSkipsPartialBlocks)
{
    // 7 x 6 source, factor 4: one output, from the top-left 4 x 4 block only.
    std::vector<uint8_t> src(7 * 6, 255);
    const uint8_t aucBlock[16] = {3, 1, 2, 0, 1, 2, 3, 0, 2, 1, 0, 3, 2, 1, 2, 1};   // sum 24
    for (int32_t i = 0; i < 16; i++) {
        src[(i / 4) * 7 + i % 4] = aucBlock[i];
    }
    for (auto pfn : {DownScaleData16, DownScaleData16_NEON}) {
        uint8_t aucOut[3] = {kGuard, kGuard, kGuard};
        pfn(src.data(), 7, 6, aucOut);
        EXPECT_EQ(aucOut[0], 2);   // 24 / 16 = 1.5 rounds up
        EXPECT_EQ(aucOut[1], kGuard);
    }
    // All 255: (4080 + 8) >> 4 and (16320 + 32) >> 6 stay 255.
    std::vector<uint8_t> white(64 * 8, 255);
    uint8_t aucOut[16];
    DownScaleData_NEON(white.data(), 4, 64, 4, aucOut);
    DownScaleData_NEON(white.data(), 8, 64, 8, aucOut + 8);
    for (uint8_t v : aucOut) {
        EXPECT_EQ(v, 255);
    }
    // 32 ones and 32 zeros in an 8 x 8 block: 32 / 64 = 0.5 rounds up to 1.
    std::vector<uint8_t> half(8 * 8, 0);
    for (int32_t i = 0; i < 32; i++) {
        half[i] = 1;
    }
    DownScaleData64(half.data(), 8, 8, aucOut);
    EXPECT_EQ(aucOut[0], 1);
    // Factors other than 4 and 8 write nothing.
    uint8_t aucNone[4] = {kGuard, kGuard, kGuard, kGuard};
    DownScaleData(white.data(), 2, 64, 8, aucNone);
    DownScaleData_NEON(white.data(), 16, 64, 8, aucNone);
    for (uint8_t v : aucNone) {
        EXPECT_EQ(v, kGuard);
    }
}

TEST(LineKernels, SobelNeonMatchesPlainEveryByte)
{
    uint32_t uSeed = 100;
    for (const line_kernels::Size &s : line_kernels::SobelSizes()) {
        const size_t n = (size_t)s.iWidth * s.iHeight;
        const std::vector<uint8_t> random = RandomPlane(n, uSeed++);
        const std::vector<uint8_t> scene = line_kernels::RenderScene(s.iWidth, s.iHeight, uSeed++);
        // Every threshold on the small images, a spread of them (with the extremes) elsewhere.
        const bool bAll = n <= 400;
        for (int32_t iThresh = 0; iThresh <= 255; iThresh += bAll ? 1 : 17) {
            for (const std::vector<uint8_t> *src : {&random, &scene}) {
                std::vector<uint8_t> ref(n + 16, kGuard), neon(n + 16, kGuard);
                CalcSobel(src->data(), ref.data(), s.iWidth, s.iHeight, iThresh);
                CalcSobel_NEON(src->data(), neon.data(), s.iWidth, s.iHeight, iThresh);
                SCOPED_TRACE(testing::Message() << s.iWidth << "x" << s.iHeight << " threshold " << iThresh
                                                << (src == &random ? " random" : " scene"));
                ASSERT_EQ(FirstDifference(ref.data(), neon.data(), s.iWidth, s.iHeight), "");
                ASSERT_EQ(neon[n], kGuard);
            }
        }
    }
}

TEST(LineKernels, SobelThresholdBordersAndShortImages)
{
    // A step edge of height 10 between columns: |gx| = 4 * 10 = 40 at the two columns beside it.
    const int32_t iW = 12, iH = 5;
    std::vector<uint8_t> step((size_t)iW * iH, 50);
    for (int32_t y = 0; y < iH; y++) {
        for (int32_t x = 6; x < iW; x++) {
            step[(size_t)y * iW + x] = 60;
        }
    }
    for (auto pfn : {CalcSobel, CalcSobel_NEON}) {
        std::vector<uint8_t> out((size_t)iW * iH, kGuard);
        pfn(step.data(), out.data(), iW, iH, 40);   // equal to the magnitude: an edge
        for (int32_t y = 0; y < iH; y++) {
            for (int32_t x = 0; x < iW; x++) {
                const bool bEdge = y > 0 && y < iH - 1 && (x == 5 || x == 6);
                EXPECT_EQ(out[(size_t)y * iW + x], bEdge ? 255 : 0) << "x=" << x << " y=" << y;
            }
        }
        pfn(step.data(), out.data(), iW, iH, 41);
        for (uint8_t v : out) {
            EXPECT_EQ(v, 0);
        }
    }
    // Magnitudes far above 255 (a checkerboard gives up to 2040) are edges at threshold 255;
    // the outer frame is 0 whatever the content; one or two rows are all 0.
    std::vector<uint8_t> checker(16 * 16);
    for (size_t i = 0; i < checker.size(); i++) {
        checker[i] = (((i / 16) + (i % 16)) & 1) ? 255 : 0;
    }
    std::vector<uint8_t> corner(16 * 16, 0);
    corner[0] = 255;
    for (auto pfn : {CalcSobel, CalcSobel_NEON}) {
        std::vector<uint8_t> out(16 * 16, kGuard);
        pfn(corner.data(), out.data(), 16, 16, 255);
        EXPECT_EQ(out[17], 255);    // 255 from one diagonal neighbour: |gx| + |gy| = 510
        pfn(corner.data(), out.data(), 16, 16, 0);
        for (int32_t i = 0; i < 16; i++) {
            EXPECT_EQ(out[i], 0);
            EXPECT_EQ(out[15 * 16 + i], 0);
            EXPECT_EQ(out[i * 16], 0);
            EXPECT_EQ(out[i * 16 + 15], 0);
        }
        for (int32_t iH2 : {1, 2}) {
            std::vector<uint8_t> out2(16 * 2 + 1, kGuard);
            pfn(checker.data(), out2.data(), 16, iH2, 0);
            for (int32_t i = 0; i < 16 * iH2; i++) {
                EXPECT_EQ(out2[i], 0);
            }
            EXPECT_EQ(out2[16 * iH2], kGuard);
        }
    }
}

// A voting record over its own storage; iByteOffset shifts every array off 4-byte alignment.
struct VoteSetup {
    std::vector<uint8_t> storage;
    tagST_LINE_DETECT st;

    VoteSetup(const std::vector<uint32_t> &points, int32_t iRhoMax, size_t uByteOffset)
    {
        const size_t uCells = (size_t)182 * (2 * iRhoMax + 3);
        storage.assign(uByteOffset + 1440 + points.size() * 4 + uCells * 4, 0);
        uint8_t *p = storage.data() + uByteOffset;
        int32_t aiTrig[360];
        for (int32_t t = 0; t < 180; t++) {
            const float fAngle = (float)t * 0.017453292f;
            aiTrig[2 * t] = (int32_t)(cos((double)fAngle) * 32768.0);
            aiTrig[2 * t + 1] = (int32_t)(sin((double)fAngle) * 32768.0);
        }
        memcpy(p, aiTrig, sizeof(aiTrig));
        memcpy(p + 1440, points.data(), points.size() * 4);
        st.iPointNum = (int32_t)points.size();
        st.iThetaNum = 180;
        st.iRhoMax = iRhoMax;
        st.piTrig = (int32_t *)p;
        st.puiPoints = (uint32_t *)(p + 1440);
        st.piAccum = (int32_t *)(p + 1440 + points.size() * 4);
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
    const int32_t aiCounts[] = {0, 1, 3, 4, 5, 7, 8, 61, 250, 1001};
    for (int32_t iCount : aiCounts) {
        for (size_t uOffset : {0, 1, 3}) {
            const int32_t iW = 40 + (int32_t)(rng() % 200), iH = 30 + (int32_t)(rng() % 150);
            std::vector<uint32_t> points(iCount);
            for (uint32_t &p : points) {
                p = (rng() % iH) + ((rng() % iW) << 16);
            }
            const int32_t iRhoMax = HoughRhoMax(iW, iH);
            VoteSetup ref(points, iRhoMax, uOffset), neon(points, iRhoMax, uOffset);
            CountLineProb(&ref.st);
            CountLineProb_NEON(&neon.st);
            const std::vector<int32_t> a = ref.Accum(), b = neon.Accum();
            const int32_t iCols = 2 * iRhoMax + 3;
            for (size_t i = 0; i < a.size(); i++) {
                ASSERT_EQ(a[i], b[i]) << iCount << " points in " << iW << "x" << iH << ", offset " << uOffset
                                      << ": first difference at theta " << (int32_t)(i / iCols) - 1 << " rho "
                                      << (int32_t)(i % iCols) - iRhoMax - 1;
            }
            // Each voting angle receives one vote per voting point; the rest nothing.
            for (int32_t iRow = 0; iRow < 182; iRow++) {
                const int32_t t = iRow - 1;
                const bool bVotes = (t >= 0 && t <= 22) || (t >= 67 && t <= 112) || (t >= 157 && t <= 179);
                int64_t iSum = 0;
                for (int32_t c = 0; c < iCols; c++) {
                    iSum += a[(size_t)iRow * iCols + c];
                }
                ASSERT_EQ(iSum, bVotes ? (iCount & ~3) : 0) << "theta " << t << ", " << iCount << " points";
                ASSERT_EQ(a[(size_t)iRow * iCols], 0);
                ASSERT_EQ(a[(size_t)iRow * iCols + iCols - 1], 0);
            }
        }
    }
}

TEST(LineKernels, CountLineProbLastPointsDoNotVote)
{
    // Five points: the fifth, far from the others, leaves no trace.
    const std::vector<uint32_t> points = {3u + (5u << 16), 4u + (5u << 16), 5u + (5u << 16), 6u + (5u << 16),
                                          30u + (40u << 16)};
    const std::vector<uint32_t> first4(points.begin(), points.begin() + 4);
    for (auto pfn : {CountLineProb, CountLineProb_NEON}) {
        VoteSetup five(points, 60, 0), four(first4, 60, 0);
        pfn(&five.st);
        pfn(&four.st);
        EXPECT_EQ(five.Accum(), four.Accum());
    }
    // Q15 arithmetic with a flooring shift: (40, 30) at theta 179 is floor(-39.47) = -40, not -39.
    const std::vector<uint32_t> far(4, 30u + (40u << 16));
    VoteSetup one(far, 60, 0);
    CountLineProb_NEON(&one.st);
    const std::vector<int32_t> acc = one.Accum();
    EXPECT_EQ(acc[(size_t)(179 + 1) * 123 + 60 + 1 - 40], 4);
    EXPECT_EQ(acc[(size_t)(0 + 1) * 123 + 60 + 1 + 40], 4);
}

}  // namespace
