#include "runtime/runtime.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include "boundscheck/bounds_check.h"
#include "platform/platform.h"

void *LDC_Malloc(size_t uSize)
{
    return malloc(uSize);
}

void LDC_Free(void *p)
{
    free(p);
}

uintptr_t MemoMalloc(uint32_t uSize, uint32_t uAlign, int32_t *piOffset)
{
    // A sum beyond 32 bits saturates to 0xFFFFFFFF, which no 32-bit process can allocate; refuse
    // it outright so that 64-bit builds answer the same instead of zero-filling 4 GiB.
    const bool bSaturated = uSize > 0xFFFFFFFFu - uAlign;
    const uint32_t uTotal = bSaturated ? 0xFFFFFFFFu : uSize + uAlign;
    uint8_t *pucBlock = bSaturated ? NULL : (uint8_t *)malloc(uTotal);
    if (pucBlock == NULL) {
        *piOffset = 0;
        return 0;
    }
    // The capacity check of memset_s refuses blocks above 2 GiB; fill those in pieces.
    for (uint32_t uDone = 0; uDone < uTotal;) {
        const uint32_t uPiece = (uTotal - uDone > 0x40000000u) ? 0x40000000u : uTotal - uDone;
        (void)memset_s(pucBlock + uDone, uPiece, 0, uPiece);
        uDone += uPiece;
    }
    const uintptr_t uBlock = (uintptr_t)pucBlock;
    const uintptr_t uAligned = (uBlock + uAlign - 1) & ~(uintptr_t)(uAlign - 1);
    // An already aligned block still gets a whole alignment of slack in front.
    *piOffset = (uAligned == uBlock) ? (int32_t)uAlign : (int32_t)(uAligned - uBlock);
    return uBlock;
}

void MemoFree(uintptr_t uBlock)
{
    if (uBlock != 0) {
        free((void *)uBlock);
    }
}

int32_t set_thread_affinity_mask(int32_t iMask)
{
    const int32_t iTid = LdcGetTid();
    if (iMask == -1) {
        return 0;
    }
    const int32_t iRet = LdcSchedSetAffinity(iTid, &iMask);
    if (iRet != 0) {
        // Deliberately on standard output, not in the log: a worker simply runs unpinned.
        printf("warning: setaffinity is failed.: mask=%d err=%d tid = %d \n", iMask, errno, iTid);
    }
    return iRet;
}

void ClaimAffinitySlot(int32_t *piState, const int32_t *piMask, int32_t iCount)
{
    // Relaxed atomic loads and stores: the unlocked claim as designed, without a data race.
    for (int32_t i = 0; i < iCount && i < LDC_THREAD_NUM; i++) {
        if (__atomic_load_n(&piState[i], __ATOMIC_RELAXED) == 0) {
            __atomic_store_n(&piState[i], 1, __ATOMIC_RELAXED);
            (void)set_thread_affinity_mask(piMask[i]);
            return;
        }
    }
    (void)set_thread_affinity_mask(-1);
}

int32_t create_thread_lock(LdcThreadRoutine pfnRoutine, void *pArg, int32_t iNum)
{
    tagST_THREAD_PARAM *pstThreads =
        (tagST_THREAD_PARAM *)malloc((size_t)(iNum > 0 ? iNum : 0) * sizeof(tagST_THREAD_PARAM));
    if (pstThreads == NULL && iNum > 0) {
        LdcLog(LDC_LOG_ERROR, "%s", "Buffer malloc Failed!");
        return -1;
    }
    if (iNum < 1) {
        free(pstThreads);
        return 0;
    }
    for (int32_t i = 0; i < iNum; i++) {
        pstThreads[i].index = i;
        pstThreads[i].arg = pArg;
        const int iErr = pthread_create(&pstThreads[i].thread, NULL, pfnRoutine, &pstThreads[i]);
        LdcLog(LDC_LOG_INFO, "LDC Thread Create i = %d!\n", i);
        if (iErr != 0) {
            LdcLog(LDC_LOG_ERROR, "Thread Create Failed i = %d!!!\n", i);
            for (int32_t j = 0; j < i; j++) {
                pthread_join(pstThreads[j].thread, NULL);
            }
            free(pstThreads);
            return -1;
        }
    }
    for (int32_t i = 0; i < iNum; i++) {
        // Written before the join: it announces the wait rather than confirming the end.
        LdcLog(LDC_LOG_INFO, "LDC Thread Exit i = %d!\n", i);
        pthread_join(pstThreads[i].thread, NULL);
    }
    free(pstThreads);
    return 0;
}

// A worker of create_thread_unlock owns a heap copy of its record: the caller returns at once,
// so the record must not live in memory that the caller frees.
typedef struct tagST_DETACHED_START {
    LdcThreadRoutine pfnRoutine;
    tagST_THREAD_PARAM stParam;
} tagST_DETACHED_START;

static void *RunDetachedWorker(void *pArg)
{
    tagST_DETACHED_START *pstStart = (tagST_DETACHED_START *)pArg;
    tagST_THREAD_PARAM stParam = pstStart->stParam;
    const LdcThreadRoutine pfnRoutine = pstStart->pfnRoutine;
    stParam.thread = pthread_self();
    free(pstStart);
    return pfnRoutine(&stParam);
}

int32_t create_thread_unlock(LdcThreadRoutine pfnRoutine, void *pArg, int32_t iNum)
{
    for (int32_t i = 0; i < iNum; i++) {
        tagST_DETACHED_START *pstStart = (tagST_DETACHED_START *)malloc(sizeof(*pstStart));
        if (pstStart == NULL) {
            LdcLog(LDC_LOG_ERROR, "%s", "Buffer malloc Failed!");
            return -1;
        }
        pstStart->pfnRoutine = pfnRoutine;
        pstStart->stParam.index = i;
        pstStart->stParam.arg = pArg;
        pthread_t thread;
        if (pthread_create(&thread, NULL, RunDetachedWorker, pstStart) != 0) {
            LdcLog(LDC_LOG_ERROR, "%s", "Thread Create Failed!");
            free(pstStart);
            return -1;
        }
    }
    return 0;
}

int32_t thread_wait(pthread_t thread)
{
    return pthread_join(thread, NULL);
}
