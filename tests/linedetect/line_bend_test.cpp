// Bend measure of single lines and the debugging line painter.
#include <gtest/gtest.h>
#include <math.h>

#include <string>
#include <vector>

#include "linedetect/line_bend.h"

namespace {

const stPoint kCentre = {2000, 1500};

stLine MakeLine(int x0, int y0, int x1, int y1)
{
    return stLine{0, 0, {x0, y0}, {x1, y1}};
}

// asinh(u) / u in double: the exact factor the float steps approximate.
double ExactFactor(double dX, double dY, double dK)
{
    const double dU = sqrt(dX * dX + dY * dY) * dK;
    return asinh(dU) / dU;
}

int Bend(const stLine &stLn, float fK)
{
    int32_t iBend = -1;
    EXPECT_EQ(1, LineBendValue(&stLn, kCentre, fK, &iBend));
    return iBend;
}

TEST(LineBend, RadialFactorFollowsAsinhOverU)
{
    for (float fR : {10.0f, 500.0f, 2500.0f}) {
        EXPECT_NEAR(ExactFactor(fR, 0.0, 2e-4), BendRadialFactor(fR, 0.0f, 2e-4f), 1e-6) << fR;
        EXPECT_NEAR(ExactFactor(0.6 * fR, 0.8 * fR, 2e-4), BendRadialFactor(0.6f * fR, 0.8f * fR, 2e-4f), 1e-6) << fR;
    }
}

TEST(LineBend, LinesThatCannotBeJudgedOrBarelyBendPass)
{
    testing::internal::CaptureStderr();
    int32_t iBend = 77;
    // Through the centre (the foot is the centre itself), an end on the centre, vertical lines
    // with an end on the centre or through it.
    for (stLine stLn : {MakeLine(1000, 500, 3000, 2500), MakeLine(2000, 1500, 3900, 2900),
                        MakeLine(100, 2900, 2000, 1500), MakeLine(2000, 100, 2000, 1500),
                        MakeLine(2000, 100, 2000, 2900)}) {
        EXPECT_EQ(0, LineBendValue(&stLn, kCentre, 1e-3f, &iBend));
        EXPECT_EQ(1, SortLineByBendValue(&stLn, kCentre, 1e-3f, -5));
    }
    EXPECT_EQ(77, iBend);
    // A tiny coefficient bends nothing.
    for (stLine stLn : {MakeLine(100, 100, 3900, 400), MakeLine(3800, 50, 3700, 2950), MakeLine(3900, 2800, 200, 2900),
                        MakeLine(300, 2900, 900, 60)}) {
        EXPECT_EQ(0, Bend(stLn, 1e-9f));
        EXPECT_EQ(1, SortLineByBendValue(&stLn, kCentre, 1e-9f, 0));
    }
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(LineBend, VerticalLineIsMeasuredAlongColumns)
{
    // Symmetric about the centre row: both ends map to the same column and the foot (X0, 0) moves
    // least, so the bend is twice the column shift between foot and ends.
    const double dK = 2e-4;
    const double dExpected = 2.0 * 1000.0 * (ExactFactor(1000, 0, dK) - ExactFactor(1000, 1200, dK));
    const int iBend = Bend(MakeLine(3000, 300, 3000, 2700), (float)dK);
    EXPECT_NEAR(dExpected, iBend, 1.0);
    EXPECT_GT(iBend, 10);
    // Left of the centre the same holds with the signs mirrored.
    EXPECT_EQ(iBend, Bend(MakeLine(1000, 2700, 1000, 300), (float)dK));
}

// Sloped lines in every quadrant, both orientations, with their bends worked out in double from
// the definition (distances of the mapped ends and foot from the unmapped line; with P0 right of
// a foot between the ends the ends' difference counts, whatever its sign, else the sum).
TEST(LineBend, SlopedLinesBendAsTheirDefinitionSays)
{
    const std::pair<stLine, int> astLines[] = {
        {MakeLine(3500, 300, 500, 310), 0},    {MakeLine(2300, 300, 100, 420), 22},
        {MakeLine(400, 200, 3600, 330), 38},   {MakeLine(3900, 2800, 200, 2600), 6},
        {MakeLine(3800, 50, 3300, 2950), 14},  {MakeLine(300, 2900, 900, 60), 36},
        {MakeLine(100, 420, 2300, 300), 25},   {MakeLine(2900, 1800, 3900, 2900), 17}};
    for (const auto &c : astLines) {
        EXPECT_EQ(c.second, Bend(c.first, 2e-4f)) << c.first.Pnt0.x << "," << c.first.Pnt0.y;
    }
}

TEST(LineBend, ToleranceBoundaryAndLogLines)
{
    stLine stLn = {123, 92, {400, 200}, {3600, 330}};
    const int iBend = Bend(stLn, 2e-4f);
    ASSERT_GT(iBend, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, SortLineByBendValue(&stLn, kCentre, 2e-4f, iBend));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, SortLineByBendValue(&stLn, kCentre, 2e-4f, iBend - 1));
    EXPECT_EQ("I/ZB5QU_QVLDC: Rho=123, Theta=92, Pnt0=(400, 200), Pnt1=(3600, 330)\n"
              "I/ZB5QU_QVLDC: There are some lines becoming bended by using global FDC method! "
              "The bend value is " + std::to_string(iBend) + "\n",
              testing::internal::GetCapturedStderr());
}

TEST(LineBend, ExactlyHorizontalLineHasNaNFootAndPasses)
{
    // m = 0 makes the foot's row 0/0: the comparisons with NaN fail and the bend truncates to 0
    // on every target, so the line passes any tolerance >= 0 and fails a negative one.
    stLine stLn = MakeLine(100, 200, 3900, 200);
    EXPECT_EQ(0, Bend(stLn, 2e-4f));
    EXPECT_EQ(1, SortLineByBendValue(&stLn, kCentre, 2e-4f, 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, SortLineByBendValue(&stLn, kCentre, 2e-4f, -1));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("The bend value is 0\n"));
}

TEST(LineBend, DrawLineWalksSixteenSixteen)
{
    const int kW = 10, kH = 6;
    auto draw = [&](int x0, int y0, int x1, int y1) {
        std::vector<uint8_t> img(kW * kH, 0);
        stLine stLn = MakeLine(x0, y0, x1, y1);
        DrawLine(img.data(), &stLn, kW);
        std::vector<std::pair<int, int>> painted;
        for (int i = 0; i < kW * kH; i++) {
            if (img[i]) {
                EXPECT_EQ(255, img[i]);
                painted.push_back({i % kW, i / kW});
            }
        }
        return painted;
    };
    using P = std::vector<std::pair<int, int>>;
    // By columns (|dx| > |dy|), the end itself excluded; both directions.
    EXPECT_EQ((P{{2, 1}, {3, 1}, {4, 2}, {5, 2}, {6, 3}}), draw(2, 1, 7, 3));
    EXPECT_EQ((P{{3, 1}, {4, 2}, {5, 2}, {6, 3}, {7, 3}}), draw(7, 3, 2, 1));
    // By rows (|dx| <= |dy|), including the diagonal.
    EXPECT_EQ((P{{1, 0}, {2, 1}, {2, 2}, {3, 3}}), draw(1, 0, 3, 4));
    EXPECT_EQ((P{{5, 1}, {6, 2}, {7, 3}}), draw(7, 3, 4, 0));
    EXPECT_EQ(P{}, draw(4, 4, 4, 4));
}

}  // namespace
