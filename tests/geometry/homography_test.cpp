// Homography fit (its eigen-decomposition pinned through the fit's bits) and the 3 x 3 helpers. On
// the host build the fit is also compared with OpenCV's least-squares homography.
#include "geometry/homography.h"

#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "support/harness.h"

#if defined(LDC_HAVE_OPENCV)
#include <opencv2/calib3d.hpp>
#endif

namespace {

// xorshift: the same numbers on every target (std:: distributions are not).
struct Rng {
    uint32_t u;
    uint32_t Next()
    {
        u ^= u << 13;
        u ^= u >> 17;
        u ^= u << 5;
        return u;
    }
    double Uniform(double dLow, double dHigh) { return dLow + (dHigh - dLow) * (Next() / 0x1p32); }
    int32_t Int(int32_t iLo, int32_t iHi) { return iLo + (int32_t)(Next() % (iHi - iLo + 1u)); }
};

Rng Seeded(uint32_t uSeed)
{
    return Rng{uSeed * 2654435761u + 1u};
}

// (x, y) through a 3 x 3 matrix, evaluated in double.
template <typename T>
void Project(const T *pH, double dX, double dY, double *pdX, double *pdY)
{
    const double dW = pH[6] * dX + pH[7] * dY + pH[8];
    *pdX = (pH[0] * dX + pH[1] * dY + pH[2]) / dW;
    *pdY = (pH[3] * dX + pH[4] * dY + pH[5]) / dW;
}

int32_t Fit(std::vector<tag_VECTOR> src, std::vector<tag_VECTOR> dst, float *pfH)
{
    uint8_t aucScratch[LDC_HOMOGRAPHY_SCRATCH_BYTES];
    tagST_POINT_PAIRS stPairs = {src.data(), dst.data(), (int32_t)src.size()};
    return HomographyEstimation(&stPairs, pfH, aucScratch);
}

std::vector<float> Mat(const float *pf)
{
    return std::vector<float>(pf, pf + 9);
}

TEST(Homography, TranslationFitStaysInItsScratch)
{
    std::vector<tag_VECTOR> src = {{100, 200}, {900, 250}, {150, 700}, {800, 800}};
    std::vector<tag_VECTOR> dst = {{105, 197}, {905, 247}, {155, 697}, {805, 797}};
    tagST_POINT_PAIRS stPairs = {src.data(), dst.data(), 4};
    // An odd scratch address is rounded up to the next multiple of 4, not down.
    ldc_test::GuardedBytes stScratch(LDC_HOMOGRAPHY_SCRATCH_BYTES, 0xA5, 1);
    float afH[9] = {0}, afRefined[9] = {0};
    EXPECT_EQ(0, HomographyEstimation(&stPairs, afH, stScratch.Data()));
    EXPECT_EQ("", stScratch.GuardReport());
    const float afExpect[9] = {1, 0, 5, 0, 1, -3, 0, 0, 1};
    const float afTol[9] = {1e-5f, 1e-5f, 2e-3f, 1e-5f, 1e-5f, 2e-3f, 1e-8f, 1e-8f, 0};
    for (int32_t i = 0; i < 9; i++) {
        EXPECT_NEAR(afExpect[i], afH[i], afTol[i]) << "element " << i;
    }
    EXPECT_EQ(0, RefineHomography(&stPairs, afRefined, stScratch.Data()));
    EXPECT_EQ(Mat(afH), Mat(afRefined));
}

// Without a fit the caller's matrix is still divided by its own ninth element; status stays 0.
TEST(Homography, DegeneratePairsOnlyRescaleCallersMatrix)
{
    const std::vector<tag_VECTOR> spread = {{0, 0}, {60, 50}, {10, 90}, {90, 400}};
    const std::vector<tag_VECTOR> vertical = {{7, 0}, {7, 50}, {7, 90}, {7, 400}};
    const std::vector<tag_VECTOR> horizontal = {{0, 9}, {60, 9}, {10, 9}, {90, 9}};
    for (const auto &c : {std::make_pair(std::vector<tag_VECTOR>{}, std::vector<tag_VECTOR>{}),
                          std::make_pair(vertical, spread), std::make_pair(spread, horizontal)}) {
        float afH[9] = {2, 4, 6, 8, 10, 12, 14, 16, 2};
        EXPECT_EQ(0, Fit(c.first, c.second, afH));
        EXPECT_EQ((std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 1}), Mat(afH)) << c.first.size() << " pairs";
    }
}

// A B against its worked product, with the output on either input; A^-1 in place and out of
// place, A A^-1 = I; a singular matrix gives no finite element.
TEST(Homography, ProductAndInverseWorkInPlace)
{
    const float afA[9] = {2, -1, 3, 0.5f, 4, -2, 1, 1, 5};
    const float afB[9] = {1, 2, 0, -3, 1, 4, 2, 0, 1};
    const std::vector<float> vfAB = {11, 3, -1, -15.5f, 5, 14, 8, 3, 9};
    float afC[9], afD[9], afR[9];
    memcpy(afC, afA, sizeof(afC));
    memcpy(afD, afB, sizeof(afD));
    EXPECT_EQ(0, MtrxAB3(afC, afB, afC) | MtrxAB3(afA, afD, afD));
    EXPECT_EQ(vfAB, Mat(afC));
    EXPECT_EQ(vfAB, Mat(afD));
    memcpy(afC, afA, sizeof(afC));
    EXPECT_EQ(0, MtrxInvA3(afA, afR) | MtrxInvA3(afC, afC) | MtrxAB3(afA, afR, afD));
    EXPECT_EQ(Mat(afR), Mat(afC));
    for (int32_t i = 0; i < 9; i++) {
        EXPECT_NEAR(i % 4 == 0 ? 1.0f : 0.0f, afD[i], 1e-6f) << "element " << i;
    }
    const float afSingular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};
    EXPECT_EQ(0, MtrxInvA3(afSingular, afR));
    EXPECT_EQ(0, std::count_if(afR, afR + 9, [](float f) { return isfinite(f); }));
}

std::vector<int32_t> Coords(const tag_VECTOR *pst, int32_t n)
{
    std::vector<int32_t> v;
    for (int32_t i = 0; i < n; i++) {
        v.insert(v.end(), {pst[i].x, pst[i].y});
    }
    return v;
}

TEST(Homography, MappedPointsTruncateAndClamp)
{
    // x' = (x - 10) / 2, y' = (y + 7) / 2; then w = 0 at x = 5 (+inf saturates, 0/0 gives 0).
    const float afH[9] = {1, 0, -10, 0, 1, 7, 0, 0, 2};
    const float afVanishing[9] = {1, 0, 0, 0, 0, 0, -1, 0, 5};
    const tag_VECTOR astIn[6] = {{0, 0}, {9, 0}, {17, 1}, {300, 100}, {50, -20}, {5, 3}};
    tag_VECTOR astOut[6] = {{-7, -7}};
    MatrixAffine(0, afH, 100, 40, astIn, astOut);
    EXPECT_EQ(-7, astOut[0].x);
    MatrixAffine(5, afH, 100, 40, astIn, astOut);
    MatrixAffine(1, afVanishing, 100, 40, &astIn[5], &astOut[5]);
    EXPECT_EQ((std::vector<int32_t>{0, 3, 0, 3, 3, 4, 100, 40, 20, 0, 100, 0}), Coords(astOut, 6));

    // Valid area of a 640 x 480 frame: corners TL, TR, BL, BR per matrix.
    const tag_VECTOR astFrame[4] = {{0, 0}, {639, 0}, {0, 479}, {639, 479}};
    const struct {
        float afH[9];
        std::vector<int32_t> viArea;
    } astCases[] = {{{1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 0, 639, 0, 0, 479, 639, 479}},
                    {{1, 0, 10, 0, 1, -5, 0, 0, 1}, {10, 0, 639, 0, 10, 474, 639, 474}},
                    {{0.5f, 0, 160, 0, 0.5f, 120, 0, 0, 1}, {160, 120, 479, 120, 160, 359, 479, 359}},
                    {{2, 0, -320, 0, 2, -240, 0, 0, 1}, {0, 0, 639, 0, 0, 479, 639, 479}}};
    for (const auto &c : astCases) {
        tag_VECTOR astArea[4];
        GetValidArea(c.afH, astFrame, astArea);
        EXPECT_EQ(c.viArea, Coords(astArea, 4)) << testing::PrintToString(c.afH);
    }
}

// The frame driver's use: the corners of 1..10 faces paired with their radial face mapping
// (strength g, fx 3200, about the centre of a 4000 x 3000 frame). The fit must be finite, explain
// most of the motion (exactly for one face), and give the same bits on host, armhf and arm64,
// since the warp turns it into pixels (checksum recorded on the host).
TEST(Homography, FaceCornerFitFollowsRadialMapping)
{
    std::vector<float> vfFitted;   // every fitted element, for a digest of their bits
    for (int32_t iFaces = 1; iFaces <= 10; iFaces++) {
        for (float fG : {-0.05f, -0.3f, -1.0f}) {
            Rng rng = Seeded(100 + iFaces);
            std::vector<tag_VECTOR> src, dst;
            for (int32_t f = 0; f < iFaces; f++) {
                const int32_t iSize = rng.Int(150, 700);
                const int32_t iLeft = rng.Int(0, 3999 - iSize), iTop = rng.Int(0, 2999 - iSize);
                for (int32_t iCorner = 0; iCorner < 4; iCorner++) {
                    const int32_t iX = iLeft + ((iCorner & 1) ? iSize : 0);
                    const int32_t iY = iTop + ((iCorner & 2) ? iSize : 0);
                    const float fDx = (float)(iX - 2000), fDy = (float)(iY - 1500);
                    const float fS = 1.0f + fG * (fDx * fDx + fDy * fDy) / (3200.0f * 3200.0f);
                    src.push_back({iX, iY});
                    dst.push_back({(int32_t)floorf(2000 + fDx * fS + 0.5f), (int32_t)floorf(1500 + fDy * fS + 0.5f)});
                }
            }
            float afH[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
            EXPECT_EQ(0, Fit(src, dst, afH));
            EXPECT_EQ(1.0f, afH[8]);
            double dResidual = 0.0, dMotion = 0.0;
            for (size_t i = 0; i < src.size(); i++) {
                double dX, dY;
                Project(afH, src[i].x, src[i].y, &dX, &dY);
                const double dErr = hypot(dX - dst[i].x, dY - dst[i].y);
                ASSERT_TRUE(isfinite(dErr)) << iFaces << " faces, g " << fG;
                EXPECT_TRUE(iFaces > 1 || dErr < 2e-3) << "g " << fG << ", corner " << i;
                dResidual += dErr * dErr;
                dMotion += pow(dst[i].x - src[i].x, 2) + pow(dst[i].y - src[i].y, 2);
            }
            EXPECT_LT(dResidual, 0.25 * dMotion + 1.0) << iFaces << " faces, g " << fG;
            vfFitted.insert(vfFitted.end(), afH, afH + 9);
        }
    }
    EXPECT_EQ(0x3132517dc0c5d0full, ldc_test::Fnv1a(vfFitted.data(), vfFitted.size() * sizeof(float)));
}

#if defined(LDC_HAVE_OPENCV)
// Peer: cv::findHomography (method 0) on random well-conditioned sets in a 4000 x 3000 frame (the
// first four points near the four corners) under a mild projective map, destinations rounded.
// Four pairs determine the map and OpenCV solves them without refinement: the two maps agree to
// float precision (storing h0 = 1 as a float alone moves x = 4000 by up to 5e-4 px). With more
// pairs OpenCV refines its start to the least reprojection error (Levenberg-Marquardt), up to
// ~0.4 px from the algebraic optimum on rounded data: the fit must come close to that error.
TEST(Homography, MatchesOpenCvOnRandomPointSets)
{
    for (uint32_t uSeed = 1; uSeed <= 108; uSeed++) {
        Rng rng = Seeded(uSeed);
        const bool bExact = (uSeed % 3 == 0);   // else 5..40 pairs
        const int32_t iPairs = bExact ? 4 : 5 + (int32_t)((uSeed - uSeed / 3) % 36);
        double adT[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        for (int32_t i = 0; i < 8; i++) {
            adT[i] += rng.Uniform(-1.0, 1.0) * ((i == 2 || i == 5) ? 150.0 : (i > 5 ? 1e-5 : 0.06));
        }
        std::vector<tag_VECTOR> src, dst;
        std::vector<cv::Point2f> cvSrc, cvDst;
        while ((int32_t)src.size() < iPairs) {
            const tag_VECTOR p = {rng.Int(0, 3999), rng.Int(0, 2999)};
            const int32_t iCorner = (int32_t)src.size();
            if (iCorner < 4 && (((iCorner & 1) ? p.x < 3000 : p.x >= 1000) || ((iCorner & 2) ? p.y < 2250 : p.y >= 750))) {
                continue;
            }
            double dX, dY;
            Project(adT, p.x, p.y, &dX, &dY);
            src.push_back(p);
            dst.push_back({(int32_t)lround(dX), (int32_t)lround(dY)});
            cvSrc.emplace_back((float)p.x, (float)p.y);
            cvDst.emplace_back((float)dst.back().x, (float)dst.back().y);
        }
        float afH[9];
        EXPECT_EQ(0, Fit(src, dst, afH));
        const cv::Mat peer = cv::findHomography(cvSrc, cvDst, 0);
        ASSERT_FALSE(peer.empty()) << "seed " << uSeed;
        double dOurs = 0.0, dPeer = 0.0;
        for (int32_t i = 0; i < iPairs; i++) {
            double dX, dY, dPx, dPy;
            Project(afH, src[i].x, src[i].y, &dX, &dY);
            Project(peer.ptr<double>(), src[i].x, src[i].y, &dPx, &dPy);
            EXPECT_LT(hypot(dX - dPx, dY - dPy), bExact ? 3e-3 : 0.5) << "seed " << uSeed << ", point " << i;
            dOurs += pow(dX - dst[i].x, 2) + pow(dY - dst[i].y, 2);
            dPeer += pow(dPx - dst[i].x, 2) + pow(dPy - dst[i].y, 2);
        }
        EXPECT_TRUE(bExact || sqrt(dOurs / dPeer) < 1.5) << "seed " << uSeed << ", " << iPairs << " pairs";
    }
}
#endif

}  // namespace
