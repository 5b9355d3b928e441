#include "quality_mesh.h"

#include <math.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <random>

#include "linedetect/downscale.h"
#include "linedetect/line_detect.h"
#include "linedetect/sobel.h"
#include "records/ldc_para.h"

namespace {

// The scene's lines as a detector on the recording would report them: end points of the part
// inside the frame, in recorded pixels, longest first.
std::vector<stLine> RecordedSegments(const tagST_QS_SCENE &stScene)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    std::vector<std::pair<double, stLine>> vstSorted;
    for (const tagST_QS_LINE &stSceneLine : stScene.vstLines) {
        double dQx0, dQy0, dQx1, dQy1;
        if (!CorrectedOfRay(stLens, stSceneLine.adP0, &dQx0, &dQy0) || !CorrectedOfRay(stLens, stSceneLine.adP1, &dQx1, &dQy1)) {
            continue;
        }
        // Clip the corrected segment to the frame (Liang-Barsky).
        double dT0 = 0, dT1 = 1;
        const double adP[4] = {-(dQx1 - dQx0), dQx1 - dQx0, -(dQy1 - dQy0), dQy1 - dQy0};
        const double adQ[4] = {dQx0, stLens.iWidth - 1 - dQx0, dQy0, stLens.iHeight - 1 - dQy0};
        bool bVisible = true;
        for (int32_t k = 0; k < 4 && bVisible; k++) {
            if (adP[k] == 0) {
                bVisible = adQ[k] >= 0;
            } else if (adP[k] < 0) {
                dT0 = std::max(dT0, adQ[k] / adP[k]);
            } else {
                dT1 = std::min(dT1, adQ[k] / adP[k]);
            }
        }
        if (!bVisible || dT1 <= dT0) {
            continue;
        }
        double dPx0, dPy0, dPx1, dPy1;
        LensForward(stLens, dQx0 + dT0 * (dQx1 - dQx0), dQy0 + dT0 * (dQy1 - dQy0), &dPx0, &dPy0);
        LensForward(stLens, dQx0 + dT1 * (dQx1 - dQx0), dQy0 + dT1 * (dQy1 - dQy0), &dPx1, &dPy1);
        stLine stSeg;
        memset(&stSeg, 0, sizeof(stSeg));
        stSeg.Pnt0.x = (int32_t)lround(dPx0);
        stSeg.Pnt0.y = (int32_t)lround(dPy0);
        stSeg.Pnt1.x = (int32_t)lround(dPx1);
        stSeg.Pnt1.y = (int32_t)lround(dPy1);
        vstSorted.push_back({-hypot(dPx1 - dPx0, dPy1 - dPy0), stSeg});
    }
    std::stable_sort(vstSorted.begin(), vstSorted.end(),
                     [](const std::pair<double, stLine> &a, const std::pair<double, stLine> &b) { return a.first < b.first; });
    std::vector<stLine> vstLines;
    for (const auto &stItem : vstSorted) {
        vstLines.push_back(stItem.second);
    }
    return vstLines;
}

// Widened by an eighth of the size on every side, as the frame driver does.
std::vector<int32_t> WidenedFaces(const std::vector<ST_FACE_RECT> &vstFaces)
{
    std::vector<int32_t> viFaces;
    for (const ST_FACE_RECT &stFace : vstFaces) {
        const int32_t iW = stFace.iRight - stFace.iLeft + 1, iH = stFace.iBottom - stFace.iTop + 1;
        const int32_t aiRect[4] = {stFace.iLeft - (iW >> 3), stFace.iTop - (iH >> 3), stFace.iRight + (iW >> 3),
                                   stFace.iBottom + (iH >> 3)};
        viFaces.insert(viFaces.end(), aiRect, aiRect + 4);
    }
    return viFaces;
}

// The segments of the setup's line source (the vector keeps them alive for the input).
tagST_MESH_INPUT SceneInput(const tagST_QS_SCENE &stScene, const tagST_RADIAL_MODEL &stLens,
                            const tagST_QME_SETUP &stSetup, std::vector<stLine> *pvstLines)
{
    tagST_MESH_INPUT stIn;
    memset(&stIn, 0, sizeof(stIn));
    stIn.iWidth = stScene.stLens.iWidth;
    stIn.iHeight = stScene.stLens.iHeight;
    stIn.fFocal = (float)stScene.stLens.dFx;
    stIn.stLens = stLens;
    stIn.fStrength = stSetup.fStrength;
    stIn.iCells = stSetup.iCells;
    pvstLines->clear();
    if (stSetup.eLines == E_QME_LINES_SCENE) {
        *pvstLines = RecordedSegments(stScene);
    } else if (stSetup.eLines == E_QME_LINES_DETECTED && stSetup.pucRecorded != NULL) {
        *pvstLines = DetectedSegments(stSetup.pucRecorded, stIn.iWidth, stIn.iHeight);
    }
    stIn.iLineNum = (int32_t)pvstLines->size();
    stIn.pstLines = pvstLines->empty() ? NULL : pvstLines->data();
    return stIn;
}

// Frame after frame as a preview stream would run the mesh: through the face track (or the
// detector's faces straight), solved from the previous solution when the faces to correct
// changed, and shown through the step bound. Records the largest step of the mesh shown.
struct MeshSequence {
    tagST_MESH_INPUT stIn;
    tagST_MESH_GRID stGrid;
    std::vector<float> vfSolved, vfShown;
    std::vector<double> vdWork;
    tagST_FACE_TRACK stTrack;
    float fStrength;

    MeshSequence(const tagST_MESH_INPUT &stInput) : stIn(stInput), fStrength(stInput.fStrength)
    {
        FaceMeshGrid(stIn.iWidth, stIn.iHeight, stIn.iCells, &stGrid);
        vfSolved.assign(FaceMeshBytes(stIn.iWidth, stIn.iHeight, stIn.iCells) / sizeof(float), 0.0f);
        vfShown = vfSolved;
        vdWork.assign(FaceMeshWorkBytes(stIn.iWidth, stIn.iHeight, stIn.iCells) / sizeof(double) + 1, 0.0);
        FaceTrackReset(&stTrack);
    }

    void Solve()
    {
        stIn.pfWarmStart = vfSolved.data();
        tagST_MESH_STATS stStats;
        const int32_t iRet = FaceMeshSolve(&stIn, vfSolved.data(), (uint8_t *)vdWork.data(),
                                           (uint32_t)(vdWork.size() * sizeof(double)), &stStats);
        if (stStats.iRounds > 0) {
            FaceTrackSolved(&stTrack, stIn.fStrength, iRet == LDC_MESH_OK ? stStats.fStrength : 0.0f);
        }
    }

    // One frame with these (widened) faces; returns the largest step of the mesh shown.
    double Frame(const std::vector<int32_t> &viFaces, bool bTracked)
    {
        int32_t aaiOut[LDC_MAX_FACES][4];
        float afFade[LDC_MAX_FACES];
        const int32_t iNum = (int32_t)viFaces.size() / 4;
        if (!bTracked) {
            stIn.iFaceNum = iNum;
            stIn.paiFaces = (const int32_t(*)[4])viFaces.data();
            stIn.pfFaceStrength = NULL;
            Solve();
            double dStep = 0;
            for (size_t i = 0; i < vfSolved.size(); i += 2) {
                dStep = std::max(dStep, (double)hypotf(vfSolved[i] - vfShown[i], vfSolved[i + 1] - vfShown[i + 1]));
            }
            vfShown = vfSolved;
            return dStep;
        }
        stIn.iFaceNum = FaceTrackUpdate(&stTrack, (const int32_t(*)[4])viFaces.data(), iNum, aaiOut, afFade);
        stIn.paiFaces = (const int32_t(*)[4])aaiOut;
        stIn.pfFaceStrength = afFade;
        stIn.fStrength = FaceTrackStrength(&stTrack, fStrength);
        if (stTrack.bChanged) {
            Solve();
        }
        return FaceMeshFollow(&stGrid, vfSolved.data(), vfShown.data(), FaceMeshStepBound(stIn.iWidth, stIn.iHeight));
    }
};

// Largest step of a run of frames, and the frames until the steps stay under 0.05 pixels.
void RunFrames(MeshSequence *pstSeq, const std::vector<int32_t> &viFaces, int32_t iFrames, double *pdMax,
               int32_t *piSettled)
{
    *pdMax = 0;
    *piSettled = 0;
    for (int32_t f = 0; f < iFrames; f++) {
        const double dStep = pstSeq->Frame(viFaces, true);
        *pdMax = std::max(*pdMax, dStep);
        if (dStep > 0.05) {
            *piSettled = f + 1;
        }
    }
}

// The calling thread's processor time in milliseconds: the solve's own cost, whatever else runs
// on the machine.
double ThreadMillis()
{
    timespec stNow;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &stNow);
    return (double)stNow.tv_sec * 1e3 + (double)stNow.tv_nsec * 1e-6;
}

}  // namespace

std::vector<stLine> DetectedSegments(const uint8_t *pucLuma, int32_t iWidth, int32_t iHeight)
{
    const int32_t iFactor = LineDetectFactor(iWidth, iHeight);
    const int32_t iW = iWidth / iFactor, iH = iHeight / iFactor;
    std::vector<uint8_t> vucImage((size_t)iW * iH), vucEdge((size_t)iW * iH), vucScratch(HoughScratchSize(iW, iH));
    std::vector<stLine> vstLines(LDC_HOUGH_MAX_LINES);
    DownScaleData_NEON(pucLuma, iFactor, iWidth, iHeight, vucImage.data());
    CalcSobel_NEON(vucImage.data(), vucEdge.data(), iW, iH, 100);
    const int32_t iMinSide = std::min(iW, iH);
    const int32_t iCount = LineDetectionHough(vucEdge.data(), iW, iH, vstLines.data(), iMinSide / 5, vucScratch.data());
    const int32_t iKept = iCount < 1 ? 0
                                     : JoinDetectedLines(vstLines.data(), iCount, vucScratch.data(), 0.5f,
                                                         (int32_t)(0.5f * (float)iMinSide));
    vstLines.resize((size_t)iKept);
    for (stLine &stSegment : vstLines) {
        stSegment.Pnt0.x *= iFactor;
        stSegment.Pnt0.y *= iFactor;
        stSegment.Pnt1.x *= iFactor;
        stSegment.Pnt1.y *= iFactor;
    }
    return vstLines;
}

void SolveSceneMesh(const tagST_QS_SCENE &stScene, const tagST_QME_SETUP &stSetup, tagST_QME_MESH *pstMesh)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.afCameraMatrix[0] = (float)stLens.dFx;
    stPara.afCameraMatrix[2] = (float)stLens.dU0;
    stPara.afCameraMatrix[5] = (float)stLens.dV0;
    for (int32_t k = 0; k < 3; k++) {
        stPara.afDistortionCoefficients[k] = (float)stLens.adK[k];
    }
    GetRadialModel(&stPara, 1, &pstMesh->stLens);
    FaceMeshGrid(stLens.iWidth, stLens.iHeight, stSetup.iCells, &pstMesh->stGrid);

    const std::vector<int32_t> viFaces = WidenedFaces(stScene.vstFaces);
    std::vector<stLine> vstLines;
    tagST_MESH_INPUT stIn = SceneInput(stScene, pstMesh->stLens, stSetup, &vstLines);
    pstMesh->iLines = stIn.iLineNum;
    stIn.iFaceNum = (int32_t)stScene.vstFaces.size();
    stIn.paiFaces = (const int32_t(*)[4])viFaces.data();

    const uint32_t uWork = FaceMeshWorkBytes(stLens.iWidth, stLens.iHeight, stSetup.iCells);
    std::vector<double> vdWork(uWork / sizeof(double) + 1);
    pstMesh->vfMesh.assign(FaceMeshBytes(stLens.iWidth, stLens.iHeight, stSetup.iCells) / sizeof(float), 0.0f);
    double dStart = ThreadMillis();
    pstMesh->iStatus = FaceMeshSolve(&stIn, pstMesh->vfMesh.data(), (uint8_t *)vdWork.data(), uWork, &pstMesh->stColdStats);
    pstMesh->dColdMs = ThreadMillis() - dStart;
    stIn.pfWarmStart = pstMesh->vfMesh.data();
    dStart = ThreadMillis();
    FaceMeshSolve(&stIn, pstMesh->vfMesh.data(), (uint8_t *)vdWork.data(), uWork, &pstMesh->stWarmStats);
    pstMesh->dWarmMs = ThreadMillis() - dStart;
}

void MeasureTemporal(const tagST_QS_SCENE &stScene, const tagST_QME_SETUP &stSetup, tagST_QME_TEMPORAL *pstTemporal)
{
    tagST_QME_MESH stMesh;
    SolveSceneMesh(stScene, stSetup, &stMesh);
    std::vector<stLine> vstLines;
    const tagST_MESH_INPUT stIn = SceneInput(stScene, stMesh.stLens, stSetup, &vstLines);
    const std::vector<int32_t> viFaces = WidenedFaces(stScene.vstFaces);
    const int32_t iFrames = 3 * LDC_TRACK_FADE_FRAMES;
    std::mt19937 stRandom(15);
    std::uniform_int_distribution<int32_t> stJitter(-3, 3);
    auto jittered = [&]() {
        std::vector<int32_t> vi = viFaces;
        for (int32_t &i : vi) {
            i += stJitter(stRandom);
        }
        return vi;
    };
    for (int32_t bTracked = 0; bTracked < 2; bTracked++) {
        MeshSequence stSeq(stIn);
        double dMax = 0;
        for (int32_t f = 0; f < 2 * iFrames; f++) {
            const double dStep = stSeq.Frame(jittered(), bTracked != 0);
            // Counted once the faces are in: fade and first solve are the cut's business.
            dMax = f >= iFrames ? std::max(dMax, dStep) : dMax;
        }
        (bTracked ? pstTemporal->dJitterTracked : pstTemporal->dJitterRaw) = dMax;
    }
    pstTemporal->dBound = FaceMeshStepBound(stIn.iWidth, stIn.iHeight);
    MeshSequence stCut(stIn);
    // Long enough for the step bound to bring in the largest correction.
    const int32_t iCutFrames = 8 * LDC_TRACK_FADE_FRAMES;
    RunFrames(&stCut, viFaces, iCutFrames, &pstTemporal->dCutInStep, &pstTemporal->iCutInFrames);
    RunFrames(&stCut, std::vector<int32_t>(), iCutFrames, &pstTemporal->dCutOutStep, &pstTemporal->iCutOutFrames);
    // The border face (the second) walks inward 10 pixels a frame.
    MeshSequence stWalk(stIn);
    std::vector<int32_t> viWalk = viFaces;
    double dUnused;
    int32_t iUnused;
    RunFrames(&stWalk, viWalk, iFrames, &dUnused, &iUnused);
    pstTemporal->dMovingStep = 0;
    for (int32_t f = 0; f < iFrames; f++) {
        viWalk[4] += 10;
        viWalk[6] += 10;
        pstTemporal->dMovingStep = std::max(pstTemporal->dMovingStep, stWalk.Frame(viWalk, true));
    }
}

QualityRenderer MeshRenderer(const tagST_QME_MESH &stMesh, int32_t iW, int32_t iH)
{
    return [&stMesh, iW, iH](const uint8_t *pucIn, uint8_t *pucOut) {
        std::vector<float> vfSx((size_t)iW * iH), vfSy((size_t)iW * iH);
        for (int32_t y = 0; y < iH; y++) {
            for (int32_t x = 0; x < iW; x++) {
                float fDx, fDy;
                FaceMeshDisplacement(&stMesh.stGrid, stMesh.vfMesh.data(), (float)x, (float)y, &fDx, &fDy);
                const float fQx = (float)x + fDx - stMesh.stLens.fCx;
                const float fQy = (float)y + fDy - stMesh.stLens.fCy;
                const float fF = RadialFactorSerial(&stMesh.stLens, fQx * fQx + fQy * fQy);
                const size_t i = (size_t)y * iW + x;
                vfSx[i] = std::min(std::max(stMesh.stLens.fCx + fF * fQx, 0.0f), (float)(iW - 1));
                vfSy[i] = std::min(std::max(stMesh.stLens.fCy + fF * fQy, 0.0f), (float)(iH - 1));
            }
        }
        for (size_t i = 0; i < vfSx.size(); i++) {
            const int32_t iX = std::min((int32_t)vfSx[i], iW - 2), iY = std::min((int32_t)vfSy[i], iH - 2);
            const float fA = vfSx[i] - iX, fB = vfSy[i] - iY;
            const uint8_t *puc = pucIn + (size_t)iY * iW + iX;
            const float fV = (1 - fB) * ((1 - fA) * puc[0] + fA * puc[1]) + fB * ((1 - fA) * puc[iW] + fA * puc[iW + 1]);
            pucOut[i] = (uint8_t)(fV + 0.5f);
        }
        // Chroma pairs (NV21) from the nearest recorded pair of each block's top-left pixel.
        uint8_t *pucVu = pucOut + (size_t)iW * iH;
        const uint8_t *pucInVu = pucIn + (size_t)iW * iH;
        for (int32_t y = 0; y < iH; y += 2) {
            for (int32_t x = 0; x < iW; x += 2) {
                const size_t i = (size_t)y * iW + x;
                const int32_t iCx = std::min((int32_t)(vfSx[i] * 0.5f + 0.5f), iW / 2 - 1);
                const int32_t iCy = std::min((int32_t)(vfSy[i] * 0.5f + 0.5f), iH / 2 - 1);
                pucVu[(size_t)(y / 2) * iW + x] = pucInVu[(size_t)iCy * iW + 2 * iCx];
                pucVu[(size_t)(y / 2) * iW + x + 1] = pucInVu[(size_t)iCy * iW + 2 * iCx + 1];
            }
        }
    };
}
