#include "runtime/runtime.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/thread_fault.h"

namespace {

// Varied sizes kept alive together land at varied addresses: whatever the address, the usable
// area is aligned 1 to alignment bytes in, an aligned block giving the whole alignment, never 0.
TEST(MemoMalloc, UsableAreaIsAlignedWithOneToAlignmentBytesOfSlack)
{
    for (uint32_t uAlign : {1u, 2u, 8u, 16u, 64u, 256u}) {
        std::vector<uintptr_t> auBlocks;
        for (uint32_t i = 0; i < 2000; i++) {
            int32_t iOff = -1;
            const uintptr_t uBlock = MemoMalloc(1 + (i * 37) % 4000, uAlign, &iOff);
            ASSERT_NE(0u, uBlock);
            auBlocks.push_back(uBlock);
            ASSERT_EQ((uintptr_t)uAlign - uBlock % uAlign, (uintptr_t)iOff) << uAlign;
        }
        std::for_each(auBlocks.begin(), auBlocks.end(), MemoFree);
    }
}

TEST(MemoMalloc, ReusedMemoryIsZeroFilledAndSaturationIsRefused)
{
    // A freed block full of 0xFF is what malloc most likely hands out next.
    void *p = malloc(1000 + 16);
    memset(p, 0xFF, 1000 + 16);
    free(p);
    int32_t iOff = 0;
    const uintptr_t uBlock = MemoMalloc(1000, 16, &iOff);
    ASSERT_NE(0u, uBlock);
    const uint8_t *puc = reinterpret_cast<const uint8_t *>(uBlock);
    EXPECT_EQ(1000 + 16, std::count(puc, puc + 1000 + 16, 0));
    MemoFree(uBlock);
    iOff = 123;
    EXPECT_EQ(0u, MemoMalloc(0xFFFFFFF8u, 16, &iOff));
    EXPECT_EQ(0, iOff);
    MemoFree(0);   // ignored
}

// Workers record what they saw; a short sleep makes "joined before return" observable.
struct WorkerLog {
    std::atomic<int> aiRuns[8] = {};
    std::atomic<int> iCount{0};
    pthread_t aThreads[8];
};

void *SlowWorker(void *pParam)
{
    const tagST_THREAD_PARAM *pst = static_cast<const tagST_THREAD_PARAM *>(pParam);
    WorkerLog *pLog = static_cast<WorkerLog *>(pst->arg);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pLog->aThreads[pst->index] = pst->thread;
    pLog->aiRuns[pst->index]++;
    pLog->iCount++;
    return NULL;
}

std::vector<int> Runs(const WorkerLog &log)
{
    std::vector<int> v;
    for (const std::atomic<int> &i : log.aiRuns) {
        v.push_back(i.load());
    }
    return v;
}

std::string Lines(const char *pcPrefix, const char *pcFormat, int iFrom, int iTo)
{
    std::string s;
    for (int i = iFrom; i < iTo; i++) {
        char ac[96];
        snprintf(ac, sizeof(ac), pcFormat, i);
        s += std::string(pcPrefix) + ac + "\n";
    }
    return s;
}

const char kInfo[] = "I/ZB5QU_QVLDC: ";
const char kError[] = "E/ZB5QU_QVLDC: ";

// Every worker runs once and is joined before the call returns; a failed creation joins the
// workers already started. Counts below one start nothing.
TEST(CreateThreadLock, WorkersRunOnceAndAreJoined)
{
    const struct {
        int iCount, iFailAt;
        std::vector<int> viRuns;
        std::string strLog;
    } astCases[] = {
        {0, -1, {0, 0, 0, 0, 0, 0, 0, 0}, ""},
        {-3, -1, {0, 0, 0, 0, 0, 0, 0, 0}, ""},
        {4, -1, {1, 1, 1, 1, 0, 0, 0, 0},
         Lines(kInfo, "LDC Thread Create i = %d!", 0, 4) + Lines(kInfo, "LDC Thread Exit i = %d!", 0, 4)},
        {4, 2, {1, 1, 0, 0, 0, 0, 0, 0},
         Lines(kInfo, "LDC Thread Create i = %d!", 0, 3) + Lines(kError, "Thread Create Failed i = %d!!!", 2, 3)},
        {4, 0, {0, 0, 0, 0, 0, 0, 0, 0},
         Lines(kInfo, "LDC Thread Create i = %d!", 0, 1) + Lines(kError, "Thread Create Failed i = %d!!!", 0, 1)},
    };
    for (const auto &c : astCases) {
        WorkerLog log;
        testing::internal::CaptureStderr();
        {
            ScopedThreadCreateFailure fail(c.iFailAt);
            EXPECT_EQ(c.iFailAt < 0 ? 0 : -1, create_thread_lock(SlowWorker, &log, c.iCount));
            // Read before anything else could end the workers: they must have ended already.
            EXPECT_EQ(c.viRuns, Runs(log)) << c.iCount << " workers, failing at " << c.iFailAt;
        }
        EXPECT_EQ(c.strLog, testing::internal::GetCapturedStderr());
    }
}

TEST(CreateThreadUnlock, StartsWithoutWaitingAndReportsFailure)
{
    WorkerLog log;
    EXPECT_EQ(0, create_thread_unlock(SlowWorker, &log, 3));
    EXPECT_LT(log.iCount.load(), 3);   // each worker sleeps, the call does not
    for (int i = 0; i < 500 && log.iCount.load() < 3; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ((std::vector<int>{1, 1, 1, 0, 0, 0, 0, 0}), Runs(log));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(0, thread_wait(log.aThreads[i]));   // each worker knows its own id
    }
    WorkerLog failed;
    testing::internal::CaptureStderr();
    {
        ScopedThreadCreateFailure fail(0);
        EXPECT_EQ(-1, create_thread_unlock(SlowWorker, &failed, 2));
    }
    EXPECT_EQ("E/ZB5QU_QVLDC: Thread Create Failed!\n", testing::internal::GetCapturedStderr());
}

TEST(SetThreadAffinityMask, FailureWarnsOnStandardOutput)
{
    // On a thread of its own, so that the test's threads keep their processors.
    std::thread([] {
        const int iTid = (int)syscall(SYS_gettid);
        fflush(stdout);
        testing::internal::CaptureStdout();
        set_thread_affinity_mask(-1);        // no change, no system call
        set_thread_affinity_mask(1 << 30);   // no such processor
        fflush(stdout);
        EXPECT_EQ("warning: setaffinity is failed.: mask=1073741824 err=22 tid = " + std::to_string(iTid) + " \n",
                  testing::internal::GetCapturedStdout());
    }).join();
}

}  // namespace
