// The face mesh and the face track, by their properties: no face leaves lens correction alone, a
// centred face barely moves, a corner face of a wide lens comes out conformal without a fold, a
// mirrored scene gives a mirrored mesh, equal inputs give equal floats on every target and a warm
// start ends where a cold one does, hostile input ends in bounded work with a finite mesh or a
// refusal, and through the track a jittering detector does not move the mesh while a cut moves it
// in bounded steps.
#include "mesh/face_mesh.h"
#include "mesh/face_mesh_kernels.h"
#include "mesh/face_track.h"

#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <vector>

namespace {

// A lens of fHfov degrees on an iW x iH frame, principal point (fCx, fCy), 10 % barrel at the corner.
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

    int32_t Solve(const float *pfWarm = NULL)
    {
        stIn.iFaceNum = (int32_t)viFaces.size() / 4;
        stIn.paiFaces = viFaces.empty() ? NULL : (const int32_t(*)[4])viFaces.data();
        stIn.pfWarmStart = pfWarm;
        return FaceMeshSolve(&stIn, vfMesh.data(), (uint8_t *)vdWork.data(),
                             (uint32_t)(vdWork.size() * sizeof(double)), &stStats);
    }

    // Corrected position of the output point (fX, fY).
    void Map(float fX, float fY, float *pfQ) const
    {
        float fDx, fDy;
        FaceMeshDisplacement(&stGrid, vfMesh.data(), fX, fY, &fDx, &fDy);
        pfQ[0] = fX + fDx;
        pfQ[1] = fY + fDy;
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

TEST(FaceMesh, NoFaceLeavesTheMeshZeroAndACentredFaceBarelyMovesIt)
{
    Scene stScene(640, 480, 321.0f, 241.0f);
    const std::vector<float> vfZero(stScene.vfMesh.size(), 0.0f);
    std::vector<float> vfWarm(stScene.vfMesh.size(), 7.0f);   // a warm start does not survive
    const float fFadedOut = 0.0f;
    for (int32_t iCase = 0; iCase < 4; iCase++) {
        stScene.viFaces = iCase == 0 ? std::vector<int32_t>{} : std::vector<int32_t>{20, 180, 140, 300};
        stScene.viFaces = iCase == 3 ? std::vector<int32_t>{700, 10, 900, 200, 100, 100, 100, 300} : stScene.viFaces;
        stScene.stIn.fStrength = iCase == 1 ? 0.0f : 1.0f;
        stScene.stIn.pfFaceStrength = iCase == 2 ? &fFadedOut : NULL;
        EXPECT_EQ(stScene.Solve(vfWarm.data()), LDC_MESH_OK);
        EXPECT_EQ(stScene.vfMesh, vfZero) << "case " << iCase;
    }
    // A centred face only loses perspective's slight stretch of its own rim; a border face moves.
    stScene.viFaces = {261, 181, 381, 301};
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_LT(MaxStep(stScene.vfMesh, vfZero), 0.03f * 60.0f);
    stScene.viFaces = {10, 181, 150, 301};
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_GT(MaxStep(stScene.vfMesh, vfZero), 10.0f);
}

// A 120-degree lens stretches a face in the corner to twice its width: around the point showing
// its centre the map stretches the radial direction sec(theta) times the tangential one, at full
// strength, and no cell of the map folds.
TEST(FaceMesh, CornerFaceOfAWideLensComesOutConformalWithoutAFold)
{
    Scene stScene(640, 480, 321.0f, 241.0f, 120.0f);
    stScene.stIn.stLens.fC1 = 0.0f;   // recorded = corrected: the face's box is the one given
    stScene.viFaces = {440, 4, 636, 200, 4, 150, 170, 330};
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    EXPECT_EQ(stScene.stStats.fStrength, 1.0f);
    const float fCx = 538.0f, fCy = 102.0f, fR = hypotf(fCx - 321.0f, fCy - 241.0f);
    const float fUx = (fCx - 321.0f) / fR, fUy = (fCy - 241.0f) / fR;
    float fX = fCx, fY = fCy, afQ[4][2];
    for (int32_t i = 0; i < 50; i++) {   // the output point that shows the face's centre
        stScene.Map(fX, fY, afQ[0]);
        fX += fCx - afQ[0][0];
        fY += fCy - afQ[0][1];
    }
    const float fH = 6.0f;
    stScene.Map(fX - fH * fUx, fY - fH * fUy, afQ[0]);
    stScene.Map(fX + fH * fUx, fY + fH * fUy, afQ[1]);
    stScene.Map(fX + fH * fUy, fY - fH * fUx, afQ[2]);
    stScene.Map(fX - fH * fUy, fY + fH * fUx, afQ[3]);
    const double dRatio = hypot(afQ[1][0] - afQ[0][0], afQ[1][1] - afQ[0][1]) /
                          hypot(afQ[3][0] - afQ[2][0], afQ[3][1] - afQ[2][1]);
    const double dSec = sqrt(1.0 + (double)fR * fR / ((double)stScene.stIn.fFocal * stScene.stIn.fFocal));
    EXPECT_NEAR(dRatio, dSec, 0.05 * dSec);
    // Every cell keeps its orientation: corrected corners turn the same way as the output's.
    for (int32_t j = 0; j + 1 < stScene.stGrid.iRows; j++) {
        for (int32_t i = 0; i + 1 < stScene.stGrid.iCols; i++) {
            for (int32_t k = 0; k < 4; k++) {
                stScene.Map((float)(i + (k & 1)) * stScene.stGrid.fStepX, (float)(j + (k >> 1)) * stScene.stGrid.fStepY,
                            afQ[k]);
            }
            const float fCross = (afQ[1][0] - afQ[0][0]) * (afQ[2][1] - afQ[0][1]) -
                                 (afQ[1][1] - afQ[0][1]) * (afQ[2][0] - afQ[0][0]);
            ASSERT_GT(fCross, 0.0f) << "cell " << i << ", " << j;
        }
    }
}

TEST(FaceMesh, MirroredFacesGiveTheMirroredMesh)
{
    // Odd sizes put the principal point on the middle pixel, so that the frame is its own mirror.
    const int32_t iW = 641, iH = 481;
    Scene stScene(iW, iH, 320.0f, 240.0f), stMirror(iW, iH, 320.0f, 240.0f);
    const stLine astLines[2] = {{0, 0, {20, 460}, {300, 455}}, {0, 0, {iW - 1 - 300, 455}, {iW - 1 - 20, 460}}};
    stScene.viFaces = {20, 160, 150, 320, 270, 190, 370, 290, 470, 10, 620, 170};
    for (size_t k = 0; k < stScene.viFaces.size(); k += 4) {
        const int32_t *piF = &stScene.viFaces[k];
        stMirror.viFaces.insert(stMirror.viFaces.end(), {iW - 1 - piF[2], piF[1], iW - 1 - piF[0], piF[3]});
    }
    for (Scene *pst : {&stScene, &stMirror}) {
        pst->stIn.pstLines = astLines;
        pst->stIn.iLineNum = 2;
        ASSERT_EQ(pst->Solve(), LDC_MESH_OK);
    }
    const int32_t iCols = stScene.stGrid.iCols;
    for (int32_t v = 0; v < iCols * stScene.stGrid.iRows; v++) {
        const float *pfA = &stScene.vfMesh[2 * v], *pfB = &stMirror.vfMesh[2 * (v - v % iCols + iCols - 1 - v % iCols)];
        ASSERT_NEAR(pfA[0], -pfB[0], 0.02f) << "vertex " << v;
        ASSERT_NEAR(pfA[1], pfB[1], 0.02f) << "vertex " << v;
    }
}

// Equal inputs give equal floats, the same on every target (the hash of a fixed scene's mesh);
// a warm start ends near the cold solution and, started from its own result, stays there.
TEST(FaceMesh, EqualInputsGiveEqualFloatsOnEveryTargetAndWarmStartsAgree)
{
    Scene stA(4000, 3000, 2001.0f, 1501.0f), stB(4000, 3000, 2001.0f, 1501.0f);
    const stLine astLines[2] = {{0, 0, {50, 2900}, {3950, 2850}}, {0, 90, {2600, 100}, {2650, 2900}}};
    for (Scene *pst : {&stA, &stB}) {
        pst->stIn.fFocal = 1678.3f;   // a literal: no libm function of the target's in the hash
        pst->viFaces = {100, 1100, 900, 1900, 1700, 1200, 2300, 1800, 3000, 50, 3900, 1000};
        pst->stIn.pstLines = astLines;
        pst->stIn.iLineNum = 2;
        ASSERT_EQ(pst->Solve(), LDC_MESH_OK);
    }
    EXPECT_EQ(memcmp(stA.vfMesh.data(), stB.vfMesh.data(), stA.vfMesh.size() * sizeof(float)), 0);
    uint32_t uHash = 2166136261u;   // FNV-1a over the bytes of every float
    const uint8_t *puc = (const uint8_t *)stA.vfMesh.data();
    for (size_t i = 0; i < stA.vfMesh.size() * sizeof(float); i++) {
        uHash = (uHash ^ puc[i]) * 16777619u;
    }
    EXPECT_EQ(uHash, 1522670469u);
    const std::vector<float> vfCold = stA.vfMesh;
    ASSERT_EQ(stA.Solve(vfCold.data()), LDC_MESH_OK);
    EXPECT_LT(MaxStep(stA.vfMesh, vfCold), 1.0f);   // 1 / 4000 of the frame
    const std::vector<float> vfWarm = stA.vfMesh;
    ASSERT_EQ(stA.Solve(vfWarm.data()), LDC_MESH_OK);
    EXPECT_LT(MaxStep(stA.vfMesh, vfWarm), 0.1f);
}

// The solve's vector loops give the plain loops' floats, tails and widely spread magnitudes included.
TEST(FaceMesh, VectorLoopsGiveThePlainLoopsFloats)
{
    const int32_t iC = 13, iN = 13 * 9 + 3, iMargin = 2 * iC + 2, iPlane = iN + 2 * iMargin;
    uint32_t uSeed = 12345u;
    std::vector<float> vf(11 * iPlane);
    for (float &f : vf) {
        uSeed = uSeed * 1664525u + 1013904223u;
        f = ldexpf((float)(int32_t)(uSeed >> 8) / 8388608.0f - 1.0f, (int32_t)(uSeed % 40u) - 20);
    }
    const float *apfStencil[7];
    for (int32_t k = 0; k < 7; k++) {
        apfStencil[k] = &vf[k * iPlane + iMargin];
    }
    const float *pfX0 = &vf[7 * iPlane + iMargin], *pfX1 = &vf[8 * iPlane + iMargin], *pfD = &vf[9 * iPlane];
    std::vector<float> vfPlain(4 * iPlane), vfNeon(4 * iPlane);
    for (std::vector<float> *pv : {&vfPlain, &vfNeon}) {
        const bool bNeon = pv == &vfNeon;
        float *pf = pv->data();
        (bNeon ? FaceMeshStencil_neon : FaceMeshStencil)(apfStencil, pfX0, pfX1, pf, pf + iPlane, iC, 1, iN);
        (bNeon ? FaceMeshJacobi_neon : FaceMeshJacobi)(pfD, pfX0, NULL, pf + 2 * iPlane, 1.5f, 0, iN);
        memcpy(pf + 3 * iPlane, pfX1, iN * sizeof(float));
        (bNeon ? FaceMeshJacobi_neon : FaceMeshJacobi)(pfD, pfX0, pf, pf + 3 * iPlane, 1.5f, 2, iN);
        (bNeon ? FaceMeshAxpy_neon : FaceMeshAxpy)(pf + iPlane, pf + 2 * iPlane, -0.7f, pf + iPlane, 1, iN);
    }
    EXPECT_EQ(memcmp(vfPlain.data(), vfNeon.data(), vfPlain.size() * sizeof(float)), 0);
}

// Whatever the faces, segments and lens: a finite mesh (zero after a refusal) in bounded work.
TEST(FaceMesh, HostileInputsEndInBoundedWorkWithAFiniteMeshOrARefusal)
{
    const int32_t iMax = INT32_MAX, iMin = INT32_MIN;
    std::vector<int32_t> viCrowd;   // ten faces: the frame itself, corners, edges, overlaps
    for (int32_t k = 0; k < 10; k++) {
        viCrowd.insert(viCrowd.end(), {(k % 4) * 160 - 20, (k % 3) * 160 - 20, (k % 4) * 160 + 200, (k % 3) * 160 + 200});
    }
    const std::vector<std::vector<int32_t>> vviFaceSets = {
        {iMin, iMin, iMax, iMax, iMax, iMax, iMin, iMin, 0, 0, 1, 1}, std::vector<int32_t>(40, 300), viCrowd,
        {0, 0, 639, 479, 0, 0, 639, 479, 0, 0, 639, 479}};
    std::vector<stLine> vstLines(2000, stLine{0, 0, {0, 240}, {639, 240}});
    vstLines[0] = stLine{0, 0, {iMin, iMax}, {iMax, iMin}};
    for (size_t k = 0; k < vviFaceSets.size(); k++) {
        for (int32_t iVariant = 0; iVariant < 3; iVariant++) {
            Scene stScene(640, 480, 321.0f, 241.0f);
            stScene.viFaces = vviFaceSets[k];
            stScene.stIn.pstLines = iVariant == 1 ? vstLines.data() : NULL;
            stScene.stIn.iLineNum = iVariant == 1 ? (int32_t)vstLines.size() : 0;
            if (iVariant == 2) {
                stScene.stIn.stLens.fC1 = -5e-5f;   // a lens whose radius turns back inside the frame
                stScene.stIn.stLens.fC2 = 1e-9f;
            }
            const int32_t iRet = stScene.Solve();
            EXPECT_TRUE(iRet == LDC_MESH_OK || iRet == LDC_MESH_ERR_FOLD || iRet == LDC_MESH_ERR_NUMERIC);
            EXPECT_LE(stScene.stStats.iRounds, 6) << "set " << k << " variant " << iVariant;
            EXPECT_LE(stScene.stStats.iIterations, 80);   // the budget over all rounds
            bool bZero = true;
            for (float f : stScene.vfMesh) {
                ASSERT_TRUE(isfinite(f)) << "set " << k << " variant " << iVariant;
                bZero = bZero && f == 0.0f;
            }
            EXPECT_TRUE(iRet == LDC_MESH_OK || bZero);
        }
    }
    Scene stScene(640, 480, 321.0f, 241.0f);
    stScene.viFaces = {10, 181, 150, 301};
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
    stScene.viFaces.assign(&aaiFaces[0][0], &aaiFaces[0][0] + 8);
    ASSERT_EQ(stScene.Solve(), LDC_MESH_OK);
    const std::vector<float> vfFull = stScene.vfMesh, vfZero(vfFull.size(), 0.0f);
    const float fBound = FaceMeshStepBound(640, 480), fFull = MaxStep(vfFull, vfZero);
    ASSERT_GT(fFull, 2.0f * fBound);   // the bound matters here

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
            EXPECT_LT(MaxStep(vfShown, vfFull), 0.02f * fFull);
        }
    }
    EXPECT_EQ(stTrack.iNum, 0);
    EXPECT_EQ(vfShown, vfZero);
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

}  // namespace
