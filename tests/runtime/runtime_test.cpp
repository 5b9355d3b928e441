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

TEST(MemoMalloc, UsableAreaIsAlignedWithOneToAlignmentBytesOfSlack)
{
    // Varied sizes, kept alive together, so that the blocks land at varied addresses, until an
    // aligned block (and, with an alignment above malloc's own, an unaligned one) has turned up;
    // where they land depends on the heap, so the count is only capped.
    for (uint32_t uAlign : {1u, 2u, 8u, 16u, 64u, 256u}) {
        std::vector<uintptr_t> auBlocks;
        bool bSawAligned = false;
        bool bSawUnaligned = false;
        for (uint32_t i = 0; i < 20000 && !(bSawAligned && (uAlign < 64 || bSawUnaligned)); i++) {
            const uint32_t uSize = 1 + (i * 37) % 4000;
            int32_t iOff = -1;
            const uintptr_t uBlock = MemoMalloc(uSize, uAlign, &iOff);
            ASSERT_NE(0u, uBlock);
            auBlocks.push_back(uBlock);
            ASSERT_GE(iOff, 1);
            ASSERT_LE(iOff, (int32_t)uAlign);
            ASSERT_EQ(0u, (uBlock + (uint32_t)iOff) % uAlign);
            // An aligned block gives the whole alignment, never 0.
            ASSERT_EQ(uBlock % uAlign == 0, iOff == (int32_t)uAlign) << uBlock;
            (uBlock % uAlign == 0 ? bSawAligned : bSawUnaligned) = true;
        }
        EXPECT_TRUE(bSawAligned) << uAlign;
        if (uAlign >= 64) {
            EXPECT_TRUE(bSawUnaligned) << uAlign;
        }
        for (uintptr_t uBlock : auBlocks) {
            MemoFree(uBlock);
        }
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
    std::atomic<int> aiRuns[8];
    std::atomic<int> iWrongArg{0};
    std::atomic<int> iCount{0};
    pthread_t aThreads[8];
    WorkerLog()
    {
        for (auto &i : aiRuns) {
            i = 0;
        }
    }
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

std::string Lines(std::initializer_list<std::string> lines)
{
    std::string s;
    for (const std::string &l : lines) {
        s += l + "\n";
    }
    return s;
}

TEST(CreateThreadLock, NoWorkersForCountBelowOne)
{
    WorkerLog log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, create_thread_lock(SlowWorker, &log, 0));
    EXPECT_EQ(0, create_thread_lock(SlowWorker, &log, -3));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, log.iCount.load());
}

TEST(CreateThreadLock, EveryWorkerRunsOnceAndIsJoined)
{
    WorkerLog log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, create_thread_lock(SlowWorker, &log, 4));
    const std::string err = testing::internal::GetCapturedStderr();
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(1, log.aiRuns[i].load()) << i;
    }
    EXPECT_EQ(0, log.aiRuns[4].load());
    EXPECT_EQ(4, log.iCount.load());
    EXPECT_EQ(Lines({"I/ZB5QU_QVLDC: LDC Thread Create i = 0!", "I/ZB5QU_QVLDC: LDC Thread Create i = 1!",
                     "I/ZB5QU_QVLDC: LDC Thread Create i = 2!", "I/ZB5QU_QVLDC: LDC Thread Create i = 3!",
                     "I/ZB5QU_QVLDC: LDC Thread Exit i = 0!", "I/ZB5QU_QVLDC: LDC Thread Exit i = 1!",
                     "I/ZB5QU_QVLDC: LDC Thread Exit i = 2!", "I/ZB5QU_QVLDC: LDC Thread Exit i = 3!"}),
              err);
}

TEST(CreateThreadLock, CreationFailureJoinsTheWorkersAlreadyStarted)
{
    WorkerLog log;
    testing::internal::CaptureStderr();
    {
        ScopedThreadCreateFailure fail(2);
        EXPECT_EQ(-1, create_thread_lock(SlowWorker, &log, 4));
        // Read before anything else could end the workers: they must have ended already.
        EXPECT_EQ(2, log.iCount.load());
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1, log.aiRuns[0].load());
    EXPECT_EQ(1, log.aiRuns[1].load());
    EXPECT_EQ(0, log.aiRuns[2].load() + log.aiRuns[3].load());
    EXPECT_EQ(Lines({"I/ZB5QU_QVLDC: LDC Thread Create i = 0!", "I/ZB5QU_QVLDC: LDC Thread Create i = 1!",
                     "I/ZB5QU_QVLDC: LDC Thread Create i = 2!", "E/ZB5QU_QVLDC: Thread Create Failed i = 2!!!"}),
              err);

    WorkerLog first;
    testing::internal::CaptureStderr();
    {
        ScopedThreadCreateFailure fail(0);
        EXPECT_EQ(-1, create_thread_lock(SlowWorker, &first, 4));
    }
    EXPECT_EQ(Lines({"I/ZB5QU_QVLDC: LDC Thread Create i = 0!", "E/ZB5QU_QVLDC: Thread Create Failed i = 0!!!"}),
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, first.iCount.load());
}

TEST(CreateThreadUnlock, StartsWithoutWaitingAndReportsFailure)
{
    WorkerLog log;
    EXPECT_EQ(0, create_thread_unlock(SlowWorker, &log, 3));
    EXPECT_LT(log.iCount.load(), 3);   // each worker sleeps, the call does not
    for (int i = 0; i < 500 && log.iCount.load() < 3; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(3, log.iCount.load());
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(1, log.aiRuns[i].load());
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

// Runs fn on a thread of its own so that the test's threads keep their processors.
template <typename Fn>
void OnOwnThread(Fn fn)
{
    std::thread t(fn);
    t.join();
}

TEST(SetThreadAffinityMask, FailureWarnsOnStandardOutput)
{
    OnOwnThread([] {
        const int iTid = (int)syscall(SYS_gettid);
        fflush(stdout);
        testing::internal::CaptureStdout();
        set_thread_affinity_mask(-1);        // no change, no system call
        set_thread_affinity_mask(1 << 30);   // no such processor
        fflush(stdout);
        EXPECT_EQ("warning: setaffinity is failed.: mask=1073741824 err=22 tid = " + std::to_string(iTid) + " \n",
                  testing::internal::GetCapturedStdout());
    });
}

}  // namespace
