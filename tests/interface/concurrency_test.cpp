// Instances on concurrent threads give the bytes of the same calls made one thread at a time.
// Each thread drives its own instance through Create, Process, Reset and Delete from a
// configuration whose reading depends on its declared encoding (GB2312, UTF-8 with a byte-order
// mark, ISO-8859-1): a parse that used another thread's lead-byte table would read another
// CorrectionDegree, and so another record and other frames.
#include <gtest/gtest.h>

#include <math.h>
#include <stddef.h>
#include <stdio.h>

#include <string>
#include <thread>
#include <vector>

#include "records/ldc_para.h"
#include "support/harness.h"
#include "vkt_zb_ldc.h"

namespace {

const int kW = 320;   // frames; Reset also visits the 640 x 480 profile
const int kH = 240;
// Under qemu (the ARM suites) and under ThreadSanitizer a cycle costs some twenty times more; a
// few cycles still run every kind of call beside those of the other threads.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LDC_TEST_SLOW_TARGET 1
#endif
#endif
#if defined(__arm__) || defined(__aarch64__) || defined(LDC_TEST_SLOW_TARGET)
const int kCycles = 6;
#else
const int kCycles = 40;
#endif
const int kResets = 6;   // per cycle, alternating 640 x 480 and 320 x 240; even, so frames stay 320 x 240

const char *const kConfigs[] = {"encoding_gb2312.xml", "encoding_utf8_bom.xml", "encoding_iso8859_1.xml"};
const float kDegrees[] = {0.5f, 0.25f, 0.25f};   // what each file says when read in its own encoding

// The record as configured, up to its path (then come the working-buffer pointers).
uint64_t RecordHash(void *pHandle)
{
    return ldc_test::Fnv1a(pHandle, offsetof(tagST_LDC_PARA, acCfgPath));
}

std::vector<uint8_t> TexturedFrame()
{
    std::vector<uint8_t> vFrame((size_t)kW * kH * 3 / 2);
    for (int y = 0; y < kH; y++) {
        for (int x = 0; x < kW; x++) {
            vFrame[(size_t)y * kW + x] = (uint8_t)(120 + 50 * sin(x * 0.061) * cos(y * 0.053) + 20 * sin((x + y) * 0.21));
        }
    }
    for (size_t i = (size_t)kW * kH; i < vFrame.size(); i++) {
        vFrame[i] = (uint8_t)(96 + (i * 7) % 64);
    }
    return vFrame;
}

struct Outputs {
    std::vector<uint64_t> vuHashes;   // records and frames, in call order
    std::vector<float> vfDegrees;     // CorrectionDegree after each Create
    int iBadCalls = 0;
};

// Cycles of Create, Process, kResets x Reset, Process, Delete on one configuration.
Outputs Cycles(const std::string &strConfig, const std::vector<uint8_t> &vIn)
{
    Outputs stRun;
    char acPath[256] = {0};
    snprintf(acPath, sizeof(acPath), "%s", strConfig.c_str());
    const ST_FACE_RECT stFace = {240, 90, 289, 149};
    std::vector<uint8_t> vSrc = vIn;
    std::vector<uint8_t> vOut(vIn.size());
    for (int c = 0; c < kCycles; c++) {
        ST_LDC_INPUT_PARA stInput = {kW, kH, acPath, c % 3};
        void *pHandle = NULL;
        if (IQV_LDC_Create(&pHandle, &stInput) != LDC_OK) {
            stRun.iBadCalls++;
            continue;
        }
        stRun.vfDegrees.push_back(((tagST_LDC_PARA *)pHandle)->fCorrectionDegree);
        stRun.vuHashes.push_back(RecordHash(pHandle));
        const ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &stFace};
        for (int r = 0; r <= kResets; r++) {
            if (r > 0) {
                ST_LDC_INPUT_PARA stSize = {r % 2 ? 640 : kW, r % 2 ? 480 : kH, NULL, c % 3};
                stRun.iBadCalls += IQV_LDC_Reset(pHandle, &stSize) != LDC_OK;
                stRun.vuHashes.push_back(RecordHash(pHandle));
            }
            if (r == 0 || r == kResets) {
                stRun.iBadCalls += IQV_LDC_Process(pHandle, &stInfo, vSrc.data(), vOut.data()) != LDC_OK;
                stRun.vuHashes.push_back(ldc_test::Fnv1a(vOut.data(), vOut.size()));
            }
        }
        stRun.iBadCalls += IQV_LDC_Delete(pHandle) != LDC_OK;
    }
    return stRun;
}

TEST(Concurrency, ThreeInstancesOnThreeThreadsMatchTheSoloRuns)
{
    const std::vector<uint8_t> vIn = TexturedFrame();
    Outputs astSolo[3], astConcurrent[3];
    {
        // The library logs every call; thousands of lines from three threads would bury the report.
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        for (int t = 0; t < 3; t++) {
            astSolo[t] = Cycles(std::string(LDC_TEST_CONFIG_DIR "/") + kConfigs[t], vIn);
        }
        std::vector<std::thread> vThreads;
        for (int t = 0; t < 3; t++) {
            vThreads.emplace_back([&, t] { astConcurrent[t] = Cycles(std::string(LDC_TEST_CONFIG_DIR "/") + kConfigs[t], vIn); });
        }
        for (std::thread &th : vThreads) {
            th.join();
        }
        (void)testing::internal::GetCapturedStdout();
        (void)testing::internal::GetCapturedStderr();
    }
    for (int t = 0; t < 3; t++) {
        EXPECT_EQ(0, astSolo[t].iBadCalls) << kConfigs[t];
        ASSERT_EQ(astSolo[t].vuHashes.size(), astConcurrent[t].vuHashes.size()) << kConfigs[t];
        int iDiffering = astConcurrent[t].iBadCalls;
        for (size_t i = 0; i < astSolo[t].vuHashes.size(); i++) {
            iDiffering += astSolo[t].vuHashes[i] != astConcurrent[t].vuHashes[i];
        }
        EXPECT_EQ(0, iDiffering) << kConfigs[t] << ": of " << astSolo[t].vuHashes.size() << " outputs";
        for (float fDegree : astSolo[t].vfDegrees) {
            EXPECT_EQ(kDegrees[t], fDegree) << kConfigs[t];
        }
    }
    // The frames depend on the reading: otherwise only the records could show a misread.
    EXPECT_NE(astSolo[0].vuHashes[1], astSolo[1].vuHashes[1]);
    EXPECT_EQ(astSolo[1].vuHashes, astSolo[2].vuHashes);
}

}  // namespace
