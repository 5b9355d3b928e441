// Line check on rendered frames with known straight edges, and the joining of pieces.
#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "interface/ldc_workbuf.h"
#include "linedetect/line_detect.h"
#include "linedetect/svm.h"
#include "support/harness.h"

namespace {

struct Detected {
    int iResult;
    std::string log;
    int iLines;   // logged lines (0 or 1)
    stLine stFirst;
};

class Frame {
public:
    Frame(int iW, int iH) : w(iW), h(iH), luma((size_t)iW * iH, 90)
    {
        memset(&para, 0, sizeof(para));
        para.iImgWidth = iW;
        para.iImgHeight = iH;
        para.iBinarizationThresh = 100;
        para.fConnectLineRatio = 0.5f;
        para.fLineLengthRatio = 0.5f;
        para.afGlobalFDCCoefficients[3] = 2e-4f * 4000.0f / (float)iW;
        para.iBendValue = -1;   // every judged line bends: the first one is logged
        para.iSvmFactor = (iW < iH ? iW : iH) / 2;
    }

    // Bright segment of the given half-width, (x0, y0) to (x1, y1).
    void Bar(double x0, double y0, double x1, double y1, double dHalfWidth = 2.0)
    {
        const double dLen = hypot(x1 - x0, y1 - y0);
        const double dx = (x1 - x0) / dLen, dy = (y1 - y0) / dLen;
        for (int y = 0; y < h; y++) {
            for (int x = 0; x < w; x++) {
                const double px = x + 0.5 - x0, py = y + 0.5 - y0;
                const double t = px * dx + py * dy;
                if (t >= 0 && t <= dLen && fabs(py * dx - px * dy) < dHalfWidth) {
                    luma[(size_t)y * w + x] = 210;
                }
            }
        }
    }

    // Runs the check in a guarded buffer of the lifecycle's size; the bytes past
    // LineDetectWorkSize must stay untouched.
    Detected Run()
    {
        const uint32_t uUsed = LineDetectWorkSize(w, h);
        ldc_test::GuardedBytes stBuf((size_t)GetWorkBufSize(w, h), 0xA5);
        para.pucWorkBuf = stBuf.Data();
        testing::internal::CaptureStderr();
        Detected r;
        r.iResult = LineDetect(luma.data(), &para);
        r.log = testing::internal::GetCapturedStderr();
        r.iLines = sscanf(r.log.c_str(), "I/ZB5QU_QVLDC: Rho=%d, Theta=%d, Pnt0=(%d, %d), Pnt1=(%d, %d)",
                          &r.stFirst.rho, &r.stFirst.theta, &r.stFirst.Pnt0.x, &r.stFirst.Pnt0.y,
                          &r.stFirst.Pnt1.x, &r.stFirst.Pnt1.y) == 6;
        EXPECT_EQ(stBuf.Size() - uUsed, (size_t)std::count(stBuf.Data() + uUsed, stBuf.Data() + stBuf.Size(), 0xA5))
            << "bytes written past LineDetectWorkSize(" << w << ", " << h << ")";
        EXPECT_EQ("", stBuf.GuardReport());
        para.pucWorkBuf = NULL;
        return r;
    }

    int w, h;
    std::vector<uint8_t> luma;
    tagST_LDC_PARA para;
};

int AngleDiff(int a, int b)
{
    const int d = abs(a - b) % 180;
    return d < 90 ? d : 180 - d;
}

// Distance of a point from the rendered line x cos t + y sin t = rho.
double Off(stPoint p, double dThetaDeg, double dRho)
{
    return fabs(p.x * cos(dThetaDeg * M_PI / 180.0) + p.y * sin(dThetaDeg * M_PI / 180.0) - dRho);
}

TEST(LineDetect, FactorAndWorkSizeFitTheLifecycleBuffer)
{
    EXPECT_EQ((std::vector<int>{4, 8, 4, 4, 8}),
              (std::vector<int>{LineDetectFactor(640, 480), LineDetectFactor(1280, 720), LineDetectFactor(1280, 640),
                                LineDetectFactor(640, 5000), LineDetectFactor(641, 641)}));
    for (int iW = 1; iW <= 5000; iW += 97) {
        for (int iH = 1; iH <= 5000; iH += 89) {
            ASSERT_LE(LineDetectWorkSize(iW, iH), (uint32_t)GetWorkBufSize(iW, iH)) << iW << "x" << iH;
        }
    }
}

TEST(LineDetect, StraightEdgesAreFoundAtTheirAngle)
{
    // Thin bright bars, one downscaled pixel wide (the axis-parallel ones on the factor's grid, so
    // that the two edge rows beside them are distinct Hough peaks). Hough angle 0 is vertical, 90
    // horizontal. 1280 x 720 is reduced by 8, 1280 x 640 (a side of at most 640) by 4.
    struct Case {
        int w, h, f, iTheta;
        double x0, y0, x1, y1;
    };
    for (const Case &c : {Case{640, 480, 4, 0, 202, 40, 202, 440}, Case{640, 480, 4, 20, 280, 40, 140, 425},
                          Case{640, 480, 4, 90, 40, 130, 600, 130}, Case{640, 480, 4, 160, 140, 40, 280, 425},
                          Case{1280, 720, 8, 90, 80, 180, 1200, 180}, Case{1280, 640, 4, 90, 80, 178, 1200, 178}}) {
        Frame f(c.w, c.h);
        f.Bar(c.x0, c.y0, c.x1, c.y1, c.f / 2.0);
        const double t = c.iTheta * M_PI / 180.0;
        const double dRho = c.x0 * cos(t) + c.y0 * sin(t);
        const Detected r = f.Run();
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " theta " << c.iTheta << "\n" << r.log);
        ASSERT_EQ(0, r.iResult);
        ASSERT_TRUE(r.iLines);
        EXPECT_LE(AngleDiff(r.stFirst.theta, c.iTheta), 5);
        EXPECT_LE(Off(r.stFirst.Pnt0, c.iTheta, dRho), 3.0 * c.f);
        EXPECT_LE(Off(r.stFirst.Pnt1, c.iTheta, dRho), 3.0 * c.f);
        // Scaled back by the factor, and at least half the short side (in frame pixels) long.
        for (int v : {r.stFirst.rho, r.stFirst.Pnt0.x, r.stFirst.Pnt0.y, r.stFirst.Pnt1.x, r.stFirst.Pnt1.y}) {
            EXPECT_EQ(0, v % c.f);
        }
        EXPECT_GE(hypot(r.stFirst.Pnt1.x - r.stFirst.Pnt0.x, r.stFirst.Pnt1.y - r.stFirst.Pnt0.y), c.h / 2);
        EXPECT_NE(std::string::npos, r.log.find("The bend value is"));
    }
    // An empty frame and a diagonal bar (whose angle gets no votes) pass without a word.
    Frame f(640, 480);
    const Detected stEmpty = f.Run();
    f.Bar(100, 40, 500, 440);
    const Detected stDiagonal = f.Run();
    for (const Detected &r : {stEmpty, stDiagonal}) {
        EXPECT_EQ(1, r.iResult);
        EXPECT_EQ("", r.log);
    }
}

TEST(LineDetect, LinesAreJudgedInAngleOrderAndTheFirstBendEndsTheCheck)
{
    Frame f(640, 480);
    f.Bar(40, 130, 600, 130);
    f.Bar(202, 40, 202, 440);
    const Detected r = f.Run();
    EXPECT_EQ(0, r.iResult);
    EXPECT_LE(AngleDiff(r.stFirst.theta, 0), 5) << r.log;
    EXPECT_EQ(r.log.find("Rho="), r.log.rfind("Rho="));   // one line logged, then the end
    // With a tolerance the bend measure accepts, both lines pass.
    f.para.iBendValue = 1000;
    EXPECT_EQ(1, f.Run().iResult);
}

TEST(LineDetect, BrokenPiecesJoinAndShortLinesAreIgnored)
{
    // A thin horizontal bar in pieces of 160 px with 40 px gaps: no piece alone is long enough
    // (60 downscaled px = 240 px), the pieces join into one line of about 80 % coverage.
    Frame f(640, 480);
    for (int x = 40; x < 600; x += 200) {
        f.Bar(x, 130, x + 160, 130);
    }
    Detected r = f.Run();
    ASSERT_TRUE(r.iLines);
    EXPECT_EQ(0, r.iResult);
    EXPECT_LE(AngleDiff(r.stFirst.theta, 90), 5) << r.log;
    EXPECT_LE(r.stFirst.Pnt0.x, 100) << r.log;
    EXPECT_GE(r.stFirst.Pnt1.x, 540) << r.log;

    // One piece alone is shorter than half the short side.
    Frame g(640, 480);
    g.Bar(100, 130, 280, 130);
    EXPECT_EQ(1, g.Run().iResult);
    g.para.fLineLengthRatio = 0.25f;
    EXPECT_EQ(0, g.Run().iResult);
}

// The joining step on hand-made pieces (downscaled coordinates): the number of lines left and
// the first one's {rho, theta, x0, x1}.
stLine Ln(int theta, int x0, int y0, int x1, int y1)
{
    return stLine{0, theta, {x0, y0}, {x1, y1}};
}

std::vector<int> Join(std::vector<stLine> lines, float fRatio, int iMinLength)
{
    std::vector<uint8_t> alive(lines.size());
    const int n = JoinDetectedLines(lines.data(), (int)lines.size(), alive.data(), fRatio, iMinLength);
    return {n, lines[0].rho, lines[0].theta, lines[0].Pnt0.x, lines[0].Pnt1.x};
}

TEST(JoinDetectedLines, InnerEndIsTestedOnOneSideOnly)
{
    // Current segment on y = 50 + x / 10; the piece inside it has its first end moved off the line
    // by `off` rows (positive: above the line, where c + m x - y > 0). The inner piece does not
    // change the segment.
    for (int off : {2, 3, -10, -40}) {
        const int iLeft = off == 3 ? 2 : 1;
        EXPECT_EQ((std::vector<int>{iLeft, 0, 84, 0, 120}), Join({Ln(84, 0, 50, 120, 62), Ln(85, 30, 53 - off, 90, 59)},
                                                                  0.5f, 0)) << off;
    }
    // A horizontal reference uses absolute row distances, on both sides.
    for (int off : {-3, 3, -2}) {
        EXPECT_EQ(off == -2 ? 1 : 2, Join({Ln(90, 0, 50, 120, 50), Ln(90, 30, 50 + off, 90, 50 + off)}, 0.5f, 0)[0])
            << off;
    }
}

TEST(JoinDetectedLines, CoverageOfInsideCoveringAndOverlappingPieces)
{
    // Covering piece: the segment becomes the piece, but the coverage falls back to the old
    // segment's length (40 of 121), so it needs a ratio below 40 / 121.
    const std::vector<stLine> cover = {Ln(84, 40, 54, 80, 58), Ln(85, 0, 50, 120, 62)};
    EXPECT_EQ(0, Join(cover, 0.5f, 0)[0]);
    EXPECT_EQ((std::vector<int>{1, 0, 85, 0, 120}), Join(cover, 0.3f, 0));
    // Overlapping pieces: coverage grows by the piece's length and the segment is extended on the
    // side that gives the longer line (50 + 40 + 40 = 130 of 150); rho and theta stay the first
    // piece's.
    std::vector<stLine> chain = {Ln(90, 0, 50, 50, 50), Ln(91, 60, 50, 100, 50), Ln(92, 110, 50, 150, 50)};
    chain[0].rho = 7;
    EXPECT_EQ((std::vector<int>{1, 7, 90, 0, 150}), Join(chain, 0.8f, 150));
    EXPECT_EQ(0, Join(chain, 0.9f, 0)[0]);
    EXPECT_EQ(0, Join(chain, 0.8f, 151)[0]);
    // Only pieces within two degrees of the current segment are examined.
    EXPECT_EQ(2, Join({Ln(90, 0, 50, 50, 50), Ln(93, 60, 50, 100, 50)}, 0.5f, 0)[0]);
}

TEST(LineDetect, ClassifierModeUsesTheDefaultModel)
{
    // Without a working buffer the correction is left out, in either mode, the model fixed all the same.
    Frame f(640, 480);
    f.Bar(40, 250, 600, 250);   // long line just below the middle: stays straight
    EXPECT_EQ(0, LineDetect(f.luma.data(), &f.para));
    f.para.iBendDecideMode = 1;
    f.para.stSvmModel.fGamma = 2.0f;
    EXPECT_EQ(0, LineDetect(f.luma.data(), &f.para));
    EXPECT_EQ(0.53f, f.para.stSvmModel.fGamma);
    // Configured Gamma/Rho are overwritten; a model without vectors gets the built-in one.
    f.para.stSvmModel.fGamma = 2.0f;
    f.para.stSvmModel.fRho = 5.0f;
    Detected r = f.Run();
    EXPECT_EQ(1, r.iResult) << r.log;
    const tagST_SVM_MODEL &m = f.para.stSvmModel;
    EXPECT_EQ((std::vector<float>{0.53f, 0.92535f, (float)aiSvDefaultNSv[0], (float)aiSvDefaultNSv[1], afSvCoeff[0]}),
              (std::vector<float>{m.fGamma, m.fRho, (float)m.aiNSv[0], (float)m.aiNSv[1], m.afSvCoef[0]}));

    Frame g(640, 480);
    g.para.iBendDecideMode = 1;
    g.Bar(40, 26, 600, 26);   // long line along the top border: bends
    r = g.Run();
    EXPECT_EQ(0, r.iResult);
    EXPECT_TRUE(r.iLines);
    EXPECT_NE(std::string::npos, r.log.find("The SvmPredict value is 0\n")) << r.log;

    // A configured model is kept as it is: one vector that votes "bends" everywhere.
    Frame c(640, 480);
    c.para.iBendDecideMode = 1;
    c.para.stSvmModel.aiNSv[1] = 1;
    c.para.stSvmModel.afSvCoef[0] = -1.0f;
    c.Bar(40, 250, 600, 250);
    EXPECT_EQ(0, c.Run().iResult);
    EXPECT_EQ(1, c.para.stSvmModel.aiNSv[1]);
    EXPECT_EQ(-1.0f, c.para.stSvmModel.afSvCoef[0]);
}

}  // namespace
