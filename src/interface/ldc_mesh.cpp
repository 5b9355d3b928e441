#include "interface/ldc_mesh.h"

#include "boundscheck/bounds_check.h"
#include "geometry/lens_model.h"
#include "linedetect/line_detect.h"
#include "mesh/face_mesh.h"
#include "mesh/mesh_render.h"
#include "platform/platform.h"

// The state of a frame of the instance's size and orientation: a track and a mesh of another
// size or orientation are dropped.
static tagST_MESH_STATE *FrameState(const tagST_LDC_PARA *pstPara)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    tagST_MESH_STATE *pstState = LdcMeshState(pstPara);
    if (pstState->iWidth != iW || pstState->iHeight != iH) {
        const uint32_t uMeshBytes = LdcMeshBytes(iW, iH);
        (void)memset_s(LdcMeshSolved(pstPara), uMeshBytes, 0, uMeshBytes);
        (void)memset_s(LdcMeshShown(pstPara), uMeshBytes, 0, uMeshBytes);
        FaceTrackReset(&pstState->stTrack);
        pstState->iWidth = iW;
        pstState->iHeight = iH;
        pstState->bWarm = 0;
        pstState->bShown = 0;
    }
    return pstState;
}

// Feeds the track this frame's faces. On the first frame they are fed until they reach full
// strength: nothing was shown before, so a fade-in would only weaken a photo's correction.
static int32_t TrackFaces(tagST_MESH_STATE *pstState, const tagST_LDC_PARA *pstPara, int32_t bFaces,
                          int32_t (*paiFaces)[4], float *pfFade)
{
    const int32_t (*paiIn)[4] = bFaces ? pstPara->aiFaceRect : NULL;
    const int32_t iIn = bFaces ? pstPara->iFaceNum : 0;
    const int32_t iFeeds = pstState->bShown ? 1 : LDC_TRACK_FADE_FRAMES;
    int32_t iTracked = 0;
    for (int32_t i = 0; i < iFeeds; i++) {
        iTracked = FaceTrackUpdate(&pstState->stTrack, paiIn, iIn, paiFaces, pfFade);
    }
    return iTracked;
}

void PlanFaceMesh(tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_LDC_PLAN *pstPlan)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    tagST_MESH_STATE *pstState = FrameState(pstPara);
    float *pfSolved = LdcMeshSolved(pstPara);
    float *pfShown = LdcMeshShown(pstPara);
    FaceMeshGrid(iW, iH, 0, &pstPlan->stMeshGrid);
    // The mesh takes the global correction's place too: no line check, no global mode.
    pstPara->iFDCMode = 0;
    const int32_t bFaces = (pstPara->iFDCEnable == 1);
    int32_t aaiFaces[LDC_MAX_FACES][4];
    float afFade[LDC_MAX_FACES];
    const int32_t iTracked = TrackFaces(pstState, pstPara, bFaces, aaiFaces, afFade);
    pstPlan->iMeshFaces = iTracked;
    // A face the detector lost fades out over the next frames rather than leaving the frame in one
    // jump; every other refusal stands as the checks made it.
    if (!bFaces && !(pstPlan->eRefusal == LDC_REFUSAL_NO_FACE && iTracked > 0)) {
        pstPara->iLDCEnable = 0;
        return;
    }
    pstPara->iLDCEnable = 1;
    tagST_MESH_INPUT stIn;
    (void)memset_s(&stIn, sizeof(stIn), 0, sizeof(stIn));
    stIn.iWidth = iW;
    stIn.iHeight = iH;
    stIn.fFocal = pstPara->afCameraMatrix[0];
    GetRadialModel(pstPara, 1, &stIn.stLens);
    stIn.iFaceNum = iTracked;
    stIn.paiFaces = aaiFaces;
    stIn.pfFaceStrength = afFade;
    stIn.fStrength = FaceTrackStrength(&pstState->stTrack, pstPara->fCorrectionDegree);
    // A still scene (the track held every face) keeps its solution: no solve, the same mesh, and
    // no line finding either.
    int32_t iRet = LDC_MESH_OK;
    if (pstState->stTrack.bChanged || !pstState->bWarm) {
        // The line finder's segments, in the line check's part of the working buffer (free while
        // the mesh plans), keep the background's edges next to a face straight. Opt-in: the
        // finder is not mirror-symmetric and costs time, and the solution then depends on the
        // frame the faces last changed in.
        if (pstPara->iMeshLines == 1 && pucLuma != NULL && iTracked > 0) {
            stIn.iLineNum = FindFrameLines(pucLuma, pstPara);
            stIn.pstLines = (const stLine *)pstPara->pucWorkBuf;
        }
        stIn.pfWarmStart = pstState->bWarm ? pfSolved : NULL;
        iRet = FaceMeshSolve(&stIn, pfSolved, LdcMeshScratch(pstPara), LdcMeshScratchBytes(iW, iH), &pstPlan->stMeshStats);
        if (pstPlan->stMeshStats.iRounds > 0) {
            FaceTrackSolved(&pstState->stTrack, stIn.fStrength,
                            iRet == LDC_MESH_OK ? pstPlan->stMeshStats.fStrength : 0.0f);
        }
        pstState->bWarm = (iRet == LDC_MESH_OK && pstPlan->stMeshStats.iRounds > 0);
    }
    pstPlan->iMeshStatus = iRet;
    if (iRet != LDC_MESH_OK) {
        // The solve zeroed its mesh and the frame shows the lens alone: the next mesh shown
        // follows from there, a bounded step at a time.
        const uint32_t uMeshBytes = LdcMeshBytes(iW, iH);
        (void)memset_s(pfShown, uMeshBytes, 0, uMeshBytes);
        LdcLog(LDC_LOG_ERROR, "The face mesh failed (%d), only the lens is corrected!\n", iRet);
        pstPlan->eRefusal = LDC_REFUSAL_MESH;
        pstPlan->ePath = LDC_PATH_LENS;
        return;
    }
    if (pstState->bShown) {
        pstPlan->fMeshStep = FaceMeshFollow(&pstPlan->stMeshGrid, pfSolved, pfShown, FaceMeshStepBound(iW, iH));
    } else {
        (void)memcpy_s(pfShown, LdcMeshBytes(iW, iH), pfSolved, FaceMeshBytes(iW, iH, 0));
        pstState->bShown = 1;
    }
    LdcLog(LDC_LOG_INFO, "The face mesh corrects %d faces at strength %.2f in %d iterations\n", iTracked,
           (double)pstPlan->stMeshStats.fStrength, pstPlan->stMeshStats.iIterations);
    // The mesh holds the frame's edge where lens correction alone puts it: nothing of the field of
    // view is lost, whatever FOVLost allows.
    pstPlan->iFovLost = 0;
    LdcLog(LDC_LOG_INFO, "FOV is lost %d%%\n", pstPlan->iFovLost);
    pstPlan->ePath = LDC_PATH_MESH;
    pstPlan->pfMesh = pfShown;
}
