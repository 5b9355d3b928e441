// Segment detection on rendered edge maps: which peaks become lines, and where their runs end.
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

constexpr uint8_t kFill = 0xA5;

struct EdgeMap {
    int32_t iWidth;
    int32_t iHeight;
    std::vector<uint8_t> pixels;

    EdgeMap(int32_t w, int32_t h) : iWidth(w), iHeight(h), pixels((size_t)w * h, 0) {}
    void Set(int32_t x, int32_t y) { pixels[(size_t)y * iWidth + x] = 255; }
    void Column(int32_t x, int32_t y0, int32_t y1)
    {
        for (int32_t y = y0; y <= y1; y++) {
            Set(x, y);
        }
    }
    void Row(int32_t y, int32_t x0, int32_t x1)
    {
        for (int32_t x = x0; x <= x1; x++) {
            Set(x, y);
        }
    }
};

// One detection over scratch filled with garbage (it must clear what it uses), optionally
// shifted off alignment, with one record past the limit to catch overruns.
struct Detection {
    std::vector<uint8_t> scratch;
    std::vector<stLine> lines;
    int32_t iCount;
    size_t uOffset;

    Detection(const EdgeMap &map, int32_t iMinVotes, size_t uByteOffset = 0)
        : scratch(uByteOffset + HoughScratchSize(map.iWidth, map.iHeight), kFill),
          lines(LDC_HOUGH_MAX_LINES + 1, stLine{-7, -7, {-7, -7}, {-7, -7}}), uOffset(uByteOffset)
    {
        iCount = LineDetectionHough(map.pixels.data(), map.iWidth, map.iHeight, lines.data(), iMinVotes,
                                    scratch.data() + uByteOffset);
    }

    std::vector<stLine> WithTheta(int32_t iTheta) const
    {
        std::vector<stLine> v;
        for (int32_t i = 0; i < iCount; i++) {
            if (lines[i].theta == iTheta) {
                v.push_back(lines[i]);
            }
        }
        return v;
    }
};

void ExpectLine(const stLine &l, int32_t iRho, int32_t iTheta, stPoint p0, stPoint p1)
{
    EXPECT_EQ(l.rho, iRho);
    EXPECT_EQ(l.theta, iTheta);
    EXPECT_EQ(l.Pnt0.x, p0.x);
    EXPECT_EQ(l.Pnt0.y, p0.y);
    EXPECT_EQ(l.Pnt1.x, p1.x);
    EXPECT_EQ(l.Pnt1.y, p1.y);
}

TEST(Hough, ScratchSizeMatchesTheWorkingBufferRule)
{
    EXPECT_EQ(HoughRhoMax(500, 375), 625);
    EXPECT_EQ(HoughRhoMax(160, 120), 200);
    EXPECT_EQ(HoughRhoMax(1, 1), 1);    // sqrt(2.5): the half is added under the root
    EXPECT_EQ(HoughRhoMax(3, 4), 5);
    // Working buffer: 1000 line records, the downscaled image, then the Hough scratch.
    EXPECT_EQ(24000 + 500 * 375 + HoughScratchSize(500, 375), 2062624u);
    EXPECT_EQ(24000 + 160 * 120 + HoughScratchSize(160, 120), 434024u);
}

TEST(Hough, NoEdgesGiveNoLinesAndAZeroAccumulator)
{
    EdgeMap empty(50, 40);
    Detection d(empty, 0, 1);
    EXPECT_EQ(d.iCount, 0);
    EXPECT_EQ(d.lines[0].theta, -7);
    const int32_t iR = HoughRhoMax(50, 40);
    const uint8_t *pucAccum = d.scratch.data() + 1 + 1440 + 50 * 40 * 4;
    const size_t uAccumAndRunMap = (size_t)182 * (2 * iR + 3) * 4 + 50 * 40;
    for (size_t i = 0; i < uAccumAndRunMap; i++) {
        ASSERT_EQ(pucAccum[i], 0) << "byte " << i << " of the accumulator and run map";
    }
    // The trig table is Q15 from a single-precision degree: sin(90) truncates to 32767.
    int32_t aiTrig[4];
    memcpy(aiTrig, d.scratch.data() + 1, 8);
    memcpy(aiTrig + 2, d.scratch.data() + 1 + 90 * 8, 8);
    EXPECT_EQ(aiTrig[0], 32768);
    EXPECT_EQ(aiTrig[1], 0);
    EXPECT_EQ(aiTrig[2], 0);
    EXPECT_EQ(aiTrig[3], 32767);
}

TEST(Hough, VerticalSegmentAndPeakComparisons)
{
    // 61 points in column 12, of which the first 60 vote: 60 votes at theta 0, rho 12, while
    // theta 1 splits them 48 / 12.
    EdgeMap map(64, 96);
    map.Column(12, 10, 70);
    for (int32_t iMinVotes : {12, 60}) {
        Detection d(map, iMinVotes);
        const std::vector<stLine> v = d.WithTheta(0);
        ASSERT_EQ(v.size(), 1u) << "minimum votes " << iMinVotes;
        // The dilated run covers rows 9..71; it starts at the empty row above, ends at the one below.
        ExpectLine(v[0], 12, 0, {12, 8}, {12, 72});
    }
    EXPECT_TRUE(Detection(map, 61).WithTheta(0).empty());

    // 20 points: theta 1 puts all of them on rho 12 too, so theta 0 only equals its neighbour and
    // is no peak; the segment comes out at nearby angles instead.
    EdgeMap shortMap(64, 96);
    shortMap.Column(12, 10, 29);
    Detection d(shortMap, 12);
    EXPECT_TRUE(d.WithTheta(0).empty());
    ASSERT_GE(d.iCount, 1);
    for (int32_t i = 0; i < d.iCount; i++) {
        EXPECT_TRUE(d.lines[i].theta <= 6 || d.lines[i].theta >= 174) << d.lines[i].theta;
    }
}

TEST(Hough, HorizontalSegmentWalksTheRowAtColumnTwo)
{
    // Row 15 has rho 14 at theta 90 (sin is 32767/32768); the walk's row is 14, which the
    // dilation covers, and runs over columns 2..w-4.
    EdgeMap map(96, 40);
    map.Row(15, 5, 70);
    const std::vector<stLine> v = Detection(map, 8).WithTheta(90);
    ASSERT_EQ(v.size(), 1u);
    ExpectLine(v[0], 14, 90, {4, 14}, {71, 14});
}

TEST(Hough, RunsTouchingTheWalkEndAreNotReported)
{
    // Vertical walks end at row h-3, horizontal ones at column w-4: a run reaching that far has
    // no empty pixel to close it.
    EdgeMap closedV(64, 96), openV(64, 96);
    closedV.Column(12, 10, 91);   // dilated to row 92; row 93 is empty
    openV.Column(12, 10, 92);     // dilated to row 93, the last walked
    const std::vector<stLine> v = Detection(closedV, 12).WithTheta(0);
    ASSERT_EQ(v.size(), 1u);
    ExpectLine(v[0], 12, 0, {12, 8}, {12, 93});
    EXPECT_TRUE(Detection(openV, 12).WithTheta(0).empty());

    EdgeMap closedH(96, 40), openH(96, 40);
    closedH.Row(15, 5, 91);   // covers row 14 up to column 91; column 92 = w-4 is empty
    openH.Row(15, 5, 92);
    const std::vector<stLine> h = Detection(closedH, 8).WithTheta(90);
    ASSERT_EQ(h.size(), 1u);
    ExpectLine(h[0], 14, 90, {4, 14}, {92, 14});
    EXPECT_TRUE(Detection(openH, 8).WithTheta(90).empty());
}

// A one-pixel line from (x0, y0) with the given angle to the horizontal (rows grow downwards).
EdgeMap SlopedLine(int32_t w, int32_t h, double fDegrees, int32_t x0, int32_t y0, int32_t iLen)
{
    EdgeMap map(w, h);
    const double fTan = tan(fDegrees * M_PI / 180.0);
    for (int32_t i = 0; i < iLen; i++) {
        map.Set(x0 + i, y0 + (int32_t)lround(i * fTan));
    }
    return map;
}

TEST(Hough, AnglesNearTheAxesAreFoundDiagonalsAreNot)
{
    // 20 degrees below the horizontal: normal at 110 degrees, a flat line walked by columns.
    const EdgeMap twenty = SlopedLine(120, 80, 20.0, 10, 20, 90);
    Detection d(twenty, 16);
    bool bFound = false;
    for (int32_t i = 0; i < d.iCount; i++) {
        const stLine &l = d.lines[i];
        if (l.theta >= 108 && l.theta <= 112 && abs(l.Pnt0.x - 10) <= 3 && abs(l.Pnt1.x - 99) <= 3) {
            bFound = true;
            // Both ends lie on the rendered line.
            EXPECT_NEAR(l.Pnt0.y, 20 + (l.Pnt0.x - 10) * tan(20.0 * M_PI / 180.0), 2.0);
            EXPECT_NEAR(l.Pnt1.y, 20 + (l.Pnt1.x - 10) * tan(20.0 * M_PI / 180.0), 2.0);
        }
    }
    EXPECT_TRUE(bFound) << d.iCount << " lines";

    // 45 degrees: its normal angle never collects votes, and nothing else forms a peak.
    EXPECT_EQ(Detection(SlopedLine(120, 120, 45.0, 10, 10, 100), 24).iCount, 0);
    EXPECT_EQ(Detection(SlopedLine(120, 120, -45.0, 10, 110, 100), 24).iCount, 0);
}

TEST(Hough, DenseNoiseStopsAtTheLineLimitInThetaOrder)
{
    std::mt19937 rng(3);
    EdgeMap noise(160, 120);
    for (uint8_t &p : noise.pixels) {
        p = (rng() % 3 == 0) ? 255 : 0;
    }
    for (size_t uOffset : {0, 1, 2}) {
        Detection d(noise, 1, uOffset);
        EXPECT_EQ(d.iCount, LDC_HOUGH_MAX_LINES);
        EXPECT_EQ(d.lines[LDC_HOUGH_MAX_LINES].theta, -7);   // nothing written past the limit
        for (int32_t i = 1; i < d.iCount; i++) {
            ASSERT_LE(d.lines[i - 1].theta, d.lines[i].theta) << "line " << i;
        }
    }
}

TEST(Hough, SceneLinesAreSortedAndIndependentOfScratchAlignment)
{
    // The driver's path: a 4x reduced scene, its edge map, min(w, h) / 5 votes.
    const int32_t iW = 640, iH = 480, iF = 4, w = iW / iF, h = iH / iF;
    const std::vector<uint8_t> luma = line_kernels::RenderScene(iW, iH, 11);
    std::vector<uint8_t> small((size_t)w * h);
    EdgeMap edges(w, h);
    DownScaleData_NEON(luma.data(), iF, iW, iH, small.data());
    CalcSobel_NEON(small.data(), edges.pixels.data(), w, h, line_kernels::kBenchThresh);
    Detection aligned(edges, h / 5), shifted(edges, h / 5, 3);
    ASSERT_GT(aligned.iCount, 3);
    ASSERT_EQ(aligned.iCount, shifted.iCount);
    for (int32_t i = 0; i < aligned.iCount; i++) {
        const stLine &a = aligned.lines[i], &b = shifted.lines[i];
        ASSERT_TRUE(a.rho == b.rho && a.theta == b.theta && a.Pnt0.x == b.Pnt0.x && a.Pnt0.y == b.Pnt0.y &&
                    a.Pnt1.x == b.Pnt1.x && a.Pnt1.y == b.Pnt1.y)
            << "line " << i;
        if (i > 0) {
            ASSERT_LE(aligned.lines[i - 1].theta, a.theta);
        }
        // Only the angles within 22 degrees of the axes vote.
        EXPECT_TRUE(a.theta <= 22 || (a.theta >= 67 && a.theta <= 112) || a.theta >= 157) << a.theta;
    }
}

}  // namespace
