// Frames, matrices and the parameter sweep of the affine warp, shared by the equivalence tests and
// the benchmark. Every matrix keeps the source positions of its area (and the two columns and rows
// right of and below them that the interpolation reads) inside the source frame.
#ifndef LDC_TESTS_WARP_AFFINE_TRANSFORM_CASES_H
#define LDC_TESTS_WARP_AFFINE_TRANSFORM_CASES_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "warp/affine_transform.h"

// A YUV 4:2:0 frame of one picture type with its descriptor; a little slack behind the frame
// absorbs the reads that the contiguous fast path makes past a row's last block.
struct AffineFrame {
    static constexpr size_t kSlack = 64;
    std::vector<uint8_t> bytes;
    tagST_PIC pic{};

    AffineFrame(int32_t iWidth, int32_t iHeight, int32_t iPicType)
        : bytes((size_t)iWidth * iHeight * 3 / 2 + kSlack, 0)
    {
        const size_t uLuma = (size_t)iWidth * iHeight;
        uint8_t *pucBase = bytes.data();
        pic.iWidth = iWidth;
        pic.iHeight = iHeight;
        pic.pY = pucBase;
        pic.pU = pucBase + uLuma + (iPicType == LDC_PIC_NV21 ? 1 : 0);
        pic.pV = (iPicType == LDC_PIC_YUV420) ? pucBase + uLuma + uLuma / 4
                                              : pucBase + uLuma + (iPicType == LDC_PIC_NV21 ? 0 : 1);
    }
    // A copy addresses its own bytes.
    AffineFrame(const AffineFrame &o) : bytes(o.bytes), pic(o.pic)
    {
        pic.pY = bytes.data();
        pic.pU = bytes.data() + (o.pic.pU - o.bytes.data());
        pic.pV = bytes.data() + (o.pic.pV - o.bytes.data());
    }
    AffineFrame &operator=(const AffineFrame &) = delete;
    size_t FrameBytes() const { return bytes.size() - kSlack; }
    void Fill(uint32_t uSeed)
    {
        uint32_t u = uSeed;
        for (uint8_t &b : bytes) {
            u = u * 1664525u + 1013904223u;
            b = (uint8_t)(u >> 24);
        }
    }
};

// Small deterministic generator (numerical recipes LCG), so that every target draws the same cases.
struct AffineRng {
    uint32_t u;
    explicit AffineRng(uint32_t uSeed) : u(uSeed) {}
    uint32_t Next() { return u = u * 1664525u + 1013904223u; }
    double Unit() { return (Next() >> 8) / 16777216.0; }
    int32_t Even(int32_t iLo, int32_t iHi) { return (iLo + (int32_t)(Unit() * (iHi - iLo + 1))) & ~1; }
};

// The homography (m8 = 1) taking the four points afDst[i] to afSrc[i], Gaussian elimination.
inline void AffineSolveHomography(const double adDst[4][2], const double adSrc[4][2], double adH[9])
{
    double a[8][9];
    for (int i = 0; i < 4; i++) {
        const double x = adDst[i][0], y = adDst[i][1], u = adSrc[i][0], v = adSrc[i][1];
        const double r0[9] = {x, y, 1, 0, 0, 0, -x * u, -y * u, u};
        const double r1[9] = {0, 0, 0, x, y, 1, -x * v, -y * v, v};
        memcpy(a[2 * i], r0, sizeof(r0));
        memcpy(a[2 * i + 1], r1, sizeof(r1));
    }
    for (int c = 0; c < 8; c++) {
        int p = c;
        for (int r = c + 1; r < 8; r++) {
            if (fabs(a[r][c]) > fabs(a[p][c])) {
                p = r;
            }
        }
        for (int k = 0; k < 9; k++) {
            const double t = a[c][k];
            a[c][k] = a[p][k];
            a[p][k] = t;
        }
        for (int r = 0; r < 8; r++) {
            if (r != c) {
                const double f = a[r][c] / a[c][c];
                for (int k = c; k < 9; k++) {
                    a[r][k] -= f * a[c][k];
                }
            }
        }
    }
    for (int i = 0; i < 8; i++) {
        adH[i] = a[i][8] / a[i][i];
    }
    adH[8] = 1.0;
}

// A projective matrix taking the area's corners to a quadrilateral whose corners lie within
// fJitter pixels inside the source rectangle [iMargin, width - 1 - iMargin] x [..]; a convex
// quadrilateral keeps every interior position inside. The result is scaled by fScale (m8 != 1).
inline void AffineMakeMatrix(AffineRng &rng, const tagST_REGISTRATION_AREA &stArea, int32_t iWidth,
                             int32_t iHeight, double dJitter, double dScale, float afM[9])
{
    const double dMargin = 4.0;
    const double dL = dMargin, dT = dMargin, dR = iWidth - 1 - dMargin, dB = iHeight - 1 - dMargin;
    const double adDst[4][2] = {{(double)stArea.iStartX, (double)stArea.iStartY},
                                {(double)(stArea.iStartX + stArea.iWidth), (double)stArea.iStartY},
                                {(double)stArea.iStartX, (double)(stArea.iStartY + stArea.iHeight)},
                                {(double)(stArea.iStartX + stArea.iWidth), (double)(stArea.iStartY + stArea.iHeight)}};
    const double adSrc[4][2] = {{dL + dJitter * rng.Unit(), dT + dJitter * rng.Unit()},
                                {dR - dJitter * rng.Unit(), dT + dJitter * rng.Unit()},
                                {dL + dJitter * rng.Unit(), dB - dJitter * rng.Unit()},
                                {dR - dJitter * rng.Unit(), dB - dJitter * rng.Unit()}};
    double adH[9];
    AffineSolveHomography(adDst, adSrc, adH);
    for (int i = 0; i < 9; i++) {
        afM[i] = (float)(adH[i] * dScale);
    }
}

struct AffineCase {
    std::string name;
    int32_t iWidth;
    int32_t iHeight;
    int32_t iPicType;
    tagST_REGISTRATION_AREA stArea;
    float afMatrix[9];
};

inline std::string AffineDescribe(const AffineCase &c)
{
    char ac[512];
    snprintf(ac, sizeof(ac), "%s: %dx%d type %d area (%d, %d, %d, %d) m = {%.9g %.9g %.9g; %.9g %.9g %.9g; %.9g %.9g %.9g}",
             c.name.c_str(), c.iWidth, c.iHeight, c.iPicType, c.stArea.iStartX, c.stArea.iStartY, c.stArea.iWidth,
             c.stArea.iHeight, c.afMatrix[0], c.afMatrix[1], c.afMatrix[2], c.afMatrix[3], c.afMatrix[4],
             c.afMatrix[5], c.afMatrix[6], c.afMatrix[7], c.afMatrix[8]);
    return ac;
}

// The sweep: random areas (with and without a tail, a tail-only width of 6, a height of 2 that
// leaves three of four workers without rows) and random projective matrices, for every picture
// type, plus an identity and a half-pixel translation.
inline std::vector<AffineCase> AffineCaseList()
{
    std::vector<AffineCase> cases;
    AffineRng rng(0x5EED0A1Fu);
    struct Shape {
        const char *name;
        int32_t iW, iH, iX, iY, iAw, iAh;
    };
    const Shape shapes[] = {
        {"full-no-tail", 96, 64, 0, 0, 96, 64},  {"inner-tail-2", 100, 70, 6, 4, 82, 52},
        {"inner-tail-4", 120, 48, 2, 8, 92, 30}, {"inner-tail-6", 64, 40, 10, 2, 46, 34},
        {"width-6", 48, 32, 20, 6, 6, 20},       {"height-2", 80, 40, 8, 10, 64, 2},
        {"height-2-tail", 80, 40, 8, 10, 50, 2}, {"odd-rows-band", 66, 58, 0, 2, 66, 54},
    };
    for (int32_t iType = 0; iType <= 2; iType++) {
        for (const Shape &s : shapes) {
            for (int iDraw = 0; iDraw < 2; iDraw++) {
                AffineCase c;
                c.name = std::string(s.name) + (iDraw ? "/wide-jitter" : "/mild");
                c.iWidth = s.iW;
                c.iHeight = s.iH;
                c.iPicType = iType;
                c.stArea = {s.iX, s.iY, s.iAw, s.iAh};
                AffineMakeMatrix(rng, c.stArea, s.iW, s.iH, iDraw ? 0.25 * s.iH : 2.0, iDraw ? 0.37 : 1.0,
                                 c.afMatrix);
                cases.push_back(c);
            }
        }
        const float afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        AffineCase id{"identity", 72, 40, iType, {8, 4, 52, 30}, {}};
        memcpy(id.afMatrix, afIdentity, sizeof(afIdentity));
        cases.push_back(id);
        AffineCase half{"half-pixel", 72, 40, iType, {8, 4, 52, 30}, {}};
        memcpy(half.afMatrix, afIdentity, sizeof(afIdentity));
        half.afMatrix[2] = 0.5f;
        cases.push_back(half);
    }
    return cases;
}

#endif
