#include "support/malloc_fault.h"

#include <atomic>

extern "C" void *__real_malloc(size_t uSize);

static std::atomic<size_t> g_uFailSize{0};

void FailMallocOfSize(size_t uSize)
{
    g_uFailSize = uSize;
}

extern "C" void *__wrap_malloc(size_t uSize)
{
    size_t uArmed = uSize;
    if (uSize != 0 && g_uFailSize.compare_exchange_strong(uArmed, 0)) {
        return nullptr;
    }
    return __real_malloc(uSize);
}
