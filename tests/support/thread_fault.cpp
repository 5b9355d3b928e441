#include "support/thread_fault.h"

#include <errno.h>
#include <pthread.h>

#include <atomic>

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

static std::atomic<int> g_iFailAt{-1};
static std::atomic<int> g_iCalls{0};

void FailThreadCreateAt(int iCall)
{
    g_iCalls = 0;
    g_iFailAt = iCall;
}

extern "C" int __wrap_pthread_create(pthread_t *pThread, const pthread_attr_t *pAttr,
                                     void *(*pfnRoutine)(void *), void *pArg)
{
    const int iCall = g_iCalls++;
    if (g_iFailAt >= 0 && iCall == g_iFailAt) {
        g_iFailAt = -1;
        return EAGAIN;
    }
    return __real_pthread_create(pThread, pAttr, pfnRoutine, pArg);
}
