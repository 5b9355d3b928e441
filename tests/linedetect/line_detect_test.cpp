// Line check on rendered frames with known straight edges, and the joining of pieces.
#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "linedetect/line_detect.h"
#include "linedetect/svm.h"

namespace {

const uint8_t kGuard = 0xA5;

// Working-buffer size the instance lifecycle allocates for a W x H profile.
uint32_t LifecycleBufferSize(int iW, int iH)
{
    const int iShift = (iW > 640 && iH > 640) ? 3 : 2;
    const int w = iW >> iShift, h = iH >> iShift;
    const int d = (int)sqrt((double)(w * w + h * h) + 0.5);
    const int iA = 6 * w * h + 1456 * d + 27624;
    const int iB = ((iW * iH * 3) >> 1) + 1760224;
    return (uint32_t)(iA > iB ? iA : iB);
}

struct Detected {
    int iResult;
    std::string log;
    int iLines;   // logged lines (0 or 1)
    stLine stFirst;
};

class Frame {
public:
    Frame(int iW, int iH, uint8_t ucFill = 90) : w(iW), h(iH), luma((size_t)iW * iH, ucFill)
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

    // Runs the check in a buffer of the lifecycle's size; the bytes past LineDetectWorkSize must
    // stay untouched.
    Detected Run()
    {
        const uint32_t uSize = LifecycleBufferSize(w, h);
        const uint32_t uUsed = LineDetectWorkSize(w, h);
        EXPECT_LE(uUsed, uSize);
        std::vector<uint8_t> raw(uSize + 16, kGuard);
        uint8_t *pucBuf = raw.data() + (16 - ((uintptr_t)raw.data() & 15));
        para.pucWorkBuf = pucBuf;
        testing::internal::CaptureStderr();
        Detected r;
        r.iResult = LineDetect(luma.data(), &para);
        r.log = testing::internal::GetCapturedStderr();
        r.iLines = sscanf(r.log.c_str(), "I/ZB5QU_QVLDC: Rho=%d, Theta=%d, Pnt0=(%d, %d), Pnt1=(%d, %d)",
                          &r.stFirst.rho, &r.stFirst.theta, &r.stFirst.Pnt0.x, &r.stFirst.Pnt0.y,
                          &r.stFirst.Pnt1.x, &r.stFirst.Pnt1.y) == 6;
        size_t uBad = 0;
        for (uint32_t i = uUsed; i < uSize; i++) {
            uBad += pucBuf[i] != kGuard;
        }
        EXPECT_EQ(0u, uBad) << "bytes written past LineDetectWorkSize(" << w << ", " << h << ")";
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
    EXPECT_EQ(4, LineDetectFactor(640, 480));
    EXPECT_EQ(8, LineDetectFactor(1280, 720));
    EXPECT_EQ(4, LineDetectFactor(1280, 640));
    EXPECT_EQ(4, LineDetectFactor(640, 5000));
    EXPECT_EQ(8, LineDetectFactor(641, 641));
    // 25440 + 6wh + 728 (2R + 3): 4000 x 3000 -> 500 x 375, R = 625.
    EXPECT_EQ(25440u + 6u * 500 * 375 + 728u * (2 * 625 + 3), LineDetectWorkSize(4000, 3000));
    EXPECT_EQ(25440u + 6u * 160 * 120 + 728u * (2 * 200 + 3), LineDetectWorkSize(640, 480));
    for (int iW = 1; iW <= 5000; iW += 97) {
        for (int iH = 1; iH <= 5000; iH += 89) {
            ASSERT_LE(LineDetectWorkSize(iW, iH), LifecycleBufferSize(iW, iH)) << iW << "x" << iH;
        }
    }
}

TEST(LineDetect, WithoutWorkingBufferTheCorrectionIsLeftOut)
{
    Frame f(640, 480);
    f.Bar(40, 130, 600, 130);
    EXPECT_EQ(0, LineDetect(f.luma.data(), &f.para));
    f.para.iBendDecideMode = 1;
    f.para.stSvmModel.fGamma = 2.0f;
    EXPECT_EQ(0, LineDetect(f.luma.data(), &f.para));
    EXPECT_EQ(0.53f, f.para.stSvmModel.fGamma);
}

TEST(LineDetect, FrameWithoutEdgesPasses)
{
    Frame f(640, 480);
    const Detected r = f.Run();
    EXPECT_EQ(1, r.iResult);
    EXPECT_EQ("", r.log);
}

TEST(LineDetect, StraightEdgesAreFoundAtTheirAngle)
{
    // Thin bright bars (one downscaled pixel wide; the axis-parallel ones on the 4-pixel grid so
    // that the two edge rows beside them are distinct Hough peaks). Hough angle 0 is vertical,
    // 90 horizontal.
    struct Case {
        int iTheta;
        double x0, y0, x1, y1;
    };
    for (const Case &c : {Case{0, 202, 40, 202, 440}, Case{20, 280, 40, 140, 425},
                          Case{90, 40, 130, 600, 130}, Case{160, 140, 40, 280, 425}}) {
        Frame f(640, 480);
        f.Bar(c.x0, c.y0, c.x1, c.y1);
        const double t = c.iTheta * M_PI / 180.0;
        const double dRho = c.x0 * cos(t) + c.y0 * sin(t);
        const Detected r = f.Run();
        ASSERT_EQ(0, r.iResult) << c.iTheta;
        ASSERT_TRUE(r.iLines) << c.iTheta;
        EXPECT_LE(AngleDiff(r.stFirst.theta, c.iTheta), 5) << c.iTheta << "\n" << r.log;
        EXPECT_LE(Off(r.stFirst.Pnt0, c.iTheta, dRho), 12.0) << c.iTheta << "\n" << r.log;
        EXPECT_LE(Off(r.stFirst.Pnt1, c.iTheta, dRho), 12.0) << c.iTheta << "\n" << r.log;
        // Scaled back by the factor 4, and at least half the short side (in frame pixels) long.
        for (int v : {r.stFirst.Pnt0.x, r.stFirst.Pnt0.y, r.stFirst.Pnt1.x, r.stFirst.Pnt1.y}) {
            EXPECT_EQ(0, v % 4) << c.iTheta;
        }
        EXPECT_GE(hypot(r.stFirst.Pnt1.x - r.stFirst.Pnt0.x, r.stFirst.Pnt1.y - r.stFirst.Pnt0.y),
                  240.0)
            << c.iTheta;
        EXPECT_NE(std::string::npos, r.log.find("The bend value is")) << c.iTheta;
    }
    // A diagonal bar gets no votes at all.
    Frame f(640, 480);
    f.Bar(100, 40, 500, 440);
    const Detected r = f.Run();
    EXPECT_EQ(1, r.iResult);
    EXPECT_EQ("", r.log);
}

TEST(LineDetect, DownscaleFactorFollowsBothSides)
{
    struct Case {
        int w, h, f;
    };
    for (const Case &c : {Case{1280, 720, 8}, Case{1280, 640, 4}}) {
        Frame f(c.w, c.h);
        // One downscaled row thick, at frame row 176 .. 176 + F - 1.
        f.Bar(80, 176 + c.f / 2.0, c.w - 80, 176 + c.f / 2.0, c.f / 2.0);
        const Detected r = f.Run();
        ASSERT_TRUE(r.iLines) << c.w << "x" << c.h;
        EXPECT_EQ(0, r.iResult);
        EXPECT_LE(AngleDiff(r.stFirst.theta, 90), 5) << r.log;
        EXPECT_LE(Off(r.stFirst.Pnt0, 90, 176), 4.0 * c.f) << r.log;
        EXPECT_LE(Off(r.stFirst.Pnt1, 90, 176), 4.0 * c.f) << r.log;
        for (int v : {r.stFirst.rho, r.stFirst.Pnt0.x, r.stFirst.Pnt0.y, r.stFirst.Pnt1.x, r.stFirst.Pnt1.y}) {
            EXPECT_EQ(0, v % c.f) << c.w << "x" << c.h;
        }
        EXPECT_GE(r.stFirst.Pnt1.x - r.stFirst.Pnt0.x, c.h / 2) << r.log;
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

// The joining step on hand-made pieces (downscaled coordinates).
stLine Ln(int theta, int x0, int y0, int x1, int y1)
{
    stLine l = {0, theta, {x0, y0}, {x1, y1}};
    return l;
}

int Join(std::vector<stLine> &lines, float fRatio, int iMinLength, std::vector<uint8_t> *pAlive = NULL)
{
    std::vector<uint8_t> alive(lines.size());
    const int n = JoinDetectedLines(lines.data(), (int)lines.size(), alive.data(), fRatio, iMinLength);
    if (pAlive) {
        *pAlive = alive;
    }
    return n;
}

TEST(JoinDetectedLines, InnerEndIsTestedOnOneSideOnly)
{
    // Current segment on y = 50 + x / 10; the piece inside it has its first end moved off the line
    // by `off` rows (positive: above the line, where c + m x - y > 0).
    for (int off : {2, 3, -10, -40}) {
        std::vector<stLine> lines = {Ln(84, 0, 50, 120, 62), Ln(85, 30, 53 - off, 90, 59)};
        std::vector<uint8_t> alive;
        const int n = Join(lines, 0.5f, 0, &alive);
        const bool bJoined = off != 3;
        EXPECT_EQ(bJoined ? 1 : 2, n) << off;
        EXPECT_EQ(bJoined ? 0 : 1, alive[1]) << off;
        EXPECT_EQ(0, lines[0].Pnt0.x);
        EXPECT_EQ(120, lines[0].Pnt1.x);   // the inner piece does not change the segment
    }
    // A horizontal reference uses absolute row distances, on both sides.
    for (int off : {-3, 3, -2}) {
        std::vector<stLine> h = {Ln(90, 0, 50, 120, 50), Ln(90, 30, 50 + off, 90, 50 + off)};
        EXPECT_EQ(off == -2 ? 1 : 2, Join(h, 0.5f, 0)) << off;
    }
}

TEST(JoinDetectedLines, CoverageOfInsideCoveringAndOverlappingPieces)
{
    // Covering piece: the segment becomes the piece, but the coverage falls back to the old
    // segment's length (40 of 121), so it needs a ratio below 40 / 121.
    std::vector<stLine> cover = {Ln(84, 40, 54, 80, 58), Ln(85, 0, 50, 120, 62)};
    EXPECT_EQ(0, Join(cover, 0.5f, 0));
    cover = {Ln(84, 40, 54, 80, 58), Ln(85, 0, 50, 120, 62)};
    ASSERT_EQ(1, Join(cover, 0.3f, 0));
    EXPECT_EQ(85, cover[0].theta);
    EXPECT_EQ(0, cover[0].Pnt0.x);
    EXPECT_EQ(120, cover[0].Pnt1.x);

    // Overlapping pieces: coverage grows by the piece's length and the segment is extended on the
    // side that gives the longer line; rho and theta stay the first piece's.
    std::vector<stLine> chain = {Ln(90, 0, 50, 50, 50), Ln(91, 60, 50, 100, 50), Ln(92, 110, 50, 150, 50)};
    chain[0].rho = 7;
    ASSERT_EQ(1, Join(chain, 0.8f, 150));
    EXPECT_EQ(7, chain[0].rho);
    EXPECT_EQ(90, chain[0].theta);
    EXPECT_EQ(0, chain[0].Pnt0.x);
    EXPECT_EQ(150, chain[0].Pnt1.x);   // covered 50 + 40 + 40 = 130 of 150
    chain = {Ln(90, 0, 50, 50, 50), Ln(91, 60, 50, 100, 50), Ln(92, 110, 50, 150, 50)};
    EXPECT_EQ(0, Join(chain, 0.9f, 0));
    EXPECT_EQ(0, Join(chain, 0.8f, 151));

    // Only pieces within two degrees of the current segment are examined.
    std::vector<stLine> far = {Ln(90, 0, 50, 50, 50), Ln(93, 60, 50, 100, 50)};
    EXPECT_EQ(2, Join(far, 0.5f, 0));
}

TEST(LineDetect, DenseNoiseStaysInsideTheBuffer)
{
    std::mt19937 rng(1234);
    for (int iMode : {0, 1}) {
        Frame f(640, 480);
        for (uint8_t &v : f.luma) {
            v = (uint8_t)(rng() & 0xFF);
        }
        f.para.iBendDecideMode = iMode;
        f.para.iBinarizationThresh = 20;
        f.para.fLineLengthRatio = 0.0f;
        f.para.fConnectLineRatio = 0.0f;
        const Detected r = f.Run();
        EXPECT_TRUE(r.iResult == 0 || r.iResult == 1);
    }
}

TEST(LineDetect, ClassifierModeUsesTheDefaultModel)
{
    // Configured Gamma/Rho are overwritten; a model without vectors gets the built-in one.
    Frame f(640, 480);
    f.para.iBendDecideMode = 1;
    f.para.stSvmModel.fGamma = 2.0f;
    f.para.stSvmModel.fRho = 5.0f;
    f.Bar(40, 250, 600, 250);   // long line just below the middle: stays straight
    Detected r = f.Run();
    EXPECT_EQ(1, r.iResult) << r.log;
    EXPECT_EQ(0.53f, f.para.stSvmModel.fGamma);
    EXPECT_EQ(0.92535f, f.para.stSvmModel.fRho);
    EXPECT_EQ(aiSvDefaultNSv[0], f.para.stSvmModel.aiNSv[0]);
    EXPECT_EQ(aiSvDefaultNSv[1], f.para.stSvmModel.aiNSv[1]);
    EXPECT_EQ(afSvCoeff[0], f.para.stSvmModel.afSvCoef[0]);

    Frame g(640, 480);
    g.para.iBendDecideMode = 1;
    g.Bar(40, 26, 600, 26);     // long line along the top border: bends
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
