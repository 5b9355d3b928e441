// Segment detection on rendered edge maps: which peaks become lines, and where their runs end.
#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <random>
#include <vector>

#include "linedetect/hough.h"
#include "support/harness.h"

namespace {

struct EdgeMap {
    int32_t iWidth;
    int32_t iHeight;
    std::vector<uint8_t> pixels;
};

// Pixels (x0 + round(i dx), y0 + round(i dy)) for i = 0 .. iLen - 1 on an empty map.
EdgeMap Segment(int32_t w, int32_t h, int32_t x0, int32_t y0, double dDx, double dDy, int32_t iLen)
{
    EdgeMap map = {w, h, std::vector<uint8_t>((size_t)w * h, 0)};
    for (int32_t i = 0; i < iLen; i++) {
        map.pixels[(size_t)(y0 + lround(i * dDy)) * w + x0 + lround(i * dDx)] = 255;
    }
    return map;
}

double Tan(double dDegrees)
{
    return tan(dDegrees * M_PI / 180.0);
}

// One detection over guarded scratch full of garbage (it must clear what it uses and stay inside
// HoughScratchSize), optionally off alignment, with one record past the limit to catch overruns.
struct Detection {
    ldc_test::GuardedBytes scratch;
    std::vector<stLine> lines;
    int32_t iCount;

    Detection(const EdgeMap &map, int32_t iMinVotes, size_t uMisalign = 0)
        : scratch(HoughScratchSize(map.iWidth, map.iHeight), 0xA5, uMisalign),
          lines(LDC_HOUGH_MAX_LINES + 1, stLine{-7, -7, {-7, -7}, {-7, -7}})
    {
        iCount = LineDetectionHough(map.pixels.data(), map.iWidth, map.iHeight, lines.data(), iMinVotes,
                                    scratch.Data());
        EXPECT_EQ("", scratch.GuardReport());
    }

    // {rho, theta, x0, y0, x1, y1} of every line at iTheta.
    std::vector<std::vector<int32_t>> At(int32_t iTheta) const
    {
        std::vector<std::vector<int32_t>> v;
        for (int32_t i = 0; i < iCount; i++) {
            const stLine &l = lines[i];
            if (l.theta == iTheta) {
                v.push_back({l.rho, l.theta, l.Pnt0.x, l.Pnt0.y, l.Pnt1.x, l.Pnt1.y});
            }
        }
        return v;
    }
};

using Lines = std::vector<std::vector<int32_t>>;

// Every detection runs on scratch full of garbage (0xA5): votes added to counters left uncleared
// stay far below any minimum, and a run map left uncleared closes no run, so the segment tests
// below fail unless the detector clears what it uses. The trig table holds Q15 of a
// single-precision degree, truncated: angle 90 is (0, 32767), which puts row 15 on rho 14 below.
TEST(Hough, NoEdgesGiveNoLines)
{
    EXPECT_EQ(HoughRhoMax(1, 1), 1);   // sqrt(2.5): the half is added under the root
    Detection d(EdgeMap{50, 40, std::vector<uint8_t>(50 * 40, 0)}, 0, 1);
    EXPECT_EQ(d.iCount, 0);
    EXPECT_EQ(d.lines[0].theta, -7);
}

TEST(Hough, VerticalRunsAndPeakComparisons)
{
    // 61 points in column 12 of which 60 vote: theta 0, rho 12 holds 60, theta 1 splits them
    // 48 / 12. The dilated run covers rows 9..71; it is stored from the empty row above to the
    // one below, for a minimum equal to the peak too.
    const EdgeMap map = Segment(64, 96, 12, 10, 0, 1, 61);
    EXPECT_EQ(Detection(map, 12).At(0), (Lines{{12, 0, 12, 8, 12, 72}}));
    EXPECT_EQ(Detection(map, 60).At(0), (Lines{{12, 0, 12, 8, 12, 72}}));
    EXPECT_TRUE(Detection(map, 61).At(0).empty());
    // Vertical walks end at row h-3 = 93: a run reaching it is never closed.
    EXPECT_EQ(Detection(Segment(64, 96, 12, 10, 0, 1, 82), 12).At(0), (Lines{{12, 0, 12, 8, 12, 93}}));
    EXPECT_TRUE(Detection(Segment(64, 96, 12, 10, 0, 1, 83), 12).At(0).empty());

    // 20 points: theta 1 also puts all of them on rho 12, so theta 0 only equals its neighbour
    // and is no peak; the segment comes out at nearby angles instead.
    Detection d(Segment(64, 96, 12, 10, 0, 1, 20), 12);
    EXPECT_TRUE(d.At(0).empty());
    ASSERT_GE(d.iCount, 1);
    for (int32_t i = 0; i < d.iCount; i++) {
        EXPECT_TRUE(d.lines[i].theta <= 6 || d.lines[i].theta >= 174) << d.lines[i].theta;
    }
}

TEST(Hough, HorizontalAndSlantedWalksEndEarly)
{
    // Row 15 has rho 14 at theta 90 (sin is 32767/32768); the walk takes row 14, which the
    // dilation covers over the same columns, and runs over columns 2..w-4 = 92.
    EXPECT_EQ(Detection(Segment(96, 40, 5, 15, 1, 0, 66), 8).At(90), (Lines{{14, 90, 4, 14, 71, 14}}));
    EXPECT_EQ(Detection(Segment(96, 40, 5, 15, 1, 0, 87), 8).At(90), (Lines{{14, 90, 4, 14, 92, 14}}));
    EXPECT_TRUE(Detection(Segment(96, 40, 5, 15, 1, 0, 88), 8).At(90).empty());
    // 10 degrees from vertical, leaving through the bottom: the walk at theta 169 runs down to
    // row 60, one short of h-3. Ending at row 58 the line is left at row 59 by the walk (which
    // drifts a column right of it there); ending at row 59 it still covers row 60, stays open
    // and is not reported.
    EXPECT_EQ(Detection(Segment(64, 64, 20, 10, Tan(10), 1, 49), 12).At(169), (Lines{{-18, 169, 19, 9, 29, 59}}));
    EXPECT_TRUE(Detection(Segment(64, 64, 20, 10, Tan(10), 1, 50), 12).At(169).empty());
}

TEST(Hough, AnglesNearTheAxesAreFoundDiagonalsAreNot)
{
    // 20 degrees below the horizontal: normal at 110 degrees, walked column by column.
    Detection d(Segment(120, 80, 10, 20, 1, Tan(20), 90), 16);
    int32_t iFound = 0;
    for (int32_t i = 0; i < d.iCount; i++) {
        const stLine &l = d.lines[i];
        if (l.theta >= 108 && l.theta <= 112 && abs(l.Pnt0.x - 10) <= 3 && abs(l.Pnt1.x - 99) <= 3) {
            iFound++;
            EXPECT_NEAR(l.Pnt0.y, 20 + (l.Pnt0.x - 10) * Tan(20), 2.0);
            EXPECT_NEAR(l.Pnt1.y, 20 + (l.Pnt1.x - 10) * Tan(20), 2.0);
        }
    }
    EXPECT_GE(iFound, 1) << d.iCount << " lines";
    // 45 degrees either way: those angles never collect votes, and nothing else forms a peak.
    EXPECT_EQ(Detection(Segment(120, 120, 10, 10, 1, 1, 100), 24).iCount, 0);
    EXPECT_EQ(Detection(Segment(120, 120, 10, 110, 1, -1, 100), 24).iCount, 0);
}

TEST(Hough, DenseNoiseStopsAtTheLineLimitInThetaOrder)
{
    std::mt19937 rng(3);
    EdgeMap noise = {160, 120, std::vector<uint8_t>(160 * 120)};
    for (uint8_t &p : noise.pixels) {
        p = (rng() % 3 == 0) ? 255 : 0;
    }
    const Detection aligned(noise, 1);
    EXPECT_EQ(aligned.iCount, LDC_HOUGH_MAX_LINES);
    EXPECT_EQ(aligned.lines[LDC_HOUGH_MAX_LINES].theta, -7);   // nothing written past the limit
    for (int32_t i = 1; i < aligned.iCount; i++) {
        ASSERT_LE(aligned.lines[i - 1].theta, aligned.lines[i].theta) << "line " << i;
    }
    // The scratch may sit at any address (it follows w*h bytes in the working buffer).
    for (size_t uOffset : {1, 2, 3}) {
        const Detection shifted(noise, 1, uOffset);
        ASSERT_EQ(memcmp(aligned.lines.data(), shifted.lines.data(), sizeof(stLine) * aligned.lines.size()), 0);
    }
}

}  // namespace
