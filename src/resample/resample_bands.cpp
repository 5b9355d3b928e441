// What both samplers share around them: the column table, the band split, the four pinned
// workers with their single-thread fallback, and the band loop that asks the stage for positions
// and hands them to a sampler.
#include <pthread.h>

#include "boundscheck/bounds_check.h"
#include "resample/resample.h"
#include "runtime/runtime.h"

// Groups mapped per call of the stage's position function: 2 KiB of positions, which stay in the
// first-level cache between the mapping and the sampling.
#define RESAMPLE_RUN_GROUPS 64

typedef void (*ResampleSampler)(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                                const tagST_GROUP_POS *pstPos, int32_t iCount);

void ResampleFillColumns(uint8_t *pucTable, int32_t iX, int32_t iEntries)
{
    const size_t uBytes = (size_t)iEntries * RESAMPLE_QUAD_BYTES;
    for (int32_t k = 0; k < iEntries; k++) {
        const int32_t iXk = iX + RESAMPLE_GROUP_COLS * k;
        const float afQuad[4] = {(float)iXk, (float)(iXk + 2), (float)(iXk + 4), (float)(iXk + 6)};
        const size_t uAt = (size_t)k * RESAMPLE_QUAD_BYTES;
        (void)memcpy_s(pucTable + uAt, uBytes - uAt, afQuad, sizeof(afQuad));
    }
}

void ResampleAreaJob(int32_t iPlanar, int32_t iWidth, int32_t iHeight, uint8_t *const *ppucSrc,
                     uint8_t *const *ppucDst, const int32_t *piArea, uint8_t *pucColumns, int32_t *piThreadState,
                     int32_t *piThreadMask, tagST_RESAMPLE_JOB *pstJob)
{
    const int32_t iCols = piArea[2] + 1 - piArea[0];
    if (iCols > 0) {
        // An empty rectangle (a collapsed valid area) has no columns.
        ResampleFillColumns(pucColumns, piArea[0], (iCols + RESAMPLE_GROUP_COLS - 1) / RESAMPLE_GROUP_COLS);
    }
    (void)memset_s(pstJob, sizeof(*pstJob), 0, sizeof(*pstJob));
    tagST_RESAMPLE_PLANES *pstPlanes = &pstJob->stPlanes;
    pstPlanes->pucSrcY = ppucSrc[0];
    pstPlanes->pucSrcU = ppucSrc[1];
    pstPlanes->pucSrcV = ppucSrc[2];
    pstPlanes->pucDstY = ppucDst[0];
    pstPlanes->pucDstU = ppucDst[1];
    pstPlanes->pucDstV = ppucDst[2];
    pstPlanes->iWidth = iWidth;
    pstPlanes->iHeight = iHeight;
    pstPlanes->bPlanar = iPlanar ? 1 : 0;
    pstPlanes->iChromaRowWidth = iWidth;   // also for a planar frame of odd width: its rows as they always were
    pstJob->iLeft = piArea[0];
    pstJob->iTop = piArea[1];
    pstJob->iCols = iCols;
    pstJob->iRows = piArea[3] + 1 - piArea[1];
    pstJob->pucColumns = pucColumns;
    pstJob->piThreadState = piThreadState;
    pstJob->piThreadMask = piThreadMask;
}

void ResampleBandRows(int32_t iTop, int32_t iRows, int32_t iIndex, int32_t iCount, int32_t *piStart,
                      int32_t *piEnd)
{
    const int32_t iShare = (iRows / iCount) & ~1;
    *piStart = iTop + iIndex * iShare;
    *piEnd = (iIndex == iCount - 1) ? iTop + iRows : *piStart + iShare;
}

static void ResampleBand(const tagST_RESAMPLE_JOB *pstJob, ResampleSampler pfnSample, int32_t iIndex,
                         int32_t iCount)
{
    // The slot is independent of the band.
    ClaimAffinitySlot(pstJob->piThreadState, pstJob->piThreadMask, iCount);
    int32_t iStart;
    int32_t iEnd;
    ResampleBandRows(pstJob->iTop, pstJob->iRows, iIndex, iCount, &iStart, &iEnd);
    const int32_t iGroups = pstJob->iCols / RESAMPLE_GROUP_COLS;
    tagST_GROUP_POS astPos[RESAMPLE_RUN_GROUPS];
    for (int32_t iY = iStart; iY < iEnd; iY += 2) {
        tagST_RESAMPLE_ROW stRow = {iY, {0.0f, 0.0f, 0.0f, 0.0f}};
        for (int32_t g = 0; g < iGroups; g += RESAMPLE_RUN_GROUPS) {
            const int32_t iRun = ResampleMinS32(RESAMPLE_RUN_GROUPS, iGroups - g);
            pstJob->pfnGroups(pstJob->pStage, &stRow, g, iRun, pstJob->pucColumns + (size_t)g * RESAMPLE_QUAD_BYTES,
                              astPos);
            pfnSample(&pstJob->stPlanes, iY, pstJob->iLeft + RESAMPLE_GROUP_COLS * g, astPos, iRun);
        }
    }
    // The columns right of the last whole group, two at a time, after all the groups of the band.
    const int32_t iTailX = pstJob->iLeft + RESAMPLE_GROUP_COLS * iGroups;
    const int32_t iBlocks = (pstJob->iLeft + pstJob->iCols - iTailX + 1) / 2;
    for (int32_t iY = iStart; iBlocks > 0 && iY < iEnd; iY += 2) {
        tagST_GROUP_POS stPos;
        pstJob->pfnTail(pstJob->pStage, iY, iTailX, iBlocks, &stPos);
        ResampleNearestBlocks(&pstJob->stPlanes, iY, iTailX, &stPos, iBlocks);
    }
}

typedef struct tagST_RESAMPLE_RUN {
    const tagST_RESAMPLE_JOB *pstJob;
    ResampleSampler pfnSample;
} tagST_RESAMPLE_RUN;

static void *ResampleThread(void *pArg)
{
    const tagST_THREAD_PARAM *pstThread = (const tagST_THREAD_PARAM *)pArg;
    const tagST_RESAMPLE_RUN *pstRun = (const tagST_RESAMPLE_RUN *)pstThread->arg;
    // Always four bands: the count belongs to the stage, not to the thread record.
    ResampleBand(pstRun->pstJob, pstRun->pfnSample, pstThread->index, LDC_THREAD_NUM);
    pthread_exit(NULL);
}

static int32_t RunBands(const tagST_RESAMPLE_JOB *pstJob, ResampleSampler pfnSample)
{
    tagST_RESAMPLE_JOB stJob = *pstJob;
    ResamplePreparePlanes(&stJob.stPlanes);
    for (int32_t i = 0; i < LDC_THREAD_NUM; i++) {
        stJob.piThreadMask[i] = 1 << i;
        stJob.piThreadState[i] = 0;
    }
    const tagST_RESAMPLE_RUN stRun = {&stJob, pfnSample};
    if (create_thread_lock(ResampleThread, (void *)&stRun, LDC_THREAD_NUM) != 0) {
        // The workers could not be started: one band covering the whole rectangle, here.
        ResampleBand(&stJob, pfnSample, 0, 1);
    }
    return 0;
}

int32_t ResampleFrame(const tagST_RESAMPLE_JOB *pstJob)
{
    return RunBands(pstJob, ResampleGroups);
}

int32_t ResampleFrame_neon(const tagST_RESAMPLE_JOB *pstJob)
{
    return RunBands(pstJob, ResampleGroups_neon);
}
