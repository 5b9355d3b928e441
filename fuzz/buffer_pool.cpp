// Every Create and every Reset zeroes a working buffer of at least 1.7 MB. Under ASan a block
// that large is mapped afresh and faulted in page by page, then unmapped on free: that cost more
// than the rest of a process_fuzz input. The fuzz targets link with --wrap=malloc,--wrap=free, and
// large blocks asked for inside a tagST_POOL_SCOPE come from a few kept blocks instead. ASan still
// checks them to the byte: the unused tail of a block is poisoned, and so is a whole block while
// it waits in the pool (waiting blocks are reused oldest first, so that a use after free meets
// poison for as long as possible).
#include "buffer_pool.h"

#include <stddef.h>
#include <stdint.h>

#include <mutex>

#include <sanitizer/asan_interface.h>

extern "C" void *__real_malloc(size_t uSize);
extern "C" void __real_free(void *p);

// Plain arrays only: frees reach this file before its constructors and after its destructors
// would run.
namespace {

constexpr size_t kPooledMin = (size_t)1 << 20;   // smaller blocks are cheap to allocate
constexpr size_t kBlockBytes = (size_t)4 << 20;  // a 640 x 480 instance needs 2.2 MB
constexpr int kKeptFree = 4;
constexpr int kMaxInUse = 64;

thread_local int g_iScopes = 0;
std::mutex g_mutex;
void *g_apFree[kKeptFree];   // oldest first
int g_iFree = 0;
// Blocks handed out, stored complemented: LeakSanitizer must not take this list for a reference
// and miss a working buffer that the library lost.
uintptr_t g_auInUse[kMaxInUse];
int g_iInUse = 0;

}  // namespace

tagST_POOL_SCOPE::tagST_POOL_SCOPE()
{
    g_iScopes++;
}

tagST_POOL_SCOPE::~tagST_POOL_SCOPE()
{
    g_iScopes--;
}

extern "C" void *__wrap_malloc(size_t uSize)
{
    if (g_iScopes == 0 || uSize < kPooledMin || uSize > kBlockBytes) {
        return __real_malloc(uSize);
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_iInUse == kMaxInUse) {
        return __real_malloc(uSize);
    }
    void *pBlock = NULL;
    if (g_iFree > 0) {
        pBlock = g_apFree[0];
        g_iFree--;
        for (int i = 0; i < g_iFree; i++) {
            g_apFree[i] = g_apFree[i + 1];
        }
    } else {
        pBlock = __real_malloc(kBlockBytes);
        if (pBlock == NULL) {
            return NULL;
        }
    }
    ASAN_UNPOISON_MEMORY_REGION(pBlock, uSize);
    ASAN_POISON_MEMORY_REGION((uint8_t *)pBlock + uSize, kBlockBytes - uSize);
    g_auInUse[g_iInUse++] = ~(uintptr_t)pBlock;
    return pBlock;
}

extern "C" void __wrap_free(void *p)
{
    if (p != NULL) {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (int i = 0; i < g_iInUse; i++) {
            if (g_auInUse[i] != ~(uintptr_t)p) {
                continue;
            }
            g_auInUse[i] = g_auInUse[--g_iInUse];
            if (g_iFree < kKeptFree) {
                ASAN_POISON_MEMORY_REGION(p, kBlockBytes);
                g_apFree[g_iFree++] = p;
            } else {
                ASAN_UNPOISON_MEMORY_REGION(p, kBlockBytes);
                __real_free(p);
            }
            return;
        }
    }
    __real_free(p);
}
