// The face mesh and the face track, by their properties: no face leaves lens correction alone,
// a centred face barely moves, a border face comes out conformal, a corner face of a 120-degree
// lens is corrected at full strength without a fold, a mirrored scene gives a mirrored mesh,
// equal inputs give equal floats on every target, hostile faces end in bounded time with a finite
// mesh or a refusal, a jittering detector does not move the mesh, a cut moves it in bounded steps
// and a weakened correction comes back without flipping.
#include "mesh/face_mesh.h"
#include "mesh/face_track.h"

#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <vector>

namespace {

// A lens of fHfov degrees (100 unless given) on a frame of iW x iH with the principal point at
// (fCx, fCy) and a 10 % barrel at the corners.
struct Scene {
    tagST_MESH_INPUT stIn;
    std::vector<int32_t> viFaces;
    std::vector<float> vfMesh;
    std::vector<double> vdWork;   // 8-byte aligned
    tagST_MESH_GRID stGrid;
    tagST_MESH_STATS stStats;

    Scene(int32_t iW, int32_t iH, float fCx, float fCy, float fHfov = 100.0f)
    {
        memset(&stIn, 0, sizeof(stIn));
        stIn.iWidth = iW;
        stIn.iHeight = iH;
        stIn.fFocal = 0.5f * (float)iW / tanf(0.5f * fHfov * 3.14159265f / 180.0f);
        stIn.stLens.fCx = fCx;
        stIn.stLens.fCy = fCy;
        stIn.stLens.fC1 = -0.1f / (fCx * fCx + fCy * fCy);
        stIn.fStrength = 1.0f;
        FaceMeshGrid(iW, iH, 0, &stGrid);
        vfMesh.assign(FaceMeshBytes(iW, iH, 0) / sizeof(float), 0.0f);
        vdWork.assign(FaceMeshWorkBytes(iW, iH, 0) / sizeof(double) + 1, 0.0);
    }

    void AddFace(int32_t iL, int32_t iT, int32_t iR, int32_t iB)
    {
        viFaces.insert(viFaces.end(), {iL, iT, iR, iB});
    }

    int32_t Solve(const float *pfWarm = NULL)
    {
        stIn.iFaceNum = (int32_t)viFaces.size() / 4;
        stIn.paiFaces = viFaces.empty() ? NULL : (const int32_t(*)[4])viFaces.data();
        stIn.pfWarmStart = pfWarm;
        return FaceMeshSolve(&stIn, vfMesh.data(), (uint8_t *)vdWork.data(),
                             (uint32_t)(vdWork.size() * sizeof(double)), &stStats);
    }

    float MaxDisplacement() const
    {
        float fMax = 0.0f;
        for (size_t i = 0; i < vfMesh.size(); i += 2) {
            fMax = fmaxf(fMax, hypotf(vfMesh[i], vfMesh[i + 1]));
        }
        return fMax;
    }

    // Corrected position of the output point (fX, fY).
    void Map(float fX, float fY, float *pfQx, float *pfQy) const
    {
        float fDx, fDy;
        FaceMeshDisplacement(&stGrid, vfMesh.data(), fX, fY, &fDx, &fDy);
        *pfQx = fX + fDx;
        *pfQy = fY + fDy;
    }

    // Smallest ratio of a cell's corrected area to its output area, from the corrected positions
    // of its corners (negative where the map folds).
    float SmallestAreaRatio() const
    {
        float fMin = 1e30f;
        for (int32_t j = 0; j + 1 < stGrid.iRows; j++) {
            for (int32_t i = 0; i + 1 < stGrid.iCols; i++) {
                float afQ[4][2];
                for (int32_t k = 0; k < 4; k++) {
                    Map((float)(i + (k & 1)) * stGrid.fStepX, (float)(j + (k >> 1)) * stGrid.fStepY, &afQ[k][0],
                        &afQ[k][1]);
                }
                // Twice the corrected quadrilateral's area (shoelace over 00, 10, 11, 01).
                const int32_t aiOrder[4] = {0, 1, 3, 2};
                float fTwice = 0.0f;
                for (int32_t k = 0; k < 4; k++) {
                    const float *pfA = afQ[aiOrder[k]], *pfB = afQ[aiOrder[(k + 1) & 3]];
                    fTwice += pfA[0] * pfB[1] - pfA[1] * pfB[0];
                }
                fMin = fminf(fMin, 0.5f * fTwice / (stGrid.fStepX * stGrid.fStepY));
            }
        }
        return fMin;
    }

    // Stretch of the map along (fUx, fUy) and across it at the output point that shows the
    // corrected point (fCx, fCy).
    void StretchAt(float fCx, float fCy, float fUx, float fUy, double *pdAlong, double *pdAcross) const
    {
        float fX = fCx, fY = fCy;
        for (int32_t i = 0; i < 50; i++) {
            float fQx, fQy;
            Map(fX, fY, &fQx, &fQy);
            fX += fCx - fQx;
            fY += fCy - fQy;
        }
        const float fH = 6.0f;
        float afQ[4][2];
        Map(fX - fH * fUx, fY - fH * fUy, &afQ[0][0], &afQ[0][1]);
        Map(fX + fH * fUx, fY + fH * fUy, &afQ[1][0], &afQ[1][1]);
        Map(fX + fH * fUy, fY - fH * fUx, &afQ[2][0], &afQ[2][1]);
        Map(fX - fH * fUy, fY + fH * fUx, &afQ[3][0], &afQ[3][1]);
        *pdAlong = hypot(afQ[1][0] - afQ[0][0], afQ[1][1] - afQ[0][1]) / (2 * fH);
        *pdAcross = hypot(afQ[3][0] - afQ[2][0], afQ[3][1] - afQ[2][1]) / (2 * fH);
    }
};

float MaxStep(const std::vector<float> &vfA, const std::vector<float> &vfB)
{
    float fMax = 0.0f;
    for (size_t i = 0; i < vfA.size(); i += 2) {
        fMax = fmaxf(fMax, hypotf(vfA[i] - vfB[i], vfA[i + 1] - vfB[i + 1]));
    }
    return fMax;
}

TEST(FaceMesh, WithoutAFaceToCorrectTheMeshIsExactlyZero)
{
    Scene stScene(640, 480, 321.0f, 241.0f);
    const std::vector<float> vfZero(stScene.vfMesh.size(), 0.0f);
    std::vector<float> vfWarm(stScene.vfMesh.size(), 7.0f);   // a warm start does not survive
    EXPECT_EQ(stScene.Solve(vfWarm.data()), LDC_MESH_OK);
    EXPECT_EQ(stScene.vfMesh, vfZero);

    stScene.AddFace(20, 180, 140, 300);   // a border face, corrected at strength 0
    stScene.stIn.fStrength = 0.0f;
    EXPECT_EQ(stScene.Solve(vfWarm.data()), LDC_MESH_OK);
    EXPECT_EQ(stScene.vfMesh, vfZero);

    stScene.stIn.fStrength = 1.0f;
    const float fFade = 0.0f;   // faded out by the track
    stScene.stIn.pfFaceStrength = &fFade;
    EXPECT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_EQ(stScene.vfMesh, vfZero);

    stScene.stIn.pfFaceStrength = NULL;
    stScene.viFaces = {700, 10, 900, 200, 100, 100, 100, 300, -50, -50, -1, -1};   // outside, empty
    EXPECT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_EQ(stScene.vfMesh, vfZero);
}

TEST(FaceMesh, CentredFaceBarelyMovesBorderFaceDoes)
{
    Scene stCentre(640, 480, 321.0f, 241.0f), stBorder(640, 480, 321.0f, 241.0f);
    stCentre.AddFace(261, 181, 381, 301);
    stBorder.AddFace(10, 181, 150, 301);
    ASSERT_EQ(stCentre.Solve(), LDC_MESH_OK);
    ASSERT_EQ(stBorder.Solve(), LDC_MESH_OK);
    // The centred face only loses perspective's slight stretch of its own rim.
    EXPECT_LT(stCentre.MaxDisplacement(), 0.03f * 60.0f);
    EXPECT_GT(stBorder.MaxDisplacement(), 10.0f);
}

// The corrected border face is conformal: around the point that shows the face's centre the map
// stretches the radial direction sec(theta) = 1 / cos(atan(r / f)) times as much as the
// tangential one (perspective's stretch of the face, taken out).
TEST(FaceMesh, BorderFaceComesOutConformal)
{
    Scene stScene(640, 480, 321.0f, 241.0f);
    stScene.stIn.stLens.fC1 = 0.0f;   // recorded = corrected: the face's box is the one given
    stScene.AddFace(30, 171, 170, 311);
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    const float fCx = 100.0f, fCy = 241.0f;   // the face's centre, corrected pixels
    double dRadial, dTangential;
    stScene.StretchAt(fCx, fCy, 1.0f, 0.0f, &dRadial, &dTangential);
    const double dSec = 1.0 / cos(atan((321.0 - fCx) / stScene.stIn.fFocal));
    EXPECT_NEAR(dRadial / dTangential, dSec, 0.03 * dSec);
}

// A 120-degree lens stretches a face in the corner to twice its width: it is corrected at full
// strength (conformal around its centre) and the map still folds nowhere.
TEST(FaceMesh, CornerFaceOfAWideLensIsCorrectedInFullWithoutAFold)
{
    Scene stScene(640, 480, 321.0f, 241.0f, 120.0f);
    stScene.AddFace(440, 4, 636, 200);
    stScene.AddFace(4, 150, 170, 330);
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_EQ(stScene.stStats.fStrength, 1.0f);
    EXPECT_GT(stScene.SmallestAreaRatio(), 0.1f);
    // The face's centre: its box's centre, taken through the lens model's inverse.
    const float fPx = 538.0f - 321.0f, fPy = 102.0f - 241.0f;
    float fR = hypotf(fPx, fPy);
    const float fRho = fR;
    for (int32_t i = 0; i < 20; i++) {
        fR -= (fR * (1.0f + stScene.stIn.stLens.fC1 * fR * fR) - fRho) / (1.0f + 3.0f * stScene.stIn.stLens.fC1 * fR * fR);
    }
    const float fCx = 321.0f + fPx * fR / fRho, fCy = 241.0f + fPy * fR / fRho;
    double dRadial, dTangential;
    stScene.StretchAt(fCx, fCy, fPx / fRho, fPy / fRho, &dRadial, &dTangential);
    const double dSec = sqrt(1.0 + (double)fR * fR / ((double)stScene.stIn.fFocal * stScene.stIn.fFocal));
    EXPECT_NEAR(dRadial / dTangential, dSec, 0.05 * dSec);
}

TEST(FaceMesh, MirroredFacesGiveTheMirroredMesh)
{
    // Odd sizes put the principal point on the middle pixel, so that the frame is its own mirror.
    const int32_t iW = 641, iH = 481;
    Scene stScene(iW, iH, 320.0f, 240.0f), stMirror(iW, iH, 320.0f, 240.0f);
    const int32_t aaiFaces[3][4] = {{20, 160, 150, 320}, {270, 190, 370, 290}, {470, 10, 620, 170}};
    for (const auto &aiF : aaiFaces) {
        stScene.AddFace(aiF[0], aiF[1], aiF[2], aiF[3]);
        stMirror.AddFace(iW - 1 - aiF[2], aiF[1], iW - 1 - aiF[0], aiF[3]);
    }
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    ASSERT_EQ(stMirror.Solve(), LDC_MESH_OK);
    ASSERT_GT(stScene.MaxDisplacement(), 5.0f);
    const int32_t iCols = stScene.stGrid.iCols;
    for (int32_t j = 0; j < stScene.stGrid.iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const float *pfA = &stScene.vfMesh[2 * (j * iCols + i)];
            const float *pfB = &stMirror.vfMesh[2 * (j * iCols + iCols - 1 - i)];
            ASSERT_NEAR(pfA[0], -pfB[0], 0.02f) << "vertex " << i << ", " << j;
            ASSERT_NEAR(pfA[1], pfB[1], 0.02f) << "vertex " << i << ", " << j;
        }
    }
}

// Equal inputs give equal floats, the same on every target (the hash of a fixed scene's mesh);
// a warm start ends near the cold solution and, started from its own result, stays there.
TEST(FaceMesh, EqualInputsGiveEqualFloatsOnEveryTarget)
{
    Scene stA(4000, 3000, 2001.0f, 1501.0f), stB(4000, 3000, 2001.0f, 1501.0f);
    const stLine astLines[2] = {{0, 0, {50, 2900}, {3950, 2850}}, {0, 90, {2600, 100}, {2650, 2900}}};
    for (Scene *pst : {&stA, &stB}) {
        pst->AddFace(100, 1100, 900, 1900);
        pst->AddFace(1700, 1200, 2300, 1800);
        pst->AddFace(3000, 50, 3900, 1000);
        pst->stIn.pstLines = astLines;
        pst->stIn.iLineNum = 2;
        ASSERT_EQ(pst->Solve(), LDC_MESH_OK);
    }
    EXPECT_EQ(memcmp(stA.vfMesh.data(), stB.vfMesh.data(), stA.vfMesh.size() * sizeof(float)), 0);
    uint32_t uHash = 2166136261u;   // FNV-1a over the bits of every float
    for (float f : stA.vfMesh) {
        uint32_t uBits;
        memcpy(&uBits, &f, sizeof(uBits));
        for (int32_t k = 0; k < 4; k++) {
            uHash = (uHash ^ ((uBits >> (8 * k)) & 0xffu)) * 16777619u;
        }
    }
    EXPECT_EQ(uHash, 2886923862u);
    const std::vector<float> vfCold = stA.vfMesh;
    ASSERT_EQ(stA.Solve(vfCold.data()), LDC_MESH_OK);
    EXPECT_LT(MaxStep(stA.vfMesh, vfCold), 1.0f);   // 1 / 4000 of the frame
    const std::vector<float> vfWarm = stA.vfMesh;
    ASSERT_EQ(stA.Solve(vfWarm.data()), LDC_MESH_OK);
    EXPECT_LT(MaxStep(stA.vfMesh, vfWarm), 0.1f);
}

TEST(FaceMesh, HostileInputsEndWithAFiniteMeshOrARefusal)
{
    const int32_t iMax = INT32_MAX, iMin = INT32_MIN;
    const std::vector<std::vector<int32_t>> vviFaceSets = {
        {iMin, iMin, iMax, iMax},                                       // larger than any frame
        {iMax, iMax, iMin, iMin},                                       // inverted
        {-5000, -5000, 4999, 4999, 0, 0, 1, 1},                         // huge, and one pixel
        std::vector<int32_t>(40, 300),                                  // ten empty faces
        {0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479,
         0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479},   // ten frames
        {0, 0, 60, 60, 580, 0, 639, 60, 0, 420, 60, 479, 580, 420, 639, 479, 300, 200, 340, 280,
         -10, 200, 40, 280, 600, 200, 700, 280, 300, -10, 340, 40, 300, 440, 340, 500, 100, 100, 540, 380},
    };
    const stLine astLines[3] = {{0, 0, {iMin, iMax}, {iMax, iMin}}, {0, 0, {5, 5}, {5, 5}}, {0, 0, {0, 240}, {639, 240}}};
    for (size_t k = 0; k < vviFaceSets.size(); k++) {
        for (int32_t iVariant = 0; iVariant < 3; iVariant++) {
            Scene stScene(640, 480, 321.0f, 241.0f);
            stScene.viFaces = vviFaceSets[k];
            if (iVariant == 1) {
                stScene.stIn.pstLines = astLines;
                stScene.stIn.iLineNum = 3;
            } else if (iVariant == 2) {
                stScene.stIn.stLens.fC1 = -5e-5f;   // a lens whose radius turns back inside the frame
                stScene.stIn.stLens.fC2 = 1e-9f;
            }
            const int32_t iRet = stScene.Solve();
            EXPECT_TRUE(iRet == LDC_MESH_OK || iRet == LDC_MESH_ERR_FOLD || iRet == LDC_MESH_ERR_NUMERIC)
                << "set " << k << " variant " << iVariant;
            bool bZero = true;
            for (float f : stScene.vfMesh) {
                ASSERT_TRUE(isfinite(f)) << "set " << k << " variant " << iVariant;
                bZero = bZero && f == 0.0f;
            }
            EXPECT_TRUE(iRet == LDC_MESH_OK || bZero);
        }
    }
    // Sizes at the limits, a focal length that is not a number, and a work area too small.
    for (const auto &stSize : std::vector<std::pair<int32_t, int32_t>>{{2, 2}, {5000, 2}, {5000, 5000}}) {
        Scene stScene(stSize.first, stSize.second, 0.5f * stSize.first, 0.5f * stSize.second);
        stScene.AddFace(0, 0, stSize.first / 4 + 2, stSize.second / 4 + 2);
        const int32_t iRet = stScene.Solve();
        EXPECT_TRUE(iRet == LDC_MESH_OK || iRet == LDC_MESH_ERR_FOLD);
        for (float f : stScene.vfMesh) {
            ASSERT_TRUE(isfinite(f));
        }
    }
    Scene stScene(640, 480, 321.0f, 241.0f);
    stScene.AddFace(10, 181, 150, 301);
    stScene.stIn.fFocal = NAN;
    EXPECT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_EQ(stScene.MaxDisplacement(), 0.0f);
    stScene.stIn.fFocal = 500.0f;
    EXPECT_EQ(FaceMeshSolve(&stScene.stIn, stScene.vfMesh.data(), (uint8_t *)stScene.vdWork.data(),
                            FaceMeshWorkBytes(640, 480, 0) - 1, &stScene.stStats),
              LDC_MESH_ERR_ARGS);
}

// A detector's rectangles that jitter by up to 3 pixels on a still scene: once the faces are in,
// the track reports nothing changed and the mesh shown does not move at all. At a cut the faces
// fade in and out, re-solved from the last mesh, and the mesh shown never steps farther than its
// bound, ending at the full correction and at none.
TEST(FaceTrack, JitterHoldsTheMeshAndCutsMoveInBoundedSteps)
{
    Scene stScene(640, 480, 321.0f, 241.0f);
    const int32_t aaiFaces[2][4] = {{12, 175, 152, 305}, {265, 185, 375, 295}};
    for (const auto &aiF : aaiFaces) {
        stScene.AddFace(aiF[0], aiF[1], aiF[2], aiF[3]);
    }
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    const std::vector<float> vfFull = stScene.vfMesh;
    const float fBound = FaceMeshStepBound(640, 480);
    ASSERT_GT(stScene.MaxDisplacement(), 2.0f * fBound);   // the bound matters here

    tagST_FACE_TRACK stTrack;
    FaceTrackReset(&stTrack);
    std::vector<float> vfSolved(vfFull.size(), 0.0f), vfShown(vfFull.size(), 0.0f);
    uint32_t uRandom = 12345u;
    const int32_t iPhase = 4 * LDC_TRACK_FADE_FRAMES;
    for (int32_t iFrame = 0; iFrame < 2 * iPhase; iFrame++) {
        const bool bGone = iFrame >= iPhase;
        int32_t aaiSeen[2][4], aaiOut[LDC_MAX_FACES][4];
        float afFade[LDC_MAX_FACES];
        for (int32_t k = 0; k < 8; k++) {
            uRandom = uRandom * 1664525u + 1013904223u;
            const int32_t iJitter = iFrame == 0 ? 0 : (int32_t)((uRandom >> 16) % 7u) - 3;   // -3 .. 3
            aaiSeen[k / 4][k % 4] = aaiFaces[k / 4][k % 4] + iJitter;
        }
        const int32_t iNum = FaceTrackUpdate(&stTrack, aaiSeen, bGone ? 0 : 2, aaiOut, afFade);
        if (iFrame > LDC_TRACK_FADE_FRAMES && !bGone) {
            EXPECT_FALSE(stTrack.bChanged) << "frame " << iFrame;
        }
        if (stTrack.bChanged) {
            stScene.viFaces.assign(&aaiOut[0][0], &aaiOut[0][0] + 4 * iNum);
            stScene.stIn.pfFaceStrength = afFade;
            ASSERT_EQ(stScene.Solve(vfSolved.data()), LDC_MESH_OK);
            vfSolved = stScene.vfMesh;
        }
        const std::vector<float> vfBefore = vfShown;
        FaceMeshFollow(&stScene.stGrid, vfSolved.data(), vfShown.data(), fBound);
        EXPECT_LE(MaxStep(vfShown, vfBefore), fBound * 1.0001f) << "frame " << iFrame;
        if (iFrame == iPhase - 1) {
            EXPECT_LT(MaxStep(vfShown, vfFull), 0.02f * stScene.MaxDisplacement());
        }
    }
    EXPECT_EQ(stTrack.iNum, 0);
    EXPECT_EQ(MaxStep(vfShown, std::vector<float>(vfShown.size(), 0.0f)), 0.0f);
}

// A correction the mesh had to weaken stays weakened for a while and then comes back in steps
// that only rise: it never flips between two strengths from frame to frame.
TEST(FaceTrack, WeakenedStrengthComesBackWithoutFlipping)
{
    tagST_FACE_TRACK stTrack;
    FaceTrackReset(&stTrack);
    int32_t aaiOut[LDC_MAX_FACES][4];
    float afFade[LDC_MAX_FACES];
    const int32_t aiFace[4] = {100, 100, 228, 228};
    EXPECT_EQ(FaceTrackStrength(&stTrack, 0.8f), 0.8f);
    FaceTrackSolved(&stTrack, 0.8f, 0.6f);
    float fLast = FaceTrackStrength(&stTrack, 0.8f);
    EXPECT_FLOAT_EQ(fLast, 0.6f);
    for (int32_t iFrame = 0; iFrame < LDC_TRACK_HOLD_FRAMES + LDC_TRACK_RISE_STEPS + 2; iFrame++) {
        FaceTrackUpdate(&stTrack, &aiFace, 1, aaiOut, afFade);
        const float fNow = FaceTrackStrength(&stTrack, 0.8f);
        EXPECT_GE(fNow, fLast);
        EXPECT_EQ(fNow == fLast, iFrame < LDC_TRACK_HOLD_FRAMES || fLast == 0.8f) << "frame " << iFrame;
        fLast = fNow;
    }
    EXPECT_EQ(fLast, 0.8f);
}

TEST(FaceTrack, MovingFaceIsFollowedAndHostileRectanglesAreKept)
{
    tagST_FACE_TRACK stTrack;
    FaceTrackReset(&stTrack);
    int32_t aaiOut[LDC_MAX_FACES][4];
    float afFade[LDC_MAX_FACES];
    for (int32_t iFrame = 0; iFrame < 20; iFrame++) {
        const int32_t aiFace[4] = {100 + 10 * iFrame, 100, 228 + 10 * iFrame, 228};
        ASSERT_EQ(FaceTrackUpdate(&stTrack, &aiFace, 1, aaiOut, afFade), 1);
        // One face that walks: never behind by more than the dead band (4 pixels, or 1/32).
        EXPECT_LE(aiFace[0] - aaiOut[0][0], 4);
        EXPECT_LE(aiFace[2] - aaiOut[0][2], 4);
    }
    EXPECT_EQ(afFade[0], 1.0f);
    const int32_t aaiHostile[12][4] = {{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}, {INT32_MAX, 0, INT32_MIN, 5}};
    const int32_t iNum = FaceTrackUpdate(&stTrack, aaiHostile, 12, aaiOut, afFade);
    EXPECT_LE(iNum, LDC_MAX_FACES);
    for (int32_t k = 0; k < iNum; k++) {
        EXPECT_GT(afFade[k], 0.0f);
        EXPECT_LE(afFade[k], 1.0f);
    }
}

}  // namespace
