// Frames, matrices and the parameter sweep of the affine warp, shared by the equivalence tests and
// the benchmark. The random matrices keep the source positions of their area (and the two columns
// and rows right of and below them that the interpolation reads) inside the source frame, where
// the bytes must be exactly the unclamped ones; the out-of-frame cases send positions far
// outside, as a face homography does, and NaN and infinity through the clamps.
#ifndef LDC_TESTS_WARP_AFFINE_TRANSFORM_CASES_H
#define LDC_TESTS_WARP_AFFINE_TRANSFORM_CASES_H

#include <stdint.h>
#include <string.h>

#include <limits>
#include <string>
#include <vector>

#include "support/harness.h"
#include "warp/affine_transform.h"

// The descriptor of a YUV 4:2:0 frame held as one block at pucBase. Both semi-planar types hand
// the kernels the start of the interleaved plane in pU, as the frame driver does.
inline tagST_PIC AffinePicture(int32_t iWidth, int32_t iHeight, int32_t iPicType, uint8_t *pucBase)
{
    const size_t uLuma = (size_t)iWidth * iHeight;
    tagST_PIC stPic = {iWidth, iHeight, 0, pucBase, pucBase + uLuma, NULL};
    stPic.pV = (iPicType == LDC_PIC_YUV420) ? pucBase + uLuma + uLuma / 4
                                            : pucBase + uLuma + (iPicType == LDC_PIC_NV21 ? 0 : 1);
    return stPic;
}

// A frame with its descriptor, allocated to its exact size so that AddressSanitizer sees any read
// past its end.
struct AffineFrame {
    std::vector<uint8_t> bytes;
    tagST_PIC pic{};

    AffineFrame(int32_t iWidth, int32_t iHeight, int32_t iPicType)
        : bytes((size_t)iWidth * iHeight * 3 / 2, 0), pic(AffinePicture(iWidth, iHeight, iPicType, bytes.data()))
    {
    }
    // A copy addresses its own bytes.
    AffineFrame(const AffineFrame &o) : bytes(o.bytes), pic(o.pic)
    {
        pic.pY = bytes.data();
        pic.pU = bytes.data() + (o.pic.pU - o.bytes.data());
        pic.pV = bytes.data() + (o.pic.pV - o.bytes.data());
    }
    AffineFrame &operator=(const AffineFrame &) = delete;
    size_t FrameBytes() const { return bytes.size(); }
    void Fill(uint32_t uSeed)
    {
        uint32_t u = uSeed;
        for (uint8_t &b : bytes) {
            u = u * 1664525u + 1013904223u;
            b = (uint8_t)(u >> 24);
        }
    }
};

// Plane of byte i of a frame and the luma position (x, y) that it belongs to: a chroma byte
// stands for its 2 x 2 block, the two bytes of an interleaved pair sitting in its two columns.
inline const char *AffineBytePosition(int32_t iWidth, int32_t iHeight, int32_t iPicType, size_t i, int32_t *piX,
                                      int32_t *piY)
{
    const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(iWidth, iHeight, iPicType);
    const ldc_test::tagST_TEST_PLANE *pstPlane = ldc_test::PlaneAt(stLayout, i, piX, piY);
    if (pstPlane != &stLayout.vstPlanes[0]) {
        *piX *= (iPicType == LDC_PIC_YUV420) ? 2 : 1;
        *piY *= 2;
    }
    return pstPlane->pcName;
}

// Small deterministic generator (numerical recipes LCG), so that every target draws the same cases.
struct AffineRng {
    uint32_t u;
    explicit AffineRng(uint32_t uSeed) : u(uSeed) {}
    uint32_t Next() { return u = u * 1664525u + 1013904223u; }
    double Unit() { return (Next() >> 8) / 16777216.0; }
    int32_t Even(int32_t iLo, int32_t iHi) { return (iLo + (int32_t)(Unit() * (iHi - iLo + 1))) & ~1; }
};

// A projective matrix taking the area onto a quadrilateral whose corners lie up to dJitter pixels
// inside [4, width - 5] x [4, height - 5] (a convex image keeps every interior position inside,
// with room for the two extra columns and rows that the interpolation reads), scaled by dScale
// so that m8 is not 1. Square-to-quadrilateral in closed form, after the area is normalised.
inline void AffineMakeMatrix(AffineRng &rng, const tagST_REGISTRATION_AREA &a, int32_t iWidth, int32_t iHeight,
                             double dJitter, double dScale, float afM[9])
{
    const double l = 4, t = 4, r = iWidth - 5, b = iHeight - 5;
    const double x0 = l + dJitter * rng.Unit(), y0 = t + dJitter * rng.Unit();   // (0, 0)
    const double x1 = r - dJitter * rng.Unit(), y1 = t + dJitter * rng.Unit();   // (1, 0)
    const double x2 = r - dJitter * rng.Unit(), y2 = b - dJitter * rng.Unit();   // (1, 1)
    const double x3 = l + dJitter * rng.Unit(), y3 = b - dJitter * rng.Unit();   // (0, 1)
    const double dx1 = x1 - x2, dx2 = x3 - x2, dx3 = x0 - x1 + x2 - x3;
    const double dy1 = y1 - y2, dy2 = y3 - y2, dy3 = y0 - y1 + y2 - y3;
    const double det = dx1 * dy2 - dx2 * dy1;
    const double g = (dx3 * dy2 - dx2 * dy3) / det, h = (dx1 * dy3 - dx3 * dy1) / det;
    const double sq[9] = {x1 - x0 + g * x1, x3 - x0 + h * x3, x0, y1 - y0 + g * y1, y3 - y0 + h * y3, y0, g, h, 1};
    // (u, v) = ((x - ax) / aw, (y - ay) / ah) before the square-to-quadrilateral map.
    const double sx = 1.0 / a.iWidth, sy = 1.0 / a.iHeight, tx = -a.iStartX * sx, ty = -a.iStartY * sy;
    for (int i = 0; i < 3; i++) {
        afM[3 * i] = (float)(dScale * sq[3 * i] * sx);
        afM[3 * i + 1] = (float)(dScale * sq[3 * i + 1] * sy);
        afM[3 * i + 2] = (float)(dScale * (sq[3 * i] * tx + sq[3 * i + 1] * ty + sq[3 * i + 2]));
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

// The homography fitted to one face (3000, 900, 3479, 1379) of a 4000 x 3000 frame at correction
// degree 0.3 (fx 3349.47), for a frame dScale times that size: exact near the face, it maps the
// output corner (0, 0) to about (-355, -279) and (0, 2999) to (-650, 3476) at full size.
inline void AffineFaceHomography(double dScale, float afM[9])
{
    const double adH[9] = {1.35701869174,   -0.0766474607837, -354.951162902, 0.130572965011, 1.13528844677,
                           -278.982320943, 8.68916641209e-05, -3.3557684716e-05, 1};
    for (int i = 0; i < 9; i++) {
        // diag(s, s, 1) H diag(1 / s, 1 / s, 1)
        const double dRow = (i / 3 == 2) ? 1.0 / dScale : 1.0;
        const double dCol = (i % 3 == 2) ? dScale : 1.0;
        afM[i] = (float)(adH[i] * dRow * dCol);
    }
}

// Matrices whose source positions leave the 80 x 60 frame, over the whole frame (no tail) and an
// inner area with a 6-column tail; the face homography at 1 / 50 of its size.
inline std::vector<AffineCase> AffineOutOfFrameCases(int32_t iType)
{
    const float fNan = std::numeric_limits<float>::quiet_NaN();
    const float fInf = std::numeric_limits<float>::infinity();
    const struct {
        const char *name;
        float m[9];
    } matrices[] = {
        {"far-right", {1, 0, 240, 0, 1, 0, 0, 0, 1}},
        {"far-left-up", {1, 0, -200, 0, 1, -150, 0, 0, 1}},
        {"far-down", {1, 0, 0, 0, 1, 500, 0, 0, 1}},
        {"den-crosses-zero", {1, 0, 0, 0.3f, 1, 0, -0.02f, 0, 1}},   // den 0 at x = 50
        {"face-homography", {}},
        {"huge", {1e30f, 0, 0, 0, -1e30f, 0, 0, 0, 1}},
        {"nan", {fNan, fNan, fNan, fNan, fNan, fNan, fNan, fNan, fNan}},
        {"inf", {1, 0, fInf, 0, 1, -fInf, 0, 0, 1}},
    };
    std::vector<AffineCase> cases;
    for (const auto &m : matrices) {
        for (const tagST_REGISTRATION_AREA &a : {tagST_REGISTRATION_AREA{0, 0, 80, 60}, tagST_REGISTRATION_AREA{2, 4, 70, 50}}) {
            AffineCase c{std::string("out-of-frame/") + m.name + (a.iWidth == 80 ? "" : "/tail"), 80, 60, iType, a, {}};
            memcpy(c.afMatrix, m.m, sizeof(c.afMatrix));
            if (std::string(m.name) == "face-homography") {
                AffineFaceHomography(0.02, c.afMatrix);
            }
            cases.push_back(c);
        }
    }
    return cases;
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
        for (const AffineCase &c : AffineOutOfFrameCases(iType)) {
            cases.push_back(c);
        }
    }
    return cases;
}

#endif
