// Working memory and worker threads shared by every stage.
#ifndef LDC_RUNTIME_RUNTIME_H
#define LDC_RUNTIME_RUNTIME_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_THREAD_NUM 4  // the remap and the warp always fan out to four pinned workers

// One record per worker; a worker's start routine receives the address of its own record.
typedef struct tagST_THREAD_PARAM {
    pthread_t thread;
    int32_t index;
    void *arg;
} tagST_THREAD_PARAM;

typedef void *(*LdcThreadRoutine)(void *);

#ifdef __cplusplus
extern "C" {
#endif

LDC_EXPORT void *LDC_Malloc(size_t uSize);
LDC_EXPORT void LDC_Free(void *p);

// Allocates uSize + uAlign zero-filled bytes and returns the block (0 on failure). The caller
// uses block + *piOffset, the first uAlign-aligned byte after the block's start: the offset is
// always 1..uAlign, never 0.
LDC_EXPORT uintptr_t MemoMalloc(uint32_t uSize, uint32_t uAlign, int32_t *piOffset);
LDC_EXPORT void MemoFree(uintptr_t uBlock);

// Pins the calling thread to the processors of iMask (bit n = processor n); -1 changes nothing.
LDC_EXPORT int32_t set_thread_affinity_mask(int32_t iMask);

// A worker of the remap or the warp pins itself to the processor of the first free slot among
// the first iCount (at most LDC_THREAD_NUM) of piState, marking it taken, or stays unpinned when
// none is free. The slots are claimed without a lock, by design: two workers that race may take
// the same slot, which only puts them on one processor.
void ClaimAffinitySlot(int32_t *piState, const int32_t *piMask, int32_t iCount);

// Starts iNum workers over one argument and joins them all: 0, or -1 when they could not be
// started (those already started have been joined).
LDC_EXPORT int32_t create_thread_lock(LdcThreadRoutine pfnRoutine, void *pArg, int32_t iNum);
// Starts iNum workers without waiting for them.
LDC_EXPORT int32_t create_thread_unlock(LdcThreadRoutine pfnRoutine, void *pArg, int32_t iNum);
LDC_EXPORT int32_t thread_wait(pthread_t thread);

#ifdef __cplusplus
}
#endif

#endif
