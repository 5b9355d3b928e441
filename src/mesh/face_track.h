// Face targets that hold still: a detector's rectangles jitter by a few pixels from frame to
// frame even on a static scene, and faces come and go at scene cuts. Fed every frame, the track
// keeps each face's rectangle still while the detector's edges stay within a dead band of it
// (and follows a face that moves beyond, a dead band behind), and fades faces in and out over a
// fixed number of frames, so that the mesh moves neither with the jitter nor in one jump. It
// also carries the strength the mesh could last be solved at: a correction that had to be
// weakened is brought back slowly, so that it does not flip between two strengths.
#ifndef LDC_MESH_FACE_TRACK_H
#define LDC_MESH_FACE_TRACK_H

#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_MAX_FACES

#define LDC_TRACK_FADE_FRAMES 8     // a face reaches full strength, or vanishes, over this many frames
#define LDC_TRACK_HOLD_FRAMES 16    // a weakened correction stays so at least this many frames ...
#define LDC_TRACK_RISE_STEPS 16     // ... and then regains its strength in this many steps

typedef struct tagST_FACE_TRACK_ITEM {
    int32_t aiRect[4];   // the held rectangle: left, top, right, bottom
    int32_t iFade;       // 1..LDC_TRACK_FADE_FRAMES
} tagST_FACE_TRACK_ITEM;

typedef struct tagST_FACE_TRACK {
    int32_t iNum;
    tagST_FACE_TRACK_ITEM astItems[LDC_MAX_FACES];
    int32_t bChanged;     // the last update changed the faces to correct (a still scene's do not)
    float fStrengthCap;   // share of the configured strength the mesh is solved at (0..1]
    int32_t iHold;        // frames left before the cap may rise
} tagST_FACE_TRACK;

void FaceTrackReset(tagST_FACE_TRACK *pstTrack);

// Feeds one frame's faces (at most LDC_MAX_FACES are read) and writes the faces to correct, with
// their fade (0..1] for the mesh's per-face strength; returns their number.
int32_t FaceTrackUpdate(tagST_FACE_TRACK *pstTrack, const int32_t (*paiFaces)[4], int32_t iFaceNum,
                        int32_t (*paiOut)[4], float *pfFade);

// The strength to solve this frame's mesh at, for a configured strength.
float FaceTrackStrength(const tagST_FACE_TRACK *pstTrack, float fConfigured);

// Tells the track the strength the mesh was solved at (below the one asked for when the solve had
// to weaken it): the cap drops to it at once and rises again only after a hold.
void FaceTrackSolved(tagST_FACE_TRACK *pstTrack, float fAsked, float fUsed);

#endif
