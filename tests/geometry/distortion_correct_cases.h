// The remap sweep shared by the harness and the benchmark: case list and frame set-up (source,
// working buffer, instance).
#ifndef LDC_TESTS_GEOMETRY_DISTORTION_CORRECT_CASES_H
#define LDC_TESTS_GEOMETRY_DISTORTION_CORRECT_CASES_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "geometry/distortion_correct.h"
#include "geometry/lens_model.h"
#include "support/harness.h"

// DC_PHONE_LENS is a real 640 x 480 phone lens calibration scaled to the frame's width.
// DC_FOLDED_FACE has random face coefficients strong enough to fold the mapping: some groups then
// have block offsets that only sum as if contiguous, which exercises the interpolator's shortcut
// and the chroma bytes that follow its verdict.
// DC_EDGE is a face model on a square frame with a hand-set rectangle of one row pair at the
// bottom right (a group and a tail block): its last block maps to (W - 0.5, H - 0.5), the bottom
// row and the last column, where the chroma row rounds up past the plane and the tail's pair
// and the neighbours reach the frame's end.
enum eDcModel { DC_IDENTITY, DC_BARREL, DC_PINCUSHION, DC_PHONE_LENS, DC_FACE, DC_FOLDED_FACE, DC_EDGE };

struct tagST_DC_CASE {
    int32_t iWidth;
    int32_t iHeight;
    int32_t ePicType;    // 0 NV21, 1 NV12, 2 I420
    int32_t eModel;      // eDcModel
    int32_t aiInset[4];  // even insets of the computed rectangle: left, top, right, bottom
    uint32_t uSeed;      // frame content and the face models' coefficients
};

// Centre coordinates are made odd as the configuration parser makes u0 and v0 odd.
static inline float DcOddCentre(float f)
{
    const int32_t n = TruncF32ToS32(f);
    return (float)((n & 1) ? n : TruncF32ToS32(f + 1.0f));
}

static inline float DcUniform(std::mt19937 &rng, float fLo, float fHi)
{
    return fLo + (fHi - fLo) * (float)(rng() >> 8) * (1.0f / 16777216.0f);
}

// Instance record for a lens model: principal point a little off the frame centre.
static inline void DcSetLens(tagST_LDC_PARA *pstPara, float fFx, float fU0, float fV0, float fK1,
                             float fK2, float fK3)
{
    const float afMatrix[9] = {fFx, 0.0f, DcOddCentre(fU0), 0.0f, fFx, DcOddCentre(fV0), 0.0f, 0.0f, 1.0f};
    memcpy(pstPara->afCameraMatrix, afMatrix, sizeof(afMatrix));
    pstPara->afDistortionCoefficients[0] = fK1;
    pstPara->afDistortionCoefficients[1] = fK2;
    pstPara->afDistortionCoefficients[2] = fK3;
    pstPara->iLDCFlag = 1;
    pstPara->iLDCEnable = 1;
    GetUndistortedArea(pstPara, LDC_AREA_LENS);
}

// Every block origin of the rectangle (both evaluation orders) must map into the frame: the
// remap trusts the rectangle (it clamps only reads that would leave the frame block). Also the
// rectangle's even/odd shape.
static inline bool DcRectangleIsUsable(const tagST_LDC_PARA *pstPara)
{
    const int32_t bLens = (pstPara->iLDCEnable == 1);
    const int32_t *piArea = bLens ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    if ((bLens ? pstPara->iLDCFlag : pstPara->iGolbalFDCFlag) < 1 || (piArea[0] & 1) ||
        (piArea[1] & 1) || !(piArea[2] & 1) || !(piArea[3] & 1) || piArea[0] > piArea[2] ||
        piArea[1] > piArea[3]) {
        return false;
    }
    tagST_RADIAL_MODEL stM;
    GetRadialModel(pstPara, bLens, &stM);
    for (int32_t y = piArea[1]; y <= piArea[3]; y += 2) {
        for (int32_t x = piArea[0]; x <= piArea[2]; x += 2) {
            const float fDx = (float)x - stM.fCx;
            const float fDy = (float)y - stM.fCy;
            const float fR2 = fDx * fDx + fDy * fDy;
            const float afF[2] = {RadialFactorGrouped(&stM, fR2), RadialFactorSerial(&stM, fR2)};
            for (float fF : afF) {
                const int32_t iSx = TruncF32ToS32(fF * fDx + stM.fCx);
                const int32_t iSy = TruncF32ToS32(fF * fDy + stM.fCy);
                if (iSx < 0 || iSx > pstPara->iImgWidth - 1 || iSy < 0 || iSy > pstPara->iImgHeight - 1) {
                    return false;
                }
            }
        }
    }
    return true;
}

// Fills the model fields of the instance for a case; false when the case has no usable
// rectangle (a face model whose random coefficients fold the frame).
static inline bool DcSetModel(const tagST_DC_CASE &stCase, tagST_LDC_PARA *pstPara)
{
    const float fW = (float)stCase.iWidth;
    const float fH = (float)stCase.iHeight;
    switch (stCase.eModel) {
    case DC_IDENTITY:
        DcSetLens(pstPara, 0.8f * fW, 0.5f * fW, 0.5f * fH, 0.0f, 0.0f, 0.0f);
        break;
    case DC_BARREL:
        DcSetLens(pstPara, 0.7f * fW, 0.5f * fW + 3.0f, 0.5f * fH - 2.0f, -0.27f, -0.04f, 0.24f);
        break;
    case DC_PINCUSHION:
        DcSetLens(pstPara, 0.9f * fW, 0.5f * fW - 2.0f, 0.5f * fH + 1.0f, 0.12f, 0.02f, 0.0f);
        break;
    case DC_PHONE_LENS: {
        const float fScale = fW / 640.0f;
        DcSetLens(pstPara, 535.91573f * fScale, 342.28315f * fScale, 235.57083f * fScale,
                  -0.26637261f, -0.038588899f, 0.23839153f);
        break;
    }
    case DC_EDGE: {
        // f = 1 + c1 r2 reaches (d + 1.5) / d at the last block, d = W / 2 - 2 on both axes.
        const float fD = (float)(stCase.iWidth / 2 - 2);
        pstPara->afGlobalFDCCoefficients[0] = ((fD + 1.5f) / fD - 1.0f) / (2.0f * fD * fD);
        pstPara->iGolbalFDCFlag = 1;
        pstPara->iLDCEnable = 0;
        const int32_t aiArea[4] = {stCase.iWidth - 10, stCase.iHeight - 2, stCase.iWidth - 1, stCase.iHeight - 1};
        memcpy(pstPara->aiGlobalFDCArea, aiArea, sizeof(aiArea));
        break;
    }
    default: {
        // Coefficients scaled to the frame's corner radius; the mild ranges keep the mapping
        // monotone.
        std::mt19937 rng(stCase.uSeed);
        const float fR2 = 0.25f * (fW * fW + fH * fH);
        const float fA = (stCase.eModel == DC_FOLDED_FACE) ? 3.0f : 0.2f;
        const float fB = (stCase.eModel == DC_FOLDED_FACE) ? 6.0f : 0.04f;
        const float fC = (stCase.eModel == DC_FOLDED_FACE) ? 6.0f : 0.02f;
        pstPara->afGlobalFDCCoefficients[0] = DcUniform(rng, -fA, fA) / fR2;
        pstPara->afGlobalFDCCoefficients[1] = DcUniform(rng, -fB, fB) / (fR2 * fR2);
        pstPara->afGlobalFDCCoefficients[2] = DcUniform(rng, -fC, fC) / (fR2 * fR2 * fR2);
        pstPara->afGlobalFDCCoefficients[3] = 1.0f;
        // The lens fields hold junk that must not matter with iLDCEnable 0.
        pstPara->afCameraMatrix[0] = 1.0f;
        pstPara->afDistortionCoefficients[0] = 5.0f;
        pstPara->iGolbalFDCFlag = 1;
        pstPara->iLDCEnable = 0;
        GetUndistortedArea(pstPara, LDC_AREA_FACE);
        break;
    }
    }
    int32_t *piArea = (pstPara->iLDCEnable == 1) ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    for (int32_t i = 0; i < 2; i++) {
        piArea[i] += stCase.aiInset[i];
        piArea[i + 2] -= stCase.aiInset[i + 2];
    }
    return DcRectangleIsUsable(pstPara);
}

// The harness's sweep: sizes (multiples of 8 wide and not, narrower than 8, odd, bands of 6
// rows), the three picture types, four model kinds, a few inset rectangles.
static inline std::vector<tagST_DC_CASE> DcSweepCases()
{
    struct {
        int32_t iW, iH;
    } const astSizes[] = {{64, 48}, {50, 30}, {37, 23}, {96, 34}, {8, 6},  {6, 10}, {22, 6},
                          {41, 64}, {2, 2},   {4, 2},   {6, 6},   {8, 2},  {16, 4}, {7, 5}, {9, 3}};
    const int32_t aaiInsets[][4] = {{0, 0, 0, 0}, {2, 4, 0, 2}, {6, 2, 8, 0}};
    std::vector<tagST_DC_CASE> vstCases;
    uint32_t uSeed = 1;
    for (const auto &stSize : astSizes) {
        for (int32_t ePicType = 0; ePicType < 3; ePicType++) {
            // A planar chroma plane of odd width has no whole pitch: no such frames.
            if (ePicType == 2 && (stSize.iW & 1)) {
                continue;
            }
            for (int32_t eModel = DC_IDENTITY; eModel <= DC_FACE; eModel++) {
                for (const auto &aiInset : aaiInsets) {
                    // Insets only where the rectangle has room for them.
                    if (aiInset[0] + aiInset[2] + 8 > stSize.iW || aiInset[1] + aiInset[3] + 6 > stSize.iH) {
                        continue;
                    }
                    tagST_DC_CASE stCase = {stSize.iW, stSize.iH, ePicType, eModel,
                                            {aiInset[0], aiInset[1], aiInset[2], aiInset[3]}, uSeed++};
                    vstCases.push_back(stCase);
                }
            }
        }
    }
    // Folded models at seeds known to produce groups that only sum as if contiguous.
    const uint32_t aauFolded[][3] = {{64, 48, 28}, {50, 30, 22}, {44, 22, 76},
                                     {46, 24, 122}, {96, 34, 356}, {37, 23, 22}};
    for (const auto &auFolded : aauFolded) {
        for (int32_t ePicType = 0; ePicType < ((auFolded[0] & 1) ? 2 : 3); ePicType++) {
            const tagST_DC_CASE stCase = {(int32_t)auFolded[0], (int32_t)auFolded[1], ePicType,
                                          DC_FOLDED_FACE, {0, 0, 0, 0}, auFolded[2]};
            vstCases.push_back(stCase);
        }
    }
    for (int32_t iSide : {16, 24}) {
        for (int32_t ePicType = 0; ePicType < 3; ePicType++) {
            vstCases.push_back({iSide, iSide, ePicType, DC_EDGE, {0, 0, 0, 0}, 7});
        }
    }
    return vstCases;
}

// Prepares a case; a face case whose random coefficients leave no usable rectangle takes the next
// seeds until one does.
struct tagST_DC_FRAMES;
static inline bool DcPrepare(tagST_DC_FRAMES *pstFrames, tagST_DC_CASE stCase);

static inline std::string DcDescribe(const tagST_DC_CASE &stCase, const tagST_LDC_PARA &stPara)
{
    static const char *const apcModel[] = {"identity", "barrel", "pincushion", "phone lens", "face", "folded face", "edge"};
    const int32_t bLens = (stPara.iLDCEnable == 1);
    const int32_t *piArea = bLens ? stPara.aiLDCArea : stPara.aiGlobalFDCArea;
    tagST_RADIAL_MODEL stM;
    GetRadialModel(&stPara, bLens, &stM);
    char acText[320];
    snprintf(acText, sizeof(acText),
             "%dx%d type %d %s seed %u rect (%d, %d, %d, %d) centre (%.1f, %.1f) c1..c3 (%g, %g, %g)",
             stCase.iWidth, stCase.iHeight, stCase.ePicType, apcModel[stCase.eModel], stCase.uSeed,
             piArea[0], piArea[1], piArea[2], piArea[3], stM.fCx, stM.fCy, stM.fC1, stM.fC2, stM.fC3);
    return acText;
}

// Frames of one case. Each frame is one block, luma then chroma, as the library's callers hold
// them (luma reads two rows below a position land in the chroma), the source allocated to its
// exact size: the kernels clamp every read into the block, and AddressSanitizer sees any that
// they miss.
struct tagST_DC_FRAMES {
    tagST_DC_CASE stCase;
    std::unique_ptr<tagST_LDC_PARA> pstPara{new tagST_LDC_PARA()};
    size_t uFrameBytes = 0;
    std::vector<uint8_t> vucSrc;
    std::vector<uint8_t> vucWork;
    tagST_PIC stSrc{};

    // false when the case has no usable rectangle
    bool Prepare(const tagST_DC_CASE &stNew)
    {
        stCase = stNew;
        memset(pstPara.get(), 0, sizeof(*pstPara));
        pstPara->iImgWidth = stCase.iWidth;
        pstPara->iImgHeight = stCase.iHeight;
        pstPara->ePicType = stCase.ePicType;
        if (!DcSetModel(stCase, pstPara.get())) {
            return false;
        }
        uFrameBytes = (size_t)stCase.iWidth * (size_t)stCase.iHeight * 3 / 2;
        vucSrc = ldc_test::RandomBytes(uFrameBytes, stCase.uSeed * 2654435761u);
        stSrc = Picture(vucSrc.data());
        // Working buffer: a frame's worth of bytes, then the column table, 16-byte aligned.
        const int32_t *piArea = Area();
        vucWork.assign(uFrameBytes + LDC_COLUMN_TABLE_BYTES(piArea[0], piArea[2]) + 32, 0);
        pstPara->pucWorkBuf = vucWork.data() + (16 - ((uintptr_t)vucWork.data() & 15));
        return true;
    }

    const int32_t *Area() const
    {
        return (pstPara->iLDCEnable == 1) ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    }

    // Planes of a frame block as the kernels take them: for both semi-planar types pU is the
    // first byte of the interleaved plane.
    tagST_PIC Picture(uint8_t *pucBase) const
    {
        const size_t uLuma = (size_t)stCase.iWidth * (size_t)stCase.iHeight;
        tagST_PIC stPic = {stCase.iWidth, stCase.iHeight, 0, pucBase, pucBase + uLuma, pucBase + uLuma};
        if (stCase.ePicType == 2) {
            stPic.pV = pucBase + uLuma + uLuma / 4;
        }
        return stPic;
    }

    // The remap's plane arguments: three consecutive pointers, luma, first chroma, second chroma.
    static std::array<uint8_t *, 3> Planes(const tagST_PIC &stPic) { return {stPic.pY, stPic.pU, stPic.pV}; }

    // Runs the vector or the plain driver into the frame block at pucDst.
    void Run(bool bNeon, uint8_t *pucDst)
    {
        const int32_t iPlanar = (stCase.ePicType == 2) ? 1 : 0;
        const auto apucSrc = Planes(stSrc);
        const auto apucDst = Planes(Picture(pucDst));
        (bNeon ? DistortionCorrect_neon : DistortionCorrect)(iPlanar, pstPara.get(), apucSrc.data(), apucDst.data());
    }

    // True for the bytes the rectangle may write: its luma, and its chroma rows top / 2 ..
    // bottom / 2 (bytes left..right interleaved, columns left / 2 .. right / 2 planar).
    bool InRectangle(size_t uIndex) const
    {
        const int32_t *piArea = Area();
        const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(stCase.iWidth, stCase.iHeight, stCase.ePicType);
        int32_t iX, iY;
        const ldc_test::tagST_TEST_PLANE *pstPlane = ldc_test::PlaneAt(stLayout, uIndex, &iX, &iY);
        if (pstPlane == NULL) {
            return false;
        }
        const int32_t iRow = (pstPlane == &stLayout.vstPlanes[0]) ? 1 : 2;
        const int32_t iCol = (stCase.ePicType == 2) ? iRow : 1;
        return iX >= piArea[0] / iCol && iX <= piArea[2] / iCol && iY >= piArea[1] / iRow && iY <= piArea[3] / iRow;
    }
};

static inline bool DcPrepare(tagST_DC_FRAMES *pstFrames, tagST_DC_CASE stCase)
{
    for (int32_t iTry = 0; iTry < 64; iTry++, stCase.uSeed += 1000) {
        if (pstFrames->Prepare(stCase)) {
            return true;
        }
        if (stCase.eModel < DC_FACE) {
            return false;
        }
    }
    return false;
}

#endif
