#include "mesh/face_track.h"

#include <string.h>

#define LDC_TRACK_BAND_MIN 4     // dead band of an edge, in pixels at least ...
#define LDC_TRACK_BAND_SHARE 32  // ... and a 1/32 of the face's size

void FaceTrackReset(tagST_FACE_TRACK *pstTrack)
{
    memset(pstTrack, 0, sizeof(*pstTrack));
    pstTrack->bChanged = 1;
    pstTrack->fStrengthCap = 1.0f;
}

static int64_t Abs64(int64_t l)
{
    return l < 0 ? -l : l;
}

static int32_t Saturate32(int64_t l)
{
    return l > INT32_MAX ? INT32_MAX : (l < INT32_MIN ? INT32_MIN : (int32_t)l);
}

// The tracked face a detected one continues: the nearest unclaimed centre within half the
// detected face's larger side, or -1.
static int32_t FindMatch(const tagST_FACE_TRACK *pstTrack, const int32_t *piFace, const uint8_t *pucClaimed)
{
    const int64_t lCx = (int64_t)piFace[0] + piFace[2], lCy = (int64_t)piFace[1] + piFace[3];   // doubled
    const int64_t lW = (int64_t)piFace[2] - piFace[0], lH = (int64_t)piFace[3] - piFace[1];
    int64_t lBest = lW > lH ? lW : lH;   // the gate, doubled like the centres
    int32_t iBest = -1;
    for (int32_t j = 0; j < pstTrack->iNum; j++) {
        const int32_t *piHeld = pstTrack->astItems[j].aiRect;
        const int64_t lD = Abs64((int64_t)piHeld[0] + piHeld[2] - lCx) + Abs64((int64_t)piHeld[1] + piHeld[3] - lCy);
        if (!pucClaimed[j] && lD < lBest) {
            lBest = lD;
            iBest = j;
        }
    }
    return iBest;
}

// Each edge stays where it is while the detected edge lies within the dead band, and otherwise
// follows it to the band's edge.
static void FollowEdges(int32_t *piHeld, const int32_t *piFace)
{
    const int64_t lSize = ((int64_t)piHeld[2] - piHeld[0]) > ((int64_t)piHeld[3] - piHeld[1])
                              ? (int64_t)piHeld[2] - piHeld[0]
                              : (int64_t)piHeld[3] - piHeld[1];
    const int64_t lBand = lSize / LDC_TRACK_BAND_SHARE > LDC_TRACK_BAND_MIN ? lSize / LDC_TRACK_BAND_SHARE
                                                                            : LDC_TRACK_BAND_MIN;
    for (int32_t k = 0; k < 4; k++) {
        const int64_t lDiff = (int64_t)piFace[k] - piHeld[k];
        if (lDiff > lBand) {
            piHeld[k] = Saturate32(piFace[k] - lBand);
        } else if (lDiff < -lBand) {
            piHeld[k] = Saturate32(piFace[k] + lBand);
        }
    }
}

int32_t FaceTrackUpdate(tagST_FACE_TRACK *pstTrack, const int32_t (*paiFaces)[4], int32_t iFaceNum,
                        int32_t (*paiOut)[4], float *pfFade)
{
    uint8_t aucClaimed[LDC_MAX_FACES] = {0};
    int32_t aiNew[LDC_MAX_FACES];
    tagST_FACE_TRACK_ITEM astBefore[LDC_MAX_FACES];
    const int32_t iBefore = pstTrack->iNum;
    memcpy(astBefore, pstTrack->astItems, sizeof(astBefore));
    int32_t iNew = 0;
    const int32_t iNum = paiFaces == NULL ? 0 : (iFaceNum < LDC_MAX_FACES ? iFaceNum : LDC_MAX_FACES);
    for (int32_t i = 0; i < iNum; i++) {
        const int32_t *piFace = paiFaces[i];
        if ((int64_t)piFace[2] - piFace[0] < 1 || (int64_t)piFace[3] - piFace[1] < 1) {
            continue;   // not a rectangle
        }
        const int32_t j = FindMatch(pstTrack, piFace, aucClaimed);
        if (j < 0) {
            aiNew[iNew++] = i;
            continue;
        }
        aucClaimed[j] = 1;
        tagST_FACE_TRACK_ITEM *pstItem = &pstTrack->astItems[j];
        FollowEdges(pstItem->aiRect, piFace);
        pstItem->iFade += pstItem->iFade < LDC_TRACK_FADE_FRAMES ? 1 : 0;
    }
    // Faces no longer detected fade out where they were last held; then new faces fade in.
    int32_t iKept = 0;
    for (int32_t j = 0; j < pstTrack->iNum; j++) {
        tagST_FACE_TRACK_ITEM stItem = pstTrack->astItems[j];
        stItem.iFade -= aucClaimed[j] ? 0 : 1;
        if (stItem.iFade > 0) {
            pstTrack->astItems[iKept++] = stItem;
        }
    }
    pstTrack->iNum = iKept;
    for (int32_t n = 0; n < iNew && pstTrack->iNum < LDC_MAX_FACES; n++) {
        tagST_FACE_TRACK_ITEM *pstItem = &pstTrack->astItems[pstTrack->iNum++];
        memcpy(pstItem->aiRect, paiFaces[aiNew[n]], sizeof(pstItem->aiRect));
        pstItem->iFade = 1;
    }
    for (int32_t j = 0; j < pstTrack->iNum; j++) {
        memcpy(paiOut[j], pstTrack->astItems[j].aiRect, sizeof(paiOut[j]));
        pfFade[j] = (float)pstTrack->astItems[j].iFade / (float)LDC_TRACK_FADE_FRAMES;
    }
    pstTrack->bChanged = pstTrack->iNum != iBefore ||
                         memcmp(astBefore, pstTrack->astItems, (size_t)iBefore * sizeof(astBefore[0])) != 0;
    // A cap being held counts down; one free to rise does so by a step each frame.
    if (pstTrack->iHold > 0) {
        pstTrack->iHold--;
    } else if (pstTrack->fStrengthCap < 1.0f) {
        const float fCap = pstTrack->fStrengthCap + 1.0f / (float)LDC_TRACK_RISE_STEPS;
        pstTrack->fStrengthCap = fCap < 1.0f ? fCap : 1.0f;
        pstTrack->bChanged = 1;
    }
    return pstTrack->iNum;
}

float FaceTrackStrength(const tagST_FACE_TRACK *pstTrack, float fConfigured)
{
    return fConfigured * pstTrack->fStrengthCap;
}

void FaceTrackSolved(tagST_FACE_TRACK *pstTrack, float fAsked, float fUsed)
{
    if (fAsked > 0.0f && fUsed < fAsked) {
        pstTrack->fStrengthCap *= fUsed > 0.0f ? fUsed / fAsked : 0.0f;
        pstTrack->iHold = LDC_TRACK_HOLD_FRAMES;
    }
}
